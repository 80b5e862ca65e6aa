#include "BuildGenerator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceContainerIO.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

// Parts sit on a grid with this pitch, internal units (60 mm).
constexpr double kPitch = 600000.0;

std::int32_t Round(double v) { return static_cast<std::int32_t>(std::lround(v)); }

// Appends a closed contour around (cx, cy): clockwise for an outer contour, which gives the
// positive area sum that marks outer contours, counter-clockwise for a hole. Five shallow lobes
// keep it from being a plain polygon.
void AddRing(M2DSliceContourLayer& border, double cx, double cy, double radius, int points, bool outer, int part)
{
    M2DSliceContour* contour = border.AddContourAtEnd();
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Border);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
    contour->SetTypeInfo(label);
    contour->SetIsClosed(true);
    contour->SetIsOuterContour(outer);
    const double sense = outer ? -1.0 : 1.0;
    for (int k = 0; k < points; ++k)
    {
        const double phi = sense * 2.0 * kPi * k / points;
        const double r = radius * (1.0 + 0.03 * std::cos(5.0 * phi));
        contour->InsertAtEnd(Round(cx + r * std::cos(phi)), Round(cy + r * std::sin(phi)), nullptr);
    }
}

std::mutex g_tempMutex;
std::vector<std::string> g_tempFiles;

void RemoveTempFiles()
{
    std::lock_guard<std::mutex> lock(g_tempMutex);
    for (const auto& file : g_tempFiles)
        std::remove(file.c_str());
}

} // namespace

BuildGenerator::BuildGenerator(const BuildShape& shape) : _shape(shape)
{
    if (_shape.DistinctLayers < 1)
        _shape.DistinctLayers = 1;
    _templates.resize(static_cast<std::size_t>(_shape.DistinctLayers));
}

const M2DSlice& BuildGenerator::_Template(std::uint64_t i) const
{
    auto& slot = _templates[i % _templates.size()];
    if (!slot)
    {
        slot = std::make_unique<M2DSlice>();
        _BuildTemplate(*slot, static_cast<int>(i % _templates.size()));
        slot->GetXYArea(true); // computed once, so that copies carry a current box
    }
    return *slot;
}

void BuildGenerator::_BuildTemplate(M2DSlice& slice, int index) const
{
    const int parts = _shape.Parts;
    const int columns = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(parts))));
    const double angle = std::fmod(index * 67.0, 180.0) * kPi / 180.0;
    const double ux = std::cos(angle), uy = std::sin(angle); // along the hatch lines
    const double nx = -uy, ny = ux;                           // across them
    const double perPart = static_cast<double>(_shape.VectorsPerLayer) / parts;

    M2DSliceContourLayer& border = *slice.GetSliceBorderUpdate();
    M2DSliceVectorLayer& vectors = *slice.GetVectorsUpdate();
    for (int part = 0; part < parts; ++part)
    {
        if (_shape.OnlyPart >= 0 && part != _shape.OnlyPart)
            continue;
        const double cx = kPitch * (part % columns + 0.5);
        const double cy = kPitch * (part / columns + 0.5);
        const double radius = 250000.0 * (1.0 + 0.08 * std::sin(2.0 * kPi * index / _shape.DistinctLayers + part));
        const double hole = 0.4 * radius;
        AddRing(border, cx, cy, radius, _shape.PointsPerOuter, true, part);
        AddRing(border, cx, cy, hole, _shape.PointsPerHole, false, part);
        if (_shape.OpenPolylinePoints > 1)
        {
            // A zigzag just below the ring, as a support line would run; it stays in the part's
            // cell, so the build keeps to positive coordinates, which every format can hold.
            M2DSliceContour* line = border.AddContourAtEnd();
            M2DSliceVectorTypeInfo label(e2DSliceVectorType_Other);
            label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
            line->SetTypeInfo(label);
            line->SetIsClosed(false);
            line->SetIsOuterContour(false);
            for (int k = 0; k < _shape.OpenPolylinePoints; ++k)
                line->InsertAtEnd(Round(cx - radius + 20000.0 * k), Round(cy - 1.02 * radius - 10000.0 * (k & 1)), nullptr);
        }
        if (_shape.PointsPerPart > 0)
        {
            M2DSlicePointBlock* points = slice.GetPointsUpdate()->AddPointBlockAtEnd();
            M2DSliceVectorTypeInfo label(e2DSliceVectorType_Kind5);
            label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
            points->SetTypeInfo(label);
            for (int k = 0; k < _shape.PointsPerPart; ++k)
                points->Points.push_back(M2DSlicePoint(Round(cx + 0.5 * hole * std::cos(k)), Round(cy + 0.5 * hole * std::sin(k))));
        }

        // Lines across the ring at spacing s give about 2R/s vectors, and those that cross the
        // hole one more each: 2(R + r)/s in all.
        const double outerHatch = radius * 0.96;
        const double innerHatch = hole * 1.04;
        const double spacing = 2.0 * (outerHatch + innerHatch) / perPart;
        const int lines = static_cast<int>(2.0 * outerHatch / spacing);
        const int perBlock = (lines + _shape.BlocksPerPart - 1) / _shape.BlocksPerPart;
        M2DSliceVectorBlock* block = nullptr;
        for (int k = 0; k < lines; ++k)
        {
            if (k % perBlock == 0)
            {
                block = vectors.AddVectorBlockAtEnd();
                M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
                label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
                label.SetIndex(e2DSliceVectorTypeIndex_Parameter, k / perBlock);
                block->SetTypeInfo(label);
            }
            const double t = -outerHatch + spacing * (k + 0.5);
            const double a = std::sqrt(outerHatch * outerHatch - t * t);
            const double b = std::fabs(t) < innerHatch ? std::sqrt(innerHatch * innerHatch - t * t) : 0.0;
            // Every other line runs back, as a scanner meanders.
            const double dir = (k & 1) ? -1.0 : 1.0;
            auto add = [&](double from, double to) {
                from *= dir;
                to *= dir;
                block->Vectors.emplace_back(Round(cx + t * nx + from * ux), Round(cy + t * ny + from * uy),
                                            Round(cx + t * nx + to * ux), Round(cy + t * ny + to * uy));
            };
            if (b > 0.0)
            {
                add(-a, -b);
                add(b, a);
            }
            else
                add(-a, a);
        }
    }
}

std::vector<std::shared_ptr<ISource2DSlices>> BuildGenerator::SplitByPart() const
{
    std::vector<std::shared_ptr<ISource2DSlices>> sources;
    for (int part = 0; part < _shape.Parts; ++part)
    {
        BuildShape shape = _shape;
        shape.OnlyPart = part;
        auto source = std::make_shared<BuildGenerator>(shape);
        source->_properties.SetValue(L"PartID", std::int32_t{part + 1});
        source->_properties.SetValue(L"PartName", L"part" + std::to_wstring(part + 1));
        sources.push_back(source);
    }
    return sources;
}

std::uint64_t BuildGenerator::GetTotalNumVectors() const
{
    std::uint64_t total = 0;
    for (std::uint64_t i = 0; i < _shape.NumLayers && i < _templates.size(); ++i)
    {
        const std::uint64_t repeats = (_shape.NumLayers - i + _templates.size() - 1) / _templates.size();
        total += _Template(i).GetVectors()->GetTotalNumVectors() * repeats;
    }
    return total;
}

std::uint64_t BuildGenerator::GetTotalNumContourPoints() const
{
    std::uint64_t total = 0;
    for (std::uint64_t i = 0; i < _shape.NumLayers && i < _templates.size(); ++i)
    {
        const std::uint64_t repeats = (_shape.NumLayers - i + _templates.size() - 1) / _templates.size();
        total += _Template(i).GetSliceBorder()->GetTotalNumPoints() * repeats;
    }
    return total;
}

M2DSliceZArea BuildGenerator::_OnGetSliceZArea(std::uint64_t i) const
{
    return M2DSliceZArea(static_cast<std::int32_t>((i + 1) * static_cast<std::uint64_t>(_shape.LayerThickness)));
}

M2DSliceXYArea BuildGenerator::_OnGetXYArea(std::uint64_t i) const { return _Template(i).GetXYArea(false); }

M2DSliceXYArea BuildGenerator::_OnGetXYArea() const
{
    M2DSliceXYArea area;
    for (std::uint64_t i = 0; i < _shape.NumLayers && i < _templates.size(); ++i)
        area.Extend(_Template(i).GetXYArea(false));
    return area;
}

std::shared_ptr<const M2DSlice> BuildGenerator::_OnGetSlice(std::uint64_t i) const
{
    auto slice = std::make_shared<M2DSlice>(_Template(i));
    slice->SetZ(_OnGetSliceZArea(i).Z);
    return slice;
}

void BuildGenerator::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    slice = _Template(i);
    slice.SetZ(_OnGetSliceZArea(i).Z);
}

std::uint64_t BenchLayers(std::uint64_t fallback)
{
    const char* text = std::getenv("SLICEIO_BENCH_LAYERS");
    if (!text)
        return fallback;
    const long long value = std::atoll(text);
    return value > 0 ? static_cast<std::uint64_t>(value) : fallback;
}

std::wstring BenchTempPath(const std::string& name)
{
    const std::string path = "/tmp/sliceio_bench_" + std::to_string(getpid()) + "_" + name;
    std::lock_guard<std::mutex> lock(g_tempMutex);
    if (g_tempFiles.empty())
        std::atexit(RemoveTempFiles);
    g_tempFiles.push_back(path);
    return std::wstring(path.begin(), path.end());
}

BenchFile WriteBenchFile(const BuildShape& shape, const std::string& name)
{
    BenchFile file;
    file.Path = BenchTempPath(name);
    file.NarrowPath.assign(file.Path.begin(), file.Path.end());
    const BuildGenerator build(shape);
    file.Layers = shape.NumLayers;
    file.Vectors = build.GetTotalNumVectors();
    std::shared_ptr<I2DSliceIO> io = std::make_shared<M2DSliceIO_cli>();
    M2DSliceContainerIO driver(io);
    file.Written = driver.WriteContainer(build, file.Path, MUnit::GetIE(), 1000, nullptr);
    struct stat info;
    if (file.Written && stat(file.NarrowPath.c_str(), &info) == 0)
        file.Bytes = static_cast<std::uint64_t>(info.st_size);
    return file;
}
