#pragma once
// The build as the tool hands it to a writer: one source per part, each with the part's
// properties ("PartID", "PartName", and whatever the input or the settings file adds), and
// every source holding a slice for every layer, so that the whole-file driver joins them
// layer by layer and a multi-part format writes one part per input part.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../../contracts/M2DSliceSource.h"
#include "../../contracts/PersistentProperties.h"

namespace sliceio {

class PartSource : public ISource2DSlices
{
public:
    PartSource(std::int32_t part, std::int32_t thickness) : _part(part), _thickness(thickness) {}

    std::int32_t GetPart() const { return _part; }
    PersistentProperties& Properties() { return _properties; }
    std::vector<std::shared_ptr<M2DSlice>>& Slices() { return _slices; }
    const std::vector<std::shared_ptr<M2DSlice>>& Slices() const { return _slices; }

protected:
    std::int32_t _OnGetSliceThickness() const override { return _thickness; }
    std::uint64_t _OnGetNumSlices() const override { return _slices.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override { return M2DSliceZArea(_slices[i]->GetZ()); }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override { return _slices[i]->GetXYArea(true); }
    M2DSliceXYArea _OnGetXYArea() const override;
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override { return _slices[i]; }
    const PersistentProperties* _OnGetProperties() const override { return &_properties; }

private:
    std::int32_t _part;
    std::int32_t _thickness;
    PersistentProperties _properties;
    std::vector<std::shared_ptr<M2DSlice>> _slices;
};

// How the layers are taken over.
struct SplitOptions
{
    std::uint64_t FirstLayer = 0;          // layers numbered from 0, both ends included
    std::uint64_t LastLayer = UINT64_MAX;
    bool DropEmptyLayers = false;          // layers without any geometry are left out
    bool ContoursAsVectors = false;        // contours become vector blocks of their label
    bool DropContours = false;             // contours are left out (wins over the above)
    // A closed contour whose last point repeats its first loses the repeat: writers close
    // contours themselves, and the repeat would be doubled on every conversion.
    bool StripClosingRepeat = true;
    bool RepeatLeads = false; // the repeat is the contour's first point, not its last
};

// What the split did, for the closing line.
struct SplitCounts
{
    std::uint64_t Layers = 0;
    std::uint64_t EmptyLayersDropped = 0;
    std::uint64_t ClosingRepeatsStripped = 0;
    std::uint64_t ContoursTurnedToVectors = 0;
    std::uint64_t ContoursDropped = 0;
};

// Splits the layers of source into one source per part index (the label's part index,
// e2DSliceVectorTypeIndex_Part), in rising order of the index. parts gives, per part
// index, properties the input declares ("PartName", "IsSupport", ...); a part without a
// name is called "part<index + 1>", as CLI labels name them. Each source gets "PartID" (the index) and "PartName". A
// build without geometry still gives one (empty) part, so that its layers are written.
std::vector<std::unique_ptr<PartSource>> SplitIntoParts(const ISource2DSlices& source,
                                                        const std::map<std::int32_t, nlohmann::json>& parts,
                                                        const SplitOptions& options, SplitCounts& counts);

// Sets the properties of a JSON object on a property list: booleans as bool, whole numbers
// as 32-bit integers, other numbers as double, strings as wide strings. Throws a Failure
// naming the key (prefixed by where) for any other value.
void SetProperties(PersistentProperties& properties, const nlohmann::json& values, const std::string& where);

} // namespace sliceio
