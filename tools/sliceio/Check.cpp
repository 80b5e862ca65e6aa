#include <cstdio>
#include <memory>

#include <fmt/format.h>

#include "../../contracts/M2DSlice.h"
#include "../../framework/FormatDescriptor.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "FormatHooks.h"
#include "Tool.h"

namespace sliceio {

FileReport DescribeWithHooks(const std::string& path, short code)
{
    FileReport report;
    if (const FormatDescriptor* family = FormatRegistry::ForCode(code))
        if (const FormatHooks* hooks = FindFormatHooks(family->Family))
            if (hooks->DescribeFile)
                hooks->DescribeFile(path, code, report);
    return report;
}

int RunCheck(const std::vector<std::string>& words)
{
    const Arguments args(words, {"--type"}, {});
    args.ExpectPositional(1, "FILE");
    const std::string& path = args.Positional(0);
    CheckInputFile(path);
    const InputFormat format = ResolveInputFormat(path, args.Value("--type"));

    // Every layer is read in full, vectors included, so that damage anywhere shows.
    std::vector<std::string> problems;
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(format.Code);
    std::uint64_t layers = 0;
    std::string caught;
    try
    {
        if (!io->OpenFile(WidePath(path), I2DSliceIO::Read))
            problems.push_back(DescribeReadFailure(format, path, io.get(), ""));
        else if (!io->ReadHeader(nullptr))
            problems.push_back(DescribeReadFailure(format, path, io.get(), ""));
        else
        {
            M2DSlice slice;
            while (io->ReadLayer(slice, nullptr, true))
            {
                ++layers;
                slice.Clear();
            }
            if (!io->GetFailureReason().empty())
                problems.push_back(DescribeReadFailure(format, path, io.get(), ""));
            else if (!io->ReadFooter(nullptr))
                problems.push_back(DescribeReadFailure(format, path, io.get(), ""));
        }
    }
    catch (const std::exception& e)
    {
        problems.push_back(DescribeReadFailure(format, path, nullptr, e.what()) + " at " + io->DescribeStep());
    }
    io->CloseFile();

    const FileReport report = DescribeWithHooks(path, format.Code);
    if (report.DeclaredLayers >= 0 && static_cast<std::uint64_t>(report.DeclaredLayers) != layers)
        problems.push_back(fmt::format("{}: the file declares {} layers and holds {} readable ones", path,
                                       report.DeclaredLayers, layers));
    for (const std::string& problem : report.Problems)
        problems.push_back(path + ": " + problem);

    for (const std::string& warning : report.Warnings)
        std::printf("warning: %s\n", warning.c_str());
    for (const std::string& problem : problems)
        std::printf("problem: %s\n", problem.c_str());
    std::printf("%s: %llu layers read as %s (code %d), %zu problem%s\n", path.c_str(),
                static_cast<unsigned long long>(layers), format.Name.c_str(), format.Code, problems.size(),
                problems.size() == 1 ? "" : "s");
    return problems.empty() ? 0 : 1;
}

} // namespace sliceio
