#pragma once
#include <cstdint>
#include <map>
#include <string>

#include "../../framework/Export.h"

// The scan values a ZFF writer gives each contour and vector block: attribute sections keyed
// by a 16-bit identifier, each an integer or a float.
class SLICEIO_API ZffVectorAttributes
{
public:
    struct ZffVectorAttribute
    {
        ZffVectorAttribute() = default;
        ZffVectorAttribute(bool isInteger, float floatValue, std::int32_t intValue)
            : IsInteger(isInteger), FloatValue(floatValue), IntValue(intValue)
        {
        }
        bool IsInteger = true;
        float FloatValue = 0.0f;
        std::int32_t IntValue = 0;
    };

    // Identifiers of the attributes a ZFF file names in its header.
    enum : std::uint16_t
    {
        LaserPower = 6,
        LaserSpeed = 7,
        LaserFocus = 8,
        PointDistance = 9,
        ExposureTime = 10,
        PartID = 11,
        ExtraValue = 33,
        LaserDiameter = 34,
    };

    // Power, speed, focus and part identifier, all integers of value 0.
    ZffVectorAttributes();

    void SetLaserPower(float value) { AddAttribute(LaserPower, value); }
    void SetLaserSpeed(float value) { AddAttribute(LaserSpeed, value); }
    void SetLaserFocus(float value) { AddAttribute(LaserFocus, value); }
    void SetPartID(std::int32_t id) { AddAttribute(PartID, id); }
    void AddAttribute(std::uint16_t id, std::int32_t value) { _attributes[id] = ZffVectorAttribute(true, 0.0f, value); }
    void AddAttribute(std::uint16_t id, float value) { _attributes[id] = ZffVectorAttribute(false, value, 0); }
    // Each attribute takes a 6-byte section head and a 4-byte value in a file.
    std::int64_t GetAttributeSizeInFile() const { return 10 * static_cast<std::int64_t>(_attributes.size()); }

    const std::map<std::uint16_t, ZffVectorAttribute>& GetAttributes() const { return _attributes; }
    std::size_t GetNumAttributes() const { return _attributes.size(); }

private:
    std::map<std::uint16_t, ZffVectorAttribute> _attributes; // by ascending identifier
};

// The attributes of one part, by vector kind (a label's parameter index, or its base kind).
using ZffVectorAttributeSet = std::map<std::int16_t, ZffVectorAttributes>;

// What a caller tells a ZFF writer beyond the geometry: the header's texts and layer
// thickness, the attributes of each part's vector kinds, and extra attribute names for the
// header.
class SLICEIO_API ZffMetaData
{
public:
    void SetLayerThickness(std::int32_t thickness) { _layerThickness = thickness; }
    std::int32_t GetLayerThickness() const { return _layerThickness; }
    void SetOrigin(const std::string& origin) { _origin = origin; }
    std::string GetOrigin() const { return _origin; }
    void SetMaterial(const std::string& material) { _material = material; }
    std::string GetMaterial() const { return _material; }

    // A copy of the part's set; an unknown part is added with an empty set.
    ZffVectorAttributeSet GetAttributeSet(std::uint64_t part) { return _attributeSets[part]; }
    void SetAttributeSet(std::uint64_t part, const ZffVectorAttributeSet& set) { _attributeSets[part] = set; }
    // A copy of the attributes of a part's kind; unknown ones are added with the defaults.
    ZffVectorAttributes GetAttributes(std::uint64_t part, std::int16_t key) { return _attributeSets[part][key]; }
    void SetAttributes(std::uint64_t part, std::int16_t key, const ZffVectorAttributes& attributes)
    {
        _attributeSets[part][key] = attributes;
    }
    std::int64_t GetAttributeSizeInFile(std::uint64_t part, std::int16_t key)
    {
        return _attributeSets[part][key].GetAttributeSizeInFile();
    }

    // A name for the header's list of vector attributes; a second name for an id replaces the first.
    void AddAdditionalHeaderAttribute(const std::string& name, std::uint16_t id) { _additional[id] = name; }
    std::map<std::uint16_t, std::string> GetAdditionalHeaderAttributes() const { return _additional; }

private:
    std::int32_t _layerThickness = 0;
    std::string _origin = "Zandervolle Stack Processor";
    std::string _material = "Unknown";
    std::map<std::uint64_t, ZffVectorAttributeSet> _attributeSets;
    std::map<std::uint16_t, std::string> _additional;
};
