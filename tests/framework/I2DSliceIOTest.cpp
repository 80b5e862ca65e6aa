// The base class: state and argument checks, layer bookkeeping, and the read options.
#include <algorithm>
#include <cmath>

#include "contracts/M2DSliceStack.h"
#include "contracts/M2DSliceUtilities.h"
#include "tests/framework/TestFormat.h"

using ts::Points;

namespace {

using Calls = std::vector<std::string>;

class I2DSliceIOTest : public ::testing::Test
{
protected:
    void OpenForWrite()
    {
        ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Write) && io.WriteHeader(one, MUnit::GetIE(), 1));
        io.calls.clear();
    }
    // A layer of one slice at z, empty or a square; `unsetToo` adds an empty slice of no height.
    bool Write(std::int32_t z, bool empty = false, bool unsetToo = false)
    {
        auto slice = empty ? std::make_shared<M2DSlice>() : SquareAt(z, z, -z);
        slice->SetZ(z);
        return io.WriteLayer(one, unsetToo ? Items({slice, std::make_shared<M2DSlice>()}) : Items({slice}));
    }
    // Writes the layers, closes the file and opens it again for reading.
    void WriteAndReopen(std::initializer_list<std::shared_ptr<M2DSlice>> layers)
    {
        OpenForWrite();
        for (const auto& layer : layers)
            ASSERT_TRUE(io.WriteLayer(one, Items({layer})));
        ASSERT_TRUE(io.WriteFooter(one) && io.CloseFile() && io.OpenFile(path, I2DSliceIO::Read));
        M2DSliceContainerIOProperties odd;
        odd.UnitConversionFactor = 1;
        io.SetIoProperties(odd);
        ASSERT_TRUE(io.ReadHeader(nullptr));
    }

    TestFormat io;
    M2DSliceStack source1, source2;
    std::vector<const ISource2DSlices*> one{&source1}, two{&source1, &source2};
    ts::ScratchDir dir;
    std::wstring path = dir.WFile("file.tst");
};

TEST_F(I2DSliceIOTest, OperationsCheckTheOpenMode)
{
    // Path and mode are stored before any check.
    EXPECT_FALSE(io.OpenFile(path, static_cast<I2DSliceIO::MOpenMode>(3)));
    EXPECT_EQ(std::make_pair(io.GetPath(), static_cast<int>(io.GetOpenMode())), std::make_pair(path, 3));
    EXPECT_FALSE(io.OpenFile(path + L".missing", I2DSliceIO::Read));
    EXPECT_EQ(io.GetOpenMode(), I2DSliceIO::Read);
    EXPECT_TRUE(io.calls.empty());                                    // no hook for a failed open
    EXPECT_FALSE(io.WriteHeader(one, MUnit::GetIE(), 1) || Write(10)); // not open

    OpenForWrite();
    auto slice = SquareAt(7);
    EXPECT_FALSE(io.ReadLayer(*slice, nullptr, true));
    EXPECT_EQ(std::make_tuple(slice->GetZ(), slice->GetSliceBorder()->GetNumContours()), std::make_tuple(7, 1u))
        << "untouched";
    M2DSliceContainerScanInfo info;
    EXPECT_FALSE(io.ScanLayer(info, nullptr, true) || io.ReadHeader(nullptr) || io.ReadFooter(nullptr));
    // No check at all for the container header; the close hook runs on the closed file.
    EXPECT_TRUE(io.WriteHeaderPerSliceContainer(3) && io.CloseFile());
    EXPECT_EQ(io.calls, (Calls{"container 3", "close"}));
    EXPECT_FALSE(io.closeSawOpenFile);

    ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Read));
    EXPECT_FALSE(io.WriteHeader(one, MUnit::GetIE(), 1) || io.WriteLayer(one, Items({SquareAt(7)})) ||
                 io.WriteFooter(one));

    // A device that refuses every byte: the error shows at flushing and closing, and the
    // failed close calls no hook.
    io.calls.clear();
    ASSERT_TRUE(io.OpenFile(L"/dev/full", I2DSliceIO::Write) && io.WriteHeader(one, MUnit::GetIE(), 1));
    EXPECT_FALSE(io.FlushFile() || io.CloseFile());
    EXPECT_EQ(io.calls, (Calls{"open 1", "header 1"}));
}

TEST_F(I2DSliceIOTest, WriteHeaderChecksSourcesAndUnitsBeforeStoring)
{
    ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Write));
    const std::int32_t perInch = std::lround(MUnit::GetIE() * 25.4);
    EXPECT_TRUE(io.WriteHeader(one, perInch, 100));
    for (std::int32_t bad : {1, 25400, 0})
        EXPECT_FALSE(io.WriteHeader(one, bad, 7)) << bad;
    EXPECT_EQ(std::make_tuple(io.Properties().UnitConversionFactor, io.Properties().InverseResolution),
              std::make_tuple(perInch, 100));

    EXPECT_FALSE(io.WriteHeader({}, MUnit::GetIE(), 1)); // no append mode, no empty source list
    io.appendSupported = true;
    EXPECT_TRUE(io.WriteHeader({}, MUnit::GetIE(), 1));
    EXPECT_EQ(io.calls.back(), "header 0");
    EXPECT_EQ(io.Properties().UnitConversionFactor, MUnit::GetIE());
}

TEST_F(I2DSliceIOTest, WriteLayerMatchesSlicesToSourcesAndHeights)
{
    OpenForWrite();
    EXPECT_FALSE(io.WriteLayer(two, Items({SquareAt(10)})) || io.WriteLayer(one, M2DSliceConstDataItems()));
    EXPECT_TRUE(io.WriteLayer(one, Items({SquareAt(10), SquareAt(10, 500)})));
    EXPECT_TRUE(io.WriteLayer(two, Items({SquareAt(20), SquareAt(20, 500)})));
    EXPECT_EQ(io.calls, (Calls{"layer 10", "layer 20"}));
    EXPECT_EQ(io.Properties().Dimensions.XMax, 600);

    // Slices at different heights fail the layer, uncounted; the first, at the height of the
    // last one, is merged into the bounds before the second fails.
    io.calls.clear();
    EXPECT_FALSE(io.WriteLayer(one, Items({SquareAt(40, 0, -50), SquareAt(30, 500, 500), SquareAt(40)})));
    const auto& p = io.Properties();
    EXPECT_EQ(std::make_tuple(p.NumLayers, p.Dimensions.YMin, p.Dimensions.YMax, p.Dimensions.ZMax),
              std::make_tuple(2u, -50, 100, 20))
        << "layers, y bounds, highest z";
    EXPECT_TRUE(io.calls.empty());
}

TEST_F(I2DSliceIOTest, EmptyLayerIsCountedWithoutCallingTheHook)
{
    OpenForWrite();
    const auto& p = io.Properties();
    EXPECT_TRUE(Write(50, true));
    EXPECT_TRUE(io.calls.empty());
    EXPECT_EQ(std::make_tuple(p.NumLayers, p.Dimensions.ZMin, p.Dimensions.XMin), std::make_tuple(1u, 50, INT32_MAX))
        << "layers, lowest z, no x bounds from an empty layer";

    io.GetWriteOptions().WriteEmptyLayers = true;
    EXPECT_TRUE(Write(80, true));
    EXPECT_EQ(io.calls, Calls{"layer 80"});
    EXPECT_EQ(std::make_tuple(p.LayerThickness, p.Dimensions.XMin), std::make_tuple(30, INT32_MAX));
    // Written out, empty slices take part in the height check like any other.
    EXPECT_FALSE(Write(90, true, true));
    io.GetWriteOptions().WriteEmptyLayers = false;
    EXPECT_TRUE(Write(90, true, true));
}

TEST_F(I2DSliceIOTest, LayerThicknessIsTheGcdOfTheDistances)
{
    using Heights = std::vector<std::int32_t>;
    for (const auto& [heights, thickness] : {std::make_pair(Heights{0, 30, 60, 80}, 10),
                                             std::make_pair(Heights{-100, 0, 0, 70}, 10),
                                             std::make_pair(Heights{5, 5, 5}, 0)})
    {
        M2DSliceContainerIOProperties fresh;
        io.SetIoProperties(fresh);
        io.appendQueries = 0;
        OpenForWrite();
        for (std::int32_t z : heights)
            ASSERT_TRUE(Write(z));
        const auto& p = io.Properties();
        EXPECT_EQ(std::make_tuple(p.LayerThickness, p.NumLayers, p.Dimensions.ZMin, p.Dimensions.ZMax),
                  std::make_tuple(thickness, heights.size(), heights.front(), heights.back()))
            << "thickness, layers, lowest, highest from " << heights[1];
        // Asked (and ignored) for every layer above the first height.
        EXPECT_EQ(io.appendQueries, std::count_if(heights.begin(), heights.end(),
                                                  [low = heights.front()](std::int32_t z) { return z > low; }));
        ASSERT_TRUE(io.CloseFile());
    }
}

TEST_F(I2DSliceIOTest, RoundTripThroughTheHooks)
{
    auto first = SquareAt(100, 0, 0, 100);
    ts::AddHatches(*first, {M2DSliceVector(1, 2, 3, 4), M2DSliceVector(-50, 7, 300, 8)});
    first->GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(9, 250));

    WriteAndReopen({first, SquareAt(200, 10, 10, 20)});
    EXPECT_EQ(io.calls, (Calls{"layer 100", "layer 200", "footer", "close", "open 0", "read header"}));
    EXPECT_EQ(io.unitSeenByReadHeader, MUnit::GetIE()); // reset before the hook

    M2DSlice slice;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_TRUE(slice.DataKnown);
    ts::ExpectSameSlice(*first, slice);
    EXPECT_EQ(slice.GetPoints()->GetTotalNumPoints(), 1u);
    EXPECT_EQ(slice.GetXYArea(false), (M2DSliceXYArea{-50, 300, 0, 250}));

    M2DSliceContainerScanInfo info;
    ASSERT_TRUE(io.ScanLayer(info, nullptr, true));
    EXPECT_EQ(std::make_tuple(info.Z, info.NumContours, info.SurfaceArea, info.ContourLength),
              std::make_tuple(200, 1u, 400.0, 80.0));
    EXPECT_FALSE(io.ReadLayer(slice, nullptr, true)); // the end of the layers
    EXPECT_TRUE(io.ReadFooter(nullptr));
}

TEST_F(I2DSliceIOTest, ReadOptionsPostProcessTheLayer)
{
    auto layer = SquareAt(10, 0, 0, 100);
    ts::AddContour(*layer, {{0, 0}, {50, 0}, {50, 0}, {100, 0}, {100, 100}, {0, 100}}); // collinear, doubled
    ts::AddContour(*layer, {{500, 500}, {600, 500}, {500, 500}});                      // closed, degenerate
    ts::AddContour(*layer, {{0, 0}, {1, 1}}, false);                                     // open
    // Two blocks of an equal label, then one of another.
    for (auto type : {e2DSliceVectorType_Hatch, e2DSliceVectorType_Hatch, e2DSliceVectorType_VectorGroup7})
        ts::AddHatches(*layer, {M2DSliceVector(0, 0, 10, 10)})->SetTypeInfo(M2DSliceVectorTypeInfo(type));
    WriteAndReopen({layer, layer, layer, SquareAt(10)});
    M2DSlice slice;

    // Defaults: equal neighbouring labels merge, contours stay as read.
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 2u);
    EXPECT_EQ(slice.GetSliceBorder()->GetNumContours(), 4u);

    io.GetReadOptions().VectorBlocks.MergeBlocks = false;
    io.GetReadOptions().Borders.RemoveRedundantPoints = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 3u);
    ASSERT_EQ(slice.GetSliceBorder()->GetNumContours(), 3u); // the degenerate closed contour is gone
    EXPECT_EQ(ts::PointsOf(*slice.GetSliceBorder()->GetContour(1)), (Points{{0, 0}, {100, 0}, {100, 100}, {0, 100}}));
    EXPECT_EQ(slice.GetSliceBorder()->GetContour(2)->GetNumPoints(), 2u); // open contours stay at any length

    // One open contour sends every contour into vectors: 4 + 6 + 3 + 1 segments.
    io.GetReadOptions() = I2DSliceIO::ReadOptions();
    io.GetReadOptions().OpenBordersToVectors = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(std::make_tuple(slice.GetSliceBorder()->GetNumContours(), slice.GetVectors()->GetTotalNumVectors()),
              std::make_tuple(0u, 3u + 14u));

    io.GetReadOptions() = I2DSliceIO::ReadOptions();
    io.invertOnRead = true; // the lone square arrives reversed, so with the wrong sense
    io.GetReadOptions().Borders.OrientBorders = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    const M2DSliceContour& square = *slice.GetSliceBorder()->GetFirstContour();
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(square), 0.0);
    EXPECT_TRUE(square.GetIsOuterContour());
}

} // namespace
