#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>

#include "../../contracts/M2DSliceUtilities.h"
#include "../../framework/M2DSliceContainerIterator.h"
#include "../../svg/SVGWriter.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "Tool.h"

namespace fs = std::filesystem;

namespace sliceio {

namespace {

constexpr double kPictureWidth = 800;      // pixels
constexpr double kPictureMaxHeight = 1200; // pixels; a taller layer gets a narrower picture
constexpr double kOutlinePixels = 1.5;     // stroke widths as seen on the screen
constexpr double kHatchPixels = 0.6;

int Mirror(int y)
{
    return y == INT_MIN ? INT_MAX : -y;
}

// SVG's y axis points down. Mirroring the layer's y first makes the picture show the layer
// as seen from above, with y pointing up as on the machine.
void MirrorY(M2DSlice& slice)
{
    for (M2DSliceContour& contour : *slice.GetSliceBorderUpdate())
        for (M2DSliceContourPoint& point : contour)
            point.y = Mirror(point.y);
    M2DSliceVectorLayer& vectors = *slice.GetVectorsUpdate();
    for (std::size_t i = 0; i < vectors.GetNumVectorBlocks(); ++i)
        for (M2DSliceVector& v : vectors.GetVectorBlock(i)->Vectors)
        {
            v.y1 = Mirror(v.y1);
            v.y2 = Mirror(v.y2);
        }
}

} // namespace

int RunSvg(const SvgOptions& options)
{
    const std::uint64_t index = options.Layer;
    const std::string& path = options.Path;
    const std::string& out = options.Out;
    CheckInputFile(path);
    const InputFormat format = ResolveInputFormat(path, options.Type);
    CheckOutputFile(out);

    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(format.Code);
    std::unique_ptr<M2DSliceContainerIterator> it;
    M2DSlice slice;
    try
    {
        it = std::make_unique<M2DSliceContainerIterator>(WidePath(path), io, true, 0, true);
        if (it->IsValid() && index < it->GetNumSlices())
            it->GetSlice(slice, index);
    }
    catch (const std::exception& e)
    {
        throw Failure(DescribeReadFailure(format, path, io.get(), e.what()));
    }
    if (!it->IsValid())
        throw Failure(DescribeReadFailure(format, path, it->GetSliceIO().get(), ""));
    if (index >= it->GetNumSlices())
        throw Failure(fmt::format("{}: has {} layers, numbered from 0; there is no layer {}", path,
                                  it->GetNumSlices(), index));

    if (slice.IsEmpty() && it->GetLayerTable()[index].Info.NumContours > 0)
        throw Failure(fmt::format("{}: layer {}: the {} reader could not read the layer back", path, index,
                                  format.Name));

    MirrorY(slice);
    M2DSliceXYArea area = slice.GetXYArea(true);
    if (area.IsEmpty())
        area = {0, MUnit::GetIE() * 10, -MUnit::GetIE() * 10, 0}; // an empty 10 mm frame
    const double margin = std::max(1.0, 0.02 * std::max(double(area.XMax) - area.XMin, double(area.YMax) - area.YMin));
    const double x = area.XMin - margin;
    const double y = area.YMin - margin;
    const double w = double(area.XMax) - area.XMin + 2 * margin;
    const double h = double(area.YMax) - area.YMin + 2 * margin;
    const double scale = std::min(kPictureWidth / w, kPictureMaxHeight / h); // pixels per internal unit

    // The contour path gets a fill but no stroke, so the outlines are drawn as vector blocks
    // of the border type on top of the layer's vectors, and the contour path itself stays
    // unfilled so that it hides nothing.
    M2DSliceVectorLayer vectors = *slice.GetVectors();
    const std::size_t ownBlocks = vectors.GetNumVectorBlocks();
    M2DSliceUtilities::AddContoursToVectorLayer(*slice.GetSliceBorder(), vectors);
    for (std::size_t i = ownBlocks; i < vectors.GetNumVectorBlocks(); ++i)
        vectors.GetVectorBlock(i)->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Border);

    SVG::SVGPathStyles styles;
    for (int type = e2DSliceVectorType_None; type <= e2DSliceVectorType_Kind11; ++type)
    {
        SVG::SVGPathStyle style;
        style.Stroke = "#c0392b";
        style.StrokeWidth = kHatchPixels / scale;
        styles[static_cast<e2DSliceVectorType>(type)] = style;
    }
    styles[e2DSliceVectorType_Border].Stroke = "#1f4e9c";
    styles[e2DSliceVectorType_Border].StrokeWidth = kOutlinePixels / scale;

    SVG::SVGRootParameters root;
    root.ViewBox = fmt::format("{} {} {} {}", std::lround(x), std::lround(y), std::lround(w), std::lround(h));
    SVG::SVGSize size;
    size.Width = static_cast<std::int32_t>(std::max(1L, std::lround(w * scale)));
    size.Height = static_cast<std::int32_t>(std::max(1L, std::lround(h * scale)));

    SVG::SVGWriter writer;
    writer.SetSize(size);
    writer.SetRootParameters(root);
    writer.SetVectorLayer(vectors);
    writer.SetVectorBlocksPathsStyles(styles);
    writer.SetContourLayer(*slice.GetSliceBorder());
    writer.SetContoursPathFill({"none"});

    // The writer reports nothing: an old file is removed first so that its presence
    // afterwards tells that the picture was written. Only a regular file is removed.
    std::error_code ec;
    if (fs::is_regular_file(out, ec))
        fs::remove(out, ec);
    writer.Write(fs::path(out));
    if (!fs::exists(out, ec) || fs::file_size(out, ec) == 0)
        throw Failure(out + ": the picture could not be written");
    std::printf("%s: layer %llu at %s mm drawn into %s (%d x %d px)\n", path.c_str(),
                static_cast<unsigned long long>(index), Fixed(double(slice.GetZ()) / MUnit::GetIE(), 4).c_str(),
                out.c_str(), size.Width, size.Height);
    return 0;
}

} // namespace sliceio
