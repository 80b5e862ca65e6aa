#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"

// SLI files of the "!SLICE= -VER 3.822" kind: a text header, then per layer sections of
// signed 16-bit vectors in steps of the inverse resolution. The layer thickness is written
// blank and filled in by closing, which opens the file again. No append mode.
class SLICEIO_API M2DSliceIO_sli_3ds : public I2DSliceIO
{
public:
    M2DSliceIO_sli_3ds();
    ~M2DSliceIO_sli_3ds() override;

    // The section code a vector block of this kind goes to, 1 (contour data) for kinds the
    // format has no code for; and the kind a section code reads back as, false for the codes
    // that are invalid (0, 4, 10, 13 and above 14). Code 1 reads as contours.
    static std::uint8_t SectionCode(unsigned short sliType);
    static bool SectionKind(std::uint8_t code, e2DSliceVectorType& kind);

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override;
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* target) override;

    bool _FetchLayer(ILayerInput& input, bool vectors);

private:
    std::vector<char> _out; // records on their way to the file
    // Reads the number behind a header key within the first limit bytes.
    bool _ReadHeaderValue(const char* key, std::int64_t limit, unsigned short& value);

    char _text[20] = {};
    std::vector<std::int16_t> _raw; // a section's values
    std::vector<M2DSliceVector> _vectors;
};
