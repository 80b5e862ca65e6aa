// CLI files written by other software, read from the shared samples folder beside the checkout.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "tests/TestSupport.h"

using namespace ts;

namespace {

const std::string kDir = std::string(SLICEIO_SAMPLES_DIR) + "/cli/";
const char* const kFiles[] = {"simple.cli", "gyroplane.cli", "gyroplane_hatches.cli", "gyroplane_binary.cli"};

#define SKIP_WITHOUT_SAMPLES()                                                                                         \
    if (ReadFile(kDir + "simple.cli").empty())                                                                         \
    GTEST_SKIP() << "samples folder " << kDir << " is absent"

// Layers, first and last height, contours, points, blocks, vectors, then the x and y extent.
using Summary = std::vector<long long>;

// Counted from the text of an ASCII file with plain parsing.
Summary FromText(const std::string& text)
{
    std::istringstream lines(text);
    std::string line;
    double c = 0.0;
    Summary s(7, 0);
    M2DSliceXYArea area;
    auto scaled = [&](double v) { return static_cast<int>(std::lround(v * c)); };
    while (std::getline(lines, line))
    {
        std::string numbers = line.substr(line.find('/') + 1);
        std::replace(numbers.begin(), numbers.end(), ',', ' ');
        std::istringstream in(numbers);
        double id, dir, n, x, y;
        if (line.rfind("$$UNITS/", 0) == 0)
            c = 10000.0 / std::lround(1.0 / std::stod(numbers));
        else if (line.rfind("$$LAYER/", 0) == 0 && in >> x)
        {
            s[2] = scaled(x);
            s[1] = s[0]++ ? s[1] : s[2];
        }
        else if (line.rfind("$$POLYLINE/", 0) == 0 || line.rfind("$$HATCHES/", 0) == 0)
        {
            const bool polyline = line[2] == 'P';
            in >> id;
            if (polyline)
                in >> dir;
            in >> n;
            s[polyline ? 3 : 5] += 1;
            s[polyline ? 4 : 6] += static_cast<long long>(n);
            while (in >> x >> y)
                area.Extend(scaled(x), scaled(y));
        }
    }
    s.insert(s.end(), {area.XMin, area.XMax, area.YMin, area.YMax});
    return s;
}

Summary FromSlices(const std::vector<M2DSlice>& layers)
{
    Summary s{static_cast<long long>(layers.size()), layers.empty() ? 0 : layers.front().GetZ(),
              layers.empty() ? 0 : layers.back().GetZ(), 0, 0, 0, 0};
    M2DSliceXYArea area;
    for (const M2DSlice& slice : layers)
    {
        s[3] += slice.GetSliceBorder()->GetNumContours();
        s[4] += slice.GetSliceBorder()->GetTotalNumPoints();
        s[5] += slice.GetVectors()->GetNumVectorBlocks();
        s[6] += slice.GetVectors()->GetTotalNumVectors();
        area.Extend(slice.GetXYArea(false));
    }
    s.insert(s.end(), {area.XMin, area.XMax, area.YMin, area.YMax});
    return s;
}

// Reads a copy with "$$VERSION/200" after the units line, which our reader requires.
std::vector<M2DSlice> ReadSample(const ScratchDir& dir, const std::string& name)
{
    std::string text = ReadFile(kDir + name);
    text.insert(text.find('\n', text.find("$$UNITS/")) + 1, "$$VERSION/200\n");
    WriteFile(dir.File(name), text);
    M2DSliceIO_cli io;
    io.GetReadOptions().VectorBlocks.MergeBlocks = false;
    bool headerOk = false;
    std::vector<M2DSlice> layers = ReadCli(io, dir.File(name), true, &headerOk);
    EXPECT_TRUE(headerOk) << name;
    return layers;
}

} // namespace

TEST(M2DSliceIO_cliSamples, RefusedWithoutVersion)
{
    SKIP_WITHOUT_SAMPLES();
    for (const char* name : kFiles)
    {
        M2DSliceIO_cli io;
        bool headerOk = true;
        EXPECT_TRUE(ReadCli(io, kDir + name, true, &headerOk).empty());
        EXPECT_FALSE(headerOk) << name;
        // The reason names what is missing.
        ASSERT_TRUE(io.OpenFile(Wide(kDir + name), I2DSliceIO::Read));
        EXPECT_FALSE(io.ReadHeader(nullptr));
        EXPECT_EQ(io.GetFailureReason(), "header: the header has no \"$$VERSION/\"") << name;
        io.CloseFile();
    }
}

TEST(M2DSliceIO_cliSamples, ACutBinaryFileKeepsItsPartialLastLayer)
{
    SKIP_WITHOUT_SAMPLES();
    ScratchDir dir;
    const std::vector<M2DSlice> whole = ReadSample(dir, "gyroplane_binary.cli");
    const std::string bytes = ReadFile(dir.File("gyroplane_binary.cli"));
    for (std::size_t cut : {std::size_t{10}, std::size_t{3}, std::size_t{1}})
    {
        WriteFile(dir.File("cut.cli"), bytes.substr(0, bytes.size() - cut));
        for (bool readVectors : {true, false})
        {
            M2DSliceIO_cli io;
            io.GetReadOptions().VectorBlocks.MergeBlocks = false;
            const std::vector<M2DSlice> layers = ReadCli(io, dir.File("cut.cli"), readVectors);
            ASSERT_EQ(layers.size(), whole.size()) << cut << " bytes cut";
            const M2DSliceContourLayer& last = *layers.back().GetSliceBorder();
            const M2DSliceContourLayer& full = *whole.back().GetSliceBorder();
            ASSERT_EQ(last.GetNumContours(), full.GetNumContours());
            // The file ends in the last polyline (11 points of 8 bytes): a point it no longer
            // holds at all is gone, and a point whose y is cut keeps the y of the point before.
            const Points got = PointsOf(*last.GetContour(last.GetNumContours() - 1));
            const Points want = PointsOf(*full.GetContour(full.GetNumContours() - 1));
            ASSERT_EQ(got.size(), want.size() - (cut > 8 ? 1 : 0));
            // (The reader turns the contour round, so compare the points, not their places.)
            std::size_t kept = 0;
            for (const auto& p : got)
                kept += std::find(want.begin(), want.end(), p) != want.end();
            EXPECT_GE(kept, got.size() - 1);
            EXPECT_LT(kept, want.size());
        }
    }
}

TEST(M2DSliceIO_cliSamples, AsciiFilesMatchTheirText)
{
    SKIP_WITHOUT_SAMPLES();
    ScratchDir dir;
    for (const char* name : {"simple.cli", "gyroplane.cli", "gyroplane_hatches.cli"})
    {
        const Summary expected = FromText(ReadFile(kDir + name));
        EXPECT_GT(expected[0], 1) << name;
        EXPECT_EQ(FromSlices(ReadSample(dir, name)), expected)
            << name << ": layers, first z, last z, contours, points, blocks, vectors, x min, x max, y min, y max";
    }
}

TEST(M2DSliceIO_cliSamples, BinaryMatchesAsciiUpToFloatRounding)
{
    SKIP_WITHOUT_SAMPLES();
    ScratchDir dir;
    const std::vector<M2DSlice> text = ReadSample(dir, "gyroplane.cli");
    const std::vector<M2DSlice> binary = ReadSample(dir, "gyroplane_binary.cli");
    ASSERT_EQ(binary.size(), text.size());
    EXPECT_EQ(binary.back().GetZ(), 94000);
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        EXPECT_NEAR(binary[i].GetZ(), text[i].GetZ(), 1) << "layer " << i;
        const M2DSliceContourLayer& a = *text[i].GetSliceBorder();
        const M2DSliceContourLayer& b = *binary[i].GetSliceBorder();
        ASSERT_EQ(b.GetNumContours(), a.GetNumContours()) << "layer " << i;
        for (std::size_t k = 0; k < a.GetNumContours(); ++k)
        {
            const Points pa = PointsOf(*a.GetContour(k)), pb = PointsOf(*b.GetContour(k));
            ASSERT_EQ(pb.size(), pa.size());
            for (std::size_t j = 0; j < pa.size(); ++j)
            {
                EXPECT_NEAR(pb[j].first, pa[j].first, 1);
                EXPECT_NEAR(pb[j].second, pa[j].second, 1);
            }
            EXPECT_EQ(b.GetContour(k)->GetIsOuterContour(), a.GetContour(k)->GetIsOuterContour());
        }
    }
}
