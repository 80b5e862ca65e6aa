// CLI files written by other software, read from the shared samples folder beside the checkout.
#include <cmath>
#include <sstream>

#include "CliTestSupport.h"

using namespace clitest;

namespace {

const std::string kDir = std::string(SLICEIO_SAMPLES_DIR) + "/cli/";
const char* const kFiles[] = {"simple.cli", "gyroplane.cli", "gyroplane_hatches.cli", "gyroplane_binary.cli"};

#define SKIP_WITHOUT_SAMPLES()                                                                                         \
    if (ReadFile(kDir + "simple.cli").empty())                                                                          \
    GTEST_SKIP() << "samples folder " << kDir << " is absent"

// A copy with "$$VERSION/200" after the units line, which our reader requires.
std::string WithVersion(const std::string& name)
{
    std::string text = ReadFile(kDir + name);
    text.insert(text.find('\n', text.find("$$UNITS/")) + 1, "$$VERSION/200\n");
    const std::string path = TempPath("v_" + name);
    WriteFile(path, text);
    return path;
}

struct Summary
{
    std::size_t layers = 0;
    int firstZ = 0, lastZ = 0;
    std::uint64_t contours = 0, points = 0, blocks = 0, vectors = 0;
    M2DSliceXYArea area;
};

// Counted from the text of an ASCII file with plain parsing.
Summary FromText(const std::string& text)
{
    std::istringstream lines(text);
    std::string line;
    double c = 0.0;
    Summary s;
    auto scaled = [&](double v) { return static_cast<int>(std::lround(v * c)); };
    while (std::getline(lines, line))
    {
        const std::size_t slash = line.find('/');
        std::string numbers = slash == std::string::npos ? "" : line.substr(slash + 1);
        for (char& ch : numbers)
            if (ch == ',')
                ch = ' ';
        std::istringstream in(numbers);
        double id, dir, n, x, y;
        if (line.rfind("$$UNITS/", 0) == 0)
            c = 10000.0 / std::lround(1.0 / std::stod(numbers));
        else if (line.rfind("$$LAYER/", 0) == 0)
        {
            in >> x;
            s.lastZ = scaled(x);
            s.firstZ = s.layers++ ? s.firstZ : s.lastZ;
        }
        else if (line.rfind("$$POLYLINE/", 0) == 0 || line.rfind("$$HATCHES/", 0) == 0)
        {
            const bool polyline = line[2] == 'P';
            in >> id;
            if (polyline)
                in >> dir;
            in >> n;
            (polyline ? s.contours : s.blocks) += 1;
            (polyline ? s.points : s.vectors) += static_cast<std::uint64_t>(n);
            while (in >> x >> y)
                s.area.Extend(scaled(x), scaled(y));
        }
    }
    return s;
}

Summary FromSlices(const std::vector<M2DSlice>& layers)
{
    Summary s;
    s.layers = layers.size();
    if (!layers.empty())
    {
        s.firstZ = layers.front().GetZ();
        s.lastZ = layers.back().GetZ();
    }
    for (const M2DSlice& slice : layers)
    {
        s.contours += slice.GetSliceBorder()->GetNumContours();
        s.points += slice.GetSliceBorder()->GetTotalNumPoints();
        s.blocks += slice.GetVectors()->GetNumVectorBlocks();
        s.vectors += slice.GetVectors()->GetTotalNumVectors();
        s.area.Extend(slice.GetXYArea(false));
    }
    return s;
}

std::vector<M2DSlice> ReadSample(const std::string& name)
{
    M2DSliceIO_cli io;
    io.GetReadOptions().VectorBlocks.MergeBlocks = false;
    bool headerOk = false;
    std::vector<M2DSlice> layers = ReadCli(io, WithVersion(name), true, &headerOk);
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
    }
}

TEST(M2DSliceIO_cliSamples, AsciiFilesMatchTheirText)
{
    SKIP_WITHOUT_SAMPLES();
    for (const char* name : {"simple.cli", "gyroplane.cli", "gyroplane_hatches.cli"})
    {
        SCOPED_TRACE(name);
        const Summary expected = FromText(ReadFile(kDir + name));
        const Summary read = FromSlices(ReadSample(name));
        EXPECT_GT(expected.layers, 1u);
        EXPECT_EQ(read.layers, expected.layers);
        EXPECT_EQ(read.firstZ, expected.firstZ);
        EXPECT_EQ(read.lastZ, expected.lastZ);
        EXPECT_EQ(read.contours, expected.contours);
        EXPECT_EQ(read.points, expected.points);
        EXPECT_EQ(read.blocks, expected.blocks);
        EXPECT_EQ(read.vectors, expected.vectors);
        EXPECT_EQ(read.area, expected.area);
    }
}

TEST(M2DSliceIO_cliSamples, BinaryMatchesAsciiUpToFloatRounding)
{
    SKIP_WITHOUT_SAMPLES();
    const std::vector<M2DSlice> text = ReadSample("gyroplane.cli");
    const std::vector<M2DSlice> binary = ReadSample("gyroplane_binary.cli");
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
