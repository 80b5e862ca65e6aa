#include "Parts.h"

#include <climits>
#include <cmath>

#include "../../contracts/M2DSliceUtilities.h"
#include "../../contracts/StringConversion.h"
#include "Tool.h"

namespace sliceio {

M2DSliceXYArea PartSource::_OnGetXYArea() const
{
    M2DSliceXYArea area;
    for (const auto& slice : _slices)
        area.Extend(slice->GetXYArea(true));
    return area;
}

namespace {

std::int32_t PartOf(const M2DSliceVectorTypeInfo& label) { return label.GetIndex(e2DSliceVectorTypeIndex_Part); }

// The slice of part in the layer being split, made on first use.
class LayerSplit
{
public:
    explicit LayerSplit(std::int32_t z) : _z(z) {}
    M2DSlice& For(std::int32_t part)
    {
        auto& slot = _slices[part];
        if (!slot)
        {
            slot = std::make_shared<M2DSlice>();
            slot->SetZ(_z);
        }
        return *slot;
    }
    std::map<std::int32_t, std::shared_ptr<M2DSlice>>& Slices() { return _slices; }

private:
    std::int32_t _z;
    std::map<std::int32_t, std::shared_ptr<M2DSlice>> _slices;
};

void CopyContour(const M2DSliceContour& from, M2DSliceContourLayer& to, bool stripRepeat, bool repeatLeads,
                 SplitCounts& counts)
{
    M2DSliceContour* contour = to.AddContourAtEnd();
    contour->CopyAttributesFrom(from);
    contour->SetIsClosed(from.GetIsClosed());
    contour->SetIsOuterContour(from.GetIsOuterContour());
    for (const auto& point : from)
        contour->InsertAtEnd(point.x, point.y, nullptr);
    if (stripRepeat && contour->GetIsClosed() && contour->GetNumPoints() > 2 &&
        *contour->GetFirstPoint() == *contour->GetLastPoint())
    {
        contour->RemovePoint(repeatLeads ? contour->GetFirstPoint() : contour->GetLastPoint());
        ++counts.ClosingRepeatsStripped;
    }
}

} // namespace

std::vector<std::unique_ptr<PartSource>> SplitIntoParts(const ISource2DSlices& source,
                                                        const std::map<std::int32_t, nlohmann::json>& parts,
                                                        const SplitOptions& options, SplitCounts& counts)
{
    const std::int32_t thickness = source.GetSliceThickness();
    std::map<std::int32_t, std::unique_ptr<PartSource>> byPart;
    std::vector<std::int32_t> heights; // of the layers kept, in order
    std::vector<std::map<std::int32_t, std::shared_ptr<M2DSlice>>> layers;

    const std::uint64_t count = source.GetNumSlices();
    for (std::uint64_t i = options.FirstLayer; i < count && i <= options.LastLayer; ++i)
    {
        const std::shared_ptr<const M2DSlice> slice = source.GetSlice(i);
        const std::int32_t z = slice ? slice->GetZ() : source.GetSliceZPosition(i);
        LayerSplit split(z);
        if (slice)
        {
            M2DSliceContourLayer contours; // the contours kept, before they go to their parts
            for (const M2DSliceContour& contour : *slice->GetSliceBorder())
            {
                if (options.DropContours)
                {
                    ++counts.ContoursDropped;
                    continue;
                }
                CopyContour(contour, contours, options.StripClosingRepeat, options.RepeatLeads, counts);
            }
            for (const M2DSliceContour& contour : contours)
            {
                M2DSlice& part = split.For(PartOf(contour.GetTypeInfo()));
                if (options.ContoursAsVectors)
                {
                    if (contour.GetNumPoints() >= 2)
                    {
                        M2DSliceVectorBlock* block = part.GetVectorsUpdate()->AddVectorBlockAtEnd();
                        block->SetTypeInfo(contour.GetTypeInfo());
                        // A contour of no kind (from a format without labels) is an outline.
                        if (block->GetTypeInfo().GetType() == e2DSliceVectorType_None)
                            block->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Border);
                        M2DSliceUtilities::ConvertContourToVectors(contour, *block);
                    }
                    ++counts.ContoursTurnedToVectors;
                }
                else
                    CopyContour(contour, *part.GetSliceBorderUpdate(), false, false, counts);
            }
            for (std::size_t k = 0; k < slice->GetVectors()->GetNumVectorBlocks(); ++k)
            {
                const M2DSliceVectorBlock* block = slice->GetVectors()->GetVectorBlock(k);
                M2DSliceVectorBlock* copy = split.For(PartOf(block->GetTypeInfo())).GetVectorsUpdate()->AddVectorBlockAtEnd();
                *copy = *block;
                // Vectors of no kind (from a format without labels) are hatches: writers that
                // keep only the kinds they know would drop them otherwise.
                if (copy->GetTypeInfo().GetType() == e2DSliceVectorType_None)
                    copy->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Hatch);
            }
            for (std::size_t k = 0; k < slice->GetPoints()->GetNumPointBlocks(); ++k)
            {
                const M2DSlicePointBlock* block = slice->GetPoints()->GetPointBlock(k);
                *split.For(PartOf(block->GetTypeInfo())).GetPointsUpdate()->AddPointBlockAtEnd() = *block;
            }
        }
        bool empty = true;
        for (const auto& entry : split.Slices())
            empty = empty && entry.second->IsEmpty();
        if (empty && options.DropEmptyLayers)
        {
            ++counts.EmptyLayersDropped;
            continue;
        }
        for (const auto& entry : split.Slices())
            if (!byPart.count(entry.first))
                byPart[entry.first] = std::make_unique<PartSource>(entry.first, thickness);
        heights.push_back(z);
        layers.push_back(std::move(split.Slices()));
    }
    if (byPart.empty())
        byPart[0] = std::make_unique<PartSource>(0, thickness);

    // Every part holds every layer, empty where it has nothing.
    for (std::size_t i = 0; i < layers.size(); ++i)
        for (auto& [part, partSource] : byPart)
        {
            auto found = layers[i].find(part);
            std::shared_ptr<M2DSlice> slice = found != layers[i].end() ? found->second : std::make_shared<M2DSlice>();
            slice->SetZ(heights[i]);
            partSource->Slices().push_back(std::move(slice));
        }
    counts.Layers = layers.size();

    std::vector<std::unique_ptr<PartSource>> result;
    for (auto& [part, partSource] : byPart)
    {
        PersistentProperties& properties = partSource->Properties();
        properties.SetValue(L"PartID", part);
        properties.SetValue(L"PartName", L"part" + std::to_wstring(static_cast<std::int64_t>(part) + 1));
        const auto declared = parts.find(part);
        if (declared != parts.end())
            SetProperties(properties, declared->second, "part " + std::to_string(part));
        result.push_back(std::move(partSource));
    }
    return result;
}

void SetProperties(PersistentProperties& properties, const nlohmann::json& values, const std::string& where)
{
    if (!values.is_object())
        throw Failure(where + ": expected an object of properties");
    for (const auto& [key, value] : values.items())
    {
        const std::wstring name = StringConversion::Utf8ToNative(key);
        if (value.is_boolean())
            properties.SetValue(name, value.get<bool>());
        else if (value.is_number_integer() && value.get<std::int64_t>() >= INT32_MIN &&
                 value.get<std::int64_t>() <= INT32_MAX)
            properties.SetValue(name, static_cast<std::int32_t>(value.get<std::int64_t>()));
        else if (value.is_number() && std::isfinite(value.get<double>()))
            properties.SetValue(name, value.get<double>());
        else if (value.is_string())
            properties.SetValue(name, StringConversion::Utf8ToNative(value.get<std::string>()));
        else
            throw Failure(where + ": \"" + key + "\" must be a boolean, a number or a text, not " + value.type_name());
    }
}

} // namespace sliceio
