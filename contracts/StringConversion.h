#pragma once
#include "../framework/Export.h"
#include <string>

// Conversions between the platform's wide strings (UTF-32 here), UTF-8, UTF-16 and the
// narrow encoding of the current C locale. Malformed input never throws: an invalid
// sequence becomes U+FFFD (or '?' where the target cannot hold it).
namespace StringConversion {

SLICEIO_API std::string NativeToUtf8(const std::wstring& text);
SLICEIO_API std::wstring Utf8ToNative(const std::string& text);
SLICEIO_API std::string NativeToLocale(const std::wstring& text);
SLICEIO_API std::wstring LocaleToNative(const std::string& text);
SLICEIO_API std::string Utf16ToUtf8(const std::u16string& text);
SLICEIO_API std::u16string Utf8ToUtf16(const std::string& text);

} // namespace StringConversion
