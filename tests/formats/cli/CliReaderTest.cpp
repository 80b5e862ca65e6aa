// The CLI reader: round trips, polyline chaining, hand-made records, ASCII files, scanning,
// and files that are cut short or corrupted.
#include <cmath>
#include <limits>
#include <random>

#include "framework/M2DSliceContainerIterator.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

const Points kOuter = Square(0, 0, 10000);
const Points kHole = Reversed(2000, 2000, 6000);
const Points kLine = {{1000, 1000}, {3000, 1000}, {3000, 4000}};
const std::vector<M2DSliceVector> kHatches = {{1000, 2000, 9000, 2000}, {1000, 3000, 9000, 3000}, {0, 0, 5000, 7000}};

// Three layers of one part (outer square, hole, open line, hatches) and a second part with
// a small square, written with inverse resolution 10.
std::string WriteParts(M2DSliceIO_cli::CoordinatesType type, const ScratchDir& dir)
{
    M2DSliceStack part, other;
    for (int z : {1000, 2000, 4000})
    {
        M2DSlice slice;
        slice.SetZ(z);
        AddContour(slice, kOuter);
        AddContour(slice, kHole, true, 0, false);
        AddContour(slice, kLine, false);
        AddHatches(slice, kHatches);
        part.AddSlice(slice, false);
        M2DSlice small;
        small.SetZ(z);
        AddContour(small, Square(20000, 0, 1000));
        other.AddSlice(small, false);
    }
    M2DSliceIO_cli io;
    io.SetCoordinatesType(type);
    const std::string path = dir.File("parts" + std::to_string(type) + ".cli");
    EXPECT_TRUE(WriteCli(io, {&part, &other}, path, 10000, 10));
    return path;
}

std::string Header(const std::string& units) { return "$$HEADERSTART\n$$BINARY\n$$UNITS/" + units + "\n$$VERSION/200\n$$HEADEREND"; }

} // namespace

TEST(M2DSliceIO_cliReader, RoundTripLongAndShort)
{
    ScratchDir dir;
    for (auto type : {M2DSliceIO_cli::Long, M2DSliceIO_cli::Short})
    {
        SCOPED_TRACE(type);
        const std::string path = WriteParts(type, dir);
        M2DSliceIO_cli io;
        io.SetCoordinatesType(type == M2DSliceIO_cli::Long ? M2DSliceIO_cli::Short : M2DSliceIO_cli::Long);
        const std::vector<M2DSlice> layers = ReadCli(io, path);
        EXPECT_EQ(io.GetCoordinatesType(), type); // the layer records decide
        M2DSliceContainerIOProperties properties;
        io.GetIoProperties(properties);
        EXPECT_EQ(properties.InverseResolution, 10);
        ASSERT_EQ(layers.size(), 3u);
        const int heights[] = {1000, 2000, 4000};
        for (std::size_t i = 0; i < 3; ++i)
        {
            // Closed contours come back inverted, with the closing repeat kept and outer by
            // area. The open line is ended by the next closed polyline, which inverts it back.
            M2DSlice expected;
            expected.SetZ(heights[i]);
            AddContour(expected, {kOuter[3], kOuter[0], kOuter[1], kOuter[2], kOuter[3]});
            AddContour(expected, {kHole[3], kHole[0], kHole[1], kHole[2], kHole[3]}, true, 0, false);
            AddContour(expected, kLine, false);
            AddContour(expected, {{21000, 0}, {20000, 0}, {20000, 1000}, {21000, 1000}, {21000, 0}}, true, 1);
            AddHatches(expected, kHatches);
            ExpectSameSlice(expected, layers[i], "layer " + std::to_string(i));
            EXPECT_EQ(layers[i].GetXYArea(false), (M2DSliceXYArea{0, 21000, 0, 10000}));
        }
        // A scan measures what reading builds: outer square minus hole plus the small square,
        // and every contour's drawn length.
        M2DSliceIO_cli scanner;
        ASSERT_TRUE(scanner.OpenFile(Wide(path), I2DSliceIO::Read) && scanner.ReadHeader(nullptr));
        for (int z : heights)
        {
            M2DSliceContainerScanInfo info;
            ASSERT_TRUE(scanner.ScanLayer(info, nullptr, true));
            EXPECT_EQ(std::make_tuple(info.Z, info.NumContours, info.NumVectorBlocks, info.Area),
                      std::make_tuple(z, 4u, 1u, M2DSliceXYArea{0, 21000, 0, 10000}));
            EXPECT_EQ(std::make_pair(info.SurfaceArea, info.ContourLength),
                      std::make_pair(1e8 - 3.6e7 + 1e6, 40000.0 + 24000 + 5000 + 4000));
        }
        M2DSliceContainerScanInfo end;
        EXPECT_FALSE(scanner.ScanLayer(end, nullptr, true));

        // Without vectors the hatch data are skipped and the layers still line up.
        const std::vector<M2DSlice> bare = ReadCli(io, path, false);
        ASSERT_EQ(bare.size(), 3u);
        EXPECT_EQ(bare[2].GetZ(), 4000);
        EXPECT_EQ(bare[2].GetSliceBorder()->GetNumContours(), 4u);
        EXPECT_EQ(bare[2].GetVectors()->GetNumVectorBlocks(), 0u);
    }
}

TEST(M2DSliceIO_cliReader, InchFileReadsAsMillimetres)
{
    ScratchDir dir;
    M2DSliceStack stack;
    M2DSlice slice;
    slice.SetZ(254000);
    AddContour(slice, {{254000, 508000}, {0, 0}}, false);
    stack.AddSlice(slice, false);
    M2DSliceIO_cli io;
    const std::string path = dir.File("inch.cli");
    ASSERT_TRUE(WriteCli(io, {&stack}, path, 254000, 1000));
    const std::string file = ReadFile(path);
    EXPECT_NE(file.find("$$UNITS/0.001000000000000\n"), std::string::npos);
    EXPECT_NE(file.find("$$DIMENSION/0.000000000000000,0.000000000000000,1.000000000000000,"
                        "1.000000000000000,2.000000000000000,1.000000000000000\n"),
              std::string::npos);

    // The file does not say inch: its steps come back as thousandths of a millimetre.
    const std::vector<M2DSlice> layers = ReadCli(io, path);
    M2DSliceContainerIOProperties properties;
    io.GetIoProperties(properties);
    EXPECT_EQ(std::make_pair(properties.UnitConversionFactor, properties.InverseResolution), std::make_pair(10000, 1000));
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), 10000);
    EXPECT_EQ(PointsOf(*layers[0].GetSliceBorder()->GetFirstContour()), (Points{{0, 0}, {10000, 20000}}));
}

TEST(M2DSliceIO_cliReader, HandMadeRecordsChainRoundAndEnd)
{
    // Units 0.00005: inverse resolution 20000, one step is half an internal unit.
    ScratchDir dir;
    const std::string path = dir.File("handmade.cli");
    WriteFile(path, Bytes()
        .text(Header("0.00005"))
        .u16(127).f32(4)
        .u16(130).u32(7).u32(2).u32(3).f32(0).f32(0).f32(10).f32(0).f32(10).f32(10) // chain starts
        .u16(130).u32(7).u32(2).u32(2).f32(10).f32(10).f32(0).f32(10)               // carries on
        .u16(130).u32(7).u32(2).u32(2).f32(0).f32(10).f32(0).f32(0)                 // back at start: closes
        .u16(130).u32(8).u32(2).u32(1).f32(3).f32(-3)   // single point: last end stays (0, 0)
        .u16(130).u32(8).u32(2).u32(2).f32(0).f32(0).f32(7).f32(1) // so this one joins it
        .u16(131).u16(5).u16(1).u16(1).u16(2).u16(3).u16(4)
        .u16(128).u16(6)                                // a layer without records
        .u16(127).f32(8).u16(200)                       // an unknown record ends the layers
        .s);
    M2DSliceIO_cli io;
    const std::vector<M2DSlice> layers = ReadCli(io, path);
    ASSERT_EQ(layers.size(), 2u);

    // The closed chain, inverted when the next chain began, has no repeated point. Halves
    // round away from zero: 1.5 -> 2, -1.5 -> -2, 3.5 -> 4, 0.5 -> 1.
    M2DSlice expected;
    expected.SetZ(2);
    AddContour(expected, {{0, 5}, {5, 5}, {5, 0}, {0, 0}}, true, 7);
    AddContour(expected, {{2, -2}, {4, 1}}, false, 8);
    AddHatches(expected, {{1, 1, 2, 2}}, 5);
    ExpectSameSlice(expected, layers[0]);
    EXPECT_EQ(layers[1].GetZ(), 3);
    EXPECT_TRUE(layers[1].IsEmpty());
}

TEST(M2DSliceIO_cliReader, RefusesFilesWithoutCompleteHeader)
{
    ScratchDir dir;
    const std::string path = dir.File("refused.cli");
    for (const std::string& text :
         {std::string(), std::string("$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$VERSION/200\n"), Header("1").substr(14),
          std::string("$$HEADERSTART\n$$UNITS/1\n$$VERSION/200\n$$HEADEREND"),
          std::string("$$HEADERSTART\n$$BINARY\n$$VERSION/200\n$$UNITS/$$HEADEREND"), // no digit left
          std::string("$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$HEADEREND$$VERSION/200\n")})
    {
        WriteFile(path, text);
        M2DSliceIO_cli io;
        bool headerOk = true;
        ReadCli(io, path, true, &headerOk);
        EXPECT_FALSE(headerOk) << text;
    }
}

TEST(M2DSliceIO_cliReader, AsciiFile)
{
    ScratchDir dir;
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/0.1\n$$VERSION/200\n$$LABEL/1,part1\n$$HEADEREND\n"
                             "$$GEOMETRYSTART\n";
    const std::string path = dir.File("ascii.cli");
    WriteFile(path, head + "$$LAYER/0.5\n$$POLYLINE/1,1,5,0,0,10,0,10,10,0,10,0,0\n$$HATCHES/2,1,1,2,3,4.5\n\n"
                           "$$LAYER/1.0\n$$POLYLINE/3,2,2,0,0,5,5\n$$GEOMETRYEND\n");
    M2DSliceIO_cli io;
    const std::vector<M2DSlice> layers = ReadCli(io, path, false); // vectors are read all the same
    EXPECT_TRUE(io.IsAscii());
    ASSERT_EQ(layers.size(), 2u);
    M2DSlice expected;
    expected.SetZ(500);
    AddContour(expected, {{0, 0}, {0, 10000}, {10000, 10000}, {10000, 0}, {0, 0}}, true, 1);
    AddHatches(expected, {{1000, 2000, 3000, 4500}}, 2);
    ExpectSameSlice(expected, layers[0], "first");
    expected.Clear();
    expected.SetZ(1000);
    // Open contours too take the outer flag from the sign of their drawn area sum.
    AddContour(expected, {{5000, 5000}, {0, 0}}, false, 3)->SetIsOuterContour(true);
    ExpectSameSlice(expected, layers[1], "second");

    // The lazy reader reaches each layer by its index, in any order.
    M2DSliceContainerIterator it(Wide(path), 0, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    ASSERT_EQ(it.GetNumSlices(), 2u);
    for (std::uint64_t i : {1u, 0u, 0u, 1u})
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        ExpectSameSlice(layers[i], slice, "iterator layer " + std::to_string(i));
    }

    // Bad numbers and short lines throw from the parsers.
    auto read = [&](const std::string& layer) {
        WriteFile(path, head + "$$LAYER/" + layer);
        M2DSliceIO_cli reader;
        M2DSlice slice;
        EXPECT_TRUE(reader.OpenFile(Wide(path), I2DSliceIO::Read) && reader.ReadHeader(nullptr));
        reader.ReadLayer(slice, nullptr, true);
    };
    // Callers match the texts of the exceptions.
    const auto thrown = [&](const std::string& layer) -> std::string {
        try
        {
            read(layer);
        }
        catch (const std::invalid_argument& e)
        {
            return std::string("invalid_argument: ") + e.what();
        }
        catch (const std::out_of_range& e)
        {
            return std::string("out_of_range: ") + e.what();
        }
        return "nothing";
    };
    EXPECT_EQ(thrown("abc\n"), "invalid_argument: invalid stod argument");
    EXPECT_EQ(thrown("1\n$$POLYLINE/1,1,3,0,0,1,1\n"), "out_of_range: invalid vector subscript");
    EXPECT_EQ(thrown("1\n$$HATCHES/x,1,0,0,1,1\n"), "invalid_argument: invalid stoi argument");
    EXPECT_EQ(thrown("1\n$$HATCHES/1,99999999999,0,0,1,1\n"), "out_of_range: stoi argument out of range");
    EXPECT_EQ(thrown("1\n$$HATCHES/1,1,0,0,1e999,1\n"), "out_of_range: stod argument out of range");
}

TEST(M2DSliceIO_cliReader, TruncatedOrCorruptedFilesEndCleanly)
{
    ScratchDir dir;
    for (auto type : {M2DSliceIO_cli::Long, M2DSliceIO_cli::Short})
    {
        const std::string full = ReadFile(WriteParts(type, dir));
        for (std::size_t at = 0; at < full.size(); ++at)
        {
            // Fresh files each time: emptying a file with content is slow on some file systems.
            M2DSliceIO_cli io;
            std::string changed = full;
            changed[at] = '\xff';
            for (const std::string& damaged : {full.substr(0, at), changed})
            {
                const std::string path = dir.File("damaged" + std::to_string(at) + ".cli");
                WriteFile(path, damaged);
                EXPECT_LE(ReadCli(io, path).size(), 3u);
                std::filesystem::remove(path);
            }
        }
    }
    // Counts far beyond the file: what the file holds is read, nothing is made up beyond it and
    // nothing is allocated for the count.
    const std::string path = dir.File("counts.cli");
    for (std::uint32_t n : {0xffffffffu, 0x7fffffffu, 0x40000000u})
    {
        WriteFile(path, Bytes().text(Header("1")).u16(127).f32(0).u16(132).u32(0).u32(n).f32(2).s);
        M2DSliceIO_cli io;
        std::vector<M2DSlice> layers = ReadCli(io, path);
        ASSERT_EQ(layers.size(), 1u);
        ASSERT_EQ(layers[0].GetVectors()->GetTotalNumVectors(), 1u) << "one vector begun, its end made of zeros";
        EXPECT_EQ(layers[0].GetVectors()->GetVectorBlock(0)->Vectors[0], M2DSliceVector(20000, 0, 0, 0));
        layers = ReadCli(io, path, false);
        ASSERT_EQ(layers.size(), 1u) << "skipped hatches keep the layer";
        EXPECT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), 0u);
        WriteFile(path, Bytes().text(Header("1")).u16(127).f32(0).u16(130).u32(0).u32(1).u32(n).f32(3).s);
        layers = ReadCli(io, path);
        ASSERT_EQ(layers.size(), 1u);
        ASSERT_EQ(layers[0].GetSliceBorder()->GetNumContours(), 1u);
        EXPECT_EQ(PointsOf(*layers[0].GetSliceBorder()->GetContour(0)), (Points{{30000, 0}}));
    }
}

TEST(M2DSliceIO_cliReader, RefusalsSayWhy)
{
    ScratchDir dir;
    const std::string path = dir.File("why.cli");
    const auto reason = [&](const std::string& bytes, bool layer) {
        WriteFile(path, bytes);
        M2DSliceIO_cli io;
        EXPECT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read));
        if (!io.ReadHeader(nullptr))
            return io.GetFailureReason();
        M2DSlice slice;
        while (layer && io.ReadLayer(slice, nullptr, true))
        {
        }
        return io.GetFailureReason();
    };
    EXPECT_EQ(reason("", false), "header: no \"$$HEADEREND\" in the file");
    EXPECT_EQ(reason("$$HEADEREND", false), "header: no \"$$HEADERSTART\" before \"$$HEADEREND\"");
    EXPECT_EQ(reason("$$HEADERSTART$$UNITS/1$$HEADEREND", false),
              "header: the header has neither \"$$ASCII\" nor \"$$BINARY\"");
    EXPECT_EQ(reason("$$HEADERSTART$$BINARY$$VERSION/200$$HEADEREND", false), "header: the header has no \"$$UNITS/\"");
    EXPECT_EQ(reason("$$HEADERSTART$$BINARY$$VERSION/200$$UNITS/x$$HEADEREND", false),
              "header: \"$$UNITS/\" has no number");
    EXPECT_EQ(reason(Bytes().text(Header("1")).u16(127).f32(0).u16(127).s, true), "layer 1: the file ends inside a layer's height at offset " +
                                                                           std::to_string(Header("1").size() + 6));
    EXPECT_EQ(reason(Bytes().text(Header("1")).u16(127).f32(0).u16(140).s, true),
              "layer 0: unknown record command 140 at offset " + std::to_string(Header("1").size() + 6));
    EXPECT_EQ(reason(Bytes().text(Header("1")).u16(127).f32(0).u16(130).u32(0).u32(7).u32(0).s, true),
              "layer 0: a polyline record has direction 7 (0, 1 or 2 expected) at offset " +
                  std::to_string(Header("1").size() + 6 + 6));
    EXPECT_EQ(reason(Bytes().text(Header("1")).u16(127).f32(0).s, true), "") << "the clean end has no reason";
}

TEST(M2DSliceIO_cliReader, LargeHatchRecordsRoundEveryCoordinateExactly)
{
    // Records longer than the reader converts at a time, with halves, their neighbours
    // either side, ordinary values and (in the last record) values no int can hold. Each
    // coordinate must be lround(value x factor) and the box the extremes of the vectors.
    ScratchDir dir;
    const std::string path = dir.File("rounding.cli");
    const float outside[] = {1e30f, -1e30f, std::numeric_limits<float>::infinity(), std::nanf(""), 4.3e9f};
    // Units 0.00005: factor 0.5, so odd values land on halves; units 0.3: factor 10000 / 3.
    for (const char* units : {"0.00005", "0.3"})
        for (bool isLong : {true, false})
        {
            SCOPED_TRACE(std::string(units) + (isLong ? " long" : " short"));
            const double c = std::string(units) == "0.3" ? 10000.0 / 3 : 0.5;
            std::mt19937 random(7);
            std::vector<float> values;
            for (std::size_t i = 0; i < 4 * 2500; ++i)
            {
                const float odd = static_cast<float>(2 * (random() % 30000) + 1);
                const float pick[] = {odd, -odd, std::nextafter(odd, 0.0f), std::nextafter(odd, 1e9f),
                                      std::uniform_real_distribution<float>(-1e5f, 1e5f)(random)};
                values.push_back(isLong ? pick[random() % 5] : static_cast<float>(random() % 65536));
            }
            if (!isLong)
                values.back() = values[values.size() - 2] = 65535; // the top corner comes last
            const std::size_t bad = isLong ? 4 * 1100 : values.size(); // where a second record starts
            Bytes file;
            file.text(Header(units)).u16(127).f32(0);
            for (std::size_t start : {std::size_t{0}, bad})
            {
                const std::size_t end = start == 0 ? bad : values.size();
                if (start == end)
                    continue;
                if (start > 0)
                    for (std::size_t k = 0; k < 5; ++k)
                        values[start + 1 + 1300 * k] = outside[k];
                if (isLong)
                    file.u16(132).u32(3).u32(static_cast<std::uint32_t>((end - start) / 4));
                else
                    file.u16(131).u16(3).u16(static_cast<unsigned>((end - start) / 4));
                for (std::size_t i = start; i < end; ++i)
                    isLong ? file.f32(values[i]) : file.u16(static_cast<unsigned>(values[i]));
            }
            WriteFile(path, file.s);

            M2DSliceIO_cli io;
            const std::vector<M2DSlice> layers = ReadCli(io, path);
            ASSERT_EQ(layers.size(), 1u);
            std::vector<M2DSliceVector> got;
            const M2DSliceVectorLayer* blocks = layers[0].GetVectors();
            for (std::size_t b = 0; b < blocks->GetNumVectorBlocks(); ++b)
                got.insert(got.end(), blocks->GetVectorBlock(b)->Vectors.begin(), blocks->GetVectorBlock(b)->Vectors.end());
            ASSERT_EQ(got.size() * 4, values.size());
            M2DSliceXYArea box;
            for (std::size_t i = 0; i < values.size(); ++i)
            {
                const M2DSliceVector& v = got[i / 4];
                const int coordinate[] = {v.x1, v.y1, v.x2, v.y2};
                const double product = static_cast<double>(values[i]) * c;
                if (std::fabs(product) < 2e9)
                {
                    ASSERT_EQ(coordinate[i % 4], std::lround(product)) << i << ": " << values[i];
                }
                if (i % 4 == 3)
                {
                    box.Extend(v.x1, v.y1);
                    box.Extend(v.x2, v.y2);
                }
            }
            // Out-of-range values included, the area is the box of what was read.
            EXPECT_EQ(layers[0].GetXYArea(false), box);
            M2DSliceContainerScanInfo info;
            ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
            ASSERT_TRUE(io.ScanLayer(info, nullptr, true));
            EXPECT_EQ(info.Area, box);
        }
}
