#include "TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "StringConversion.h"

namespace ZanSDK {
namespace FileIO {
namespace FileSystem {

namespace {

// A new directory under base, or an empty text when it cannot be made.
std::string MakeDirectory(const std::string& base)
{
    std::string pattern = base + "/sliceio-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    return ::mkdtemp(name.data()) ? std::string(name.data()) : std::string();
}

} // namespace

// Without a directory the object still works, but its file paths can not be opened, so
// the caller's open fails in the ordinary way instead of an exception here.
TemporaryDirectory::TemporaryDirectory()
{
    std::string dir;
    if (const char* env = std::getenv("TMPDIR"); env && *env)
        dir = MakeDirectory(env);
    if (dir.empty())
        dir = MakeDirectory("/tmp");
    _path = StringConversion::Utf8ToNative(dir);
}

TemporaryDirectory::~TemporaryDirectory()
{
    if (_path.empty())
        return;
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(StringConversion::NativeToUtf8(_path)), ec);
}

std::wstring TemporaryDirectory::GetTemporaryFilePath()
{
    if (_path.empty())
        return std::wstring();
    return _path + L"/file" + std::to_wstring(++_counter) + L".tmp";
}

} // namespace FileSystem
} // namespace FileIO
} // namespace ZanSDK
