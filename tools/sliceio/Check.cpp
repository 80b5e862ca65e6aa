#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <memory>

#include <fmt/format.h>

#include "../../contracts/M2DSlice.h"
#include "../../framework/FormatDescriptor.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "FormatHooks.h"
#include "Tool.h"

namespace sliceio {

// The report of the family's DescribeFile for the file, empty when it has none. A hook that
// fails on a file it cannot make sense of says nothing rather than stop the command.
FileReport DescribeWithHooks(const std::string& path, short code)
{
    FileReport report;
    if (const FormatDescriptor* family = FormatRegistry::ForCode(code))
        if (const FormatHooks* hooks = FindFormatHooks(family->Family))
            if (hooks->DescribeFile)
                try
                {
                    hooks->DescribeFile(path, code, report);
                }
                catch (const std::exception&)
                {
                }
    return report;
}

int RunCheck(const CheckOptions& options)
{
    const std::string& path = options.Path;
    CheckInputFile(path);
    const InputFormat format = ResolveInputFormat(path, options.Type);

    // Every layer is read in full, vectors included, so that damage anywhere shows.
    std::vector<std::string> problems;
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(format.Code);
    std::uint64_t layers = 0;
    M2DSliceXYArea area;
    std::int32_t zMin = INT32_MAX, zMax = INT32_MIN;
    double step = 0.001; // a file step in millimetres, the tolerance of the extents
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
                area.Extend(slice.GetXYArea(true));
                zMin = std::min(zMin, slice.GetZ());
                zMax = std::max(zMax, slice.GetZ());
            }
            M2DSliceContainerIOProperties properties;
            io->GetIoProperties(properties);
            if (properties.InverseResolution > 1)
                step = 1.0 / properties.InverseResolution;
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
    const bool readToTheEnd = problems.empty();
    if (report.DeclaredLayers >= 0 && static_cast<std::uint64_t>(report.DeclaredLayers) > layers && readToTheEnd)
        problems.push_back(fmt::format("{}: layer {}: missing: the file ends there though it declares {} layers "
                                       "(truncated?)",
                                       path, layers, report.DeclaredLayers));
    else if (report.DeclaredLayers >= 0 && static_cast<std::uint64_t>(report.DeclaredLayers) != layers)
        problems.push_back(fmt::format("{}: the file declares {} layers and holds {} readable ones", path,
                                       report.DeclaredLayers, layers));
    if (report.ExtentsDeclared && layers > 0 && problems.empty())
    {
        const bool hasArea = !area.IsEmpty();
        const double held[6] = {hasArea ? area.XMin / 1e4 : 0.0, hasArea ? area.YMin / 1e4 : 0.0, zMin / 1e4,
                                hasArea ? area.XMax / 1e4 : 0.0, hasArea ? area.YMax / 1e4 : 0.0, zMax / 1e4};
        static const char* const kNames[6] = {"x minimum", "y minimum", "z minimum", "x maximum", "y maximum", "z maximum"};
        const double tolerance = step + 1e-4;
        for (int i = 0; i < 6; ++i)
            if ((hasArea || i % 3 == 2) && std::fabs(report.DeclaredExtents[i] - held[i]) > tolerance * (1 + std::fabs(held[i]) * 1e-6))
                problems.push_back(fmt::format("{}: the header declares a {} of {} mm, the layers reach {} mm", path,
                                               kNames[i], Fixed(report.DeclaredExtents[i], 4), Fixed(held[i], 4)));
    }
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
