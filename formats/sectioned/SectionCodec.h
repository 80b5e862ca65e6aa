#pragma once
// The building blocks of the sectioned layer files (SLM, MTT and the compressed build file):
// LF numbers, section heads and the leaf sections of every field kind, written into a byte
// buffer and read from a bounded cursor. Every reader and writer of the family uses these, so
// the encoding lives in one place.
//
// An LF number is 1 to 8 bytes: bits 7..5 of the first byte count the bytes that follow (n),
// bits 4..0 are the value's top five bits, and the n following bytes are the rest of the
// value, most significant first. The minimal form takes the smallest n; the fixed form always
// takes n = 7, so that a value written as a placeholder can be overwritten in place.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/ByteCursor.h"
#include "../../framework/Export.h"

class MFile;

namespace Sectioned {

// The largest value an LF number holds.
constexpr std::uint64_t kLFMax = 0x1FFFFFFFFFFFFFFFull;
// Width of the fixed form.
constexpr int kFixedLFSize = 8;
// Longest LF number, the fixed form included.
constexpr int kMaxLFSize = 8;

// Section ids.
enum SectionId : std::int64_t
{
    Id_Header = 1,
    Id_FileId = 2,
    Id_FileVersion = 3,
    Id_SeekTablePointer = 4,
    Id_Model = 5,
    Id_ModelId = 6,
    Id_ModelName = 7,
    Id_SeekTable = 8,
    Id_SeekTableEntry = 9,
    Id_Layer = 10,
    Id_PolygonBlock = 11,
    Id_HatchBlock = 12,
    Id_BuildStyle = 13,
    Id_BuildStyleId = 14,
    Id_LaserSpeed = 15,
    Id_LaserPower = 16,
    Id_LaserFocus = 17,
    Id_BlockIds = 18,
    Id_PolygonCoordinates = 19,
    Id_HatchCoordinates = 20,
    Id_Checksum = 21,
    Id_ModelTopSlice = 22,
    Id_LayerPosition = 23,
    Id_LayerZ = 24,
    Id_PointDistance = 25,
    Id_ExposureTime = 26,
    Id_ZUnit = 27,
    Id_PointBlock = 28,
    Id_PointBlockCoordinates = 29,
    Id_ModelPointGroup = 30,
    Id_ModelPointCoordinates = 31,
    Id_ExtraBuildStyle = 32,
    Id_BlockModelId = 33,
    Id_LaserIndex = 34,
    Id_GeneratingParameter = 35,
    Id_UsedMaterialName = 36,
    Id_UsedBuildStrategyName = 37,
    Id_UsedMaterialComment = 38,
    Id_UsedBuildStrategyComment = 39,
    Id_BuildStyleName = 40,
    Id_GeneratingParameterMapEntry = 41,
    Id_FileGuid = 42,
    Id_MapEntryBuildStyleId = 43,
    Id_FileHistory = 44,
    Id_ProductName = 45,
    Id_ProductVersion = 46,
    Id_CreationTime = 47,
    Id_UsedBuildStrategyProtection = 48,
};

// True for the sections whose size is written in the fixed form.
inline bool HasFixedSize(std::int64_t id)
{
    return id == Id_Header || id == Id_Model || id == Id_SeekTable || id == Id_GeneratingParameterMapEntry ||
           id == Id_FileHistory || id == Id_GeneratingParameter;
}

// n of the minimal form: how often the value must be shifted right by 8 until it is 31 or less.
inline int LFFollowingBytes(std::uint64_t value)
{
    int n = 0;
    while (value > 31)
    {
        value >>= 8;
        ++n;
    }
    return n;
}
// Length of the minimal form.
inline int LFSize(std::uint64_t value) { return 1 + LFFollowingBytes(value); }

// Encodes value into out, which has room for capacity bytes; returns the length, 0 when the
// value is above kLFMax or its form does not fit (n not less than capacity).
SLICEIO_API int EncodeLF(std::uint64_t value, unsigned char* out, int capacity, bool fixed);

// Decodes an LF number from the cursor; false (cursor failed) when a byte is missing.
inline bool DecodeLF(ByteCursor& in, std::int64_t& value)
{
    std::uint8_t first;
    if (!in.U8(first))
        return false;
    const int n = first >> 5;
    std::uint64_t v = first & 0x1F;
    const unsigned char* rest = in.View(static_cast<std::size_t>(n));
    if (!rest)
        return false;
    for (int i = 0; i < n; ++i)
        v = (v << 8) | rest[i];
    value = static_cast<std::int64_t>(v);
    return true;
}

// Reads an LF number at the file's position; false when the file ends inside it.
SLICEIO_API bool ReadLF(MFile& file, std::int64_t& value);

struct SectionHeader
{
    std::int64_t Id = 0;
    std::int64_t Size = 0;
};

// Reads a section's id and size; false when either is missing.
inline bool ReadHead(ByteCursor& in, SectionHeader& head) { return DecodeLF(in, head.Id) && DecodeLF(in, head.Size); }
// The same, and the body as a cursor of its own; false when the body runs past the cursor.
inline bool ReadSection(ByteCursor& in, SectionHeader& head, ByteCursor& body)
{
    return ReadHead(in, head) && head.Size >= 0 && in.Sub(static_cast<std::size_t>(head.Size), body);
}
// Reads a section head at the file's position.
SLICEIO_API bool ReadHead(MFile& file, SectionHeader& head);

// Field bodies read from a section's cursor.
// An integer: one LF number (the section may hold more bytes; they are ignored).
inline bool LoadInteger(ByteCursor body, std::int64_t& value) { return DecodeLF(body, value); }
SLICEIO_API bool LoadFloat(ByteCursor body, float& value);
SLICEIO_API bool LoadInt32(ByteCursor body, std::int32_t& value);
// UTF-16LE code units of the whole body, NUL units kept, as a wide string.
SLICEIO_API std::wstring LoadWideRaw(ByteCursor body);
// UTF-16LE text up to the first NUL unit (or the end of the body).
SLICEIO_API std::wstring LoadWide(ByteCursor body);
// Bytes up to the first NUL (or the end of the body).
SLICEIO_API std::string LoadNarrow(ByteCursor body);

// Size of a section with this id and body size, head included.
inline std::int64_t SectionSize(std::int64_t id, std::int64_t body, bool fixed = false)
{
    return LFSize(static_cast<std::uint64_t>(id)) + (fixed ? kFixedLFSize : LFSize(static_cast<std::uint64_t>(body))) +
           body;
}
// Body sizes of the leaf kinds.
// A wide string is written as UTF-16: characters beyond the basic plane take two units.
inline std::int64_t WideBodySize(const std::wstring& text)
{
    std::int64_t units = 1;
    for (wchar_t c : text)
    {
        const auto code = static_cast<std::uint32_t>(c);
        units += code > 0xFFFF && code <= 0x10FFFF ? 2 : 1; // anything beyond becomes U+FFFD
    }
    return 2 * units;
}

// A buffer that sections are written into, with the fixed-size placeholders of the family.
// A value that cannot be encoded (above kLFMax) marks the buffer failed and writes nothing.
class SLICEIO_API SectionBuffer
{
public:
    explicit SectionBuffer(std::vector<unsigned char>& bytes) : _bytes(bytes) {}

    bool Ok() const { return _ok; }
    std::size_t Size() const { return _bytes.size(); }
    std::vector<unsigned char>& Bytes() { return _bytes; }

    void LF(std::uint64_t value, bool fixed = false);
    // Id and size, both minimal.
    void Head(std::int64_t id, std::int64_t size)
    {
        LF(static_cast<std::uint64_t>(id));
        LF(static_cast<std::uint64_t>(size));
    }
    // Id and a zero fixed size; returns the offset of the size, for Close.
    std::size_t OpenFixed(std::int64_t id)
    {
        LF(static_cast<std::uint64_t>(id));
        const std::size_t at = _bytes.size();
        LF(0, true);
        return at;
    }
    // Writes the size of everything after the fixed size at `at` over it.
    void CloseFixed(std::size_t at);
    // Writes a fixed LF number at `at`.
    void PatchFixed(std::size_t at, std::uint64_t value);

    void Raw(const void* data, std::size_t n);
    void U8(std::uint8_t value) { _bytes.push_back(value); }
    // A whole leaf section of each field kind.
    void Integer(std::int64_t id, std::uint64_t value)
    {
        Head(id, LFSize(value));
        LF(value);
    }
    void Float(std::int64_t id, float value);
    void Int32(std::int64_t id, std::int32_t value);
    void Boolean(std::int64_t id, bool value)
    {
        Head(id, 1);
        U8(value ? '1' : '0');
    }
    void Narrow(std::int64_t id, const std::string& text); // NUL added
    void Wide(std::int64_t id, const std::wstring& text);  // UTF-16LE, NUL unit added
    // UTF-16LE code units of text and a NUL unit, without a head.
    void WideBody(const std::wstring& text);

private:
    std::vector<unsigned char>& _bytes;
    bool _ok = true;
};

// Sizes of the leaf sections as SectionBuffer writes them, head included.
inline std::int64_t IntegerSectionSize(std::int64_t id, std::uint64_t value)
{
    return SectionSize(id, LFSize(value));
}
inline std::int64_t WideSectionSize(std::int64_t id, const std::wstring& text)
{
    return SectionSize(id, WideBodySize(text));
}

} // namespace Sectioned
