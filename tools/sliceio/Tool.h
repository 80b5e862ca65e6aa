#pragma once
#include <cstdint>
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

// What each command takes, filled in by the command line (main.cpp).
struct InfoOptions
{
    std::string Path;
    std::optional<std::string> Type;
    bool Layers = false;
    bool Json = false;
    bool Declared = false; // --json: add what the header declares
};

struct CheckOptions
{
    std::string Path;
    std::optional<std::string> Type;
};

struct ConvertOptions
{
    std::string In, Out;
    std::optional<std::string> Type, To;
    std::optional<std::string> Units;       // "mm" or "inch"
    std::optional<std::int32_t> Resolution; // file steps per unit
    std::optional<double> InputUnits;       // millimetres per step of the input, overriding its header
    std::optional<std::string> Layers;      // "A:B", "A:" or ":B", layers numbered from 0
    std::optional<std::string> Settings;    // path of the settings file
    bool ContoursAsVectors = false;
    bool NoContours = false;
    bool DropEmptyLayers = false;
    bool ShowSettings = false;
};

struct SvgOptions
{
    std::string Path, Out;
    std::uint64_t Layer = 0;
    std::optional<std::string> Type;
};

struct SampleOptions
{
    std::string Out;
    std::uint32_t Layers = 20;
};

int RunFormats();
int RunInfo(const InfoOptions& options);
int RunCheck(const CheckOptions& options);
int RunConvert(const ConvertOptions& options);
int RunSvg(const SvgOptions& options);
int RunSample(const SampleOptions& options);

} // namespace sliceio
