#pragma once
// The building blocks of a CLF file: variable-length integers, items of identifier and size,
// and the checked narrowing of values into the fields that hold them.
//
// A VarInt is one lead byte and 0 to 7 further bytes: the lead byte's top three bits count the
// further bytes, its low five bits are the value's most significant bits, and the further
// bytes follow most significant first (the one big-endian thing in an otherwise little-endian
// file). The short form is the shortest that holds the value; the long form always has 7
// further bytes, so that a value written later fits in place.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../../framework/ByteCursor.h"
#include "../../framework/Export.h"

namespace clf {

// A value that does not fit the field it is written to (or read into).
class SLICEIO_API ValueOutOfRange : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A vector block with more coordinate pairs than a polygon can count.
class SLICEIO_API LossOfData : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Checked narrowing; each throws ValueOutOfRange with the text of its case.
SLICEIO_API std::int32_t ToInt32(std::uint64_t value);
SLICEIO_API std::int32_t ToInt32(std::int64_t value);
SLICEIO_API std::uint32_t ToUInt32(std::int32_t value);
SLICEIO_API std::uint64_t ToUInt64(std::int64_t value);
// A count of coordinate pairs of a vector block; LossOfData above 2147483647.
SLICEIO_API std::uint32_t ToPointCount(std::uint64_t pairs);

constexpr std::size_t kLongVarIntBytes = 8;
constexpr std::uint64_t kMaxVarInt = (std::uint64_t{1} << 61) - 1;

// Bytes of the short form of value (value at most kMaxVarInt).
SLICEIO_API std::size_t VarIntSize(std::uint64_t value);
// Appends the short form.
SLICEIO_API void PutVarInt(std::vector<unsigned char>& out, std::uint64_t value);
// Appends the long form: 0xE0 with the top five bits, then seven bytes.
SLICEIO_API void PutLongVarInt(std::vector<unsigned char>& out, std::uint64_t value);
// The long form into 8 bytes at out.
SLICEIO_API void StoreLongVarInt(unsigned char* out, std::uint64_t value);
// Reads a VarInt of either form; false (cursor failed) when the bytes are not there.
SLICEIO_API bool GetVarInt(ByteCursor& in, std::uint64_t& value);

// Item identifiers of the groups. The meaning of an identifier depends on its group.
enum TopItem : std::uint64_t
{
    Top_Header = 0,
    Top_SeekTable = 1,
    Top_Layer = 2,
    Top_End = 3,
};

enum HeaderItem : std::uint64_t
{
    Header_FileId = 0,
    Header_Version = 1,
    Header_NumLayers = 2,
    Header_Box = 3,
    Header_Part = 4,
    Header_SeekTablePosition = 5,
    Header_Comment = 6,
};

enum PartItem : std::uint64_t
{
    Part_Id = 0,
    Part_Name = 1,
    Part_Box = 2,
    Part_Thickness = 3,
};

enum LayerItem : std::uint64_t
{
    Layer_Height = 0,
    Layer_NumPairs = 1,
    Layer_Shape = 2,
    Layer_Coordinates = 3,
    Layer_Stop = 4, // fails the layer
};

enum ShapeItem : std::uint64_t
{
    Shape_PartId = 0,
    Shape_Kind = 1,
    Shape_Polygon = 2,
};

enum PolygonItem : std::uint64_t
{
    Polygon_Class = 0,
    Polygon_Form = 1,
    Polygon_Count = 3,
};

enum SeekItem : std::uint64_t
{
    Seek_Entry = 0,
    SeekEntry_Height = 0,
    SeekEntry_Position = 1,
};

// Shape kinds, polygon classes and forms.
enum ShapeKind : std::uint32_t
{
    Kind_Borders = 0,
    Kind_Vectors = 1,
    Kind_Points = 2,
};
enum PolygonClass : std::uint32_t
{
    Class_Outer = 0,
    Class_Inner = 1,   // hole, or vector block without flag 1
    Class_OpenOrFlagged = 2, // open flagged contour, vector block with flag 1, single point
};
enum PolygonForm : std::uint32_t
{
    Form_Closed = 0,
    Form_Open = 1,
    Form_Pairs = 2,
};

extern SLICEIO_API const char kFileId[17]; // "Arcam Layer File" and its NUL

// One item read from a cursor: identifier, then its payload as a cursor of its own.
struct Item
{
    std::uint64_t Id = 0;
    ByteCursor Payload;
};
// Reads identifier and size and takes the payload; false when either is damaged or the size
// goes past the cursor's end.
SLICEIO_API bool GetItem(ByteCursor& in, Item& item);
// Identifier and size only; the caller takes the payload.
SLICEIO_API bool GetItemHead(ByteCursor& in, std::uint64_t& id, std::uint64_t& size);

// Reads identifier and size from the file at its position; false at the end of the file or
// when they are damaged. head is how many bytes they took.
SLICEIO_API bool ReadItemHead(MFile& file, std::uint64_t& id, std::uint64_t& size, std::size_t& head);

// File coordinate to internal units: the product in double, truncated toward zero. False when
// it is not a number or lies outside the int range.
inline bool Truncate(float value, double factor, int& out)
{
    const double v = static_cast<double>(value) * factor;
    if (!(v > -2147483649.0 && v < 2147483648.0))
        return false;
    out = static_cast<int>(v);
    return true;
}

// A part group as read.
struct PartRecord
{
    std::uint64_t Id = 0;
    std::wstring Name;
    float Box[6] = {}; // min x, min y, min z, max x, max y, max z, file units
    float Thickness = 0.0f;
};

// What the header group says. Items not met keep their defaults.
struct HeaderData
{
    bool HasFileId = false;
    std::uint64_t VersionMajor = 0;
    std::uint64_t VersionMinor = 0;
    bool HasNumLayers = false;
    std::uint64_t NumLayers = 0;
    bool HasBox = false;
    float Box[6] = {};
    std::vector<PartRecord> Parts;
    bool HasSeekTablePosition = false;
    std::uint64_t SeekTablePosition = 0;
    bool HasComment = false;
    std::string Comment; // bytes as the file has them
};
// Decodes the payload of the header group; false with a reason in one line.
SLICEIO_API bool DecodeHeader(ByteCursor header, HeaderData& data, std::string& reason);

// One layer in the seek table: its height in file units and where its group starts.
struct SeekTableEntry
{
    float Height = 0.0f;
    std::uint64_t Position = 0;
};
// Decodes the payload of the seek table group; false with a reason.
SLICEIO_API bool DecodeSeekTable(ByteCursor table, std::vector<std::shared_ptr<SeekTableEntry>>& entries, std::string& reason);

// Header and seek table of a file, for tools that describe a file without its layers.
SLICEIO_API bool ReadHeaderAndTable(const std::wstring& path, HeaderData& header, std::vector<std::shared_ptr<SeekTableEntry>>& table,
                        std::string& reason);

} // namespace clf
