// F&S: layer units worked out by hand, the table of counts, part type 1, reading at 40
// steps per unit with the closing point kept, damage.
#include <gtest/gtest.h>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "LegacyTestSupport.h"
#include "formats/legacy/M2DSliceIO_fs.h"

namespace {

using legacy_test::Read;
using legacy_test::StackOf;
using legacy_test::Write;

// The 128-byte head of a layer: table, area and height.
kit::Bytes Head(std::uint16_t total, const std::vector<std::pair<int, std::pair<int, int>>>& counts, float minX,
                float minY, float maxX, float maxY, float z)
{
    std::uint16_t segments[11] = {};
    std::uint32_t points[11] = {};
    for (const auto& c : counts)
    {
        segments[c.first] = static_cast<std::uint16_t>(c.second.first);
        points[c.first] = static_cast<std::uint32_t>(c.second.second);
    }
    kit::Bytes b;
    b.u8(6).text("F&S2.1").u16(total);
    for (std::uint16_t s : segments)
        b.u16(s);
    for (std::uint32_t p : points)
        b.u32(p);
    b.f32(minX).f32(minY).f32(maxX).f32(maxY).f32(z).zeros(33);
    return b;
}

kit::Bytes& End(kit::Bytes& b) { return b.u8(13).text("F&S_EndOfFile"); }

} // namespace

TEST(FsTest, LayerUnitsByteForByte)
{
    ts::ScratchDir dir;
    // 40 steps per mm. Layer 1: an outer square of 1 mm at (1, 0) and a hole, two hatch
    // lines. Layer 2: only points, so no segments at all.
    auto stack = StackOf({1000, 2000}, [](std::int32_t z) {
        M2DSlice slice;
        if (z == 1000)
        {
            ts::AddContour(slice, ts::Square(10000, 0, 10000));
            ts::AddContour(slice, ts::Reversed(12500, 2500, 5000), true, 0, false);
            ts::AddHatches(slice, {M2DSliceVector(10000, 5000, 20000, 5000), M2DSliceVector(10000, 7500, 20000, 7500)});
        }
        else
        {
            M2DSlicePointBlock* block = slice.GetPointsUpdate()->AddPointBlockAtEnd();
            block->Points.push_back(M2DSlicePoint(10000, 10000));
        }
        return slice;
    });
    M2DSliceIO_fs io;
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("a.fs"), 10000, 40));

    kit::Bytes expected = Head(4, {{0, {1, 5}}, {1, {1, 5}}, {2, {2, 4}}}, 1, 0, 2, 1, 0.1f);
    expected.text("XX").u8(1).u16(40).u16(5);
    for (float v : {40, 0, 40, 40, 80, 40, 80, 0, 40, 0})
        expected.f32(v);
    expected.text("XX").u8(0).u16(40).u16(5);
    for (float v : {50, 10, 70, 10, 70, 30, 50, 30, 50, 10})
        expected.f32(v);
    expected.text("XX").u8(2).u16(16).u16(2).f32(40).f32(20).f32(80).f32(20);
    expected.text("XX").u8(2).u16(16).u16(2).f32(40).f32(30).f32(80).f32(30);
    End(expected);
    kit::Bytes second = Head(0, {}, 1, 1, 1, 1, 0.2f);
    End(second);
    EXPECT_TRUE(kit::SameBytes(expected.s + second.s, ts::ReadFile(dir.File("a.fs"))));

    // Read back at 40 steps per mm: the true size, the closing point kept, one vector block
    // per line merged into one.
    M2DSliceIO_fs reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("a.fs"));
    EXPECT_EQ(reader.GetFailureReason(), "");
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[0].GetZ(), 1000);
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 2u);
    const M2DSliceContour& outer = *layers[0].GetSliceBorder()->GetContour(0);
    EXPECT_TRUE(outer.GetIsClosed());
    EXPECT_TRUE(outer.GetIsOuterContour());
    ts::Points square = ts::Square(10000, 0, 10000);
    square.push_back(square.front());
    EXPECT_EQ(ts::PointsOf(outer), square);
    EXPECT_FALSE(layers[0].GetSliceBorder()->GetContour(1)->GetIsOuterContour());
    ASSERT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->Vectors,
              std::vector<M2DSliceVector>({M2DSliceVector(10000, 5000, 20000, 5000), M2DSliceVector(10000, 7500, 20000, 7500)}));
    EXPECT_TRUE(layers[1].IsEmpty());
    EXPECT_EQ(layers[1].GetZ(), 2000);

    // A scan counts a block per line, as the file has them.
    M2DSliceIO_fs scanner;
    ASSERT_TRUE(scanner.OpenFile(dir.WFile("a.fs"), I2DSliceIO::Read) && scanner.ReadHeader(nullptr));
    M2DSliceContainerScanInfo info;
    ASSERT_TRUE(scanner.ScanLayer(info, nullptr, true));
    EXPECT_EQ(std::make_pair(info.NumContours, info.NumVectorBlocks), std::make_pair(std::uint64_t{2}, std::uint64_t{2}));
}

TEST(FsTest, PartTypeOneAndOtherResolutions)
{
    ts::ScratchDir dir;
    auto stack = StackOf({500}, [](std::int32_t) {
        M2DSlice slice;
        ts::AddContour(slice, ts::Square(0, 0, 10000));
        return slice;
    });
    // Part type 1: the outer contour counts as type 2 and comes back as 4 vectors.
    M2DSliceIO_fs io;
    io.SetPartType(M2DSliceIO_fs::PartTypePolylines);
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("p.fs"), 10000, 40));
    const std::string bytes = ts::ReadFile(dir.File("p.fs"));
    EXPECT_TRUE(kit::SameBytes(Head(1, {{2, {1, 5}}}, 0, 0, 1, 1, 0.05f).s, bytes.substr(0, 128)));
    EXPECT_EQ(bytes[130], 2);
    M2DSliceIO_fs reader;
    std::vector<M2DSlice> layers = Read(reader, dir.File("p.fs"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 0u);
    EXPECT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 4u);

    // Written at 1000 steps per mm, read at 40: 25 times too large, the height still right.
    M2DSliceIO_fs fine;
    ASSERT_TRUE(Write(fine, {stack.get()}, dir.File("f.fs"), 10000, 1000));
    M2DSliceIO_fs fineReader;
    layers = Read(fineReader, dir.File("f.fs"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), 500);
    EXPECT_EQ(layers[0].GetXYArea(false).XMax, 250000);

    // A segment without "XX", and one of type 11: damage with a reason.
    for (std::size_t at : {std::size_t{128}, std::size_t{130}})
    {
        std::string bad = ts::ReadFile(dir.File("p.fs"));
        bad[at] = at == 128 ? 'Y' : 11;
        ts::WriteFile(dir.File("bad.fs"), bad);
        M2DSliceIO_fs badReader;
        EXPECT_TRUE(Read(badReader, dir.File("bad.fs")).empty());
        EXPECT_NE(badReader.GetFailureReason(), "") << at;
    }
}

TEST(FsTest, SegmentsOfTheOtherTypes)
{
    ts::ScratchDir dir;
    // Types 4 (skipped), 6 ((a, b) to (a, c)) and 9 ((a, b) to (c, b)), in steps of 1/40 mm.
    kit::Bytes file = Head(3, {}, 0, 0, 0, 0, 0.25f);
    file.text("XX").u8(4).u16(0).u16(2).u32(0xdeadbeef).u32(0xdeadbeef);
    file.text("XX").u8(6).u16(0).u16(1).u16(40).u16(80).u16(120);
    file.text("XX").u8(9).u16(0).u16(1).u16(40).u16(80).u16(120);
    End(file);
    ts::WriteFile(dir.File("t.fs"), file);
    M2DSliceIO_fs reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("t.fs"));
    EXPECT_EQ(reader.GetFailureReason(), "");
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), 2500);
    EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->Vectors,
              std::vector<M2DSliceVector>({M2DSliceVector(10000, 20000, 10000, 30000), M2DSliceVector(10000, 20000, 30000, 20000)}));
}

TEST(FsTest, RoundTripAndDamage)
{
    ts::ScratchDir dir;
    const BuildGenerator build(BuildShape::Rich(6, 1));
    std::string reason;
    auto back = kit::RoundTrip(6, {&build}, dir.File("r.fs"), 10000, 40, &reason);
    ASSERT_TRUE(back) << reason;
    kit::ExpectSameBuild({&build}, *back, FormatRegistry::ForCode(6)->Losses, 200);
    legacy_test::ExpectScanMeasuresTheRead(6, dir.File("r.fs"));

    const BuildGenerator small(BuildShape::Rich(2, 1));
    ASSERT_TRUE(kit::RoundTrip(6, {&small}, dir.File("s.fs"), 10000, 40, &reason)) << reason;
    const std::string bytes = ts::ReadFile(dir.File("s.fs"));
    kit::SweepOptions options;
    options.MaxCases = 1200;
    kit::SweepTruncations(6, bytes, options);
    kit::SweepCorruptions(6, bytes, options);
}
