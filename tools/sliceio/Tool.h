#pragma once
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

class I2DSliceIO;

// Shared pieces of the sliceio command-line tool. The tool is a thin client of the library:
// it reads and writes through the factory and the drivers, and it alone prints.
namespace sliceio {

// Something a person can act on: printed as one line, exit code 1.
struct Failure : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// A malformed command line: printed as one line, exit code 2.
struct UsageError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// The command line of one subcommand: positional words and "--name value", "--name=value"
// or "--name" flags, in any order.
class Arguments
{
public:
    Arguments(const std::vector<std::string>& words, std::initializer_list<const char*> valueOptions,
              std::initializer_list<const char*> flags);

    // Throws a usage error unless there are exactly count positional words.
    void ExpectPositional(std::size_t count, const char* what) const;
    const std::string& Positional(std::size_t i) const { return _positional[i]; }
    bool Flag(const std::string& name) const;
    std::optional<std::string> Value(const std::string& name) const;
    // The option's value as an integer within [min, max], or fallback when it is absent.
    std::int64_t Number(const std::string& name, std::int64_t min, std::int64_t max, std::int64_t fallback) const;

private:
    std::vector<std::string> _positional;
    std::vector<std::string> _flags;
    std::vector<std::pair<std::string, std::string>> _values;
};

// One row of the file-type code table.
struct FormatInfo
{
    short Code;
    const char* Name;
    const char* Extensions; // blank-separated, with dots
    bool WriteOnly;
};

const std::vector<FormatInfo>& FormatTable();
const FormatInfo* FindFormat(int code);
// True when the library of this build makes an object for the code.
bool IsAvailable(short code);

// The format an input is read with, and how it was chosen.
struct InputFormat
{
    short Code;
    std::string Name;
};

// --type when given, else the file's content, else its extension. Throws a failure for an
// unknown format or one that this build cannot read.
InputFormat ResolveInputFormat(const std::string& path, const std::optional<std::string>& type);
// --to when given, else the extension of path. Throws unless the format can be written.
short ResolveOutputFormat(const std::string& path, const std::optional<std::string>& to);

// Throws a failure when the input is missing, a directory or not readable.
void CheckInputFile(const std::string& path);
// Throws a failure when path cannot become a new file: a directory, or a missing or
// unwritable parent directory.
void CheckOutputFile(const std::string& path);

// One line saying why reading the file failed: the reader's own reason, else the text of the
// exception it ended with (caught), else a plain statement.
std::string DescribeReadFailure(const InputFormat& format, const std::string& path, const I2DSliceIO* io,
                                const std::string& caught);

// Paths in the library's form.
std::wstring WidePath(const std::string& path);

// Numbers in the C locale, whatever the process's locale: fixed with the given decimals.
std::string Fixed(double value, int decimals);

int RunFormats(const std::vector<std::string>& words);
int RunInfo(const std::vector<std::string>& words);
int RunConvert(const std::vector<std::string>& words);
int RunCheck(const std::vector<std::string>& words);
int RunSvg(const std::vector<std::string>& words);
int RunSample(const std::vector<std::string>& words);

} // namespace sliceio
