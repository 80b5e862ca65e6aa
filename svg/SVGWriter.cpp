#include "SVGWriter.h"

#include <locale>
#include <sstream>

#include "../contracts/MXMLWriter.h"
#include "../contracts/StringConversion.h"

namespace SVG {

namespace {

void AppendPoint(std::wstring& text, const wchar_t* command, int x, int y)
{
    text += command;
    text += L' ';
    text += std::to_wstring(x);
    text += L' ';
    text += std::to_wstring(y);
}

} // namespace

SVGWriter::SVGWriter()
{
    _PopulateDefaultVectorBlocksPathsStyles();
}

std::unique_ptr<ISVGWriter> SVGWriter::Clone() const
{
    return std::make_unique<SVGWriter>(*this);
}

void SVGWriter::_PopulateDefaultVectorBlocksPathsStyles()
{
    for (int type = e2DSliceVectorType_Border; type <= e2DSliceVectorType_Kind11; ++type)
        _styles[static_cast<e2DSliceVectorType>(type)] = SVGPathStyle();
}

void SVGWriter::Write(const std::filesystem::path& path)
{
    MXMLWriter writer(static_cast<EXMLEncoding>(0));
    writer.Open(path);
    writer.WriteStartTag("svg");
    _WriteSVGTag(writer);
    _WriteVectorBlocks(writer);
    _WriteContours(writer);
    writer.WriteEndTag("svg");
    writer.Close();
}

void SVGWriter::_WriteSVGTag(MXMLWriter& writer) const
{
    writer.WriteAttribute("width", std::to_string(_size.Width) + "px");
    writer.WriteAttribute("height", std::to_string(_size.Height) + "px");
    if (_rootParameters)
    {
        if (_rootParameters->ViewBox)
            writer.WriteAttribute("viewBox", *_rootParameters->ViewBox);
        writer.WriteAttribute("version", _rootParameters->Version);
        writer.WriteAttribute("shape-rendering", _rootParameters->ShapeRendering);
    }
    writer.WriteAttribute("xmlns", "http://www.w3.org/2000/svg");
}

void SVGWriter::_WriteVectorBlocks(MXMLWriter& writer)
{
    // Vectors go first so that the contours are drawn on top of them.
    for (const M2DSliceVectorBlock* block = _vectors.GetFirstVectorBlock(); block; block = block->GetNextVectorBlock())
        _WriteVectorBlock(writer, *block);
}

void SVGWriter::_WriteVectorBlock(MXMLWriter& writer, const M2DSliceVectorBlock& block)
{
    writer.WriteStartTag("path");
    writer.WriteAttribute("d", StringConversion::NativeToUtf8(SVGWriterUtilties::GetVectorBlockPathData(block)));
    if (block.GetNumVectors() > 0)
        _WriteStyle(writer, block.GetTypeInfo().GetType());
    writer.WriteEndTag("path");
}

void SVGWriter::_WriteContours(MXMLWriter& writer) const
{
    // One element for the whole layer, written even when the layer is empty.
    writer.WriteStartTag("path");
    writer.WriteAttribute("d", StringConversion::NativeToUtf8(SVGWriterUtilties::GetContourLayerPathData(_contours)));
    if (_contours.GetNumContours() > 0)
        _WriteFill(writer);
    writer.WriteEndTag("path");
}

void SVGWriter::_WriteStyle(MXMLWriter& writer, e2DSliceVectorType type)
{
    const SVGPathStyle& style = _styles[type];
    // Doubles in the stream's default format; the classic locale keeps the decimal point.
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "fill:" << style.Fill << "; "
         << "fill-opacity:" << style.FillOpacity << "; "
         << "fill-rule:" << style.FillRule << "; "
         << "stroke:" << style.Stroke << "; "
         << "stroke-opacity:" << style.StrokeOpacity << "; "
         << "stroke-width:" << style.StrokeWidth << ";";
    writer.WriteAttribute("style", text.str());
}

void SVGWriter::_WriteFill(MXMLWriter& writer) const
{
    writer.WriteAttribute("fill", _contoursFill.Fill);
}

std::wstring SVGWriterUtilties::GetContourLayerPathData(const M2DSliceContourLayer& layer)
{
    std::wstring text;
    for (const M2DSliceContour& contour : layer)
    {
        if (contour.GetNumPoints() == 0)
            continue;
        if (!text.empty())
            text += L' ';
        bool first = true;
        for (const M2DSliceContourPoint& point : contour)
        {
            if (first)
                AppendPoint(text, L"M", point.x, point.y);
            else
            {
                text += L' ';
                AppendPoint(text, L"L", point.x, point.y);
            }
            first = false;
        }
        // Every contour is closed in the picture, also one that is open in the layer.
        text += L" z";
    }
    return text;
}

std::wstring SVGWriterUtilties::GetVectorBlockPathData(const M2DSliceVectorBlock& block)
{
    std::wstring text;
    const M2DSliceVector* previous = nullptr;
    for (const M2DSliceVector& vector : block.Vectors)
    {
        if (!text.empty())
            text += L' ';
        if (!previous || previous->x2 != vector.x1 || previous->y2 != vector.y1)
        {
            AppendPoint(text, L"M", vector.x1, vector.y1);
            text += L' ';
        }
        AppendPoint(text, L"L", vector.x2, vector.y2);
        previous = &vector;
    }
    return text;
}

} // namespace SVG
