// SLC: bytes worked out by hand from the layout, the close that fills in the extents and the
// sampling entry, reading polylines back as contours or vectors, the size estimate, damage.
#include <gtest/gtest.h>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "LegacyTestSupport.h"
#include "formats/legacy/M2DSliceIO_slc.h"
#include "framework/M2DSliceContainerAppendableIO.h"
#include "framework/M2DSliceContainerIO.h"

namespace {

using legacy_test::Read;
using legacy_test::StackOf;
using legacy_test::Write;

// The text header with its six extents, each 16 characters wide.
std::string Header(const char* unit, const char* type, const char* extents)
{
    return std::string("-SLCVER 2.0 -UNIT ") + unit + " -TYPE " + type + " -PACKAGE ZANDERVOLLE -EXTENTS " + extents +
           "\r\n\x1a";
}

kit::Bytes& Point(kit::Bytes& b, float x, float y) { return b.f32(x).f32(y); }

} // namespace

TEST(SlcTest, ClosedSquareFileByteForByte)
{
    ts::ScratchDir dir;
    // One layer at 0.1 mm: the outer square (0,0) (0,1) (1,1) (1,0) mm, in steps of 1 mm.
    auto stack = StackOf({1000}, [](std::int32_t z) {
        M2DSlice slice;
        ts::AddContour(slice, ts::Square(0, 0, 10000));
        slice.SetZ(z);
        return slice;
    });
    M2DSliceIO_slc io;
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("a.slc"), 10000, 1));

    kit::Bytes expected;
    expected.text(Header("MM", "WEB",
                         "0.00000000000000, 1.00000000000000 0.00000000000000, 1.00000000000000 "
                         "0.10000000000000, 0.10000000000000 "));
    expected.zeros(256).u8(1).f32(0.1f).f32(0.0f).f32(0.0f).f32(0.0f);
    // The layer: Z, one boundary of 5 vertices, backwards from the point before the first,
    // and that point again.
    expected.f32(0.1f).u32(1).u32(5).u32(0);
    Point(expected, 1, 0);
    Point(expected, 1, 1);
    Point(expected, 0, 1);
    Point(expected, 0, 0);
    Point(expected, 1, 0);
    // The end: maximum Z plus the layer thickness (0 for one layer), then the mark.
    expected.f32(0.1f).u32(0xFFFFFFFFu);
    EXPECT_TRUE(kit::SameBytes(expected, ts::ReadFile(dir.File("a.slc"))));

    // Read back: one closed contour of 4 points, turned round again (the layer input's
    // Invert makes the last point read the first), so it is the square as written.
    M2DSliceIO_slc reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("a.slc"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), 1000);
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    const M2DSliceContour& c = *layers[0].GetSliceBorder()->GetContour(0);
    EXPECT_TRUE(c.GetIsClosed());
    EXPECT_TRUE(c.GetIsOuterContour());
    ASSERT_EQ(c.GetNumPoints(), 4u);
    EXPECT_EQ(ts::PointsOf(c), ts::Square(0, 0, 10000));
    EXPECT_EQ(reader.GetSLCType(), M2DSliceIO_slc::Web);
    EXPECT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), 0u) << "an empty block is dropped";
}

TEST(SlcTest, ChainsTypeInchesAndTheEndRecord)
{
    ts::ScratchDir dir;
    // (0,0)-(1,0), (1,0)-(2,0) form one chain and (5,5)-(6,6) another, in inches.
    const int inch = 254000;
    auto stack = StackOf({2540, 5080}, [&](std::int32_t) {
        M2DSlice slice;
        ts::AddHatches(slice, {M2DSliceVector(0, 0, inch, 0), M2DSliceVector(inch, 0, 2 * inch, 0),
                               M2DSliceVector(5 * inch, 5 * inch, 6 * inch, 6 * inch)});
        return slice;
    });
    M2DSliceIO_slc io;
    io.SetSLCType(M2DSliceIO_slc::Part);
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("c.slc"), inch, 1));

    kit::Bytes expected;
    expected.text(Header("INCH", "PART",
                         "0.00000000000000, 6.00000000000000 0.00000000000000, 6.00000000000000 "
                         "0.01000000000000, 0.02000000000000 "));
    expected.zeros(256).u8(1).f32(2540.0f / 254000.0f).f32(2540.0f / 254000.0f).f32(0).f32(0);
    for (float z : {2540.0f, 5080.0f})
    {
        expected.f32(z / 254000.0f).u32(2);
        expected.u32(3).u32(0);
        Point(expected, 0, 0);
        Point(expected, 1, 0);
        Point(expected, 2, 0);
        expected.u32(2).u32(0);
        Point(expected, 5, 5);
        Point(expected, 6, 6);
    }
    // Not the last height but one thickness above it.
    expected.f32(7620.0f / 254000.0f).u32(0xFFFFFFFFu);
    EXPECT_TRUE(kit::SameBytes(expected, ts::ReadFile(dir.File("c.slc"))));

    // The three-vertex chain reads back as an open contour, the two-vertex one as a vector;
    // with ReadBordersAsVectors both are vectors.
    M2DSliceIO_slc reader;
    std::vector<M2DSlice> layers = Read(reader, dir.File("c.slc"));
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(reader.GetSLCType(), M2DSliceIO_slc::Part);
    M2DSliceContainerIOProperties properties;
    reader.GetIoProperties(properties);
    EXPECT_EQ(properties.UnitConversionFactor, inch);
    ASSERT_EQ(layers[1].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_FALSE(layers[1].GetSliceBorder()->GetContour(0)->GetIsClosed());
    EXPECT_EQ(ts::PointsOf(*layers[1].GetSliceBorder()->GetContour(0)),
              (ts::Points{{0, 0}, {inch, 0}, {2 * inch, 0}}));
    ASSERT_EQ(layers[1].GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(layers[1].GetVectors()->GetVectorBlock(0)->Vectors,
              std::vector<M2DSliceVector>({M2DSliceVector(5 * inch, 5 * inch, 6 * inch, 6 * inch)}));
    EXPECT_EQ(layers[1].GetVectors()->GetVectorBlock(0)->GetTypeInfo().GetType(), e2DSliceVectorType_Border);

    M2DSliceIO_slc asVectors;
    I2DSliceIO::ReadOptions options;
    options.ReadBordersAsVectors = true;
    asVectors.SetReadOptions(options);
    layers = Read(asVectors, dir.File("c.slc"));
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 0u);
    EXPECT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 3u);
}

TEST(SlcTest, TwoPointContoursBecomeVectorsAndOddBoundariesAreSkipped)
{
    ts::ScratchDir dir;
    // By hand: a header in millimetres with no sampling entry, one layer of four boundaries:
    // a count of 0, a two-vertex one, an open three-vertex one, and a count of 1 whose
    // "vertex" is read as the next boundary's counts.
    kit::Bytes file;
    file.text("-SLCVER 2.0 -UNIT MM -TYPE SUPPORT -EXTENTS\r\n\x1a").zeros(256).u8(0);
    file.f32(0.5f).u32(4);
    file.u32(0).u32(0);
    file.u32(2).u32(0).f32(1).f32(2).f32(3).f32(4);
    file.u32(3).u32(0).f32(1).f32(1).f32(2).f32(2).f32(3).f32(1);
    file.u32(1).u32(0);
    file.f32(0.75f).u32(0xFFFFFFFFu);
    ts::WriteFile(dir.File("h.slc"), file);
    M2DSliceIO_slc reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("h.slc"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(reader.GetSLCType(), M2DSliceIO_slc::Support);
    EXPECT_EQ(layers[0].GetZ(), 5000);
    ASSERT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 1u);
    EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->Vectors[0], M2DSliceVector(10000, 20000, 30000, 40000));
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_EQ(layers[0].GetSliceBorder()->GetContour(0)->GetNumPoints(), 3u);
    EXPECT_EQ(reader.GetFailureReason(), "") << "the end record ends the layers cleanly";

    // A byte of 128 or more before the terminator refuses the header.
    std::string bad = file;
    bad[5] = '\x80';
    ts::WriteFile(dir.File("bad.slc"), bad);
    bool headerOk = true;
    M2DSliceIO_slc refusing;
    Read(refusing, dir.File("bad.slc"), &headerOk);
    EXPECT_FALSE(headerOk);
    EXPECT_NE(refusing.GetFailureReason().find("127"), std::string::npos) << refusing.GetFailureReason();
    // No terminator within 2048 bytes.
    ts::WriteFile(dir.File("long.slc"), std::string(3000, ' ') + "\r\n\x1a");
    M2DSliceIO_slc far;
    Read(far, dir.File("long.slc"), &headerOk);
    EXPECT_FALSE(headerOk);
}

TEST(SlcTest, BordersFirstOrderAndAppend)
{
    ts::ScratchDir dir;
    auto stack = ts::MakeStack({500, 1000}, 0, 0, 10000);
    stack->GetIOParametersUpdate().BordersFirst = false;
    M2DSliceIO_slc io;
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("o.slc"), 10000, 1));
    const std::string bytes = ts::ReadFile(dir.File("o.slc"));
    // Vectors first: the first boundary of the first layer is a hatch line of 2 vertices.
    const std::size_t layer = bytes.find("\r\n\x1a") + 3 + 256 + 1 + 16;
    EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(bytes.data() + layer + 4), 3u); // 1 contour, 2 hatches
    EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(bytes.data() + layer + 8), 2u);

    // Appending in two rounds: the header goes out once, without sources, and the close
    // fills in the extents and the sampling entry of all layers.
    {
        M2DSliceContainerAppendableIO appender(4);
        ASSERT_TRUE(appender.InitializeAppendWriter(dir.WFile("ap.slc"), 10000, 1, false));
        ASSERT_TRUE(appender.WriteContainer(*ts::MakeStack({500, 1000}, 0, 0, 10000), true, true));
        ASSERT_TRUE(appender.WriteContainer(*ts::MakeStack({1500}, 0, 0, 20000), true, false));
        ASSERT_TRUE(appender.ReleaseAppendWriter());
    }
    const std::string appended = ts::ReadFile(dir.File("ap.slc"));
    EXPECT_NE(appended.find("-EXTENTS 0.00000000000000, 2.00000000000000 0.00000000000000, 2.00000000000000 "
                            "0.05000000000000, 0.15000000000000 \r\n\x1a"),
              std::string::npos);
    const std::size_t entry = appended.find("\r\n\x1a") + 3 + 256;
    EXPECT_TRUE(kit::SameBytes(kit::Bytes().u8(1).f32(0.05f).f32(0.05f), appended.substr(entry, 9)));
    M2DSliceIO_slc reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("ap.slc"));
    ASSERT_EQ(layers.size(), 3u);
    EXPECT_EQ(layers[2].GetZ(), 1500);
}

TEST(SlcTest, SizeEstimate)
{
    auto stack = StackOf({100, 200}, [](std::int32_t) {
        M2DSlice slice;
        ts::AddContour(slice, ts::Square(0, 0, 100));                  // closed: 8 + 8 * 5
        ts::AddContour(slice, {{0, 0}, {5, 5}, {9, 0}}, false);          // open: 8 + 8 * 3
        ts::AddHatches(slice, {M2DSliceVector(0, 0, 1, 1), M2DSliceVector(1, 1, 2, 2)}); // 24 * 2
        return slice;
    });
    M2DSliceIO_slc io;
    I2DSliceIOFileSizeEstimate::EstimatedRange total;
    ASSERT_TRUE(io.EsimateTotalFileSize(*stack, total));
    EXPECT_EQ(total.Size, 450u + 2 * (4 + 3 * 4 + 48 + 32 + 48));
    EXPECT_EQ(std::make_pair(total.ZMin, total.ZMax), std::make_pair(100, 200));
    M2DSliceStack empty;
    ASSERT_TRUE(io.EsimateTotalFileSize(empty, total = {}));
    EXPECT_EQ(total.Size, 450u);
}

TEST(SlcTest, RoundTripAndDamage)
{
    ts::ScratchDir dir;
    const BuildGenerator build(BuildShape::Rich());
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& p : parts)
        sources.push_back(p.get());
    std::string reason;
    auto back = kit::RoundTrip(4, sources, dir.File("r.slc"), 10000, 1, &reason);
    ASSERT_TRUE(back) << reason;
    kit::ExpectSameBuild(sources, *back, FormatRegistry::ForCode(4)->Losses, 1);
    legacy_test::ExpectScanMeasuresTheRead(4, dir.File("r.slc"));

    // Damage on a small file: two layers of one part.
    const BuildGenerator small(BuildShape::Rich(2, 1));
    ASSERT_TRUE(kit::RoundTrip(4, {&small}, dir.File("s.slc"), 10000, 1, &reason)) << reason;
    const std::string bytes = ts::ReadFile(dir.File("s.slc"));
    kit::SweepOptions options;
    options.MaxCases = 1200;
    kit::SweepTruncations(4, bytes, options);
    kit::SweepCorruptions(4, bytes, options);
}
