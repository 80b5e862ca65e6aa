// SLI: the header and layers worked out by hand, the thickness filled in on closing, the
// 16-bit steps with their rounding, sections of three, and files of another SLI family.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "LegacyTestSupport.h"
#include "formats/legacy/LegacySource.h"
#include "formats/legacy/M2DSliceIO_sli_3ds.h"
#include "framework/M2DSliceContainerIO.h"
#include "fuzz/ReadPath.h"

namespace {

using legacy_test::Read;
using legacy_test::StackOf;
using legacy_test::Write;

std::string Header(const char* res, const char* hx, const char* hy, const char* zs, bool mm)
{
    return std::string("!SLICE= -VER 3.822 -TF dummy.stl -B -SF dummy.sli -MF dummy.msg -RES ") + res +
           " -SCL 1.000000 -Z -ZS " + zs + "-MSA 40 -CURE 0.100000 -DELTA 0.05 -HX " + hx + " -HY " + hy +
           " -HA 0 -HFX 20 -HFY 0 -RSH 0 -REH 76 -SHX 28 -ALT 1 " + (mm ? "-MM " : "") +
           "-SLA 250\r\n\x1a\x01\x02\x01\x02\x03\x04\x7f";
}

void Hatch(M2DSliceIOParameters& p, std::int32_t x, std::int32_t y)
{
    p.HatchDistanceX = x;
    p.HatchDistanceY = y;
}

} // namespace

TEST(SliTest, FileByteForByteAndBack)
{
    ts::ScratchDir dir;
    // 100 steps per mm. Heights 0.055 and 0.105 mm truncate to 5 and 10 steps; the
    // thickness 0.05 mm is 5 steps. A closed square of 0.1 mm, a hatch line, and a hatch
    // line with negative ends: -1.5 steps + 0.5 truncates to -1, -1.2 + 0.5 to 0.
    auto stack = StackOf({550, 1050}, [](std::int32_t) {
        M2DSlice slice;
        ts::AddContour(slice, ts::Square(0, 0, 1000));
        ts::AddHatches(slice, {M2DSliceVector(0, 500, 1000, 500), M2DSliceVector(-150, -120, -250, 300)});
        return slice;
    });
    Hatch(stack->GetIOParametersUpdate(), 1000, 2049);
    M2DSliceIO_sli_3ds io;
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("a.sli"), 10000, 100));

    kit::Bytes expected;
    expected.text(Header("100", "10", "20", "5      ", true));
    for (int z : {5, 10})
    {
        expected.u8(0).le<std::int16_t>(static_cast<std::int16_t>(z));
        expected.u8(1).u16(16);
        for (int v : {0, 0, 0, 10, 0, 10, 10, 10, 10, 10, 10, 0, 10, 0, 0, 0})
            expected.le<std::int16_t>(static_cast<std::int16_t>(v));
        expected.u8(11).u16(8); // hatches (kind 6) go to code 11
        for (int v : {0, 5, 10, 5, -1, 0, -2, 3})
            expected.le<std::int16_t>(static_cast<std::int16_t>(v));
    }
    EXPECT_TRUE(kit::SameBytes(expected, ts::ReadFile(dir.File("a.sli"))));

    M2DSliceIO_sli_3ds reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("a.sli"));
    ASSERT_EQ(layers.size(), 2u);
    M2DSliceContainerIOProperties properties;
    reader.GetIoProperties(properties);
    EXPECT_EQ(std::make_tuple(properties.InverseResolution, properties.HatchDistanceX, properties.HatchDistanceY,
                              properties.LayerThickness),
              std::make_tuple(100, 1000, 2000, 500));
    EXPECT_EQ(layers[1].GetZ(), 1000);
    ASSERT_EQ(layers[1].GetSliceBorder()->GetNumContours(), 1u);
    const M2DSliceContour& c = *layers[1].GetSliceBorder()->GetContour(0);
    EXPECT_TRUE(c.GetIsClosed());
    EXPECT_EQ(ts::PointsOf(c), ts::Square(0, 0, 1000));
    ASSERT_EQ(layers[1].GetVectors()->GetNumVectorBlocks(), 1u);
    const M2DSliceVectorBlock& b = *layers[1].GetVectors()->GetVectorBlock(0);
    EXPECT_EQ(b.GetTypeInfo().GetType(), e2DSliceVectorType_Hatch);
    EXPECT_EQ(b.Vectors, std::vector<M2DSliceVector>({M2DSliceVector(0, 500, 1000, 500), M2DSliceVector(-100, 0, -200, 300)}));
}

TEST(SliTest, OpenPolylinesInchesAndTheSectionRule)
{
    ts::ScratchDir dir;
    // In inches (no "-MM", which a reader does not look at anyway), 1 step per inch.
    const int inch = 254000;
    auto stack = StackOf({inch}, [&](std::int32_t) {
        M2DSlice slice;
        ts::AddContour(slice, {{0, 0}, {inch, 0}, {inch, inch}}, false);
        ts::AddContour(slice, {{5 * inch, 5 * inch}}, true); // one point: skipped
        return slice;
    });
    Hatch(stack->GetIOParametersUpdate(), inch, inch);
    M2DSliceIO_sli_3ds io;
    ASSERT_TRUE(Write(io, {stack.get()}, dir.File("o.sli"), inch, 1));
    kit::Bytes expected;
    expected.text(Header("1", "1", "1", "0      ", false));
    expected.u8(0).u16(1).u8(1).u16(8);
    for (int v : {0, 0, 1, 0, 1, 0, 1, 1})
        expected.le<std::int16_t>(static_cast<std::int16_t>(v));
    EXPECT_TRUE(kit::SameBytes(expected, ts::ReadFile(dir.File("o.sli"))));
    M2DSliceIO_sli_3ds reader;
    std::vector<M2DSlice> layers = Read(reader, dir.File("o.sli"));
    ASSERT_EQ(layers.size(), 1u);
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_FALSE(layers[0].GetSliceBorder()->GetContour(0)->GetIsClosed());
    // Read in millimetres: one step is 1 mm.
    EXPECT_EQ(ts::PointsOf(*layers[0].GetSliceBorder()->GetContour(0)), (ts::Points{{0, 0}, {10000, 0}, {10000, 10000}}));

    // 20000 vectors: 4 x 20000 passes 65535, so sections of 3 until 16382 are left.
    std::vector<M2DSliceVector> many;
    for (int i = 0; i < 20000; ++i)
        many.emplace_back(i % 100, 1, i % 100, 2);
    auto big = StackOf({100}, [&](std::int32_t) {
        M2DSlice slice;
        ts::AddHatches(slice, many);
        return slice;
    });
    Hatch(big->GetIOParametersUpdate(), 100, 100);
    M2DSliceIO_sli_3ds bigWriter;
    ASSERT_TRUE(Write(bigWriter, {big.get()}, dir.File("big.sli"), 10000, 10000));
    const std::string bytes = ts::ReadFile(dir.File("big.sli"));
    std::size_t at = bytes.find("\x03\x04\x7f") + 3 + 3, sections = 0;
    std::vector<unsigned> sizes;
    while (at + 3 <= bytes.size())
    {
        EXPECT_EQ(bytes[at], 11);
        sizes.push_back(ByteOrder::LoadLE<std::uint16_t>(bytes.data() + at + 1));
        at += 3 + 2 * sizes.back();
        ++sections;
    }
    EXPECT_EQ(at, bytes.size());
    ASSERT_EQ(sections, 1207u);
    EXPECT_EQ(sizes.front(), 12u);
    EXPECT_EQ(sizes.back(), 4u * 16382);
    M2DSliceIO_sli_3ds bigReader;
    layers = Read(bigReader, dir.File("big.sli"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 20000u);
}

TEST(SliTest, RefusalsAndBadSections)
{
    ts::ScratchDir dir;
    auto a = ts::MakeStack({100});
    auto b = ts::MakeStack({100});
    // No hatch distances, or two sources with different ones: nothing is written.
    M2DSliceIO_sli_3ds io;
    EXPECT_FALSE(Write(io, {a.get()}, dir.File("n.sli"), 10000, 100));
    EXPECT_NE(io.GetFailureReason().find("hatch"), std::string::npos) << io.GetFailureReason();
    io.CloseFile();
    EXPECT_EQ(std::filesystem::file_size(dir.File("n.sli")), 0u);
    Hatch(a->GetIOParametersUpdate(), 100, 100);
    Hatch(b->GetIOParametersUpdate(), 100, 200);
    M2DSliceIO_sli_3ds two;
    EXPECT_FALSE(Write(two, {a.get(), b.get()}, dir.File("d.sli"), 10000, 100));
    two.CloseFile();
    EXPECT_EQ(std::filesystem::file_size(dir.File("d.sli")), 0u);

    // Code 13 is invalid and ends reading with a reason; code 4 too. A code-6 section
    // becomes kind 9.
    for (const auto& [code, ok] : std::vector<std::pair<int, bool>>{{13, false}, {4, false}, {6, true}})
    {
        kit::Bytes file;
        file.text(Header("10", "1", "1", "1      ", true)).u8(0).u16(3).u8(code).u16(4).u16(1).u16(2).u16(3).u16(4);
        ts::WriteFile(dir.File("c.sli"), file);
        M2DSliceIO_sli_3ds reader;
        const std::vector<M2DSlice> layers = Read(reader, dir.File("c.sli"));
        EXPECT_EQ(layers.size(), ok ? 1u : 0u) << code;
        EXPECT_EQ(reader.GetFailureReason().empty(), ok) << code << ": " << reader.GetFailureReason();
        if (ok)
        {
            EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->GetTypeInfo().GetType(), e2DSliceVectorType_Kind9);
        }
    }
}

TEST(SliTest, FilesOfAnotherSliFamilyAreRefusedCleanly)
{
    const std::string dir = legacy_test::SamplesDir() + "/sli/";
    if (!std::filesystem::exists(dir))
        GTEST_SKIP() << "no sample folder at " << dir;
    for (const char* name : {"simple.sli", "gyroplane.sli"})
    {
        SCOPED_TRACE(name);
        M2DSliceContainerIO in(3);
        M2DSliceStack stack;
        EXPECT_FALSE(in.ReadContainer(stack, ts::Wide(dir + name), true, nullptr));
        EXPECT_EQ(in.GetSliceIO()->GetFailureReason(), "header: not an SLI file of the \"!SLICE= -VER 3.822\" kind");
        EXPECT_EQ(stack.GetNumSlices(), 0u);
    }
}

TEST(SliTest, RoundTripAndDamage)
{
    ts::ScratchDir dir;
    const BuildGenerator build(BuildShape::Rich());
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& p : parts)
        sources.push_back(p.get());
    M2DSliceIOParameters parameters;
    Hatch(parameters, 1000, 1000);
    const legacy::JoinedSource joined(sources, parameters);
    std::string reason;
    auto back = kit::RoundTrip(3, {&joined}, dir.File("r.sli"), 10000, 100, &reason);
    ASSERT_TRUE(back) << reason;
    kit::ExpectSameBuild({&joined}, *back, FormatRegistry::ForCode(3)->Losses, 50);
    legacy_test::ExpectScanMeasuresTheRead(3, dir.File("r.sli"));

    const BuildGenerator small(BuildShape::Rich(2, 1));
    const legacy::JoinedSource one({&small}, parameters);
    ASSERT_TRUE(kit::RoundTrip(3, {&one}, dir.File("s.sli"), 10000, 100, &reason)) << reason;
    const std::string bytes = ts::ReadFile(dir.File("s.sli"));
    kit::SweepOptions options;
    options.MaxCases = 1200;
    kit::SweepTruncations(3, bytes, options);
    kit::SweepCorruptions(3, bytes, options);
}

// A section whose size is not a multiple of four words: the whole vectors are read and the
// words left over are passed by every path, so that reading with and without vectors and
// scanning all meet the next code at the same byte. Here a left-over word of 13 would read
// as an invalid code if it were taken for the next section.
TEST(SliTest, WordsLeftOverInASectionArePassedOnEveryPath)
{
    ts::ScratchDir dir;
    kit::Bytes file;
    // 10 steps per unit of 10000: F = 1000.
    file.text(Header("10", "1", "1", "1      ", true)).u8(0).u16(3);
    file.u8(6).u16(6).u16(1).u16(2).u16(3).u16(4).u16(13).u16(0);             // one vector, two words over
    file.u8(1).u16(9).u16(10).u16(10).u16(20).u16(10).u16(20).u16(10).u16(20).u16(20).u16(13); // two sides, one over
    file.u8(6).u16(3).u16(13).u16(13).u16(13);                                // no whole vector
    file.u8(0).u16(4);                                                         // a second, empty layer
    ts::WriteFile(dir.File("w.sli"), file);

    for (const bool vectors : {true, false})
    {
        SCOPED_TRACE(vectors);
        M2DSliceIO_sli_3ds reader;
        const std::vector<M2DSlice> layers = ts::ReadCli(reader, dir.File("w.sli"), vectors);
        EXPECT_EQ(reader.GetFailureReason(), "");
        ASSERT_EQ(layers.size(), 2u);
        EXPECT_EQ(layers[0].GetZ(), 3000);
        EXPECT_EQ(layers[1].GetZ(), 4000);
        ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
        const M2DSliceContour& contour = *layers[0].GetSliceBorder()->GetFirstContour();
        EXPECT_FALSE(contour.GetIsClosed());
        EXPECT_EQ(ts::PointsOf(contour), (ts::Points{{10000, 10000}, {20000, 10000}, {20000, 20000}}));
        ASSERT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), vectors ? 1u : 0u);
        if (vectors)
        {
            const M2DSliceVectorBlock& block = *layers[0].GetVectors()->GetVectorBlock(0);
            EXPECT_EQ(block.GetTypeInfo().GetType(), e2DSliceVectorType_Kind9);
            ASSERT_EQ(block.Vectors.size(), 1u);
            EXPECT_EQ(block.Vectors[0], M2DSliceVector(1000, 2000, 3000, 4000));
        }
        EXPECT_EQ(layers[1].GetSliceBorder()->GetNumContours(), 0u);
    }

    M2DSliceIO_sli_3ds scanner;
    ASSERT_TRUE(scanner.OpenFile(ts::Wide(dir.File("w.sli")), I2DSliceIO::Read) && scanner.ReadHeader(nullptr));
    std::vector<M2DSliceContainerScanInfo> scans;
    M2DSliceContainerScanInfo info;
    while (scans.size() < 10 && scanner.ScanLayer(info, nullptr, false))
        scans.push_back(info);
    EXPECT_EQ(scanner.GetFailureReason(), "");
    ASSERT_EQ(scans.size(), 2u);
    EXPECT_EQ(scans[0].Z, 3000);
    EXPECT_EQ(scans[0].NumContours, 1u);
    EXPECT_EQ(scans[1].Z, 4000);
    scanner.CloseFile();
}

// The SLI inputs kept in the fuzz folder, replayed through the read target's checks: full read,
// scan and the iterator's lazy reads agree on each.
TEST(SliTest, StoredFuzzInputsReadConsistently)
{
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(SLICEIO_TESTDATA_DIR).parent_path().parent_path() / "fuzz" / "regressions";
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().extension() == ".sli")
            files.push_back(entry.path());
    ASSERT_FALSE(files.empty()) << "no stored SLI inputs in " << folder;
    SliceIOFuzz::ScratchFile scratch;
    for (const fs::path& file : files)
    {
        SCOPED_TRACE(file.filename().string());
        std::ifstream in(file, std::ios::binary);
        const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        EXPECT_EQ(SliceIOFuzz::RunReadInput(scratch, bytes.data(), bytes.size(), 3), "");
    }
}
