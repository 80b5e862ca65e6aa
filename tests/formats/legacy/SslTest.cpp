// SSL: the text worked out by hand, always in inches; the reader's quirks (decimal comma in
// X, lost signs, "O" runs), millimetre files, and the "%f" formatting against the C library.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "LegacyTestSupport.h"
#include "formats/legacy/M2DSliceIO_ssl.h"

namespace {

using legacy_test::Read;
using legacy_test::StackOf;
using legacy_test::Write;

constexpr int kInch = 254000;

std::string Printf(float v)
{
    char text[80];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(v));
    return text;
}

} // namespace

TEST(SslTest, FixedFormattingMatchesTheCLibrary)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<std::int32_t> coordinate(-2000000000, 2000000000);
    std::vector<float> values = {0.0f, -0.0f, 0.5f, 1e-7f, -1e-7f, 0.0000005f, 0.0000015f, 0.0000025f, 123456.789f,
                                 3.4e38f, -1.0f / 3.0f};
    for (int i = 0; i < 200000; ++i)
        values.push_back(static_cast<float>(coordinate(random)) / (i % 2 ? 254000.0f : 10000.0f));
    for (int i = 0; i < 2000; ++i) // exact halves of the sixth decimal
        values.push_back(static_cast<float>(i) / 64.0f / 1e6f);
    for (float v : values)
    {
        char text[80];
        const std::size_t n = M2DSliceIO_ssl::FormatFixed6(v, text);
        ASSERT_EQ(std::string(text, n), Printf(v)) << v;
    }
}

TEST(SslTest, FileTextAndBack)
{
    ts::ScratchDir dir;
    // One layer at 0.5 inch: an outer square of one inch and a hatch line; written in inches
    // even though millimetres are asked for.
    auto stack = StackOf({kInch / 2}, [](std::int32_t) {
        M2DSlice slice;
        ts::AddContour(slice, ts::Square(kInch, 0, kInch));
        ts::AddHatches(slice, {M2DSliceVector(kInch / 4, kInch / 2, kInch * 3 / 4, kInch / 2)});
        return slice;
    });
    stack->GetSliceParametersUpdate().LayerThickness = kInch / 8;
    M2DSliceIO_ssl io;
    const std::string path = dir.File("a.ssl");
    ASSERT_TRUE(Write(io, {stack.get()}, path, 10000, 1000));
    const std::string expected = "Slice V0\nFILE(0," + path +
                                 "UNITS(INCH)\nSLICES()\n"
                                 "Z 0.500000 0.125000\n"
                                 "1.000000 0.000000\n1.000000 1.000000\n2.000000 1.000000\n2.000000 0.000000\nC\n"
                                 "0.250000 0.500000\n0.750000 0.500000\nO\n"
                                 "END\n";
    EXPECT_TRUE(kit::SameBytes(expected, ts::ReadFile(path)));

    M2DSliceIO_ssl reader;
    const std::vector<M2DSlice> layers = Read(reader, path);
    EXPECT_EQ(reader.GetFailureReason(), "");
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), kInch / 2);
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_TRUE(layers[0].GetSliceBorder()->GetContour(0)->GetIsClosed());
    EXPECT_EQ(ts::PointsOf(*layers[0].GetSliceBorder()->GetContour(0)), ts::Square(kInch, 0, kInch));
    ASSERT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 1u);
    EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->Vectors[0],
              M2DSliceVector(kInch / 4, kInch / 2, kInch * 3 / 4, kInch / 2));
}

TEST(SslTest, ReaderQuirks)
{
    ts::ScratchDir dir;
    // Millimetres ("mm" is not "INCH"); a decimal comma in X; a minus sign lost; an "O" after
    // three points gives 2 vectors, after two points 1; an empty layer is just its "Z" line.
    const std::string text = "Slice V0\nFILE(0,x.sslUNITS(mm)\nSLICES()\n"
                             "Z 0.1 0.1\n1,5 2.5\n-3 4\n5 6\nC\n"
                             "0 0\n1 0\n2 0\nO\n7 7\n8 8\nO\n"
                             "Z 0.2 0.1\n"
                             "Z 0.3 0.1\n1 1\n2 2\r\nO\r\nEND\r\n";
    ts::WriteFile(dir.File("q.ssl"), text);
    M2DSliceIO_ssl reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("q.ssl"));
    EXPECT_EQ(reader.GetFailureReason(), "");
    ASSERT_EQ(layers.size(), 3u);
    EXPECT_EQ(layers[0].GetZ(), 1000);
    ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_EQ(ts::PointsOf(*layers[0].GetSliceBorder()->GetContour(0)),
              (ts::Points{{15000, 25000}, {30000, 40000}, {50000, 60000}}));
    const M2DSliceVectorLayer& v = *layers[0].GetVectors();
    ASSERT_EQ(v.GetTotalNumVectors(), 3u);
    EXPECT_EQ(v.GetVectorBlock(0)->Vectors[0], M2DSliceVector(0, 0, 10000, 0));
    EXPECT_EQ(v.GetVectorBlock(0)->Vectors[1], M2DSliceVector(10000, 0, 20000, 0));
    EXPECT_EQ(layers[1].GetZ(), 2000);
    EXPECT_TRUE(layers[1].IsEmpty());
    EXPECT_EQ(layers[2].GetVectors()->GetTotalNumVectors(), 1u);

    // No "SLICES()": refused. A layer that neither "Z" nor "END" closes: damage.
    ts::WriteFile(dir.File("n.ssl"), "Slice V0\nUNITS(INCH)\n");
    bool headerOk = true;
    M2DSliceIO_ssl none;
    Read(none, dir.File("n.ssl"), &headerOk);
    EXPECT_FALSE(headerOk);
    ts::WriteFile(dir.File("d.ssl"), "Slice V0\nSLICES()\nZ 1 1\n1 1\n2 2\nO\n3 3\n");
    M2DSliceIO_ssl damaged;
    EXPECT_EQ(Read(damaged, dir.File("d.ssl")).size(), 0u);
    EXPECT_NE(damaged.GetFailureReason(), "");
}

// Runs of plain number tokens are read in one pass; a token of any other form sends its run
// through the point reader's second pass. Both must come to the same layer: here every X of
// the second file carries a letter behind its number, which the point reader passes over.
TEST(SslTest, OnePassAndTwoPassRunsReadAlike)
{
    ts::ScratchDir dir;
    const std::vector<std::pair<const char*, const char*>> points = {
        {"0.5", "0.25"}, {"1", "0.25"}, {"1,75", "1.000000001"}, {"0.123456789012345", "0.987654321098765"},
        {"-2.5", "3"}, {"12", "0.0000004"}};
    std::string plain = "Slice V0\nFILE(0,x.sslUNITS(INCH)\nSLICES()\nZ 0.1 0.1\n";
    std::string marked = plain;
    for (std::size_t i = 0; i < points.size(); ++i)
    {
        plain += std::string(points[i].first) + " " + points[i].second + "\n";
        marked += std::string(points[i].first) + "x " + points[i].second + "\n";
        if (i == 2)
        {
            plain += "C\n";
            marked += "C\n";
        }
    }
    plain += "O\nZ 0.2 0.1\n3 4\nO\nEND\n";
    marked += "O\nZ 0.2 0.1\n3x 4\nO\nEND\n";
    ts::WriteFile(dir.File("p.ssl"), plain);
    ts::WriteFile(dir.File("m.ssl"), marked);
    M2DSliceIO_ssl onePass, twoPass;
    const std::vector<M2DSlice> a = Read(onePass, dir.File("p.ssl"));
    const std::vector<M2DSlice> b = Read(twoPass, dir.File("m.ssl"));
    EXPECT_EQ(onePass.GetFailureReason(), "");
    EXPECT_EQ(twoPass.GetFailureReason(), "");
    ASSERT_EQ(a.size(), 2u);
    ASSERT_EQ(b.size(), 2u);
    // 1.75 inch by hand; the rest must only agree.
    EXPECT_EQ(ts::PointsOf(*a[0].GetSliceBorder()->GetContour(0))[2].first, 444500);
    EXPECT_EQ(a[0].GetVectors()->GetTotalNumVectors(), 2u);
    // A single point before "O" gives no vector, in either pass.
    EXPECT_EQ(a[1].GetVectors()->GetTotalNumVectors(), 0u);
    for (std::size_t i = 0; i < a.size(); ++i)
        ts::ExpectSameSlice(a[i], b[i], "layer " + std::to_string(i));
    legacy_test::ExpectScanMeasuresTheRead(5, dir.File("p.ssl"));
    legacy_test::ExpectScanMeasuresTheRead(5, dir.File("m.ssl"));
}

// The same on random texts: numbers of every form the point reader takes (signs it drops,
// decimal commas, long fractions, whole parts past 2^24), runs of any length closed by "C"
// or "O", odd counts and empty runs. A letter behind every number changes nothing for the
// point reader, and makes every run take the second pass.
TEST(SslTest, RandomRunsReadAlikeInBothPasses)
{
    ts::ScratchDir dir;
    std::mt19937 random(11);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    for (int file = 0; file < 150; ++file)
    {
        SCOPED_TRACE(file);
        std::string plain = "Slice V0\nFILE(0,x.sslUNITS(" + std::string(file % 3 ? "INCH" : "MM") + ")\nSLICES()\n";
        std::string marked = plain;
        const char* spaces[] = {" ", "\n", "\r\n", "  "};
        for (int layer = 0, layers = 1 + pick(3); layer < layers; ++layer)
        {
            const std::string z = "Z " + std::to_string(layer) + ".5 0.1\n";
            plain += z;
            marked += z;
            for (int run = 0, runs = pick(5); run < runs; ++run)
            {
                for (int token = 0, tokens = pick(9); token < tokens; ++token)
                {
                    std::string number = pick(4) == 0 ? "-" : "";
                    for (int d = 0, digits = 1 + pick(pick(6) == 0 ? 9 : 3); d < digits; ++d)
                        number += static_cast<char>('0' + pick(10));
                    if (pick(3) != 0)
                    {
                        number += pick(4) == 0 ? ',' : '.';
                        for (int d = 0, digits = pick(pick(5) == 0 ? 20 : 7); d < digits; ++d)
                            number += static_cast<char>('0' + pick(10));
                    }
                    const char* space = spaces[pick(4)];
                    plain += number + space;
                    marked += number + "x" + space;
                }
                const std::string letter = pick(2) ? "C\n" : "O\n";
                plain += letter;
                marked += letter;
            }
        }
        plain += "END\n";
        marked += "END\n";
        ts::WriteFile(dir.File("p.ssl"), plain);
        ts::WriteFile(dir.File("m.ssl"), marked);
        M2DSliceIO_ssl onePass, twoPass;
        const std::vector<M2DSlice> a = Read(onePass, dir.File("p.ssl"));
        const std::vector<M2DSlice> b = Read(twoPass, dir.File("m.ssl"));
        // Damage, such as a last "O" that reads past the end, is found by both (at offsets
        // that the letters shift).
        EXPECT_EQ(onePass.GetFailureReason().empty(), twoPass.GetFailureReason().empty());
        ASSERT_EQ(a.size(), b.size());
        for (std::size_t i = 0; i < a.size(); ++i)
            ts::ExpectSameSlice(a[i], b[i], "layer " + std::to_string(i));
    }
}

TEST(SslTest, OnlyTheFirstSliceOfALayerIsWritten)
{
    ts::ScratchDir dir;
    auto a = ts::MakeStack({1000}, 0, 0, 10000);
    auto b = ts::MakeStack({1000}, 50000, 0, 10000);
    M2DSliceIO_ssl io;
    ASSERT_TRUE(Write(io, {a.get(), b.get()}, dir.File("m.ssl"), 10000, 1));
    M2DSliceIO_ssl reader;
    const std::vector<M2DSlice> layers = Read(reader, dir.File("m.ssl"));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_LT(layers[0].GetXYArea(false).XMax, 50000);
}

TEST(SslTest, RoundTripAndDamage)
{
    ts::ScratchDir dir;
    const BuildGenerator build(BuildShape::Rich(6, 1));
    std::string reason;
    auto back = kit::RoundTrip(5, {&build}, dir.File("r.ssl"), 10000, 1000, &reason);
    ASSERT_TRUE(back) << reason;
    kit::ExpectSameBuild({&build}, *back, FormatRegistry::ForCode(5)->Losses, 2);
    legacy_test::ExpectScanMeasuresTheRead(5, dir.File("r.ssl"));

    const BuildGenerator small(BuildShape::Rich(2, 1));
    ASSERT_TRUE(kit::RoundTrip(5, {&small}, dir.File("s.ssl"), 10000, 1000, &reason)) << reason;
    const std::string bytes = ts::ReadFile(dir.File("s.ssl"));
    kit::SweepOptions options;
    options.MaxCases = 1200;
    kit::SweepTruncations(5, bytes, options);
    kit::SweepCorruptions(5, bytes, options);
}
