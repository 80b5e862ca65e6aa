#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "svg/SVGWriter.h"

namespace {

using Attributes = std::vector<std::pair<std::string, std::string>>;

struct Element
{
    std::string Name;
    Attributes Attrs; // in the order written
    int Depth;
};

std::string Attr(const Element& e, const std::string& name)
{
    for (const auto& a : e.Attrs)
        if (a.first == name)
            return a.second;
    return "<absent>";
}

// The start tags of a written file in document order; the XML declaration is skipped.
// Attribute values are taken as they stand, unescaped, which the texts here never need.
std::vector<Element> ReadElements(const std::filesystem::path& path)
{
    std::ifstream in(path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    std::vector<Element> elements;
    int depth = 0;
    for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at))
    {
        ++at;
        if (text[at] == '?')
            continue;
        if (text[at] == '/')
        {
            --depth;
            continue;
        }
        Element e{{}, {}, depth};
        const std::size_t nameEnd = text.find_first_of(" \t\r\n/>", at);
        e.Name = text.substr(at, nameEnd - at);
        at = text.find_first_not_of(" \t\r\n", nameEnd);
        while (at < text.size() && text[at] != '/' && text[at] != '>')
        {
            const std::size_t equals = text.find('=', at);
            const std::size_t open = text.find('"', equals);
            const std::size_t close = text.find('"', open + 1);
            e.Attrs.emplace_back(text.substr(at, equals - at), text.substr(open + 1, close - open - 1));
            at = text.find_first_not_of(" \t\r\n", close + 1);
        }
        if (at < text.size() && text[at] == '>')
            ++depth;
        elements.push_back(e);
    }
    return elements;
}

const std::string kDefaultStyle =
    "fill:#000000; fill-opacity:0; fill-rule:nonzero; stroke:#000000; stroke-opacity:1; stroke-width:1;";
const std::string kNamespace = "http://www.w3.org/2000/svg";

class SVGWriterTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        _path = std::filesystem::temp_directory_path() /
                ("svgwriter_" + std::to_string(::getpid()) + "_" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".svg");
    }
    void TearDown() override { std::filesystem::remove(_path); }

    std::vector<Element> WriteAndRead(SVG::SVGWriter& writer)
    {
        writer.Write(_path);
        return ReadElements(_path);
    }

    std::filesystem::path _path;
};

M2DSliceVectorLayer Vectors(std::initializer_list<M2DSliceVector> vectors, int type)
{
    M2DSliceVectorLayer layer;
    M2DSliceVectorBlock* block = layer.AddVectorBlockAtEnd();
    block->SetTypeInfo(M2DSliceVectorTypeInfo(static_cast<e2DSliceVectorType>(type)));
    block->Vectors = vectors;
    return layer;
}

void AddContour(M2DSliceContourLayer& layer, std::initializer_list<std::pair<int, int>> points, bool closed = true)
{
    M2DSliceContour* contour = layer.AddContourAtEnd();
    contour->SetIsClosed(closed);
    for (const auto& p : points)
        contour->InsertAtEnd(p.first, p.second, nullptr);
}

} // namespace

TEST_F(SVGWriterTest, NewWriterWritesBareRootAndOneEmptyContourPath)
{
    SVG::SVGWriter writer;
    std::vector<Element> elements = WriteAndRead(writer);
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(elements[0].Name, "svg");
    EXPECT_EQ(elements[0].Attrs, (Attributes{{"width", "600px"}, {"height", "600px"}, {"xmlns", kNamespace}}));
    EXPECT_EQ(elements[1].Name, "path");
    EXPECT_EQ(elements[1].Depth, 1);
    EXPECT_EQ(elements[1].Attrs, (Attributes{{"d", ""}}));

    // The first member of the size is the height.
    writer.SetSize(SVG::SVGSize{100, 200});
    elements = WriteAndRead(writer);
    EXPECT_EQ(Attr(elements[0], "height"), "100px");
    EXPECT_EQ(Attr(elements[0], "width"), "200px");
}

TEST_F(SVGWriterTest, RootParametersAddViewBoxVersionAndRenderingInOrder)
{
    SVG::SVGWriter writer;
    SVG::SVGRootParameters root;
    writer.SetRootParameters(root);
    EXPECT_EQ(WriteAndRead(writer)[0].Attrs, (Attributes{{"width", "600px"},
                                                         {"height", "600px"},
                                                         {"version", "1.1"},
                                                         {"shape-rendering", "crispEdges"},
                                                         {"xmlns", kNamespace}}));
    root.ViewBox = "-5 -5 110 60";
    writer.SetRootParameters(root);
    EXPECT_EQ(WriteAndRead(writer)[0].Attrs, (Attributes{{"width", "600px"},
                                                         {"height", "600px"},
                                                         {"viewBox", "-5 -5 110 60"},
                                                         {"version", "1.1"},
                                                         {"shape-rendering", "crispEdges"},
                                                         {"xmlns", kNamespace}}));
}

TEST_F(SVGWriterTest, PathData)
{
    M2DSliceVectorLayer layer = Vectors({{0, 0, 10, 0}, {10, 0, 10, 10}, {20, 20, 30, 30}}, 6);
    EXPECT_EQ(SVG::SVGWriterUtilties::GetVectorBlockPathData(*layer.GetFirstVectorBlock()),
              L"M 0 0 L 10 0 L 10 10 M 20 20 L 30 30");
    // A vector that starts where the previous one began, not where it ended, starts anew.
    layer = Vectors({{0, 0, 10, 0}, {0, 0, -7, 3}}, 6);
    EXPECT_EQ(SVG::SVGWriterUtilties::GetVectorBlockPathData(*layer.GetFirstVectorBlock()),
              L"M 0 0 L 10 0 M 0 0 L -7 3");
    EXPECT_EQ(SVG::SVGWriterUtilties::GetVectorBlockPathData(M2DSliceVectorBlock()), L"");

    // Contours: the start is not repeated, a contour without points adds nothing and an
    // open one is closed all the same.
    M2DSliceContourLayer contours;
    AddContour(contours, {{0, 0}, {100, 0}, {100, 50}, {0, 50}});
    EXPECT_EQ(SVG::SVGWriterUtilties::GetContourLayerPathData(contours), L"M 0 0 L 100 0 L 100 50 L 0 50 z");
    contours.AddContourAtEnd();
    AddContour(contours, {{-3, 7}, {4, 9}}, false);
    EXPECT_EQ(SVG::SVGWriterUtilties::GetContourLayerPathData(contours),
              L"M 0 0 L 100 0 L 100 50 L 0 50 z M -3 7 L 4 9 z");
}

TEST_F(SVGWriterTest, VectorBlocksComeBeforeTheSingleContourPath)
{
    SVG::SVGWriter writer;
    M2DSliceVectorLayer vectors = Vectors({{0, 0, 10, 0}, {10, 0, 10, 10}, {20, 20, 30, 30}}, 6);
    vectors.AddVectorBlockAtEnd(); // no vectors: empty "d", no style
    writer.SetVectorLayer(vectors);
    M2DSliceContourLayer contours;
    AddContour(contours, {{0, 0}, {100, 0}, {100, 50}, {0, 50}});
    AddContour(contours, {{10, 10}, {20, 10}, {20, 20}});
    writer.SetContourLayer(contours);
    std::vector<Element> elements = WriteAndRead(writer);
    ASSERT_EQ(elements.size(), 4u);
    EXPECT_EQ(elements[1].Attrs,
              (Attributes{{"d", "M 0 0 L 10 0 L 10 10 M 20 20 L 30 30"}, {"style", kDefaultStyle}}));
    EXPECT_EQ(elements[2].Attrs, (Attributes{{"d", ""}}));
    EXPECT_EQ(elements[3].Attrs, (Attributes{{"d", "M 0 0 L 100 0 L 100 50 L 0 50 z M 10 10 L 20 10 L 20 20 z"},
                                             {"fill", "#ffffff"}}));
    writer.SetContoursPathFill({"none"});
    EXPECT_EQ(Attr(WriteAndRead(writer)[3], "fill"), "none");
}

TEST_F(SVGWriterTest, StylesCoverTypesOneToElevenAndFallBackToTheDefault)
{
    SVG::SVGWriter writer;
    ASSERT_EQ(writer.GetVectorBlocksPathsStyles().size(), 11u);
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().count(e2DSliceVectorType_None), 0u);

    // Types 0 and 12 get the default style and are entered into the map.
    M2DSliceVectorLayer layer = Vectors({{1, 2, 3, 4}}, 0);
    M2DSliceVectorBlock* high = layer.AddVectorBlockAtEnd();
    high->SetTypeInfo(M2DSliceVectorTypeInfo(static_cast<e2DSliceVectorType>(12)));
    high->Vectors.emplace_back(5, 6, 7, 8);
    writer.SetVectorLayer(layer);
    std::vector<Element> elements = WriteAndRead(writer);
    ASSERT_EQ(elements.size(), 4u);
    EXPECT_EQ(Attr(elements[1], "style"), kDefaultStyle);
    EXPECT_EQ(Attr(elements[2], "style"), kDefaultStyle);
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().size(), 13u);

    // An empty map replaces the defaults; writing enters the default style again.
    writer.SetVectorBlocksPathsStyles({});
    writer.SetVectorLayer(Vectors({{1, 2, 3, 4}}, 6));
    EXPECT_EQ(Attr(WriteAndRead(writer)[1], "style"), kDefaultStyle);
    ASSERT_EQ(writer.GetVectorBlocksPathsStyles().size(), 1u);
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().count(e2DSliceVectorType_Hatch), 1u);

    // Numbers print in the stream's default format: six significant digits.
    SVG::SVGPathStyle style{"none", 0.25, "evenodd", "#ff0000", 0.5, 1234.5678};
    writer.SetVectorBlocksPathsStyles({{e2DSliceVectorType_Hatch, style}});
    EXPECT_EQ(Attr(WriteAndRead(writer)[1], "style"),
              "fill:none; fill-opacity:0.25; fill-rule:evenodd; stroke:#ff0000; stroke-opacity:0.5; "
              "stroke-width:1234.57;");
}

TEST_F(SVGWriterTest, UnwritablePathLeavesNoFileAndDoesNotThrow)
{
    SVG::SVGWriter writer;
    const std::filesystem::path missing = _path.parent_path() / "no_such_directory_svgwriter" / "x.svg";
    EXPECT_NO_THROW(writer.Write(missing));
    EXPECT_FALSE(std::filesystem::exists(missing));
}
