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

namespace {

bool Contains(std::initializer_list<const char*> names, const std::string& name)
{
    return std::any_of(names.begin(), names.end(), [&](const char* n) { return name == n; });
}

} // namespace

Arguments::Arguments(const std::vector<std::string>& words, std::initializer_list<const char*> valueOptions,
                     std::initializer_list<const char*> flags)
{
    for (std::size_t i = 0; i < words.size(); ++i)
    {
        const std::string& word = words[i];
        if (word.size() < 2 || word[0] != '-' || (word[1] != '-' && !std::isalpha(static_cast<unsigned char>(word[1]))))
        {
            _positional.push_back(word); // also "-" and negative numbers
            continue;
        }
        std::string name = word;
        std::optional<std::string> value;
        const std::size_t equals = word.find('=');
        if (equals != std::string::npos)
        {
            name = word.substr(0, equals);
            value = word.substr(equals + 1);
        }
        if (Contains(valueOptions, name))
        {
            if (!value)
            {
                if (i + 1 == words.size())
                    throw UsageError("option " + name + " needs a value");
                value = words[++i];
            }
            _values.emplace_back(name, *value);
        }
        else if (Contains(flags, name) && !value)
            _flags.push_back(name);
        else
            throw UsageError("unknown option '" + word + "'");
    }
}

void Arguments::ExpectPositional(std::size_t count, const char* what) const
{
    if (_positional.size() < count)
        throw UsageError(std::string("missing argument: expected ") + what);
    if (_positional.size() > count)
        throw UsageError("unexpected argument '" + _positional[count] + "'");
}

bool Arguments::Flag(const std::string& name) const
{
    return std::find(_flags.begin(), _flags.end(), name) != _flags.end();
}

std::optional<std::string> Arguments::Value(const std::string& name) const
{
    // The last occurrence counts, as usual on command lines.
    for (auto it = _values.rbegin(); it != _values.rend(); ++it)
        if (it->first == name)
            return it->second;
    return std::nullopt;
}

std::int64_t Arguments::Number(const std::string& name, std::int64_t min, std::int64_t max,
                               std::int64_t fallback) const
{
    const std::optional<std::string> text = Value(name);
    if (!text)
        return fallback;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0' || errno != 0 || value < min || value > max)
        throw UsageError(fmt::format("{} expects a whole number from {} to {}, not '{}'", name, min, max, *text));
    return value;
}

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
