#include <gtest/gtest.h>

#include <functional>

#include "tests/framework/TestFormat.h"

namespace {

using Input = I2DSliceIO::ILayerInput;
using Path = std::vector<std::pair<int, int>>;

void Contour(Input& in, const Path& points, bool closed = true, bool invert = false)
{
    in.StartContour(e2DSliceVectorType_Border);
    in.SetContourClosed(closed);
    in.SetContourOuter(false); // the reader decides by the area instead
    for (const auto& p : points)
        in.AddContourPoint(p.first, p.second);
    in.EndContour(invert);
}

const Path kUnitSquare{{0, 0}, {0, 1}, {1, 1}, {1, 0}};

// Runs the same feed through a reader and a scanner and checks that both measure alike.
M2DSliceContainerScanInfo Measure(const std::function<void(Input&)>& feed)
{
    M2DSlice slice;
    M2DSliceContainerScanInfo read, scanned;
    {
        I2DSliceIO::MLayerReader reader(slice, read);
        feed(reader);
    }
    {
        I2DSliceIO::MLayerScanner scanner(scanned);
        feed(scanner);
    }
    EXPECT_EQ(read.Area, scanned.Area);
    EXPECT_EQ(read.NumContours, scanned.NumContours);
    EXPECT_DOUBLE_EQ(read.ContourLength, scanned.ContourLength);
    EXPECT_DOUBLE_EQ(read.SurfaceArea, scanned.SurfaceArea);
    return scanned;
}

TEST(MLayerScanner, MeasuresAreaAndLengthLikeTheReader)
{
    auto square = Measure([](Input& in) { Contour(in, kUnitSquare); });
    EXPECT_DOUBLE_EQ(square.SurfaceArea, 1.0);
    EXPECT_DOUBLE_EQ(square.ContourLength, 4.0);
    EXPECT_EQ(square.Area, (M2DSliceXYArea{0, 1, 0, 1}));

    // A hole runs the other way round and takes its area off the outer contour's.
    auto holed = Measure([](Input& in) {
        Contour(in, {{0, 0}, {0, 10}, {10, 10}, {10, 0}});
        Contour(in, {{4, 4}, {6, 4}, {6, 6}, {4, 6}});
    });
    EXPECT_DOUBLE_EQ(holed.SurfaceArea, 96.0);
    EXPECT_DOUBLE_EQ(holed.ContourLength, 48.0);
    EXPECT_EQ(holed.NumContours, 2u);

    // Open contours count their drawn length and no surface; a closed one adds its closing side.
    EXPECT_DOUBLE_EQ(Measure([](Input& in) { Contour(in, {{0, 0}, {3, 4}, {6, 0}}, false); }).ContourLength, 10.0);
    auto closed = Measure([](Input& in) { Contour(in, {{0, 0}, {3, 4}, {6, 0}}); });
    EXPECT_DOUBLE_EQ(closed.ContourLength, 16.0);
    EXPECT_DOUBLE_EQ(closed.SurfaceArea, 12.0);

    // Inverting negates the area; a contour left under way is finished without inverting.
    EXPECT_DOUBLE_EQ(Measure([](Input& in) { Contour(in, kUnitSquare, true, true); }).SurfaceArea, -1.0);
    auto unfinished = Measure([](Input& in) {
        in.StartContour(e2DSliceVectorType_Border);
        for (const auto& p : kUnitSquare)
            in.AddContourPoint(p.first, p.second);
        in.StartContour(e2DSliceVectorType_Border);
        in.AddContourPoint(5, 5);
        in.AddContourPoint(5, 8);
    });
    EXPECT_DOUBLE_EQ(unfinished.SurfaceArea, 1.0);
    EXPECT_DOUBLE_EQ(unfinished.ContourLength, 10.0);
}

TEST(MLayerScanner, StartsFromAClearedInfoAndCountsEveryBlock)
{
    M2DSliceContainerScanInfo info;
    info.Z = 5;
    info.NumContours = 9;
    info.SurfaceArea = 3.0;
    info.Area.Extend(-100, -100);
    I2DSliceIO::MLayerScanner scanner(info);
    EXPECT_EQ(info.Z, M2DSLICE_UNSET);
    EXPECT_EQ(info.NumContours, 0u);
    EXPECT_EQ(info.SurfaceArea, 0.0);
    EXPECT_TRUE(info.Area.IsEmpty());

    const M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    scanner.StartPointBlock(label);
    scanner.AddPoint(3, -4);
    scanner.StartPointBlock(label);
    scanner.StartVectorBlock(label, 0);
    scanner.AddVector(M2DSliceVector(10, 20, -30, 40));
    scanner.GetVectorBlockTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 4);
    EXPECT_EQ(scanner.GetNumPointBlocks(), 2u);
    EXPECT_EQ(scanner.GetNumVectorBlocks(), 1u);
    EXPECT_EQ(scanner.GetVectorBlockTypeInfo()->GetIndex(e2DSliceVectorTypeIndex_Part), 4);
    EXPECT_EQ(info.Area, (M2DSliceXYArea{-30, 10, -4, 40}));
}

class MLayerReaderTest : public ::testing::Test
{
protected:
    M2DSlice slice;
    M2DSliceContainerScanInfo info;
    I2DSliceIO::MLayerReader reader{slice, info};
};

TEST_F(MLayerReaderTest, DecidesTheOuterFlagByTheArea)
{
    reader.SetZ(42);
    Contour(reader, kUnitSquare);
    Contour(reader, kUnitSquare, true, true);
    reader.GetContourTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 7);
    EXPECT_EQ(slice.GetZ(), 42);
    EXPECT_EQ(info.Z, 42);
    ASSERT_EQ(reader.GetNumContours(), 2u);
    const M2DSliceContour& outer = *slice.GetSliceBorder()->GetFirstContour();
    const M2DSliceContour& inverted = *slice.GetSliceBorder()->GetLastContour();
    EXPECT_TRUE(outer.GetIsOuterContour()); // despite SetContourOuter(false)
    EXPECT_FALSE(inverted.GetIsOuterContour());
    EXPECT_EQ(testformat::Points(inverted), (Path{{1, 0}, {1, 1}, {0, 1}, {0, 0}}));
    EXPECT_EQ(inverted.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), 7);
    EXPECT_EQ(outer.GetTypeInfo().GetType(), e2DSliceVectorType_Border);
}

TEST_F(MLayerReaderTest, DestructorFinishesTheContourUnderWay)
{
    {
        I2DSliceIO::MLayerReader local(slice, info);
        local.StartContour(e2DSliceVectorType_Border);
        local.SetContourOuter(false);
        for (const auto& p : kUnitSquare)
            local.AddContourPoint(p.first, p.second);
    }
    EXPECT_DOUBLE_EQ(info.SurfaceArea, 1.0);
    EXPECT_TRUE(slice.GetSliceBorder()->GetFirstContour()->GetIsOuterContour());
}

TEST_F(MLayerReaderTest, EndVectorBlockRemovesOnlyEmptyBlocks)
{
    const M2DSliceVectorTypeInfo hatch(e2DSliceVectorType_Hatch), other(e2DSliceVectorType_VectorGroup7);
    reader.StartVectorBlock(hatch, SIZE_MAX / 64); // a count from a bad file must not allocate
    reader.AddVector(M2DSliceVector(1, 2, 3, 4));
    reader.EndVectorBlock(false);
    reader.StartVectorBlock(other, 10);
    reader.EndVectorBlock(true);
    EXPECT_EQ(reader.GetNumVectorBlocks(), 1u);
    reader.AddVector(M2DSliceVector(-5, 6, 7, 8)); // goes to the block that is last again
    const M2DSliceVectorBlock& block = *slice.GetVectors()->GetLastVectorBlock();
    EXPECT_EQ(block.Vectors, (std::vector<M2DSliceVector>{M2DSliceVector(1, 2, 3, 4), M2DSliceVector(-5, 6, 7, 8)}));
    EXPECT_EQ(block.GetTypeInfo(), hatch);
    EXPECT_EQ(info.Area, (M2DSliceXYArea{-5, 7, 2, 8}));
}

TEST_F(MLayerReaderTest, EqualPointBlockLabelsShareOneBlock)
{
    const M2DSliceVectorTypeInfo a(e2DSliceVectorType_Hatch), b(e2DSliceVectorType_Other);
    reader.AddPoint(1, 1); // no block yet: one is made
    reader.StartPointBlock(a);
    reader.AddPoint(2, 2);
    reader.EndPointBlock();
    reader.StartPointBlock(a);
    reader.AddPoint(3, 3);
    reader.StartPointBlock(b);
    reader.EndPointBlock(); // empty: removed
    const M2DSlicePointLayer& points = *slice.GetPoints();
    ASSERT_EQ(reader.GetNumPointBlocks(), 2u);
    EXPECT_EQ(points.GetLastPointBlock()->Points.size(), 2u);
    EXPECT_EQ(*reader.GetPointBlockTypeInfo(), a);
    EXPECT_EQ(info.Area, (M2DSliceXYArea{1, 3, 1, 3}));
}

TEST_F(MLayerReaderTest, LabelsCanBeSetWithNothingToLabel)
{
    reader.GetContourTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    reader.GetVectorBlockTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    reader.GetPointBlockTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    EXPECT_TRUE(slice.IsEmpty());
    EXPECT_EQ(slice.GetSliceBorder()->GetNumContours() + slice.GetVectors()->GetNumVectorBlocks(), 0u);
}

} // namespace
