#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "../../contracts/M2DSliceStack.h"
#include "../../contracts/MUnit.h"
#include "../../framework/M2DSliceContainerIO.h"
#include "Tool.h"

namespace sliceio {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kLayerThickness = 0.05; // mm
constexpr double kHatchSpacing = 0.5;    // mm
constexpr std::int32_t kResolution = 1000; // file steps per mm

int Units(double mm)
{
    return static_cast<int>(std::lround(mm * MUnit::GetIE()));
}

// Points in millimetres. An outer contour runs so that the sum of (y1 + y2) * (x2 - x1)
// is positive, a hole the other way round.
void AddContour(M2DSlice& slice, const std::vector<std::pair<double, double>>& points, bool outer)
{
    M2DSliceContour* contour = slice.GetSliceBorderUpdate()->AddContourAtEnd();
    contour->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Border));
    contour->SetIsClosed(true);
    contour->SetIsOuterContour(outer);
    for (const auto& p : points)
        contour->InsertAtEnd(Units(p.first), Units(p.second), nullptr);
}

M2DSliceVectorBlock* AddHatchBlock(M2DSlice& slice)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
    return block;
}

// A hatch line from a to b across the layer, along x on even layers and along y on odd
// ones; c is the other coordinate.
void AddHatch(M2DSliceVectorBlock& block, bool alongX, double c, double a, double b)
{
    if (alongX)
        block.Vectors.emplace_back(Units(a), Units(c), Units(b), Units(c));
    else
        block.Vectors.emplace_back(Units(c), Units(a), Units(c), Units(b));
}

// A square of side size from (x0, y0) with a centred square hole of side hole.
M2DSlice SquareWithHole(double x0, double y0, double size, double hole, bool alongX)
{
    M2DSlice slice;
    const double x1 = x0 + size, y1 = y0 + size;
    const double hx0 = x0 + (size - hole) / 2, hy0 = y0 + (size - hole) / 2;
    const double hx1 = hx0 + hole, hy1 = hy0 + hole;
    AddContour(slice, {{x0, y0}, {x0, y1}, {x1, y1}, {x1, y0}}, true);
    AddContour(slice, {{hx0, hy0}, {hx1, hy0}, {hx1, hy1}, {hx0, hy1}}, false);

    // Lines across the square that leave the hole out.
    M2DSliceVectorBlock* block = AddHatchBlock(slice);
    const double lo = alongX ? x0 : y0, hi = alongX ? x1 : y1;
    const double holeLo = alongX ? hx0 : hy0, holeHi = alongX ? hx1 : hy1;
    const double across0 = alongX ? y0 : x0, across1 = alongX ? y1 : x1;
    const double acrossHoleLo = alongX ? hy0 : hx0, acrossHoleHi = alongX ? hy1 : hx1;
    for (double c = across0 + kHatchSpacing / 2; c < across1; c += kHatchSpacing)
    {
        if (c > acrossHoleLo && c < acrossHoleHi)
        {
            AddHatch(*block, alongX, c, lo, holeLo);
            AddHatch(*block, alongX, c, holeHi, hi);
        }
        else
            AddHatch(*block, alongX, c, lo, hi);
    }
    return slice;
}

// A polygon of 72 corners around (cx, cy), hatched with chords.
M2DSlice Circle(double cx, double cy, double radius, bool alongX)
{
    M2DSlice slice;
    std::vector<std::pair<double, double>> points;
    for (int k = 0; k < 72; ++k)
    {
        const double angle = -2 * kPi * k / 72; // clockwise: an outer contour
        points.emplace_back(cx + radius * std::cos(angle), cy + radius * std::sin(angle));
    }
    AddContour(slice, points, true);
    M2DSliceVectorBlock* block = AddHatchBlock(slice);
    const double centreAcross = alongX ? cy : cx, centreAlong = alongX ? cx : cy;
    for (double d = -radius + kHatchSpacing / 2; d < radius; d += kHatchSpacing)
    {
        const double half = std::sqrt(radius * radius - d * d) * 0.95; // stay inside the polygon
        AddHatch(*block, alongX, centreAcross + d, centreAlong - half, centreAlong + half);
    }
    return slice;
}

// The sample build: two squares with a square hole and a shrinking circle, each a part of
// its own and hatched, as binary CLI in steps of 1/1000 mm. Deterministic, so that a file
// made from it is the same on every machine. Everything lies between 0 and 60 mm, so the
// build also fits the short CLI form at this resolution.
bool WriteSampleBuild(const std::string& path, std::uint32_t layers)
{
    M2DSliceStack parts[3];
    for (std::uint32_t i = 0; i < layers; ++i)
    {
        const bool alongX = i % 2 == 0;
        M2DSlice slices[3] = {SquareWithHole(5, 5, 20, 8, alongX), SquareWithHole(35, 5, 20, 6, alongX),
                              Circle(30, 45, std::max(3.0, 10 - 0.01 * i), alongX)};
        for (int p = 0; p < 3; ++p)
        {
            slices[p].SetZ(Units((i + 1) * kLayerThickness));
            parts[p].AddSlice(slices[p], true);
        }
    }
    M2DSliceContainerIO io(0);
    return io.WriteContainers({&parts[0], &parts[1], &parts[2]}, WidePath(path), MUnit::GetIE(), kResolution,
                              nullptr);
}

} // namespace

int RunSample(const SampleOptions& options)
{
    const std::string& out = options.Out;
    const std::uint32_t layers = options.Layers;
    CheckOutputFile(out);
    if (!WriteSampleBuild(out, layers))
    {
        std::error_code ec;
        const bool removed = std::filesystem::is_regular_file(out, ec) && std::filesystem::remove(out, ec);
        throw Failure(out + ": writing the sample failed" + (removed ? "; the partial output was removed" : ""));
    }
    std::printf("%s: sample build of %u layers written\n", out.c_str(), layers);
    return 0;
}

} // namespace sliceio
