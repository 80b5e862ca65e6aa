// The SVG writer, checked against the whole text it writes.
#include "svg/SVGWriter.h"
#include "tests/TestSupport.h"

namespace {

using SVG::SVGWriterUtilties;

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const std::string kNamespace = "xmlns=\"http://www.w3.org/2000/svg\"";
const std::string kDefaultStyle =
    "fill:#000000; fill-opacity:0; fill-rule:nonzero; stroke:#000000; stroke-opacity:1; stroke-width:1;";

// A root of the default size with the given elements inside.
std::string Svg(const std::string& body, const std::string& root = "width=\"600px\" height=\"600px\" " + kNamespace)
{
    return kDeclaration + "<svg " + root + ">\n" + body + "</svg>\n";
}

std::string Path(const std::string& d, const std::string& more = "") { return "<path d=\"" + d + "\"" + more + "/>\n"; }
std::string Styled(const std::string& d, const std::string& style = kDefaultStyle) { return Path(d, " style=\"" + style + "\""); }

M2DSliceVectorLayer Vectors(const std::vector<M2DSliceVector>& vectors, int type)
{
    M2DSliceVectorLayer layer;
    M2DSliceVectorBlock* block = layer.AddVectorBlockAtEnd();
    block->SetTypeInfo(M2DSliceVectorTypeInfo(static_cast<e2DSliceVectorType>(type)));
    block->Vectors = vectors;
    return layer;
}

class SVGWriterTest : public ::testing::Test
{
protected:
    std::string Written()
    {
        writer.Write(dir.File("layer.svg"));
        return ts::ReadFile(dir.File("layer.svg"));
    }
    ts::ScratchDir dir;
    SVG::SVGWriter writer;
};

TEST_F(SVGWriterTest, NewWriterWritesBareRootAndOneEmptyContourPath)
{
    EXPECT_EQ(Written(), Svg(Path("")));
    writer.SetSize(SVG::SVGSize{100, 200}); // the first member is the height
    EXPECT_EQ(Written(), Svg(Path(""), "width=\"200px\" height=\"100px\" " + kNamespace));

    SVG::SVGRootParameters root;
    writer.SetRootParameters(root);
    const std::string sized = "width=\"200px\" height=\"100px\" ";
    EXPECT_EQ(Written(), Svg(Path(""), sized + "version=\"1.1\" shape-rendering=\"crispEdges\" " + kNamespace));
    root.ViewBox = "-5 -5 110 60";
    writer.SetRootParameters(root);
    EXPECT_EQ(Written(), Svg(Path(""), sized + "viewBox=\"-5 -5 110 60\" version=\"1.1\" shape-rendering=\"crispEdges\" " +
                                           kNamespace));
}

TEST_F(SVGWriterTest, VectorBlocksComeBeforeTheSingleContourPath)
{
    // A vector that starts where the previous one began, not where it ended, starts anew; a
    // block without vectors gets an empty "d" and no style.
    M2DSliceVectorLayer vectors = Vectors({{0, 0, 10, 0}, {10, 0, 10, 10}, {20, 20, 30, 30}}, 6);
    M2DSliceVectorBlock* second = vectors.AddVectorBlockAtEnd();
    second->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
    second->Vectors = {{0, 0, 10, 0}, {0, 0, -7, 3}};
    vectors.AddVectorBlockAtEnd();
    writer.SetVectorLayer(vectors);
    // One subpath per contour with points, the start not repeated; open ones are closed too.
    M2DSliceContourLayer contours;
    ts::AddContour(contours, {{0, 0}, {100, 0}, {100, 50}, {0, 50}});
    contours.AddContourAtEnd();
    ts::AddContour(contours, {{-3, 7}, {4, 9}}, false);
    writer.SetContourLayer(contours);
    const std::string contourData = "M 0 0 L 100 0 L 100 50 L 0 50 z M -3 7 L 4 9 z";
    EXPECT_EQ(SVGWriterUtilties::GetContourLayerPathData(contours), ts::Wide(contourData));
    EXPECT_EQ(SVGWriterUtilties::GetVectorBlockPathData(*second), L"M 0 0 L 10 0 M 0 0 L -7 3");
    const std::string vectorPaths = Styled("M 0 0 L 10 0 L 10 10 M 20 20 L 30 30") + Styled("M 0 0 L 10 0 M 0 0 L -7 3") + Path("");
    EXPECT_EQ(Written(), Svg(vectorPaths + Path(contourData, " fill=\"#ffffff\"")));
    writer.SetContoursPathFill({"none"});
    EXPECT_EQ(Written(), Svg(vectorPaths + Path(contourData, " fill=\"none\"")));
}

TEST_F(SVGWriterTest, StylesCoverTypesOneToElevenAndFallBackToTheDefault)
{
    ASSERT_EQ(writer.GetVectorBlocksPathsStyles().size(), 11u);
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().count(e2DSliceVectorType_None), 0u);

    // Types 0 and 12 get the default style and are entered into the map.
    M2DSliceVectorLayer layer = Vectors({{1, 2, 3, 4}}, 0);
    M2DSliceVectorBlock* high = layer.AddVectorBlockAtEnd();
    high->SetTypeInfo(M2DSliceVectorTypeInfo(static_cast<e2DSliceVectorType>(12)));
    high->Vectors.emplace_back(5, 6, 7, 8);
    writer.SetVectorLayer(layer);
    EXPECT_EQ(Written(), Svg(Styled("M 1 2 L 3 4") + Styled("M 5 6 L 7 8") + Path("")));
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().size(), 13u);

    // An empty map replaces the defaults; writing enters the default style again.
    writer.SetVectorBlocksPathsStyles({});
    writer.SetVectorLayer(Vectors({{1, 2, 3, 4}}, 6));
    EXPECT_EQ(Written(), Svg(Styled("M 1 2 L 3 4") + Path("")));
    ASSERT_EQ(writer.GetVectorBlocksPathsStyles().size(), 1u);
    EXPECT_EQ(writer.GetVectorBlocksPathsStyles().count(e2DSliceVectorType_Hatch), 1u);

    // Numbers print in the stream's default format: six significant digits.
    writer.SetVectorBlocksPathsStyles({{e2DSliceVectorType_Hatch, {"none", 0.25, "evenodd", "#ff0000", 0.5, 1234.5678}}});
    EXPECT_EQ(Written(), Svg(Styled("M 1 2 L 3 4", "fill:none; fill-opacity:0.25; fill-rule:evenodd; stroke:#ff0000; "
                                                   "stroke-opacity:0.5; stroke-width:1234.57;") +
                             Path("")));
}

TEST_F(SVGWriterTest, UnwritablePathLeavesNoFileAndDoesNotThrow)
{
    const std::filesystem::path missing = dir.Path() / "missing" / "x.svg";
    EXPECT_NO_THROW(writer.Write(missing));
    EXPECT_FALSE(std::filesystem::exists(missing));
}

} // namespace
