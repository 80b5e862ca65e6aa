// The CLI reader: round trips, polyline chaining, hand-made records, ASCII files, scanning,
// and files that are cut short or corrupted.
#include <cmath>
#include <cstdio>

#include "CliTestSupport.h"

using namespace clitest;

namespace {

const Points kOuter = {{0, 0}, {0, 10000}, {10000, 10000}, {10000, 0}};
const Points kHole = {{2000, 2000}, {8000, 2000}, {8000, 8000}, {2000, 8000}};
const Points kLine = {{1000, 1000}, {3000, 1000}, {3000, 4000}};
const std::vector<M2DSliceVector> kHatches = {{1000, 2000, 9000, 2000}, {1000, 3000, 9000, 3000}, {0, 0, 5000, 7000}};

// Three layers of one part (outer square, hole, open line, hatches) and a second part with
// a small square, written with inverse resolution 10.
std::string WriteParts(M2DSliceIO_cli::CoordinatesType type, const std::string& name)
{
    M2DSliceStack part, other;
    for (int z : {1000, 2000, 4000})
    {
        M2DSlice slice;
        slice.SetZ(z);
        AddContour(slice, kOuter, true, true);
        AddContour(slice, kHole, true, false);
        AddContour(slice, kLine, false, false);
        AddHatches(slice, kHatches);
        part.AddSlice(slice, false);
        M2DSlice small;
        small.SetZ(z);
        AddContour(small, {{20000, 0}, {20000, 1000}, {21000, 1000}, {21000, 0}}, true, true);
        other.AddSlice(small, false);
    }
    M2DSliceIO_cli io;
    io.SetCoordinatesType(type);
    const std::string path = TempPath(name);
    EXPECT_TRUE(WriteCli(io, {&part, &other}, path, 10000, 10));
    return path;
}

std::string Header(const std::string& units) { return "$$HEADERSTART\n$$BINARY\n$$UNITS/" + units + "\n$$VERSION/200\n$$HEADEREND"; }

int PartId(const M2DSliceVectorTypeInfoHolder& holder) { return holder.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part); }

// Drawn length and signed area of a contour as stored, the closing segment included when closed.
std::pair<double, double> Measure(const M2DSliceContour& contour)
{
    Points p = PointsOf(contour);
    if (contour.GetIsClosed() && !p.empty())
        p.push_back(p.front());
    double length = 0.0, area = 0.0;
    for (std::size_t i = 1; i < p.size(); ++i)
    {
        const double dx = p[i].first - p[i - 1].first, dy = p[i].second - p[i - 1].second;
        length += std::sqrt(dx * dx + dy * dy);
        area += (double(p[i].second) + p[i - 1].second) * dx * 0.5;
    }
    return {length, contour.GetIsClosed() ? area : 0.0};
}

// Scanning a file must measure what reading it builds.
void ExpectScanMatchesRead(const std::string& path)
{
    M2DSliceIO_cli reader, scanner;
    reader.GetReadOptions().VectorBlocks.MergeBlocks = false;
    const std::vector<M2DSlice> layers = ReadCli(reader, path);
    ASSERT_TRUE(scanner.OpenFile(Wide(path), I2DSliceIO::Read) && scanner.ReadHeader(nullptr));
    for (const M2DSlice& slice : layers)
    {
        M2DSliceContainerScanInfo info;
        ASSERT_TRUE(scanner.ScanLayer(info, nullptr, true));
        EXPECT_EQ(info.Z, slice.GetZ());
        EXPECT_EQ(info.Area, slice.GetXYArea(false));
        EXPECT_EQ(info.NumContours, slice.GetSliceBorder()->GetNumContours());
        EXPECT_EQ(info.NumVectorBlocks, slice.GetVectors()->GetNumVectorBlocks());
        std::pair<double, double> sum;
        for (const M2DSliceContour& c : *slice.GetSliceBorder())
            sum = {sum.first + Measure(c).first, sum.second + Measure(c).second};
        EXPECT_NEAR(info.ContourLength, sum.first, 1e-6);
        EXPECT_NEAR(info.SurfaceArea, sum.second, 1e-6);
    }
    M2DSliceContainerScanInfo info;
    EXPECT_FALSE(scanner.ScanLayer(info, nullptr, true));
}

} // namespace

TEST(M2DSliceIO_cliReader, RoundTripLongAndShort)
{
    for (auto type : {M2DSliceIO_cli::Long, M2DSliceIO_cli::Short})
    {
        SCOPED_TRACE(type);
        const std::string path = WriteParts(type, "roundtrip.cli");
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
            const M2DSlice& s = layers[i];
            EXPECT_EQ(s.GetZ(), heights[i]);
            const M2DSliceContourLayer& border = *s.GetSliceBorder();
            ASSERT_EQ(border.GetNumContours(), 4u);
            // Inverted back, the closing repeat kept, outer by area.
            EXPECT_EQ(PointsOf(*border.GetContour(0)), (Points{kOuter[3], kOuter[0], kOuter[1], kOuter[2], kOuter[3]}));
            EXPECT_TRUE(border.GetContour(0)->GetIsOuterContour());
            EXPECT_EQ(PointsOf(*border.GetContour(1)), (Points{kHole[3], kHole[0], kHole[1], kHole[2], kHole[3]}));
            EXPECT_FALSE(border.GetContour(1)->GetIsOuterContour());
            // The open line is ended by the next closed polyline, which inverts it back.
            EXPECT_EQ(PointsOf(*border.GetContour(2)), kLine);
            EXPECT_FALSE(border.GetContour(2)->GetIsClosed());
            EXPECT_EQ(PointsOf(*border.GetContour(3)).size(), 5u);
            EXPECT_EQ(PartId(*border.GetContour(0)), 0);
            EXPECT_EQ(PartId(*border.GetContour(3)), 1);
            ASSERT_EQ(s.GetVectors()->GetNumVectorBlocks(), 1u);
            const M2DSliceVectorBlock& block = *s.GetVectors()->GetFirstVectorBlock();
            EXPECT_EQ(block.Vectors, kHatches);
            EXPECT_EQ(block.GetTypeInfo().GetType(), e2DSliceVectorType_Hatch);
            EXPECT_EQ(PartId(block), 0);
            EXPECT_EQ(s.GetXYArea(false), (M2DSliceXYArea{0, 21000, 0, 10000}));
        }
        ExpectScanMatchesRead(path);

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
    M2DSliceStack stack;
    M2DSlice slice;
    slice.SetZ(254000);
    AddContour(slice, {{254000, 508000}, {0, 0}}, false, false);
    stack.AddSlice(slice, false);
    M2DSliceIO_cli io;
    const std::string path = TempPath("inch.cli");
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
    EXPECT_EQ(properties.UnitConversionFactor, 10000);
    EXPECT_EQ(properties.InverseResolution, 1000);
    ASSERT_EQ(layers.size(), 1u);
    EXPECT_EQ(layers[0].GetZ(), 10000);
    EXPECT_EQ(PointsOf(*layers[0].GetSliceBorder()->GetFirstContour()), (Points{{0, 0}, {10000, 20000}}));
}

TEST(M2DSliceIO_cliReader, HandMadeRecordsChainRoundAndEnd)
{
    // Units 0.00005: inverse resolution 20000, one step is half an internal unit.
    const std::string file = Bytes()
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
        .s;
    const std::string path = TempPath("handmade.cli");
    WriteFile(path, file);
    M2DSliceIO_cli io;
    const std::vector<M2DSlice> layers = ReadCli(io, path);
    ASSERT_EQ(layers.size(), 2u);

    const M2DSliceContourLayer& border = *layers[0].GetSliceBorder();
    EXPECT_EQ(layers[0].GetZ(), 2);
    ASSERT_EQ(border.GetNumContours(), 2u);
    // The closed chain, inverted when the next chain began, has no repeated point.
    EXPECT_EQ(PointsOf(*border.GetContour(0)), (Points{{0, 5}, {5, 5}, {5, 0}, {0, 0}}));
    EXPECT_TRUE(border.GetContour(0)->GetIsClosed());
    EXPECT_TRUE(border.GetContour(0)->GetIsOuterContour());
    EXPECT_EQ(PartId(*border.GetContour(0)), 7);
    // Halves round away from zero: 1.5 -> 2, -1.5 -> -2, 3.5 -> 4, 0.5 -> 1.
    EXPECT_EQ(PointsOf(*border.GetContour(1)), (Points{{2, -2}, {4, 1}}));
    EXPECT_FALSE(border.GetContour(1)->GetIsClosed());
    EXPECT_EQ(PartId(*border.GetContour(1)), 8);
    ASSERT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(layers[0].GetVectors()->GetFirstVectorBlock()->Vectors, (std::vector<M2DSliceVector>{{1, 1, 2, 2}}));
    EXPECT_EQ(PartId(*layers[0].GetVectors()->GetFirstVectorBlock()), 5);

    EXPECT_EQ(layers[1].GetZ(), 3);
    EXPECT_TRUE(layers[1].IsEmpty());
    ExpectScanMatchesRead(path);
}

TEST(M2DSliceIO_cliReader, RefusesFilesWithoutCompleteHeader)
{
    const std::string path = TempPath("refused.cli");
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
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/0.1\n$$VERSION/200\n$$LABEL/1,part1\n$$HEADEREND\n"
                             "$$GEOMETRYSTART\n";
    const std::string path = TempPath("ascii.cli");
    WriteFile(path, head + "$$LAYER/0.5\n$$POLYLINE/1,1,5,0,0,10,0,10,10,0,10,0,0\n$$HATCHES/2,1,1,2,3,4.5\n\n"
                           "$$LAYER/1.0\n$$POLYLINE/3,2,2,0,0,5,5\n$$GEOMETRYEND\n");
    M2DSliceIO_cli io;
    const std::vector<M2DSlice> layers = ReadCli(io, path, false); // vectors are read all the same
    EXPECT_TRUE(io.IsAscii());
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[0].GetZ(), 500);
    const M2DSliceContour& square = *layers[0].GetSliceBorder()->GetFirstContour();
    EXPECT_EQ(PointsOf(square), (Points{{0, 0}, {0, 10000}, {10000, 10000}, {10000, 0}, {0, 0}}));
    EXPECT_TRUE(square.GetIsOuterContour());
    EXPECT_EQ(PartId(square), 1);
    const M2DSliceVectorBlock& block = *layers[0].GetVectors()->GetFirstVectorBlock();
    EXPECT_EQ(block.Vectors, (std::vector<M2DSliceVector>{{1000, 2000, 3000, 4500}}));
    EXPECT_EQ(PartId(block), 2);
    EXPECT_EQ(layers[1].GetZ(), 1000);
    EXPECT_FALSE(layers[1].GetSliceBorder()->GetFirstContour()->GetIsClosed());
    EXPECT_EQ(PartId(*layers[1].GetSliceBorder()->GetFirstContour()), 3);
    ExpectScanMatchesRead(path);

    // Bad numbers and short lines throw from the parsers.
    auto read = [&](const std::string& layer) {
        WriteFile(path, head + "$$LAYER/" + layer);
        M2DSliceIO_cli reader;
        M2DSlice slice;
        EXPECT_TRUE(reader.OpenFile(Wide(path), I2DSliceIO::Read) && reader.ReadHeader(nullptr));
        reader.ReadLayer(slice, nullptr, true);
    };
    EXPECT_THROW(read("abc\n"), std::invalid_argument);
    EXPECT_THROW(read("1\n$$POLYLINE/1,1,3,0,0,1,1\n"), std::out_of_range);
    EXPECT_THROW(read("1\n$$HATCHES/x,1,0,0,1,1\n"), std::invalid_argument);
    EXPECT_THROW(read("1\n$$HATCHES/1,1,0,0,1e999,1\n"), std::out_of_range);
}

TEST(M2DSliceIO_cliReader, TruncatedOrCorruptedFilesEndCleanly)
{
    for (auto type : {M2DSliceIO_cli::Long, M2DSliceIO_cli::Short})
    {
        const std::string full = ReadFile(WriteParts(type, "whole.cli"));
        for (std::size_t at = 0; at < full.size(); ++at)
        {
            // Fresh files each time: emptying a file with content is slow on some file systems.
            M2DSliceIO_cli io;
            std::string changed = full;
            changed[at] = '\xff';
            for (const std::string& damaged : {full.substr(0, at), changed})
            {
                const std::string path = TempPath("damaged" + std::to_string(at) + ".cli");
                WriteFile(path, damaged);
                EXPECT_LE(ReadCli(io, path).size(), 3u);
                std::remove(path.c_str());
            }
        }
    }
    // Counts far beyond the file are refused before anything is allocated for them.
    for (std::uint32_t n : {0xffffffffu, 0x7fffffffu, 0x40000000u})
    {
        const std::string path = TempPath("counts.cli");
        WriteFile(path, Bytes().text(Header("1")).u16(127).f32(0).u16(132).u32(0).u32(n).f32(0).s);
        M2DSliceIO_cli io;
        EXPECT_TRUE(ReadCli(io, path).empty());
        WriteFile(path, Bytes().text(Header("1")).u16(127).f32(0).u16(130).u32(0).u32(1).u32(n).f32(0).s);
        EXPECT_TRUE(ReadCli(io, path).empty());
        EXPECT_TRUE(ReadCli(io, path, false).empty());
    }
}
