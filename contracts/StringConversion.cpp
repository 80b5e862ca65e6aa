#include "StringConversion.h"

#include <climits>
#include <clocale>
#include <cstring>
#include <cwchar>

static_assert(sizeof(wchar_t) == 4, "wide strings are expected to hold UTF-32");

namespace {

constexpr char32_t Replacement = 0xFFFD;

bool IsScalar(char32_t c) { return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF); }

// Decodes one code point at text[i] and moves i past it. A malformed sequence gives
// U+FFFD and skips its maximal valid prefix (at least one byte), as Unicode recommends.
char32_t DecodeUtf8(const std::string& text, std::size_t& i)
{
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i++);
    if (lead < 0x80)
        return lead;
    std::size_t extra;
    char32_t cp;
    unsigned char lo = 0x80, hi = 0xBF; // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF)
        extra = 1, cp = lead & 0x1F;
    else if (lead >= 0xE0 && lead <= 0xEF)
    {
        extra = 2, cp = lead & 0x0F;
        if (lead == 0xE0)
            lo = 0xA0; // no overlong forms
        else if (lead == 0xED)
            hi = 0x9F; // no surrogates
    }
    else if (lead >= 0xF0 && lead <= 0xF4)
    {
        extra = 3, cp = lead & 0x07;
        if (lead == 0xF0)
            lo = 0x90;
        else if (lead == 0xF4)
            hi = 0x8F; // nothing above U+10FFFF
    }
    else
        return Replacement;
    for (std::size_t k = 0; k < extra; ++k)
    {
        if (i >= text.size())
            return Replacement;
        unsigned char b = byte(i);
        if (k == 0 ? (b < lo || b > hi) : (b & 0xC0) != 0x80)
            return Replacement;
        cp = (cp << 6) | (b & 0x3F);
        ++i;
    }
    return cp;
}

void EncodeUtf8(char32_t c, std::string& out)
{
    if (!IsScalar(c))
        c = Replacement;
    if (c < 0x80)
        out += static_cast<char>(c);
    else if (c < 0x800)
    {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else if (c < 0x10000)
    {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else
    {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The C library converts nothing but ASCII under the "C" locale; UTF-8 is the better guess.
bool LocaleIsPlain()
{
    const char* name = std::setlocale(LC_CTYPE, nullptr);
    return !name || std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0;
}

} // namespace

namespace StringConversion {

std::string NativeToUtf8(const std::wstring& text)
{
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text)
        EncodeUtf8(static_cast<char32_t>(c), out);
    return out;
}

std::wstring Utf8ToNative(const std::string& text)
{
    std::wstring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();)
        out += static_cast<wchar_t>(DecodeUtf8(text, i));
    return out;
}

std::string Utf16ToUtf8(const std::u16string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        EncodeUtf8(c, out); // a lone surrogate becomes U+FFFD here
    }
    return out;
}

std::u16string Utf8ToUtf16(const std::string& text)
{
    std::u16string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();)
    {
        char32_t c = DecodeUtf8(text, i);
        if (c >= 0x10000)
        {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        }
        else
            out += static_cast<char16_t>(c);
    }
    return out;
}

std::string NativeToLocale(const std::wstring& text)
{
    if (LocaleIsPlain())
        return NativeToUtf8(text);
    std::string out;
    out.reserve(text.size());
    std::mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (wchar_t c : text)
    {
        std::size_t n = std::wcrtomb(bytes, c, &state);
        if (n == static_cast<std::size_t>(-1))
        {
            state = std::mbstate_t{};
            out += '?';
        }
        else
            out.append(bytes, n);
    }
    return out;
}

std::wstring LocaleToNative(const std::string& text)
{
    if (LocaleIsPlain())
        return Utf8ToNative(text);
    std::wstring out;
    out.reserve(text.size());
    std::mbstate_t state{};
    for (std::size_t i = 0; i < text.size();)
    {
        wchar_t c;
        std::size_t n = std::mbrtowc(&c, text.data() + i, text.size() - i, &state);
        if (n == static_cast<std::size_t>(-1))
        {
            state = std::mbstate_t{};
            out += static_cast<wchar_t>(Replacement);
            ++i;
        }
        else if (n == static_cast<std::size_t>(-2))
        {
            out += static_cast<wchar_t>(Replacement); // cut off at the end
            break;
        }
        else
        {
            out += c;
            i += n == 0 ? 1 : n; // an embedded NUL counts one byte
        }
    }
    return out;
}

} // namespace StringConversion
