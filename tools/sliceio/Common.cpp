#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>

#include "../../contracts/StringConversion.h"
#include "Tool.h"

namespace fs = std::filesystem;

namespace sliceio {

std::wstring WidePath(const std::string& path)
{
    return StringConversion::Utf8ToNative(path);
}

std::string Fixed(double value, int decimals)
{
    return fmt::format("{:.{}f}", value, decimals);
}

void CheckInputFile(const std::string& path)
{
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (!fs::exists(status))
        throw Failure(path + ": no such file");
    if (fs::is_directory(status))
        throw Failure(path + ": is a directory, not a slice file");
    std::ifstream probe(path, std::ios::binary);
    if (!probe)
        throw Failure(path + ": cannot be opened for reading: " + std::strerror(errno));
}

void CheckOutputFile(const std::string& path)
{
    std::error_code ec;
    if (fs::is_directory(path, ec))
        throw Failure(path + ": is a directory; give a file name to write");
    fs::path parent = fs::path(path).parent_path();
    if (parent.empty())
        parent = ".";
    if (!fs::is_directory(parent, ec))
        throw Failure(path + ": cannot be written: the directory " + parent.string() + " does not exist");
    if (access(parent.c_str(), W_OK) != 0)
        throw Failure(path + ": cannot be written: the directory " + parent.string() + " is not writable");
}

} // namespace sliceio
