#include <algorithm>
#include <cctype>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include <fmt/format.h>

#include "../../framework/M2DSliceIOFactory.h"
#include "Tool.h"

namespace sliceio {

namespace {

// Magic texts found near the start of the files of each family.
struct Magic
{
    const char* Text;
    short Code;
};

constexpr Magic kMagics[] = {
    {"$$HEADERSTART", 0},
    {"[Compressed SLM Buildfile]", 48},
    {"SLM-Layerfile", 47},
    {"MTT-Layerfile", 51},
    {"-SLCVER 2.0", 4},
    {"!SLICE= -VER 3.822", 3},
    {"Slice V0", 5},
    {"F&S2.1", 6},
    {"SiAMODeL", 54},
    {"Arcam Layer File", 49},
    {"<Header type=\"Zanofab Buildfile\"", 44},
};

// How far into a file the magic texts are looked for.
constexpr std::size_t kHeadSize = 4096;

short ParseCode(const std::string& option, const std::string& text)
{
    std::size_t used = 0;
    int code = -1;
    try
    {
        code = std::stoi(text, &used);
    }
    catch (const std::exception&)
    {
        used = 0;
    }
    if (used == 0 || used != text.size() || !FindFormat(code))
        throw UsageError(option + " '" + text + "' is not a file-type code; 'sliceio formats' lists them");
    return static_cast<short>(code);
}

std::string Lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// The first format of the table that lists the extension.
const FormatInfo* FindByExtension(const std::string& path)
{
    const std::string extension = Lowercase(std::filesystem::path(path).extension().string());
    if (extension.empty())
        return nullptr;
    for (const FormatInfo& info : FormatTable())
    {
        std::istringstream list(info.Extensions);
        std::string item;
        while (list >> item)
            if (item == extension)
                return &info;
    }
    return nullptr;
}

// The CLI header tells the ASCII form; a binary file's first layer command tells the
// coordinate form. Both forms are read by the same reader, the ASCII form included.
InputFormat RefineCli(const std::string& head)
{
    const std::size_t end = head.find("$$HEADEREND");
    if (head.substr(0, end).find("$$ASCII") != std::string::npos)
        return {0, "CLI (ASCII)"};
    const std::size_t data = end == std::string::npos ? end : end + std::strlen("$$HEADEREND");
    if (data != std::string::npos && data + 2 <= head.size())
    {
        const unsigned command = static_cast<unsigned char>(head[data]) | static_cast<unsigned char>(head[data + 1]) << 8;
        if (command == 128)
            return {35, FindFormat(35)->Name};
    }
    return {0, FindFormat(0)->Name};
}

std::optional<InputFormat> DetectByContent(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string head(kHeadSize, '\0');
    in.read(&head[0], static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));

    const Magic* found = nullptr;
    std::size_t foundAt = std::string::npos;
    for (const Magic& magic : kMagics)
    {
        const std::size_t at = head.find(magic.Text);
        if (at < foundAt)
        {
            found = &magic;
            foundAt = at;
        }
    }
    if (!found)
        return std::nullopt;
    if (found->Code == 0)
        return RefineCli(head);
    return InputFormat{found->Code, FindFormat(found->Code)->Name};
}

} // namespace

const std::vector<FormatInfo>& FormatTable()
{
    static const std::vector<FormatInfo> table = {
        {0, "CLI (binary, long)", ".cli", false},
        {3, "SLI", ".sli", false},
        {4, "SLC", ".slc", false},
        {5, "SSL", ".ssl", false},
        {6, "F&S", ".fs", false},
        {8, "CLI (binary, long)", ".cli", false},
        {9, "CLI (binary, long)", ".cli", false},
        {35, "CLI (binary, short)", ".cli", false},
        {36, "CLI (binary, long)", ".cli", false},
        {44, "ZFF build file", ".zff", false},
        {45, "ZFF build file", ".zff", false},
        {46, "ZFF build file", ".zff", false},
        {47, "SLM", ".slm", false},
        {48, "SLM build file (compressed)", ".slm", false},
        {49, "CLF", ".clf", false},
        {50, "G-code", ".gcode .gco", true},
        {51, "MTT", ".mtt", false},
        {54, "WZA", ".wza", false},
        {55, "JM job file", ".jm", true},
        {56, "CLI (ASCII)", ".cli", false},
    };
    return table;
}

const FormatInfo* FindFormat(int code)
{
    for (const FormatInfo& info : FormatTable())
        if (info.Code == code)
            return &info;
    return nullptr;
}

bool IsAvailable(short code)
{
    return M2DSliceIOFactory::GetSliceIO(code) != nullptr;
}

InputFormat ResolveInputFormat(const std::string& path, const std::optional<std::string>& type)
{
    std::optional<InputFormat> format;
    if (type)
    {
        const short code = ParseCode("--type", *type);
        format = InputFormat{code, FindFormat(code)->Name};
    }
    else
        format = DetectByContent(path);
    if (!format)
    {
        const FormatInfo* info = FindByExtension(path);
        if (!info)
            throw Failure(path + ": unknown format: no known header and no known extension; name it with --type CODE");
        format = InputFormat{info->Code, info->Name};
    }
    const FormatInfo* info = FindFormat(format->Code);
    if (info->WriteOnly)
        throw Failure(fmt::format("{}: {} files (code {}) can only be written, not read", path, info->Name, info->Code));
    if (!IsAvailable(format->Code))
        throw Failure(fmt::format("{}: {} files (code {}) cannot be read by this build", path, format->Name,
                                  format->Code));
    return *format;
}

short ResolveOutputFormat(const std::string& path, const std::optional<std::string>& to)
{
    short code = 0;
    if (to)
        code = ParseCode("--to", *to);
    else if (const FormatInfo* info = FindByExtension(path))
        code = info->Code;
    else if (Lowercase(std::filesystem::path(path).extension().string()) == ".svg")
        throw Failure(path + ": SVG pictures are drawn one layer at a time with 'sliceio svg'");
    else
        throw Failure(path + ": cannot tell the output format from the file name; name it with --to CODE");
    if (!IsAvailable(code))
        throw Failure(fmt::format("{}: {} files (code {}) cannot be written by this build", path,
                                  FindFormat(code)->Name, code));
    return code;
}

std::string DescribeReadFailure(const InputFormat& format, const std::string& path, const std::string& caught)
{
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(format.Code);
    if (!io)
        return fmt::format("{}: {} files (code {}) cannot be read by this build", path, format.Name, format.Code);
    std::string step = "opening";
    try
    {
        if (!io->OpenFile(WidePath(path), I2DSliceIO::Read))
            return fmt::format("{}: opening: the {} reader could not open the file", path, format.Name);
        step = "header";
        if (!io->ReadHeader(nullptr))
            return fmt::format("{}: header: the {} reader refused the header", path, format.Name);
        M2DSliceContainerScanInfo info;
        for (std::uint64_t layer = 0;; ++layer)
        {
            step = fmt::format("layer {}", layer);
            info.Clear();
            if (!io->ScanLayer(info, nullptr, true))
                break;
        }
        step = "footer";
        if (!io->ReadFooter(nullptr))
            return fmt::format("{}: footer: the {} reader refused the end of the file", path, format.Name);
        step = "closing";
        if (!io->CloseFile())
            return path + ": closing: the file could not be closed cleanly";
    }
    catch (const std::exception& e)
    {
        return fmt::format("{}: {}: the {} reader stopped: {}", path, step, format.Name, e.what());
    }
    return fmt::format("{}: reading as {} failed{}", path, format.Name, caught.empty() ? "" : ": " + caught);
}

int RunFormats(const std::vector<std::string>& words)
{
    Arguments(words, {}, {}).ExpectPositional(0, "nothing");
    std::string out = fmt::format("{:>4}  {:<28}  {:<12}  {:<4}  {}\n", "code", "format", "extensions", "read", "write");
    for (const FormatInfo& info : FormatTable())
    {
        const bool available = IsAvailable(info.Code);
        out += fmt::format("{:>4}  {:<28}  {:<12}  {:<4}  {}\n", info.Code, info.Name, info.Extensions,
                           available && !info.WriteOnly ? "yes" : "no", available ? "yes" : "no");
    }
    out += fmt::format("{:>4}  {:<28}  {:<12}  {:<4}  {}\n", "-", "SVG picture (sliceio svg)", ".svg", "no", "yes");
    out += "Codes missing from the table name no format. G-code and JM files are written only.\n";
    std::fputs(out.c_str(), stdout);
    return 0;
}

} // namespace sliceio
