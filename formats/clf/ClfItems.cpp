#include "ClfItems.h"

#include <cstring>

#include "../../contracts/StringConversion.h"

namespace clf {

const char kFileId[17] = "Arcam Layer File";

std::int32_t ToInt32(std::uint64_t value)
{
    if (value > 2147483647u)
        throw ValueOutOfRange("Given uint64_t is too big and can not be converted to int32_t. The CLF file format does "
                              "not support such a big number in this location.");
    return static_cast<std::int32_t>(value);
}

std::int32_t ToInt32(std::int64_t value)
{
    if (value > 2147483647)
        throw ValueOutOfRange("Given int64_t is too big and can not be converted to int32_t. The CLF file format does "
                              "not support such a big number in this location.");
    return static_cast<std::int32_t>(value);
}

std::uint32_t ToUInt32(std::int32_t value)
{
    if (value < 0)
        throw ValueOutOfRange("Given int32_t is negative and can not be converted to uint32_t. The CLF file format "
                              "does not support negative values in this location.");
    return static_cast<std::uint32_t>(value);
}

std::uint64_t ToUInt64(std::int64_t value)
{
    if (value < 0)
        throw ValueOutOfRange("Given int64_t is negative and can not be converted to uint64_t. The CLF file format "
                              "does not support negative values in this location.");
    return static_cast<std::uint64_t>(value);
}

std::uint32_t ToPointCount(std::uint64_t pairs)
{
    if (pairs > 2147483647u)
        throw LossOfData("Loss of data datected: Number of points is too large when converting vector blocks to "
                         "polygons.");
    return static_cast<std::uint32_t>(pairs);
}

std::size_t VarIntSize(std::uint64_t value)
{
    std::size_t n = 1;
    while (value > 31)
    {
        value >>= 8;
        ++n;
    }
    return n;
}

void PutVarInt(std::vector<unsigned char>& out, std::uint64_t value)
{
    const std::size_t further = VarIntSize(value) - 1;
    out.push_back(static_cast<unsigned char>((further << 5) | (value >> (8 * further))));
    for (std::size_t i = further; i > 0; --i)
        out.push_back(static_cast<unsigned char>(value >> (8 * (i - 1))));
}

void StoreLongVarInt(unsigned char* out, std::uint64_t value)
{
    out[0] = static_cast<unsigned char>(0xE0 | ((value >> 56) & 0x1F));
    for (int i = 1; i < 8; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * (7 - i)));
}

void PutLongVarInt(std::vector<unsigned char>& out, std::uint64_t value)
{
    const std::size_t at = out.size();
    out.resize(at + kLongVarIntBytes);
    StoreLongVarInt(out.data() + at, value);
}

bool GetVarInt(ByteCursor& in, std::uint64_t& value)
{
    std::uint8_t lead;
    if (!in.U8(lead))
        return false;
    const std::size_t further = lead >> 5;
    const unsigned char* bytes = in.View(further);
    if (!bytes)
        return false;
    std::uint64_t v = lead & 0x1F;
    for (std::size_t i = 0; i < further; ++i)
        v = (v << 8) | bytes[i];
    value = v;
    return true;
}

bool GetItemHead(ByteCursor& in, std::uint64_t& id, std::uint64_t& size)
{
    return GetVarInt(in, id) && GetVarInt(in, size);
}

bool GetItem(ByteCursor& in, Item& item)
{
    std::uint64_t size;
    return GetItemHead(in, item.Id, size) && size <= in.Remaining() && in.Sub(static_cast<std::size_t>(size), item.Payload);
}

bool ReadItemHead(MFile& file, std::uint64_t& id, std::uint64_t& size, std::size_t& head)
{
    unsigned char bytes[16];
    std::size_t n = 0;
    for (int k = 0; k < 2; ++k)
    {
        const int lead = file.GETC();
        if (lead < 0)
            return false;
        bytes[n++] = static_cast<unsigned char>(lead);
        const std::size_t further = static_cast<std::size_t>(lead) >> 5;
        if (file.ReadBytes(bytes + n, further) != further)
            return false;
        n += further;
    }
    ByteCursor in(bytes, n);
    head = n;
    return GetItemHead(in, id, size);
}

namespace {

bool GetBox(ByteCursor& in, float (&box)[6])
{
    float values[6];
    if (!in.LEArray(values, 6))
        return false;
    std::memcpy(box, values, sizeof box);
    return true;
}

// UTF-16 little-endian up to its terminating 0 character (or the end of the bytes).
std::wstring DecodeUtf16(ByteCursor in)
{
    std::u16string text;
    std::uint16_t unit;
    while (in.Remaining() >= 2 && in.LE(unit) && unit != 0)
        text.push_back(static_cast<char16_t>(unit));
    return StringConversion::Utf8ToNative(StringConversion::Utf16ToUtf8(text));
}

bool DecodePart(ByteCursor in, PartRecord& part, std::string& reason)
{
    Item item;
    while (!in.AtEnd())
    {
        if (!GetItem(in, item))
            return (reason = "a part group item runs past its group"), false;
        bool ok = true;
        switch (item.Id)
        {
        case Part_Id:
            ok = GetVarInt(item.Payload, part.Id);
            break;
        case Part_Name:
            if (item.Payload.Size() >= 1000)
                return (reason = "a part name of " + std::to_string(item.Payload.Size()) + " bytes (below 1000 expected)"), false;
            part.Name = DecodeUtf16(item.Payload);
            break;
        case Part_Box:
            ok = GetBox(item.Payload, part.Box);
            break;
        case Part_Thickness:
            ok = item.Payload.LE(part.Thickness);
            break;
        default:
            break; // unknown items are skipped
        }
        if (!ok)
            return (reason = "part group item " + std::to_string(item.Id) + " is too short"), false;
    }
    return true;
}

} // namespace

bool DecodeHeader(ByteCursor in, HeaderData& data, std::string& reason)
{
    Item item;
    while (!in.AtEnd())
    {
        if (!GetItem(in, item))
            return (reason = "a header item runs past the header group"), false;
        bool ok = true;
        switch (item.Id)
        {
        case Header_FileId:
        {
            if (item.Payload.Size() >= 512)
                return (reason = "a file identifier of " + std::to_string(item.Payload.Size()) + " bytes"), false;
            std::string text;
            item.Payload.String(item.Payload.Size(), text);
            text = text.c_str(); // up to the first NUL
            if (text != kFileId)
                return (reason = "the file identifier is not \"Arcam Layer File\""), false;
            data.HasFileId = true;
            break;
        }
        case Header_Version:
            ok = GetVarInt(item.Payload, data.VersionMajor) && GetVarInt(item.Payload, data.VersionMinor);
            break;
        case Header_NumLayers:
            ok = data.HasNumLayers = GetVarInt(item.Payload, data.NumLayers);
            break;
        case Header_Box:
            ok = data.HasBox = GetBox(item.Payload, data.Box);
            break;
        case Header_Part:
        {
            PartRecord part;
            if (!DecodePart(item.Payload, part, reason))
                return false;
            data.Parts.push_back(std::move(part));
            break;
        }
        case Header_SeekTablePosition:
            ok = data.HasSeekTablePosition = GetVarInt(item.Payload, data.SeekTablePosition);
            break;
        case Header_Comment:
            data.HasComment = true;
            item.Payload.String(item.Payload.Size(), data.Comment);
            break;
        default:
            break;
        }
        if (!ok)
            return (reason = "header item " + std::to_string(item.Id) + " is too short"), false;
    }
    if (!data.HasFileId)
        return (reason = "no file identifier in the header"), false;
    return true;
}

bool DecodeSeekTable(ByteCursor in, std::vector<std::shared_ptr<SeekTableEntry>>& entries, std::string& reason)
{
    entries.clear();
    Item item;
    Item field;
    while (!in.AtEnd())
    {
        if (!GetItem(in, item))
            return (reason = "a seek table entry runs past the table"), false;
        if (item.Id != Seek_Entry)
            continue;
        auto entry = std::make_shared<SeekTableEntry>();
        while (!item.Payload.AtEnd())
        {
            if (!GetItem(item.Payload, field))
                return (reason = "a seek table entry item runs past its entry"), false;
            const bool ok = field.Id == SeekEntry_Height     ? field.Payload.LE(entry->Height)
                            : field.Id == SeekEntry_Position ? GetVarInt(field.Payload, entry->Position)
                                                             : true;
            if (!ok)
                return (reason = "a seek table entry item is too short"), false;
        }
        entries.push_back(std::move(entry));
    }
    return true;
}

bool ReadHeaderAndTable(const std::wstring& path, HeaderData& header,
                        std::vector<std::shared_ptr<SeekTableEntry>>& table, std::string& reason)
{
    MFile file;
    if (!file.OPEN_READ(path.c_str()))
        return (reason = "the file does not open"), false;
    std::uint64_t id, size;
    std::size_t head;
    std::vector<unsigned char> storage;
    ByteCursor payload;
    if (!ReadItemHead(file, id, size, head) || id != Top_Header)
        return (reason = "no header group at the start"), false;
    if (size > SIZE_MAX || !ReadRecord(file, static_cast<std::size_t>(size), storage, payload))
        return (reason = "the header group runs past the end of the file"), false;
    if (!DecodeHeader(payload, header, reason))
        return false;
    if (!header.HasSeekTablePosition || header.SeekTablePosition > INT64_MAX ||
        !file.SEEK(static_cast<std::int64_t>(header.SeekTablePosition), 0) || !ReadItemHead(file, id, size, head) ||
        id != Top_SeekTable)
        return (reason = "no seek table where the header says"), false;
    if (size > SIZE_MAX || !ReadRecord(file, static_cast<std::size_t>(size), storage, payload))
        return (reason = "the seek table runs past the end of the file"), false;
    return DecodeSeekTable(payload, table, reason);
}

} // namespace clf
