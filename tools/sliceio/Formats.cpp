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

#include "../../framework/FormatDescriptor.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "Tool.h"

namespace sliceio {

namespace {

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

// The format the file's extension names, if any.
const FormatInfo* FindByExtension(const std::string& path)
{
    const FormatCodeRow* row = FormatRegistry::ForExtension(Lowercase(std::filesystem::path(path).extension().string()));
    return row ? FindFormat(row->Code) : nullptr;
}

std::optional<InputFormat> DetectByContent(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string head(kSniffBytes, '\0');
    in.read(&head[0], static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    short code = -1;
    if (!FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(head.data()), head.size(), code))
        return std::nullopt;
    const FormatInfo* info = FindFormat(code);
    if (!info)
        return std::nullopt;
    return InputFormat{code, info->Name};
}

} // namespace

const std::vector<FormatInfo>& FormatTable()
{
    // Built once from the descriptors the format families register.
    static const std::vector<FormatInfo> table = [] {
        std::vector<FormatInfo> rows;
        for (const FormatCodeRow& row : FormatRegistry::Codes())
            rows.push_back({row.Code, row.Name, row.Extensions, !row.Reads});
        return rows;
    }();
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

std::string DescribeReadFailure(const InputFormat& format, const std::string& path, const I2DSliceIO* io,
                                const std::string& caught)
{
    if (io && !io->GetFailureReason().empty())
        return fmt::format("{}: {}", path, io->GetFailureReason());
    if (!caught.empty())
        return io ? fmt::format("{}: {}: the {} reader stopped: {}", path, io->DescribeStep(), format.Name, caught)
                  : fmt::format("{}: the {} reader stopped: {}", path, format.Name, caught);
    return fmt::format("{}: reading as {} failed", path, format.Name);
}

int RunFormats()
{
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
