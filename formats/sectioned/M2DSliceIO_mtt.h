#pragma once
// MTT layer files, file-type code 51: the older, smaller sister of the SLM file. The same LF
// numbers, section ids, seek table and checksum, with a shorter header (no GUID, file history
// or material names), models without strategy sections, build styles without laser index and
// name, polygon blocks always with their ids in section 18, one layer section per height, and
// coordinates that read back truncated toward zero.
#include "M2DSliceIO_slm.h"

class SLICEIO_API M2DSliceIO_mtt : public M2DSliceIO_sectioned
{
public:
    // A build style as a block refers to it on reading: an SLM property record whose name
    // stays empty.
    using mtt_build_properties = SlmBuildProperties;

    // compressed: written as a compressed build file (the factory never asks for it); reading
    // takes either form.
    explicit M2DSliceIO_mtt(bool compressed);

protected:
    void _WriteHeaderFrame(Sectioned::SectionBuffer& out, std::size_t& seekPointerAt) const override;
    bool _WriteModelSection(const ModelInfoMap& model, Sectioned::SectionBuffer& out) const override;
    void _FinishModels(const std::vector<const ISource2DSlices*>& sources) override;
    void _CollectExtracts(const std::vector<const M2DSlice*>& slices, std::vector<VectorBlockExtract>& extracts) override;
    bool _MatchesBuildOrder(const M2DSliceVectorTypeInfo& order, const M2DSliceVectorTypeInfo& block) const override;
    M2DSliceVectorTypeInfo _BlockLabel(const M2DMTTVectorBlock& block) const override;

    // The top slice of a model: the slices of its part, and the non-empty slices of its
    // supports below the part's first and above its last height. 0 without a part.
    std::int32_t _CalcModelTopSlice(const std::vector<const ISource2DSlices*>& sources, std::int32_t modelId) const;
    static void _WriteBuildStyleSection(const BuildStyle& style, Sectioned::SectionBuffer& out);
    static e2DSliceVectorType _GetVectorTypeFromBuildStyleId(std::int64_t id);
};
