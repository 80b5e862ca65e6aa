#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "../contracts/M2DSlice.h"

class MXMLWriter;

// Draws one layer (its vector blocks, its contours, or both) as a small SVG picture.
// Coordinates go into the path data as the internal integers they are, unscaled and with
// the y axis as it is; a caller that wants a readable picture sets a viewBox.
namespace SVG {

struct SVGSize
{
    std::int32_t Height = 600;
    std::int32_t Width = 600;
};

struct SVGPathFill
{
    std::string Fill = "#ffffff";
};

struct SVGPathStyle
{
    std::string Fill = "#000000";
    double FillOpacity = 0;
    std::string FillRule = "nonzero";
    std::string Stroke = "#000000";
    double StrokeOpacity = 1;
    double StrokeWidth = 1;
};

struct SVGRootParameters
{
    std::string Version = "1.1";
    std::string ShapeRendering = "crispEdges";
    std::optional<std::string> ViewBox;
};

using SVGPathStyles = std::unordered_map<e2DSliceVectorType, SVGPathStyle>;

class SLICEIO_API ISVGWriter
{
public:
    virtual ~ISVGWriter() = default;
    virtual std::unique_ptr<ISVGWriter> Clone() const = 0;
    virtual void SetSize(const SVGSize& size) = 0;
    virtual void SetVectorLayer(const M2DSliceVectorLayer& layer) = 0;
    virtual void SetContourLayer(const M2DSliceContourLayer& layer) = 0;
    virtual void SetVectorBlocksPathsStyles(const SVGPathStyles& styles) = 0;
    virtual void SetContoursPathFill(const SVGPathFill& fill) = 0;
    virtual void SetRootParameters(const SVGRootParameters& parameters) = 0;
    // Writes the whole picture. Nothing is reported: a file that cannot be written is
    // simply not there afterwards.
    virtual void Write(const std::filesystem::path& path) = 0;
};

class SLICEIO_API SVGWriter : public ISVGWriter
{
public:
    // Every vector type from 1 to 11 starts with the default style.
    SVGWriter();

    std::unique_ptr<ISVGWriter> Clone() const override;
    void SetSize(const SVGSize& size) override { _size = size; }
    void SetVectorLayer(const M2DSliceVectorLayer& layer) override { _vectors = layer; }
    void SetContourLayer(const M2DSliceContourLayer& layer) override { _contours = layer; }
    // Replaces the whole map, the defaults included.
    void SetVectorBlocksPathsStyles(const SVGPathStyles& styles) override { _styles = styles; }
    void SetContoursPathFill(const SVGPathFill& fill) override { _contoursFill = fill; }
    void SetRootParameters(const SVGRootParameters& parameters) override { _rootParameters = parameters; }
    void Write(const std::filesystem::path& path) override;

    const M2DSliceVectorLayer& GetVectorLayer() const { return _vectors; }
    const M2DSliceContourLayer& GetContourLayer() const { return _contours; }
    const SVGSize& GetSize() const { return _size; }
    const SVGPathFill& GetContoursPathFill() const { return _contoursFill; }
    const std::optional<SVGRootParameters>& GetRootParameters() const { return _rootParameters; }
    const SVGPathStyles& GetVectorBlocksPathsStyles() const { return _styles; }

private:
    void _PopulateDefaultVectorBlocksPathsStyles();
    void _WriteSVGTag(MXMLWriter& writer) const;
    void _WriteVectorBlocks(MXMLWriter& writer);
    void _WriteVectorBlock(MXMLWriter& writer, const M2DSliceVectorBlock& block);
    void _WriteContours(MXMLWriter& writer) const;
    // Looks the type's style up, entering the default style when the type has none.
    void _WriteStyle(MXMLWriter& writer, e2DSliceVectorType type);
    void _WriteFill(MXMLWriter& writer) const;

    M2DSliceVectorLayer _vectors;
    SVGPathStyles _styles;
    M2DSliceContourLayer _contours;
    SVGPathFill _contoursFill;
    SVGSize _size;
    std::optional<SVGRootParameters> _rootParameters;
};

// The "d" texts of the two kinds of path.
class SLICEIO_API SVGWriterUtilties
{
public:
    // One closed subpath per contour with points: "M x y L x y ... z".
    static std::wstring GetContourLayerPathData(const M2DSliceContourLayer& layer);
    // "M x1 y1 L x2 y2" per vector; a vector that starts where the previous one ended
    // continues the line with "L" only.
    static std::wstring GetVectorBlockPathData(const M2DSliceVectorBlock& block);
};

} // namespace SVG
