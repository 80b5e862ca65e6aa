#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../../contracts/MUnit.h"
#include "../../framework/M2DSliceContainerIterator.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "FormatHooks.h"
#include "Tool.h"

namespace sliceio {

namespace {

double Millimetres(double internal)
{
    return internal / MUnit::GetIE();
}

double SquareMillimetres(double internal)
{
    return internal / (static_cast<double>(MUnit::GetIE()) * MUnit::GetIE());
}

// The file's own layer thickness where the format records one; otherwise the median
// distance between consecutive heights, which a few uneven steps do not disturb. Negative
// when there is nothing to measure. A single layer has no thickness, whatever a header
// may have derived for it.
double LayerThickness(const M2DSliceContainerIterator& it)
{
    const auto& table = it.GetLayerTable();
    if (table.size() < 2)
        return -1;
    if (it.GetSliceParameters()->LayerThickness > 0)
        return it.GetSliceParameters()->LayerThickness;
    std::vector<std::int64_t> steps;
    for (std::size_t i = 1; i < table.size(); ++i)
    {
        const std::int64_t step = static_cast<std::int64_t>(table[i].Info.Z) - table[i - 1].Info.Z;
        if (step > 0)
            steps.push_back(step);
    }
    if (steps.empty())
        return -1;
    std::nth_element(steps.begin(), steps.begin() + steps.size() / 2, steps.end());
    return static_cast<double>(steps[steps.size() / 2]);
}

// The iterator scans without vectors, which formats may then skip; this one reads them so
// that the scan counts the vector blocks too.
class VectorScanningIterator : public M2DSliceContainerIterator
{
public:
    VectorScanningIterator(const std::string& path, std::shared_ptr<I2DSliceIO> io)
        : M2DSliceContainerIterator(WidePath(path), std::move(io), true, 0, false)
    {
        _ScanFile(); // here, not in the base constructor, so that the override below is used
    }

protected:
    bool _ScanLayer(M2DSliceContainerScanInfo& info) const override { return _io->ScanLayer(info, nullptr, true); }
};

struct Heights
{
    bool Present = false;
    double Min = 0, Max = 0; // millimetres
};

// Lowest and highest height of the file, whatever the order of its layers.
Heights HeightRange(const M2DSliceContainerIterator& it)
{
    Heights z;
    for (const auto& entry : it.GetLayerTable())
    {
        const double height = Millimetres(entry.Info.Z);
        z.Min = z.Present ? std::min(z.Min, height) : height;
        z.Max = z.Present ? std::max(z.Max, height) : height;
        z.Present = true;
    }
    return z;
}

// A number for the JSON report; null for a value that is not there or not finite.
nlohmann::ordered_json JsonNumber(double value, bool present = true)
{
    return present && std::isfinite(value) ? nlohmann::ordered_json(value) : nlohmann::ordered_json(nullptr);
}

// Text cells: four decimals, exact for internal units; "-" when there is no value.
std::string Cell(double value, bool present = true)
{
    return present ? Fixed(value, 4) : "-";
}

struct Extents
{
    bool Present;
    double XMin, XMax, YMin, YMax;
};

Extents ToExtents(const M2DSliceXYArea& area)
{
    return {!area.IsEmpty(), Millimetres(area.XMin), Millimetres(area.XMax), Millimetres(area.YMin),
            Millimetres(area.YMax)};
}

void JsonExtents(nlohmann::ordered_json& out, const Extents& e)
{
    out["x_min_mm"] = JsonNumber(e.XMin, e.Present);
    out["x_max_mm"] = JsonNumber(e.XMax, e.Present);
    out["y_min_mm"] = JsonNumber(e.YMin, e.Present);
    out["y_max_mm"] = JsonNumber(e.YMax, e.Present);
}

std::string Json(const std::string& path, const InputFormat& format, const M2DSliceContainerIterator& it,
                 bool layerTable, const FileReport& report, bool declared)
{
    const auto& table = it.GetLayerTable();
    const M2DSliceContainerScanInfo& totals = it.GetTotals();
    const Heights z = HeightRange(it);
    const double thickness = LayerThickness(it);

    nlohmann::ordered_json out;
    out["file"] = path;
    out["format"] = format.Name;
    out["type_code"] = format.Code;
    out["layers"] = table.size();
    out["z_min_mm"] = JsonNumber(z.Min, z.Present);
    out["z_max_mm"] = JsonNumber(z.Max, z.Present);
    out["layer_thickness_mm"] = JsonNumber(Millimetres(thickness), thickness > 0);
    JsonExtents(out, ToExtents(totals.Area));
    out["contours"] = totals.NumContours;
    out["vector_blocks"] = totals.NumVectorBlocks;
    out["contour_length_mm"] = JsonNumber(Millimetres(totals.ContourLength));
    out["surface_area_mm2"] = JsonNumber(SquareMillimetres(totals.SurfaceArea));
    // What the header declares, on request, so that the keys above stay the same for every
    // format; warnings whenever there are some.
    if (declared)
    {
        nlohmann::ordered_json header = nlohmann::ordered_json::object();
        if (report.DeclaredLayers >= 0)
            header["layers"] = report.DeclaredLayers;
        if (report.ExtentsDeclared)
            header["extents_mm"] = report.DeclaredExtents;
        for (const auto& row : report.Rows)
            header[row.first] = row.second;
        header["parts"] = nlohmann::ordered_json::object();
        for (const auto& [part, properties] : report.Parts)
            header["parts"][std::to_string(part)] = properties;
        out["declared"] = header;
    }
    if (!report.Warnings.empty())
        out["warnings"] = report.Warnings;
    if (layerTable)
    {
        out["layer_table"] = nlohmann::ordered_json::array();
        for (std::size_t i = 0; i < table.size(); ++i)
        {
            const M2DSliceContainerScanInfo& info = table[i].Info;
            nlohmann::ordered_json row;
            row["index"] = i;
            row["z_mm"] = JsonNumber(Millimetres(info.Z));
            row["contours"] = info.NumContours;
            row["vector_blocks"] = info.NumVectorBlocks;
            row["contour_length_mm"] = JsonNumber(Millimetres(info.ContourLength));
            row["surface_area_mm2"] = JsonNumber(SquareMillimetres(info.SurfaceArea));
            JsonExtents(row, ToExtents(info.Area));
            out["layer_table"].push_back(std::move(row));
        }
    }
    return out.dump(2) + "\n";
}

std::string Text(const std::string& path, const InputFormat& format, const M2DSliceContainerIterator& it,
                 bool layerTable, const FileReport& report)
{
    const auto& table = it.GetLayerTable();
    const M2DSliceContainerScanInfo& totals = it.GetTotals();
    const Heights z = HeightRange(it);
    const double thickness = LayerThickness(it);
    const Extents e = ToExtents(totals.Area);

    std::string out;
    const auto line = [&out](const char* key, const std::string& value) { out += fmt::format("{:<18}{}\n", key, value); };
    line("file:", path);
    line("format:", fmt::format("{} (code {})", format.Name, format.Code));
    line("layers:", std::to_string(table.size()));
    line("lowest height:", Cell(z.Min, z.Present) + " mm");
    line("highest height:", Cell(z.Max, z.Present) + " mm");
    line("layer thickness:", Cell(Millimetres(thickness), thickness > 0) + " mm");
    line("x extent:", Cell(e.XMin, e.Present) + " .. " + Cell(e.XMax, e.Present) + " mm");
    line("y extent:", Cell(e.YMin, e.Present) + " .. " + Cell(e.YMax, e.Present) + " mm");
    line("contours:", std::to_string(totals.NumContours));
    line("vector blocks:", std::to_string(totals.NumVectorBlocks));
    line("contour length:", Cell(Millimetres(totals.ContourLength)) + " mm");
    line("surface area:", Cell(SquareMillimetres(totals.SurfaceArea)) + " mm^2");
    for (const auto& row : report.Rows)
        line((row.first + ":").c_str(), row.second);
    for (const std::string& warning : report.Warnings)
        out += "warning: " + warning + "\n";
    if (layerTable)
    {
        out += fmt::format("\n{:>7} {:>12} {:>9} {:>9} {:>14} {:>14} {:>11} {:>11} {:>11} {:>11}\n", "layer", "z_mm",
                           "contours", "blocks", "length_mm", "area_mm2", "x_min_mm", "x_max_mm", "y_min_mm",
                           "y_max_mm");
        for (std::size_t i = 0; i < table.size(); ++i)
        {
            const M2DSliceContainerScanInfo& info = table[i].Info;
            const Extents le = ToExtents(info.Area);
            out += fmt::format("{:>7} {:>12} {:>9} {:>9} {:>14} {:>14} {:>11} {:>11} {:>11} {:>11}\n", i,
                               Cell(Millimetres(info.Z)), info.NumContours, info.NumVectorBlocks,
                               Cell(Millimetres(info.ContourLength)), Cell(SquareMillimetres(info.SurfaceArea)),
                               Cell(le.XMin, le.Present), Cell(le.XMax, le.Present), Cell(le.YMin, le.Present),
                               Cell(le.YMax, le.Present));
        }
    }
    return out;
}

} // namespace

int RunInfo(const InfoOptions& options)
{
    const std::string& path = options.Path;
    CheckInputFile(path);
    const InputFormat format = ResolveInputFormat(path, options.Type);

    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(format.Code);
    std::unique_ptr<M2DSliceContainerIterator> it;
    try
    {
        it = std::make_unique<VectorScanningIterator>(path, io);
    }
    catch (const std::exception& e)
    {
        throw Failure(DescribeReadFailure(format, path, io.get(), e.what()));
    }
    if (!it->IsValid())
        throw Failure(DescribeReadFailure(format, path, it->GetSliceIO().get(), ""));

    FileReport report = DescribeWithHooks(path, format.Code);
    if (report.DeclaredLayers >= 0 && static_cast<std::uint64_t>(report.DeclaredLayers) != it->GetLayerTable().size())
        report.Warnings.push_back(fmt::format("the file declares {} layers but {} were read; 'sliceio check' tells more",
                                              report.DeclaredLayers, it->GetLayerTable().size()));
    const std::string out = options.Json ? Json(path, format, *it, options.Layers, report, options.Declared)
                                         : Text(path, format, *it, options.Layers, report);
    std::fwrite(out.data(), 1, out.size(), stdout);
    return 0;
}

} // namespace sliceio
