#include "SectionCodec.h"

#include <cstring>

#include "../../contracts/MFile.h"
#include "../../contracts/StringConversion.h"

namespace Sectioned {

int EncodeLF(std::uint64_t value, unsigned char* out, int capacity, bool fixed)
{
    if (value > kLFMax)
        return 0;
    const int n = fixed ? 7 : LFFollowingBytes(value);
    if (n >= capacity)
        return 0;
    out[0] = static_cast<unsigned char>((n << 5) | ((value >> (8 * n)) & 0x1F));
    for (int i = 1; i <= n; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * (n - i)));
    return n + 1;
}

bool ReadLF(MFile& file, std::int64_t& value)
{
    const int first = file.GETC();
    if (first < 0)
        return false;
    const int n = first >> 5;
    std::uint64_t v = static_cast<std::uint64_t>(first & 0x1F);
    for (int i = 0; i < n; ++i)
    {
        const int byte = file.GETC();
        if (byte < 0)
            return false;
        v = (v << 8) | static_cast<std::uint64_t>(byte);
    }
    value = static_cast<std::int64_t>(v);
    return true;
}

bool ReadHead(MFile& file, SectionHeader& head) { return ReadLF(file, head.Id) && ReadLF(file, head.Size); }

bool LoadFloat(ByteCursor body, float& value) { return body.LE(value); }
bool LoadInt32(ByteCursor body, std::int32_t& value) { return body.LE(value); }

std::wstring LoadWideRaw(ByteCursor body)
{
    std::u16string units(body.Remaining() / 2, u'\0');
    for (char16_t& unit : units)
    {
        std::uint16_t u = 0;
        body.LE(u);
        unit = static_cast<char16_t>(u);
    }
    // Conversion stops at nothing: NUL units become NUL characters.
    std::wstring out;
    std::size_t from = 0;
    while (from <= units.size())
    {
        const std::size_t nul = units.find(u'\0', from);
        const std::size_t end = nul == std::u16string::npos ? units.size() : nul;
        out += StringConversion::Utf8ToNative(StringConversion::Utf16ToUtf8(units.substr(from, end - from)));
        if (nul == std::u16string::npos)
            break;
        out += L'\0';
        from = nul + 1;
    }
    return out;
}

std::wstring LoadWide(ByteCursor body)
{
    std::u16string units;
    std::uint16_t u = 0;
    while (body.LE(u) && u != 0)
        units += static_cast<char16_t>(u);
    return StringConversion::Utf8ToNative(StringConversion::Utf16ToUtf8(units));
}

std::string LoadNarrow(ByteCursor body)
{
    const char* data = reinterpret_cast<const char*>(body.Data());
    const std::size_t n = body.Remaining();
    const void* nul = std::memchr(data, 0, n);
    return std::string(data, nul ? static_cast<const char*>(nul) - data : n);
}

void SectionBuffer::LF(std::uint64_t value, bool fixed)
{
    unsigned char bytes[kMaxLFSize];
    const int n = EncodeLF(value, bytes, kMaxLFSize, fixed);
    if (n == 0)
        _ok = false;
    else
        _bytes.insert(_bytes.end(), bytes, bytes + n);
}

void SectionBuffer::PatchFixed(std::size_t at, std::uint64_t value)
{
    unsigned char bytes[kMaxLFSize];
    if (at + kFixedLFSize > _bytes.size() || EncodeLF(value, bytes, kMaxLFSize, true) != kFixedLFSize)
    {
        _ok = false;
        return;
    }
    std::memcpy(_bytes.data() + at, bytes, kFixedLFSize);
}

void SectionBuffer::CloseFixed(std::size_t at) { PatchFixed(at, _bytes.size() - (at + kFixedLFSize)); }

void SectionBuffer::Raw(const void* data, std::size_t n)
{
    const auto* p = static_cast<const unsigned char*>(data);
    _bytes.insert(_bytes.end(), p, p + n);
}

void SectionBuffer::Float(std::int64_t id, float value)
{
    Head(id, 4);
    unsigned char bytes[4];
    ByteOrder::StoreLE<float>(bytes, value);
    Raw(bytes, 4);
}

void SectionBuffer::Int32(std::int64_t id, std::int32_t value)
{
    Head(id, 4);
    unsigned char bytes[4];
    ByteOrder::StoreLE<std::int32_t>(bytes, value);
    Raw(bytes, 4);
}

void SectionBuffer::Narrow(std::int64_t id, const std::string& text)
{
    Head(id, static_cast<std::int64_t>(text.size()) + 1);
    Raw(text.data(), text.size());
    U8(0);
}

void SectionBuffer::WideBody(const std::wstring& text)
{
    for (wchar_t c : text)
    {
        std::uint32_t code = static_cast<std::uint32_t>(c);
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            code = 0xFFFD;
        auto unit = [&](std::uint32_t u) {
            U8(static_cast<std::uint8_t>(u & 0xFF));
            U8(static_cast<std::uint8_t>(u >> 8));
        };
        if (code > 0xFFFF)
        {
            code -= 0x10000;
            unit(0xD800 | (code >> 10));
            unit(0xDC00 | (code & 0x3FF));
        }
        else
            unit(code);
    }
    U8(0);
    U8(0);
}

void SectionBuffer::Wide(std::int64_t id, const std::wstring& text)
{
    Head(id, WideBodySize(text));
    WideBody(text);
}

} // namespace Sectioned
