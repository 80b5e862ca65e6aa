#include <algorithm>
// The sliceio tool on SLM files: a CLI build converted to SLM without a settings file and
// back, the millimetre scale enforced, and what `info` shows of the header.
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "SlmTestSupport.h"
#include "framework/M2DSliceContainerIterator.h"

namespace {

struct ToolResult
{
    int Code = -1;
    std::string Out, Err;
};

class SlmToolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (std::string(SLICEIO_TOOL_PATH).empty())
            GTEST_SKIP() << "the sliceio tool is not built";
    }
    ToolResult Tool(const std::vector<std::string>& args)
    {
        std::string command = "'" SLICEIO_TOOL_PATH "'";
        for (const std::string& a : args)
            command += " '" + a + "'";
        const std::string out = _dir.File("out.txt"), err = _dir.File("err.txt");
        const int status = std::system((command + " </dev/null >" + out + " 2>" + err).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ts::ReadFile(out), ts::ReadFile(err)};
    }
    ts::ScratchDir _dir;
};

// Vectors of every layer, in order, as the library reads them.
std::vector<std::vector<M2DSliceVector>> VectorsOf(const std::string& path, unsigned short code)
{
    M2DSliceContainerIterator it(ts::Wide(path), code, true, 0, true);
    std::vector<std::vector<M2DSliceVector>> layers;
    for (std::uint64_t i = 0; it.IsValid() && i < it.GetNumSlices(); ++i)
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        auto& v = layers.emplace_back();
        for (const M2DSliceVectorBlock* b = slice.GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
            v.insert(v.end(), b->Vectors.begin(), b->Vectors.end());
    }
    return layers;
}

} // namespace

TEST_F(SlmToolTest, CliConvertsToSlmAndBackWithoutSettings)
{
    const std::string cli = _dir.File("in.cli"), slm = _dir.File("out.slm"), back = _dir.File("back.cli");
    ASSERT_EQ(Tool({"sample", cli, "--layers", "6"}).Code, 0);
    const ToolResult to = Tool({"convert", cli, slm});
    ASSERT_EQ(to.Code, 0) << to.Err;
    EXPECT_NE(to.Out.find("SLM (code 47)"), std::string::npos) << to.Out;
    EXPECT_NE(to.Out.find("contours as polygon blocks"), std::string::npos) << to.Out;
    // Written in millimetres at resolution 1, whatever the input's step: it reads back true.
    const std::string file = ts::ReadFile(slm);
    EXPECT_EQ(file.substr(9, 16), std::string("\x02\x0ESLM-Layerfile\0", 16));

    const ToolResult info = Tool({"info", slm});
    ASSERT_EQ(info.Code, 0) << info.Err;
    for (const char* text : {"File ID String:   SLM-Layerfile", "File Version:     1.10", "Layer Z Unit:     10000",
                             "model 1:", "0 Hatch (1000 mm/s, 200 W)"})
        EXPECT_NE(info.Out.find(text), std::string::npos) << text << " missing in:\n" << info.Out;
    EXPECT_EQ(Tool({"check", slm}).Code, 0);

    const ToolResult from = Tool({"convert", slm, back});
    ASSERT_EQ(from.Code, 0) << from.Err;
    // The hatches come back exactly (CLI's 1/1000 mm step holds them), among the contours'
    // segments, which come as polygon blocks of each part ahead of its hatches.
    const auto input = VectorsOf(cli, 0), output = VectorsOf(back, 0);
    ASSERT_EQ(input.size(), 6u);
    ASSERT_EQ(output.size(), 6u);
    for (std::size_t i = 0; i < input.size(); ++i)
    {
        EXPECT_GT(output[i].size(), input[i].size()) << "layer " << i; // contour segments added
        // Every hatch vector comes back (parts may come in another order than the input's).
        std::vector<M2DSliceVector> left = output[i];
        for (const M2DSliceVector& v : input[i])
        {
            const auto found = std::find(left.begin(), left.end(), v);
            ASSERT_NE(found, left.end()) << "layer " << i;
            left.erase(found);
        }
    }

    // Another scale would not read back, so it is refused with the reason.
    const ToolResult scaled = Tool({"convert", cli, _dir.File("scaled.slm"), "--resolution", "1000"});
    EXPECT_EQ(scaled.Code, 1);
    EXPECT_NE(scaled.Err.find("millimetres"), std::string::npos) << scaled.Err;
}

TEST_F(SlmToolTest, CompressedBuildFilesBothWaysAndSideBySide)
{
    const std::string cli = _dir.File("in.cli");
    ASSERT_EQ(Tool({"sample", cli, "--layers", "4"}).Code, 0);
    // Two conversions at once: each writes its plain file in a directory of its own.
    const std::string command = std::string("'") + SLICEIO_TOOL_PATH + "' convert '" + cli + "' '" + _dir.File("a.slm") +
                                "' --to 48 >/dev/null 2>&1 & '" + SLICEIO_TOOL_PATH + "' convert '" + cli + "' '" +
                                _dir.File("b.slm") + "' --to 48 >/dev/null 2>&1; wait";
    ASSERT_EQ(std::system(command.c_str()), 0);
    for (const char* name : {"a.slm", "b.slm"})
    {
        const std::string file = ts::ReadFile(_dir.File(name));
        ASSERT_GT(file.size(), 121u) << name;
        EXPECT_EQ(file.substr(3, 29), std::string("\x02\x1B[Compressed SLM Buildfile]\0", 29));
        const ToolResult info = Tool({"info", _dir.File(name)});
        ASSERT_EQ(info.Code, 0) << info.Err;
        EXPECT_NE(info.Out.find("SLM (compressed build file) (code 48)"), std::string::npos) << info.Out;
        EXPECT_NE(info.Out.find("repair mode"), std::string::npos) << info.Out;
        EXPECT_EQ(Tool({"check", _dir.File(name)}).Code, 0);
    }
    const ToolResult back = Tool({"convert", _dir.File("a.slm"), _dir.File("back.cli")});
    ASSERT_EQ(back.Code, 0) << back.Err;
    // Every vector comes back, each coordinate within half a step of the 0.005 mm grid of the
    // compressed form (50 internal units) of what the plain SLM file gives.
    ASSERT_EQ(Tool({"convert", cli, _dir.File("plain.slm")}).Code, 0);
    const auto plain = VectorsOf(_dir.File("plain.slm"), 47), again = VectorsOf(_dir.File("back.cli"), 0);
    ASSERT_EQ(plain.size(), 4u);
    ASSERT_EQ(again.size(), 4u);
    int worst = 0;
    for (std::size_t i = 0; i < plain.size(); ++i)
    {
        ASSERT_EQ(plain[i].size(), again[i].size()) << "layer " << i;
        for (std::size_t k = 0; k < plain[i].size(); ++k)
            for (int d : {plain[i][k].x1 - again[i][k].x1, plain[i][k].y1 - again[i][k].y1,
                          plain[i][k].x2 - again[i][k].x2, plain[i][k].y2 - again[i][k].y2})
                worst = std::max(worst, std::abs(d));
    }
    EXPECT_LE(worst, 25 + 1); // half a step, and the float's own rounding
}

TEST_F(SlmToolTest, CliConvertsToMttAndBackWithoutSettings)
{
    const std::string cli = _dir.File("in.cli"), mtt = _dir.File("out.mtt"), back = _dir.File("back.cli");
    ASSERT_EQ(Tool({"sample", cli, "--layers", "5"}).Code, 0);
    const ToolResult to = Tool({"convert", cli, mtt});
    ASSERT_EQ(to.Code, 0) << to.Err;
    EXPECT_NE(to.Out.find("MTT (code 51)"), std::string::npos) << to.Out;
    const std::string file = ts::ReadFile(mtt);
    EXPECT_EQ(file.substr(9, 20), std::string("\x02\x0EMTT-Layerfile\0\x03\x02\x01\x00", 20));
    // Asked for by code, with any extension, it is the same file but for nothing.
    const ToolResult byCode = Tool({"convert", cli, _dir.File("coded.bin"), "--to", "51"});
    ASSERT_EQ(byCode.Code, 0) << byCode.Err;
    EXPECT_EQ(ts::ReadFile(_dir.File("coded.bin")), file);

    const ToolResult info = Tool({"info", mtt});
    ASSERT_EQ(info.Code, 0) << info.Err;
    for (const char* text : {"MTT (code 51)", "File ID String:   MTT-Layerfile", "File Version:     1.0",
                             "model 1:", "0 (1000 mm/s, 200 W)"})
        EXPECT_NE(info.Out.find(text), std::string::npos) << text << " missing in:\n" << info.Out;
    EXPECT_EQ(info.Out.find("GUID"), std::string::npos) << info.Out;
    EXPECT_EQ(Tool({"check", mtt}).Code, 0);

    // Back to CLI: every hatch vector returns, each coordinate at most one unit short of it
    // toward zero, since the file's floats are read back truncated.
    const ToolResult from = Tool({"convert", mtt, back});
    ASSERT_EQ(from.Code, 0) << from.Err;
    const auto input = VectorsOf(cli, 0), output = VectorsOf(back, 0);
    ASSERT_EQ(input.size(), 5u);
    ASSERT_EQ(output.size(), 5u);
    auto near = [](const M2DSliceVector& a, const M2DSliceVector& b) {
        // A unit off is what truncation may cost; CLI's step of ten units then keeps it.
        for (int d : {a.x1 - b.x1, a.y1 - b.y1, a.x2 - b.x2, a.y2 - b.y2})
            if (std::abs(d) > 10)
                return false;
        return true;
    };
    for (std::size_t i = 0; i < input.size(); ++i)
    {
        EXPECT_GT(output[i].size(), input[i].size()) << "layer " << i; // contour segments added
        std::vector<M2DSliceVector> left = output[i];
        for (const M2DSliceVector& v : input[i])
        {
            const auto found = std::find_if(left.begin(), left.end(), [&](const M2DSliceVector& w) { return near(v, w); });
            ASSERT_NE(found, left.end()) << "layer " << i;
            left.erase(found);
        }
    }

    // A write order only MTT knows is refused for SLM with the reason.
    ts::WriteFile(_dir.File("settings.json"), R"({"sectioned": {"WriteOrder": "SortedRegions"}})");
    EXPECT_EQ(Tool({"convert", cli, _dir.File("regions.mtt"), "--settings", _dir.File("settings.json")}).Code, 0);
    const ToolResult slm = Tool({"convert", cli, _dir.File("regions.slm"), "--settings", _dir.File("settings.json")});
    EXPECT_EQ(slm.Code, 1);
    EXPECT_NE(slm.Err.find("WriteOrder"), std::string::npos) << slm.Err;
}
