// The layer reader builds a slice and the layer scanner only measures; fed alike, both must
// measure alike.
#include <functional>

#include "contracts/M2DSliceUtilities.h"
#include "framework/I2DSliceIO.h"
#include "tests/TestSupport.h"

namespace {

using Input = I2DSliceIO::ILayerInput;
using ts::Points;

void Contour(Input& in, const Points& points, bool closed = true, bool invert = false)
{
    in.StartContour(e2DSliceVectorType_Border);
    in.SetContourClosed(closed);
    in.SetContourOuter(false); // the reader decides by the area instead
    for (const auto& p : points)
        in.AddContourPoint(p.first, p.second);
    in.EndContour(invert);
}

const Points kUnitSquare = ts::Square(0, 0, 1);

// Feeds a reader and a scanner alike, checks that both measure alike and returns
// (surface area, contour length).
std::pair<double, double> Measure(const std::function<void(Input&)>& feed)
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
    EXPECT_EQ(std::make_tuple(read.NumContours, read.SurfaceArea, read.ContourLength),
              std::make_tuple(scanned.NumContours, scanned.SurfaceArea, scanned.ContourLength))
        << "contours, area, length: read against scanned";
    // The reader decides the outer flag of closed contours by their area.
    for (const M2DSliceContour& c : *slice.GetSliceBorder())
        EXPECT_TRUE(!c.GetIsClosed() || c.GetIsOuterContour() == (M2DSliceUtilities::SignedAreaSum(c) > 0));
    return {scanned.SurfaceArea, scanned.ContourLength};
}

using Measured = std::pair<double, double>;

TEST(MLayerScanner, MeasuresAreaAndLengthLikeTheReader)
{
    EXPECT_EQ(Measure([](Input& in) { Contour(in, kUnitSquare); }), Measured(1.0, 4.0));
    // A hole runs the other way round and takes its area off the outer contour's.
    EXPECT_EQ(Measure([](Input& in) {
                  Contour(in, ts::Square(0, 0, 10));
                  Contour(in, ts::Reversed(4, 4, 2));
              }),
              Measured(96.0, 48.0));
    // Open contours count their drawn length and no surface; a closed one adds its closing side.
    EXPECT_EQ(Measure([](Input& in) { Contour(in, {{0, 0}, {3, 4}, {6, 0}}, false); }), Measured(0.0, 10.0));
    EXPECT_EQ(Measure([](Input& in) { Contour(in, {{0, 0}, {3, 4}, {6, 0}}); }), Measured(12.0, 16.0));
    // Inverting negates the area; a contour left under way is finished without inverting,
    // also by the reader's destructor.
    EXPECT_EQ(Measure([](Input& in) { Contour(in, kUnitSquare, true, true); }), Measured(-1.0, 4.0));
    EXPECT_EQ(Measure([](Input& in) {
                  in.StartContour(e2DSliceVectorType_Border);
                  for (const auto& p : kUnitSquare)
                      in.AddContourPoint(p.first, p.second);
                  in.StartContour(e2DSliceVectorType_Border);
                  in.AddContourPoint(5, 5);
                  in.AddContourPoint(5, 8);
              }),
              Measured(1.0, 10.0));
}

TEST(MLayerScanner, StartsFromAClearedInfoAndCountsEveryBlock)
{
    M2DSliceContainerScanInfo info;
    std::tie(info.Z, info.NumContours, info.SurfaceArea) = std::make_tuple(5, 9u, 3.0);
    info.Area.Extend(-100, -100);
    I2DSliceIO::MLayerScanner scanner(info);
    EXPECT_EQ(std::make_tuple(info.Z, info.NumContours, info.SurfaceArea), std::make_tuple(M2DSLICE_UNSET, 0u, 0.0));
    EXPECT_TRUE(info.Area.IsEmpty());

    // Unlike the reader, the scanner counts a second block of an equal label apart.
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
    // Labels can be set with nothing to label yet; nothing is made for them.
    reader.GetContourTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    reader.GetVectorBlockTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    reader.GetPointBlockTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 1);
    EXPECT_EQ(slice.GetSliceBorder()->GetNumContours() + slice.GetVectors()->GetNumVectorBlocks(), 0u);

    reader.SetZ(42);
    Contour(reader, kUnitSquare);
    Contour(reader, kUnitSquare, true, true);
    reader.GetContourTypeInfo()->SetIndex(e2DSliceVectorTypeIndex_Part, 7);
    EXPECT_EQ(std::make_pair(slice.GetZ(), info.Z), std::make_pair(42, 42));
    ASSERT_EQ(reader.GetNumContours(), 2u);
    const M2DSliceContour& outer = *slice.GetSliceBorder()->GetFirstContour();
    const M2DSliceContour& inverted = *slice.GetSliceBorder()->GetLastContour();
    EXPECT_TRUE(outer.GetIsOuterContour()); // despite SetContourOuter(false)
    EXPECT_FALSE(inverted.GetIsOuterContour());
    EXPECT_EQ(ts::PointsOf(inverted), (Points{{1, 0}, {1, 1}, {0, 1}, {0, 0}}));
    EXPECT_EQ(ts::PartOf(inverted), 7);
    EXPECT_EQ(outer.GetTypeInfo().GetType(), e2DSliceVectorType_Border);
}

TEST_F(MLayerReaderTest, EndBlockRemovesOnlyEmptyBlocks)
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

    // Point blocks of an equal label share one block; the points alone set every bound below.
    reader.AddPoint(-9, 1); // no block yet: one is made
    reader.StartPointBlock(hatch);
    reader.AddPoint(2, 20);
    reader.EndPointBlock();
    reader.StartPointBlock(hatch);
    reader.AddPoint(30, 3);
    reader.StartPointBlock(M2DSliceVectorTypeInfo(e2DSliceVectorType_Other));
    reader.EndPointBlock(); // empty: removed
    ASSERT_EQ(reader.GetNumPointBlocks(), 2u);
    EXPECT_EQ(slice.GetPoints()->GetLastPointBlock()->Points.size(), 2u);
    EXPECT_EQ(*reader.GetPointBlockTypeInfo(), hatch);
    EXPECT_EQ(info.Area, (M2DSliceXYArea{-9, 30, 1, 20}));
}

} // namespace
