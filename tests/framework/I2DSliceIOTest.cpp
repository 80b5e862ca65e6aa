#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "contracts/M2DSliceStack.h"
#include "contracts/M2DSliceUtilities.h"
#include "tests/framework/TestFormat.h"

using namespace testformat;

namespace {

class I2DSliceIOTest : public ::testing::Test
{
protected:
    void TearDown() override { std::remove(std::filesystem::path(path).string().c_str()); }

    void OpenForWrite()
    {
        ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Write));
        ASSERT_TRUE(io.WriteHeader(one, MUnit::GetIE(), 1));
        io.calls.clear();
    }
    bool Write(std::int32_t z, bool empty = false)
    {
        auto slice = empty ? std::make_shared<M2DSlice>() : Square(z, z, -z);
        slice->SetZ(z);
        return io.WriteLayer(one, Items({slice}));
    }
    // Writes the layers, closes the file and opens it again for reading.
    void WriteAndReopen(std::initializer_list<std::shared_ptr<M2DSlice>> layers)
    {
        OpenForWrite();
        for (const auto& layer : layers)
            ASSERT_TRUE(io.WriteLayer(one, Items({layer})));
        ASSERT_TRUE(io.WriteFooter(one));
        ASSERT_TRUE(io.CloseFile());
        ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Read));
        M2DSliceContainerIOProperties odd;
        odd.UnitConversionFactor = 1;
        io.SetIoProperties(odd);
        ASSERT_TRUE(io.ReadHeader(nullptr));
    }

    TestFormat io;
    M2DSliceStack source1, source2;
    std::vector<const ISource2DSlices*> one{&source1};
    std::vector<const ISource2DSlices*> two{&source1, &source2};
    std::wstring path = TempPath(::testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(I2DSliceIOTest, OpenFileStoresPathAndModeBeforeAnyCheck)
{
    EXPECT_FALSE(io.OpenFile(path, static_cast<I2DSliceIO::MOpenMode>(3)));
    EXPECT_EQ(io.GetPath(), path);
    EXPECT_EQ(io.GetOpenMode(), 3);
    EXPECT_FALSE(io.OpenFile(path + L".missing", I2DSliceIO::Read));
    EXPECT_EQ(io.GetOpenMode(), I2DSliceIO::Read);
    EXPECT_TRUE(io.calls.empty()); // no hook for a failed open

    EXPECT_TRUE(io.OpenFile(path, I2DSliceIO::Write));
    EXPECT_EQ(io.calls, std::vector<std::string>{"open 1"});
}

TEST_F(I2DSliceIOTest, CloseFileRunsTheHookOnTheClosedFileUnlessItFailed)
{
    OpenForWrite();
    EXPECT_TRUE(io.CloseFile());
    EXPECT_EQ(io.calls, std::vector<std::string>{"close"});
    EXPECT_FALSE(io.closeSawOpenFile);

    // A device that refuses every byte: the error shows at flushing and closing.
    io.calls.clear();
    ASSERT_TRUE(io.OpenFile(L"/dev/full", I2DSliceIO::Write));
    ASSERT_TRUE(io.WriteHeader(one, MUnit::GetIE(), 1));
    EXPECT_FALSE(io.FlushFile());
    EXPECT_FALSE(io.CloseFile());
    EXPECT_EQ(io.calls, (std::vector<std::string>{"open 1", "header 1"}));
}

TEST_F(I2DSliceIOTest, WriteHeaderChecksStateSourcesAndUnitsBeforeStoring)
{
    EXPECT_FALSE(io.WriteHeader(one, MUnit::GetIE(), 1)); // not open
    ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Write));
    const std::int32_t perInch = std::lround(MUnit::GetIE() * 25.4);
    EXPECT_TRUE(io.WriteHeader(one, perInch, 100));
    for (std::int32_t bad : {1, 25400, 0})
        EXPECT_FALSE(io.WriteHeader(one, bad, 7)) << bad;
    EXPECT_EQ(io.Properties().UnitConversionFactor, perInch);
    EXPECT_EQ(io.Properties().InverseResolution, 100);

    EXPECT_FALSE(io.WriteHeader({}, MUnit::GetIE(), 1)); // no append mode, no empty source list
    io.appendSupported = true;
    EXPECT_TRUE(io.WriteHeader({}, MUnit::GetIE(), 1));
    EXPECT_EQ(io.calls.back(), "header 0");
    EXPECT_EQ(io.Properties().UnitConversionFactor, MUnit::GetIE());

    ASSERT_TRUE(io.CloseFile());
    ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Read));
    EXPECT_FALSE(io.WriteHeader(one, MUnit::GetIE(), 1)); // read mode
}

TEST_F(I2DSliceIOTest, WriteLayerMatchesSlicesToSources)
{
    EXPECT_FALSE(Write(10)); // not open
    OpenForWrite();
    EXPECT_FALSE(io.WriteLayer(two, Items({Square(10)})));
    EXPECT_FALSE(io.WriteLayer(one, M2DSliceConstDataItems()));
    EXPECT_EQ(io.Properties().NumLayers, 0u);
    EXPECT_TRUE(io.WriteLayer(one, Items({Square(10), Square(10, 500)})));
    EXPECT_TRUE(io.WriteLayer(two, Items({Square(20), Square(20, 500)})));
    EXPECT_EQ(io.calls, (std::vector<std::string>{"layer 10", "layer 20"}));
    const auto& d = io.Properties().Dimensions;
    EXPECT_EQ(d.XMin, 0);
    EXPECT_EQ(d.XMax, 600);
}

TEST_F(I2DSliceIOTest, EmptyLayerIsCountedWithoutCallingTheHook)
{
    OpenForWrite();
    EXPECT_TRUE(Write(50, true));
    EXPECT_TRUE(io.calls.empty());
    EXPECT_EQ(io.Properties().NumLayers, 1u);
    EXPECT_EQ(io.Properties().Dimensions.ZMin, 50);
    EXPECT_EQ(io.Properties().Dimensions.XMin, INT32_MAX); // no bounds from an empty layer

    io.GetWriteOptions().WriteEmptyLayers = true;
    EXPECT_TRUE(Write(80, true));
    EXPECT_EQ(io.calls, std::vector<std::string>{"layer 80"});
    EXPECT_EQ(io.Properties().LayerThickness, 30);
    EXPECT_EQ(io.Properties().Dimensions.XMin, INT32_MAX);
    // Written out, empty slices take part in the height check like any other.
    auto at90 = std::make_shared<M2DSlice>();
    at90->SetZ(90);
    EXPECT_FALSE(io.WriteLayer(one, Items({at90, std::make_shared<M2DSlice>()})));
    io.GetWriteOptions().WriteEmptyLayers = false;
    EXPECT_TRUE(io.WriteLayer(one, Items({at90, std::make_shared<M2DSlice>()})));
}

TEST_F(I2DSliceIOTest, SlicesOfOneLayerAtDifferentHeightsFail)
{
    OpenForWrite();
    // The first slice matches the height of the last one and is merged before the second fails.
    EXPECT_FALSE(io.WriteLayer(one, Items({Square(200, 0, 0), Square(100, 500, 500), Square(200, 900, 900)})));
    const auto& p = io.Properties();
    EXPECT_EQ(p.NumLayers, 0u);
    EXPECT_EQ(p.Dimensions.XMin, 0);
    EXPECT_EQ(p.Dimensions.XMax, 100);
    EXPECT_EQ(p.Dimensions.ZMin, INT32_MAX);
    EXPECT_TRUE(io.calls.empty());
}

TEST_F(I2DSliceIOTest, LayerThicknessIsTheGcdOfTheDistances)
{
    struct Case
    {
        std::vector<std::int32_t> heights;
        std::int32_t thickness;
    };
    for (const Case& c : {Case{{0, 30, 60, 80}, 10}, Case{{0, 40, 40, 80}, 40}, Case{{-100, 0, 70}, 10},
                          Case{{5, 5, 5}, 0}})
    {
        M2DSliceContainerIOProperties fresh;
        io.SetIoProperties(fresh);
        io.appendQueries = 0;
        OpenForWrite();
        for (std::int32_t z : c.heights)
            ASSERT_TRUE(Write(z));
        const auto& p = io.Properties();
        EXPECT_EQ(p.LayerThickness, c.thickness) << c.heights[1];
        EXPECT_EQ(p.NumLayers, c.heights.size());
        EXPECT_EQ(p.Dimensions.ZMin, c.heights.front());
        EXPECT_EQ(p.Dimensions.ZMax, c.heights.back());
        // Asked (and ignored) for every layer above the first height.
        int above = 0;
        for (std::int32_t z : c.heights)
            above += z > c.heights.front();
        EXPECT_EQ(io.appendQueries, above);
        ASSERT_TRUE(io.CloseFile());
    }
}

TEST_F(I2DSliceIOTest, OperationsCheckTheOpenMode)
{
    OpenForWrite();
    auto slice = Square(7);
    EXPECT_FALSE(io.ReadLayer(*slice, nullptr, true));
    EXPECT_EQ(slice->GetZ(), 7);
    EXPECT_EQ(slice->GetSliceBorder()->GetNumContours(), 1u);
    M2DSliceContainerScanInfo info;
    EXPECT_FALSE(io.ScanLayer(info, nullptr, true));
    EXPECT_FALSE(io.ReadHeader(nullptr));
    EXPECT_FALSE(io.ReadFooter(nullptr));
    EXPECT_TRUE(io.WriteHeaderPerSliceContainer(3)); // no check at all
    EXPECT_EQ(io.calls, std::vector<std::string>{"container 3"});
    ASSERT_TRUE(io.CloseFile());
    ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Read));
    EXPECT_FALSE(io.WriteFooter(one));
    EXPECT_FALSE(io.WriteLayer(one, Items({Square(7)})));
}

TEST_F(I2DSliceIOTest, RoundTripThroughTheHooks)
{
    auto first = Square(100, 0, 0, 100);
    M2DSliceVectorBlock* block = first->GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
    block->Vectors = {M2DSliceVector(1, 2, 3, 4), M2DSliceVector(-50, 7, 300, 8)};
    first->GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(9, 250));
    auto second = Square(200, 10, 10, 20);

    WriteAndReopen({first, second});
    EXPECT_EQ(io.calls,
              (std::vector<std::string>{"layer 100", "layer 200", "footer", "close", "open 0", "read header"}));
    EXPECT_EQ(io.unitSeenByReadHeader, MUnit::GetIE()); // reset before the hook

    M2DSlice slice;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_TRUE(slice.DataKnown);
    EXPECT_EQ(slice.GetZ(), 100);
    ASSERT_EQ(slice.GetSliceBorder()->GetNumContours(), 1u);
    const M2DSliceContour& c = *slice.GetSliceBorder()->GetFirstContour();
    EXPECT_EQ(Points(c), Points(*first->GetSliceBorder()->GetFirstContour()));
    EXPECT_TRUE(c.GetIsOuterContour());
    ASSERT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(slice.GetVectors()->GetFirstVectorBlock()->Vectors, block->Vectors);
    EXPECT_EQ(slice.GetPoints()->GetTotalNumPoints(), 1u);
    EXPECT_EQ(slice.GetXYArea(false), (M2DSliceXYArea{-50, 300, 0, 250}));

    M2DSliceContainerScanInfo info;
    ASSERT_TRUE(io.ScanLayer(info, nullptr, true));
    EXPECT_EQ(info.Z, 200);
    EXPECT_EQ(info.NumContours, 1u);
    EXPECT_DOUBLE_EQ(info.SurfaceArea, 400.0);
    EXPECT_DOUBLE_EQ(info.ContourLength, 80.0);
    EXPECT_FALSE(io.ReadLayer(slice, nullptr, true)); // the end of the layers
    EXPECT_TRUE(io.ReadFooter(nullptr));
}

TEST_F(I2DSliceIOTest, ReadOptionsPostProcessTheLayer)
{
    auto layer = Square(10, 0, 0, 100);
    AddContour(*layer, {{0, 0}, {50, 0}, {50, 0}, {100, 0}, {100, 100}, {0, 100}}); // collinear, doubled
    AddContour(*layer, {{500, 500}, {600, 500}, {500, 500}});                      // closed, degenerate
    AddContour(*layer, {{0, 0}, {1, 1}}, false);                                     // open
    for (e2DSliceVectorType type : {e2DSliceVectorType_Hatch, e2DSliceVectorType_Hatch, e2DSliceVectorType_VectorGroup7})
    {
        M2DSliceVectorBlock* b = layer->GetVectorsUpdate()->AddVectorBlockAtEnd();
        b->SetTypeInfo(M2DSliceVectorTypeInfo(type));
        b->Vectors.push_back(M2DSliceVector(0, 0, 10, 10));
    }
    WriteAndReopen({layer, layer, layer, Square(10)});
    M2DSlice slice;

    // Defaults: equal neighbouring labels merge, contours stay as read.
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 2u);
    EXPECT_EQ(slice.GetSliceBorder()->GetNumContours(), 4u);

    io.GetReadOptions().VectorBlocks.MergeBlocks = false;
    io.GetReadOptions().Borders.RemoveRedundantPoints = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 3u);
    const M2DSliceContourLayer& border = *slice.GetSliceBorder();
    ASSERT_EQ(border.GetNumContours(), 3u); // the degenerate closed contour is gone
    EXPECT_EQ(Points(*border.GetContour(1)), (std::vector<std::pair<int, int>>{{0, 0}, {100, 0}, {100, 100}, {0, 100}}));
    EXPECT_EQ(border.GetContour(2)->GetNumPoints(), 2u); // open contours stay at any length

    // One open contour sends every contour into vectors: 4 + 6 + 3 + 1 segments.
    io.GetReadOptions() = I2DSliceIO::ReadOptions();
    io.GetReadOptions().OpenBordersToVectors = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(slice.GetSliceBorder()->GetNumContours(), 0u);
    EXPECT_EQ(slice.GetVectors()->GetTotalNumVectors(), 3u + 14u);

    io.GetReadOptions() = I2DSliceIO::ReadOptions();
    io.invertOnRead = true; // the lone square arrives reversed, so with the wrong sense
    io.GetReadOptions().Borders.OrientBorders = true;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true));
    const M2DSliceContour& square = *slice.GetSliceBorder()->GetFirstContour();
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(square), 0.0);
    EXPECT_TRUE(square.GetIsOuterContour());
}

} // namespace
