// MTT layer files: what differs from the SLM file they share their frame and layers with.
#include "M2DSliceIO_mtt.h"

#include <algorithm>
#include <limits>

#include "../../contracts/M2DSliceUtilities.h"
#include "../../contracts/MUnit.h"

using namespace Sectioned;

namespace {

constexpr const char* kMttFileId = "MTT-Layerfile";

// A slice of a source that holds anything at all.
bool HasContent(const ISource2DSlices& source, std::uint64_t i)
{
    const std::shared_ptr<const M2DSlice> slice = source.GetSlice(i);
    return slice && !slice->IsEmpty();
}

// Support styles (volume and wall) carry flag 1.
bool IsSupportStyle(std::int64_t id) { return id == 16 || id == 17 || id == 19; }

} // namespace

M2DSliceIO_mtt::M2DSliceIO_mtt(bool compressed) : M2DSliceIO_sectioned(compressed)
{
    _namedStyles = false;
    _secondPass = false;
    _extraStyleBlocks = false;
    _truncateCoordinates = true;
}

// ------------------------------------------------------------------ writing

void M2DSliceIO_mtt::_WriteHeaderFrame(SectionBuffer& out, std::size_t& seekPointerAt) const
{
    // The file id is the MTT one whatever the file-type code; version 1.0.
    out.Narrow(Id_FileId, kMttFileId);
    out.Head(Id_FileVersion, 2);
    out.LF(1);
    out.LF(0);
    out.Integer(Id_ZUnit, static_cast<std::uint64_t>(MUnit::GetIE()));
    out.U8(Id_SeekTablePointer);
    out.U8(kFixedLFSize);
    seekPointerAt = out.Size();
    out.LF(0, true);
}

void M2DSliceIO_mtt::_WriteBuildStyleSection(const BuildStyle& style, SectionBuffer& out)
{
    const auto id = static_cast<std::uint64_t>(style.BuildStyleId);
    const auto distance = static_cast<std::uint64_t>(style.PointDistance);
    const auto exposure = static_cast<std::uint64_t>(style.ExposureTime);
    out.Head(Id_BuildStyle, IntegerSectionSize(Id_BuildStyleId, id) + 3 * SectionSize(Id_LaserSpeed, 4) +
                                IntegerSectionSize(Id_PointDistance, distance) +
                                IntegerSectionSize(Id_ExposureTime, exposure));
    out.Integer(Id_BuildStyleId, id);
    out.Float(Id_LaserSpeed, style.LaserSpeed);
    out.Float(Id_LaserPower, style.LaserPower);
    out.Float(Id_LaserFocus, style.LaserFocus);
    out.Integer(Id_PointDistance, distance);
    out.Integer(Id_ExposureTime, exposure);
}

bool M2DSliceIO_mtt::_WriteModelSection(const ModelInfoMap& model, SectionBuffer& out) const
{
    const std::size_t at = out.OpenFixed(Id_Model);
    out.Integer(Id_ModelId, static_cast<std::uint64_t>(static_cast<std::int64_t>(model.ModelId)));
    // The name ends at its first NUL, which is written.
    out.Wide(Id_ModelName, model.ModelName.substr(0, model.ModelName.find(L'\0')));
    out.Integer(Id_ModelTopSlice, static_cast<std::uint64_t>(static_cast<std::int64_t>(model.ModelTopSlice)));
    for (const auto& style : model.BuildStyles)
        _WriteBuildStyleSection(*style, out);
    out.CloseFixed(at);
    return out.Ok();
}

std::int32_t M2DSliceIO_mtt::_CalcModelTopSlice(const std::vector<const ISource2DSlices*>& sources,
                                                std::int32_t modelId) const
{
    static const PersistentProperties kNone;
    const ISource2DSlices* part = nullptr;
    std::vector<const ISource2DSlices*> supports;
    for (const ISource2DSlices* source : sources)
    {
        if (!source)
            continue;
        const PersistentProperties* properties = source->GetProperties();
        const PersistentProperties& p = properties ? *properties : kNone;
        std::int32_t id = 0;
        bool support = false, volume = false;
        if (!_SourceValue(p, L"PartID", id) || id != modelId)
            continue;
        _SourceValue(p, L"IsSupport", support);
        _SourceValue(p, L"IsVolumeSupport", volume);
        if (support || volume)
            supports.push_back(source);
        else if (!part)
            part = source;
    }
    if (!part)
        return 0;

    const std::uint64_t n = part->GetNumSlices();
    std::uint64_t count = n;
    for (const ISource2DSlices* support : supports)
    {
        const std::uint64_t m = support->GetNumSlices();
        if (n == 0)
        {
            // A part without slices has no heights to compare with: every non-empty support
            // slice counts.
            for (std::uint64_t i = 0; i < m; ++i)
                count += HasContent(*support, i) ? 1 : 0;
            continue;
        }
        const int first = part->GetSliceZPosition(0), last = part->GetSliceZPosition(n - 1);
        std::uint64_t below = 0;
        for (; below < m && support->GetSliceZPosition(below) < first; ++below)
            count += HasContent(*support, below) ? 1 : 0;
        // Above the part's top, walking down from the support's last slice.
        for (std::uint64_t i = m; i > below && support->GetSliceZPosition(i - 1) > last; --i)
            count += HasContent(*support, i - 1) ? 1 : 0;
    }
    return static_cast<std::int32_t>(std::min<std::uint64_t>(count, std::numeric_limits<std::int32_t>::max()));
}

void M2DSliceIO_mtt::_FinishModels(const std::vector<const ISource2DSlices*>& sources)
{
    for (const auto& model : _models)
        model->ModelTopSlice = _CalcModelTopSlice(sources, model->ModelId);
}

void M2DSliceIO_mtt::_CollectExtracts(const std::vector<const M2DSlice*>& slices,
                                      std::vector<VectorBlockExtract>& extracts)
{
    // Each slice in turn, its contours (when written) ahead of its blocks.
    if (_writeOrder != WriteOrderSortedRegions)
    {
        for (const M2DSlice* slice : slices)
        {
            if (_contoursAsPolygons)
                _ExtractContours(*slice, extracts);
            _ExtractBlocks(*slice, extracts);
        }
        return;
    }
    for (const M2DSlice* slice : slices)
        if (_contoursAsPolygons)
            _ExtractContours(*slice, extracts);
    // The blocks of the layer sorted region by region in the kinds of the build order; with
    // supports first, the support blocks (style 19 or flag 1) lead, in the sorted order.
    std::vector<std::shared_ptr<const M2DSlice>> shared;
    for (const M2DSlice* slice : slices)
        shared.emplace_back(slice, [](const M2DSlice*) {});
    std::vector<e2DSliceVectorType> kinds;
    for (const M2DSliceVectorTypeInfo& order : _buildOrder)
        if (std::find(kinds.begin(), kinds.end(), order.GetType()) == kinds.end())
            kinds.push_back(order.GetType());
    M2DSliceOperatorSortRegions sorter;
    sorter.SetSortingOrder(kinds, true);
    std::vector<const M2DSliceVectorBlock*> blocks;
    sorter.Sort(shared, blocks);
    if (_supportsFirst)
        std::stable_partition(blocks.begin(), blocks.end(), [](const M2DSliceVectorBlock* b) {
            return b->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter) == 19 || b->GetTypeInfo().GetFlag(1);
        });
    for (const M2DSliceVectorBlock* block : blocks)
        _ExtractBlock(*block, extracts);
}

bool M2DSliceIO_mtt::_MatchesBuildOrder(const M2DSliceVectorTypeInfo& order, const M2DSliceVectorTypeInfo& block) const
{
    // The caller has checked that the types are equal.
    if (order.GetFlag(1))
        return block.GetFlag(1);
    const bool zero = order.GetIndex(6) == 0 && block.GetIndex(6) == 0;
    const bool unset = order.GetIndex(6) == -1 && block.GetIndex(6) == -1;
    auto plain = [](const M2DSliceVectorTypeInfo& i) { return !i.GetFlag(1) && !i.GetFlag(2) && !i.GetFlag(3); };
    return order == block || (order.GetFlag(3) && block.GetFlag(3)) || (order.GetFlag(2) && block.GetFlag(2)) || zero ||
           (plain(order) && plain(block) && unset);
}

// ------------------------------------------------------------------ reading

e2DSliceVectorType M2DSliceIO_mtt::_GetVectorTypeFromBuildStyleId(std::int64_t id)
{
    switch (id)
    {
    case 1: case 12: case 42: return static_cast<e2DSliceVectorType>(9);
    case 2: case 10: case 13: case 20: case 22: case 78: return static_cast<e2DSliceVectorType>(7);
    case 3: case 16: case 19: case 72: return static_cast<e2DSliceVectorType>(1);
    case 4: case 6: case 74: case 75: case 76: return static_cast<e2DSliceVectorType>(2);
    case 21: case 77: return static_cast<e2DSliceVectorType>(10);
    case 24: return static_cast<e2DSliceVectorType>(8);
    case 71: case 73: return static_cast<e2DSliceVectorType>(4);
    default: return static_cast<e2DSliceVectorType>(6);
    }
}

M2DSliceVectorTypeInfo M2DSliceIO_mtt::_BlockLabel(const M2DMTTVectorBlock& block) const
{
    M2DSliceVectorTypeInfo label(_GetVectorTypeFromBuildStyleId(block.StyleId));
    label.SetIndex(e2DSliceVectorTypeIndex_Parameter, static_cast<std::int32_t>(block.StyleId));
    label.SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int32_t>(block.ModelId));
    label.SetIndex(1, block.PropertyIndex);
    if (IsSupportStyle(block.StyleId))
        label.SetFlag(1, true);
    return label;
}
