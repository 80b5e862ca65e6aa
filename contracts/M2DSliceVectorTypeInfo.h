#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <utility>
#include <vector>

#include "SAX.h"

// Base kind of a contour, vector block or point block. The integer values are what files
// and formats depend on; the names only say how the formats use them.
enum e2DSliceVectorType : std::int32_t
{
    e2DSliceVectorType_None = 0,
    e2DSliceVectorType_Border = 1,         // what every reader's StartContour(1) makes
    e2DSliceVectorType_ContourGroup2 = 2,  // contours of WZA code groups 21000, 23000
    e2DSliceVectorType_ContourGroup3 = 3,  // contours of WZA code groups 11000, 13000
    e2DSliceVectorType_Other = 4,
    e2DSliceVectorType_Kind5 = 5,
    e2DSliceVectorType_Hatch = 6,
    e2DSliceVectorType_VectorGroup7 = 7,   // vectors of WZA code 22000
    e2DSliceVectorType_VectorGroup8 = 8,   // vectors of WZA code 12000
    e2DSliceVectorType_Kind9 = 9,
    e2DSliceVectorType_Kind10 = 10,
    e2DSliceVectorType_Kind11 = 11,
};

enum e2DSliceVectorTypeFlag : std::int32_t
{
    e2DSliceVectorTypeFlag_0 = 0,
    e2DSliceVectorTypeFlag_1 = 1,
    e2DSliceVectorTypeFlag_2 = 2,
    e2DSliceVectorTypeFlag_3 = 3,
    e2DSliceVectorTypeFlag_4 = 4,
    e2DSliceVectorTypeFlag_5 = 5,
    e2DSliceVectorTypeFlag_6 = 6,
    e2DSliceVectorTypeFlag_7 = 7,
    e2DSliceVectorTypeFlag_8 = 8,
    e2DSliceVectorTypeFlag_9 = 9,
    e2DSliceVectorTypeFlag_Count = 16, // ids from here on are handed out by name
};

enum e2DSliceVectorTypeIndex : std::int32_t
{
    e2DSliceVectorTypeIndex_Parameter = 0, // parameter or build-style index
    e2DSliceVectorTypeIndex_1 = 1,
    e2DSliceVectorTypeIndex_Part = 2,      // part or model index (CLI identifiers)
    e2DSliceVectorTypeIndex_3 = 3,
    e2DSliceVectorTypeIndex_4 = 4,
    e2DSliceVectorTypeIndex_5 = 5,
    e2DSliceVectorTypeIndex_6 = 6,
    e2DSliceVectorTypeIndex_7 = 7,
    e2DSliceVectorTypeIndex_8 = 8,
    e2DSliceVectorTypeIndex_9 = 9,
    e2DSliceVectorTypeIndex_10 = 10,
    e2DSliceVectorTypeIndex_11 = 11,
    e2DSliceVectorTypeIndex_Nozzle = 12,   // nozzle of a G-code tool
    e2DSliceVectorTypeIndex_Count = 16,
};

enum e2DSliceVectorTypeNumber : std::int32_t
{
    e2DSliceVectorTypeNumber_0 = 0,
    e2DSliceVectorTypeNumber_1 = 1,
    e2DSliceVectorTypeNumber_2 = 2,
    e2DSliceVectorTypeNumber_3 = 3,
    e2DSliceVectorTypeNumber_Count = 16,
};

// The label of a contour, vector block or point block: a base kind plus sparse tags.
// Unset tags read as false, 0 and 0.0; setting a tag to that value unsets it, so two labels
// compare equal exactly when every tag reads the same. Tags are kept as short sorted lists,
// which costs nothing for the common label that carries only a kind and an index or two.
class SLICEIO_API M2DSliceVectorTypeInfo
{
public:
    M2DSliceVectorTypeInfo() = default;
    M2DSliceVectorTypeInfo(const e2DSliceVectorType& type) : _type(type) {}
    M2DSliceVectorTypeInfo(const M2DSliceVectorTypeInfo&) = default;
    M2DSliceVectorTypeInfo(M2DSliceVectorTypeInfo&&) noexcept = default;
    M2DSliceVectorTypeInfo& operator=(const M2DSliceVectorTypeInfo&) = default;
    M2DSliceVectorTypeInfo& operator=(M2DSliceVectorTypeInfo&&) noexcept = default;
    M2DSliceVectorTypeInfo& operator=(const e2DSliceVectorType& type);

    bool operator==(const M2DSliceVectorTypeInfo& other) const;
    bool operator!=(const M2DSliceVectorTypeInfo& other) const { return !(*this == other); }

    e2DSliceVectorType GetType() const { return _type; }
    void SetType(e2DSliceVectorType type) { _type = type; }

    bool GetFlag(e2DSliceVectorTypeFlag flag) const { return GetFlag(static_cast<int>(flag)); }
    bool GetFlag(int id) const;
    void SetFlag(e2DSliceVectorTypeFlag flag, bool value) { SetFlag(static_cast<int>(flag), value); }
    void SetFlag(int id, bool value);

    std::int32_t GetIndex(e2DSliceVectorTypeIndex index) const { return GetIndex(static_cast<int>(index)); }
    std::int32_t GetIndex(int id) const;
    void SetIndex(e2DSliceVectorTypeIndex index, std::int32_t value) { SetIndex(static_cast<int>(index), value); }
    void SetIndex(int id, std::int32_t value);

    double GetNumber(e2DSliceVectorTypeNumber number) const { return GetNumber(static_cast<int>(number)); }
    double GetNumber(int id) const;
    void SetNumber(e2DSliceVectorTypeNumber number, double value) { SetNumber(static_cast<int>(number), value); }
    void SetNumber(int id, double value);

    // Run-time ids of tags that formats add by name. The same name always gives the same
    // id, and named ids never collide with the fixed enumerators. Thread-safe.
    static int GetFlagID(const wchar_t* name);
    static int GetIndexID(const wchar_t* name);
    static int GetNumberID(const wchar_t* name);

    // Persistence as one XML element "VectorType" with attributes "type", "flags",
    // "indexes" and "numbers". HandleTag reads such an element; false when it is not one.
    bool HandleTag(const ZanSAX::ISAXReader& reader);
    bool Write(ZanSAX::ISAXWriter& writer) const;

private:
    e2DSliceVectorType _type = e2DSliceVectorType_None;
    std::vector<std::int32_t> _flags;                        // ids of the flags that are set, sorted
    std::vector<std::pair<std::int32_t, std::int32_t>> _indexes; // sorted by id
    std::vector<std::pair<std::int32_t, double>> _numbers;       // sorted by id
};

class SLICEIO_API M2DSliceVectorTypeInfoHolder
{
public:
    void SetTypeInfo(const M2DSliceVectorTypeInfo& info) { _typeInfo = info; }
    const M2DSliceVectorTypeInfo& GetTypeInfo() const { return _typeInfo; }
    M2DSliceVectorTypeInfo& GetTypeInfoUpdate() { return _typeInfo; }

protected:
    M2DSliceVectorTypeInfo _typeInfo;
};

// Labels to and from the 16-bit vector codes of the SLI format.
struct SLICEIO_API M2DSliceVectorTypes
{
    static M2DSliceVectorTypeInfo ConvertFromSliType(unsigned short code);
    static unsigned short ConvertToSliType(const M2DSliceVectorTypeInfo& info);
};
