// Runs the sliceio executable as a user would and checks what it prints against what the
// library itself reports for the same files.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "framework/M2DSliceContainerIterator.h"
#include "framework/M2DSliceIOFactory.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

struct ToolRun
{
    int Code = -1;
    std::string Out;
    std::string Err;
};

std::string ReadFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

// "key": value pairs of the top level, one per line as the tool prints them, and the rows
// of "layer_table" as maps of their own.
struct Json
{
    std::map<std::string, std::string> Top;
    std::vector<std::map<std::string, std::string>> Rows;

    double Number(const std::string& key) const { return std::stod(Top.at(key)); }
};

Json ParseJson(const std::string& text)
{
    Json json;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
    {
        std::map<std::string, std::string> found;
        for (std::size_t at = line.find('"'); at != std::string::npos; at = line.find('"', at))
        {
            const std::size_t keyEnd = line.find('"', at + 1);
            if (line.compare(keyEnd, 3, "\": ") != 0)
                break;
            std::size_t end = keyEnd + 3;
            if (line[end] == '"')
                while (line[++end] != '"')
                    end += line[end] == '\\';
            end = line.find_first_of(",}", end);
            found[line.substr(at + 1, keyEnd - at - 1)] = line.substr(keyEnd + 3, end - keyEnd - 3);
            at = end;
        }
        if (found.count("index"))
            json.Rows.push_back(found);
        else
            json.Top.insert(found.begin(), found.end());
    }
    return json;
}

// The value of a "key:   value" line of the text report.
std::string TextValue(const std::string& text, const std::string& key)
{
    const std::size_t at = text.find("\n" + key + ":");
    if (at == std::string::npos)
        return "<absent>";
    const std::size_t start = text.find_first_not_of(' ', at + key.size() + 2);
    return text.substr(start, text.find('\n', start) - start);
}

class SliceioToolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (std::string(SLICEIO_TOOL_PATH).empty())
            GTEST_SKIP() << "the sliceio tool is not built";
        _dir = fs::temp_directory_path() /
               ("sliceio_tool_" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(_dir);
        fs::create_directories(_dir);
    }
    void TearDown() override
    {
        if (!_dir.empty())
            fs::remove_all(_dir);
    }

    // Runs argv[0] with the rest; output goes to files so that nothing can block.
    ToolRun Spawn(const std::vector<std::string>& argv)
    {
        const std::string out = (_dir / "stdout.txt").string(), err = (_dir / "stderr.txt").string();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        pid_t pid = 0;
        ToolRun run;
        if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0)
        {
            int status = 0;
            waitpid(pid, &status, 0);
            run.Code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        posix_spawn_file_actions_destroy(&actions);
        run.Out = ReadFile(out);
        run.Err = ReadFile(err);
        return run;
    }

    ToolRun Tool(std::vector<std::string> args)
    {
        args.insert(args.begin(), SLICEIO_TOOL_PATH);
        return Spawn(args);
    }

    std::string Path(const std::string& name) const { return (_dir / name).string(); }

    std::string MakeSample(const std::string& name, int layers = 20)
    {
        const std::string path = Path(name);
        const ToolRun run = Tool({"sample", path, "--layers", std::to_string(layers)});
        EXPECT_EQ(run.Code, 0) << run.Err;
        return path;
    }

    // A failure is reported as one line on stderr and nothing on stdout.
    static void ExpectFailure(const ToolRun& run, int code, std::initializer_list<const char*> words)
    {
        EXPECT_EQ(run.Code, code) << run.Out << run.Err;
        EXPECT_TRUE(run.Out.empty()) << run.Out;
        EXPECT_EQ(std::count(run.Err.begin(), run.Err.end(), '\n'), 1) << run.Err;
        EXPECT_EQ(run.Err.rfind("sliceio: ", 0), 0u) << run.Err;
        for (const char* word : words)
            EXPECT_NE(run.Err.find(word), std::string::npos) << "'" << word << "' missing in: " << run.Err;
    }

    fs::path _dir;
};

constexpr double kMm = 10000.0;

} // namespace

TEST_F(SliceioToolTest, HelpAndUsageErrors)
{
    for (const char* help : {"--help", "help"})
    {
        const ToolRun run = Tool({help});
        EXPECT_EQ(run.Code, 0);
        EXPECT_NE(run.Out.find("usage: sliceio"), std::string::npos);
        EXPECT_NE(run.Out.find("convert IN OUT"), std::string::npos);
    }
    EXPECT_EQ(Tool({"info", "--help"}).Code, 0);

    const std::string file = MakeSample("s.cli", 2);
    ExpectFailure(Tool({}), 2, {"missing command"});
    ExpectFailure(Tool({"frobnicate"}), 2, {"unknown command 'frobnicate'"});
    ExpectFailure(Tool({"info"}), 2, {"FILE"});
    ExpectFailure(Tool({"info", file, "extra"}), 2, {"'extra'"});
    ExpectFailure(Tool({"info", file, "--bogus"}), 2, {"--bogus"});
    ExpectFailure(Tool({"info", file, "--type"}), 2, {"--type"});
    ExpectFailure(Tool({"info", file, "--type", "7"}), 2, {"'7'", "sliceio formats"});
    ExpectFailure(Tool({"info", file, "--type=abc"}), 2, {"'abc'"});
    ExpectFailure(Tool({"convert", file}), 2, {"IN and OUT"});
    ExpectFailure(Tool({"convert", file, Path("o.cli"), "--units", "furlong"}), 2, {"furlong"});
    ExpectFailure(Tool({"convert", file, Path("o.cli"), "--resolution", "0"}), 2, {"--resolution"});
    ExpectFailure(Tool({"svg", file, Path("o.svg")}), 2, {"--layer"});
    ExpectFailure(Tool({"svg", file, Path("o.svg"), "--layer", "-1"}), 2, {"--layer"});
    ExpectFailure(Tool({"sample", Path("o.cli"), "--layers", "0"}), 2, {"--layers"});
    EXPECT_FALSE(fs::exists(Path("o.cli")));
}

TEST_F(SliceioToolTest, FormatsAgreeWithTheFactory)
{
    const ToolRun run = Tool({"formats"});
    ASSERT_EQ(run.Code, 0) << run.Err;
    std::istringstream lines(run.Out);
    std::string line;
    std::vector<int> codes;
    while (std::getline(lines, line))
    {
        // code, name words, extensions, read, write
        std::istringstream words(line);
        std::vector<std::string> w{std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
        if (w.size() < 4 || w[0].find_first_not_of("0123456789") != std::string::npos)
            continue;
        const int code = std::stoi(w[0]);
        codes.push_back(code);
        const bool available = M2DSliceIOFactory::GetSliceIO(static_cast<short>(code)) != nullptr;
        const bool writeOnly = code == 50 || code == 55;
        EXPECT_EQ(w[w.size() - 2], available && !writeOnly ? "yes" : "no") << line;
        EXPECT_EQ(w.back(), available ? "yes" : "no") << line;
    }
    // Every code of the table and nothing else; the gaps stay gaps.
    EXPECT_EQ(codes, (std::vector<int>{0, 3, 4, 5, 6, 8, 9, 35, 36, 44, 45, 46, 47, 48, 49, 50, 51, 54, 55, 56}));
    EXPECT_NE(run.Out.find("SVG"), std::string::npos);
}

TEST_F(SliceioToolTest, InfoMatchesTheLibraryScan)
{
    const std::string file = MakeSample("build.cli");
    const ToolRun json = Tool({"info", file, "--json", "--layers"});
    ASSERT_EQ(json.Code, 0) << json.Err;
    const Json j = ParseJson(json.Out);

    M2DSliceContainerIterator it(std::wstring(file.begin(), file.end()), 0, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    const auto& table = it.GetLayerTable();
    const M2DSliceContainerScanInfo& totals = it.GetTotals();

    EXPECT_EQ(j.Top.at("format"), "\"CLI (binary, long)\"");
    EXPECT_EQ(j.Top.at("type_code"), "0");
    EXPECT_EQ(j.Top.at("layers"), std::to_string(table.size()));
    EXPECT_EQ(j.Top.at("contours"), std::to_string(totals.NumContours));
    const std::pair<const char*, double> expected[] = {
        {"z_min_mm", table.front().Info.Z}, {"z_max_mm", table.back().Info.Z}, {"x_min_mm", totals.Area.XMin},
        {"x_max_mm", totals.Area.XMax},     {"y_min_mm", totals.Area.YMin},    {"y_max_mm", totals.Area.YMax}};
    for (const auto& e : expected)
        EXPECT_NEAR(j.Number(e.first), e.second / kMm, 1e-6) << e.first;
    EXPECT_NEAR(j.Number("contour_length_mm"), it.GetTotalContourLength() / kMm, 1e-6);
    EXPECT_NEAR(j.Number("surface_area_mm2"), it.GetTotalSurfaceArea() / (kMm * kMm), 1e-6);

    // The library's scan skips vectors; count the blocks of the slices it reads instead.
    std::uint64_t blocks = 0;
    ASSERT_EQ(j.Rows.size(), table.size());
    for (std::size_t i = 0; i < table.size(); ++i)
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        blocks += slice.GetVectors()->GetNumVectorBlocks();
        EXPECT_EQ(j.Rows[i].at("vector_blocks"), std::to_string(slice.GetVectors()->GetNumVectorBlocks()));
        EXPECT_EQ(j.Rows[i].at("contours"), std::to_string(table[i].Info.NumContours));
        EXPECT_NEAR(std::stod(j.Rows[i].at("z_mm")), table[i].Info.Z / kMm, 1e-6);
        EXPECT_NEAR(std::stod(j.Rows[i].at("y_max_mm")), table[i].Info.Area.YMax / kMm, 1e-6);
    }
    EXPECT_EQ(j.Top.at("vector_blocks"), std::to_string(blocks));

    // What the generated build is: 20 layers of 0.05 mm; two squares with a hole and a
    // circle of 72 corners with radius 10 mm at the bottom, each hatched.
    EXPECT_EQ(table.size(), 20u);
    EXPECT_EQ(totals.NumContours, 100u);
    EXPECT_EQ(blocks, 60u);
    EXPECT_NEAR(j.Number("layer_thickness_mm"), 0.05, 1e-9);
    const double circle = 72 * 2 * 10 * std::sin(M_PI / 72);
    EXPECT_NEAR(std::stod(j.Rows[0].at("contour_length_mm")), 80 + 32 + 80 + 24 + circle, 1e-3);

    // The text report says the same in four decimals.
    const ToolRun text = Tool({"info", file});
    ASSERT_EQ(text.Code, 0) << text.Err;
    EXPECT_EQ(TextValue(text.Out, "layers"), "20");
    EXPECT_EQ(TextValue(text.Out, "format"), "CLI (binary, long) (code 0)");
    EXPECT_EQ(TextValue(text.Out, "highest height"), "1.0000 mm");
    EXPECT_EQ(TextValue(text.Out, "x extent"), "5.0000 .. 55.0000 mm");
    EXPECT_EQ(TextValue(text.Out, "vector blocks"), "60");
    EXPECT_EQ(text.Out.find("z_mm"), std::string::npos); // no table without --layers
    const std::string withTable = Tool({"info", file, "--layers"}).Out;
    EXPECT_EQ(std::count(withTable.begin(), withTable.end(), '\n'),
              std::count(text.Out.begin(), text.Out.end(), '\n') + 2 + 20); // a blank line, a heading, the rows
}

TEST_F(SliceioToolTest, ConvertLongToShortAndBack)
{
    const std::string file = MakeSample("build.cli");
    const std::string shortFile = Path("short.cli"), back = Path("back.dat");
    ToolRun run = Tool({"convert", file, shortFile, "--to", "35"});
    ASSERT_EQ(run.Code, 0) << run.Err;
    run = Tool({"convert", shortFile, back, "--to", "0"});
    ASSERT_EQ(run.Code, 0) << run.Err;

    const Json original = ParseJson(Tool({"info", file, "--json"}).Out);
    const Json viaShort = ParseJson(Tool({"info", shortFile, "--json"}).Out);
    const Json roundTrip = ParseJson(Tool({"info", back, "--json"}).Out); // found by content, not by name
    EXPECT_EQ(viaShort.Top.at("type_code"), "35");
    EXPECT_EQ(roundTrip.Top.at("type_code"), "0");
    for (const char* key : {"layers", "contours", "vector_blocks", "z_min_mm", "z_max_mm", "x_min_mm", "x_max_mm",
                            "y_min_mm", "y_max_mm"})
    {
        EXPECT_EQ(viaShort.Top.at(key), original.Top.at(key)) << key;
        EXPECT_EQ(roundTrip.Top.at(key), original.Top.at(key)) << key;
    }
    // The short form holds whole steps of 1/1000 mm, the generated circle finer points.
    EXPECT_NEAR(roundTrip.Number("contour_length_mm"), original.Number("contour_length_mm"), 0.01);
    EXPECT_NEAR(roundTrip.Number("surface_area_mm2"), original.Number("surface_area_mm2"), 0.01);
    EXPECT_LT(fs::file_size(shortFile), fs::file_size(file));

    // Inches: CLI files carry no unit, so read back as millimetres they shrink by 25.4.
    const std::string inch = Path("inch.cli");
    ASSERT_EQ(Tool({"convert", file, inch, "--units", "inch"}).Code, 0);
    EXPECT_NEAR(ParseJson(Tool({"info", inch, "--json"}).Out).Number("x_max_mm"), 55 / 25.4, 1e-4);
}

TEST_F(SliceioToolTest, ConvertFailuresNameTheFile)
{
    const std::string file = MakeSample("build.cli", 3);
    ExpectFailure(Tool({"convert", file, file}), 1, {"is the input file"});
    ExpectFailure(Tool({"convert", file, Path("out.xyz")}), 1, {"out.xyz", "--to"});
    ExpectFailure(Tool({"convert", file, Path("out.svg")}), 1, {"sliceio svg"});
    ExpectFailure(Tool({"convert", file, Path("missing/out.cli")}), 1, {"missing/out.cli", "does not exist"});
    ExpectFailure(Tool({"convert", file, _dir.string() + "/"}), 1, {"is a directory"});
    // Coordinates up to 55 mm do not fit 65535 short steps of 1/10000 mm.
    ExpectFailure(Tool({"convert", file, Path("s.cli"), "--to", "35", "--resolution", "10000"}), 1,
                  {"s.cli", "short CLI", "--resolution"});
    EXPECT_FALSE(fs::exists(Path("s.cli")));

    // A write that fails half-way (the file size limit is hit) leaves no partial file.
    const std::string big = MakeSample("big.cli", 200), out = Path("partial.cli");
    const ToolRun run = Spawn({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 16; exec \"$0\" \"$@\"", SLICEIO_TOOL_PATH,
                           "convert", big, out});
    ExpectFailure(run, 1, {"partial.cli", "partial output was removed"});
    EXPECT_FALSE(fs::exists(out));
}

TEST_F(SliceioToolTest, SvgDrawsOneLayerWithAViewBox)
{
    const std::string file = MakeSample("build.cli", 5);
    const std::string svg = Path("layer.svg");
    const ToolRun run = Tool({"svg", file, svg, "--layer", "4"});
    ASSERT_EQ(run.Code, 0) << run.Err;
    const std::string text = ReadFile(svg);
    const std::size_t at = text.find("viewBox=\"");
    ASSERT_NE(at, std::string::npos) << text;
    double x = 0, y = 0, w = 0, h = 0;
    std::istringstream(text.substr(at + 9)) >> x >> y >> w >> h;
    // The layer spans 5..55 mm both ways; y is mirrored so that it points up.
    EXPECT_LE(x, 5 * kMm);
    EXPECT_GE(x + w, 55 * kMm);
    EXPECT_LE(y, -55 * kMm);
    EXPECT_GE(y + h, -5 * kMm);
    EXPECT_LT(w, 60 * kMm);
    EXPECT_NE(text.find("width=\"800px\""), std::string::npos);
    EXPECT_NE(text.find("stroke-width:"), std::string::npos);

    ExpectFailure(Tool({"svg", file, svg, "--layer", "5"}), 1, {"has 5 layers", "no layer 5"});
}

TEST_F(SliceioToolTest, BadInputsNameTheFileAndTheStep)
{
    ExpectFailure(Tool({"info", Path("nothing.cli")}), 1, {"nothing.cli", "no such file"});
    ExpectFailure(Tool({"info", _dir.string()}), 1, {"is a directory"});
    {
        std::ofstream(Path("junk.xyz")) << "nothing a slice reader knows\n";
    }
    ExpectFailure(Tool({"info", Path("junk.xyz")}), 1, {"junk.xyz", "unknown format", "--type"});

    // Cut inside the header: the reader refuses it there.
    const std::string file = MakeSample("build.cli", 3);
    const std::string cut = Path("cut.cli");
    std::ofstream(cut, std::ios::binary) << ReadFile(file).substr(0, 60);
    ExpectFailure(Tool({"info", cut}), 1, {"cut.cli", "header"});
    ExpectFailure(Tool({"convert", cut, Path("o.cli")}), 1, {"cut.cli", "header"});
    ExpectFailure(Tool({"svg", cut, Path("o.svg"), "--layer", "0"}), 1, {"cut.cli", "header"});
    EXPECT_FALSE(fs::exists(Path("o.cli")));

    // An ASCII file whose second layer announces more points than it holds.
    std::ofstream(Path("broken.cli")) << "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$HEADEREND\n"
                                         "$$GEOMETRYSTART\n$$LAYER/1\n$$POLYLINE/1,1,3,0,0,1,0,0,0\n"
                                         "$$LAYER/2\n$$POLYLINE/1,1,5,0,0,1\n$$GEOMETRYEND\n";
    ExpectFailure(Tool({"info", Path("broken.cli")}), 1, {"broken.cli", "layer 1"});
}

TEST_F(SliceioToolTest, MagicTextsNameTheFormat)
{
    // Each family is recognised from its content whatever the name; a build without its
    // reader says so, one with it refuses this junk at the header.
    const std::vector<std::pair<std::string, std::string>> magics = {
        {"-SLCVER 2.0 -UNIT MM", "SLC"}, {"!SLICE= -VER 3.822 ", "SLI"}, {"Slice V0\n", "SSL"},
        {"\x06" "F&S2.1", "F&S"},         {"SiAMODeL", "WZA"},            {"Arcam Layer File", "CLF"},
        {"<Header type=\"Zanofab Buildfile\" version=\"1.0\">", "ZFF"},
        {std::string(20, '\0') + "SLM-Layerfile", "SLM"}, {std::string(20, '\0') + "MTT-Layerfile", "MTT"},
        {std::string(20, '\0') + "[Compressed SLM Buildfile]", "SLM build file (compressed)"}};
    for (const auto& magic : magics)
    {
        const std::string path = Path("file.bin");
        std::ofstream(path, std::ios::binary) << magic.first << std::string(64, '\0');
        const ToolRun run = Tool({"info", path});
        EXPECT_NE((run.Out + run.Err).find(magic.second), std::string::npos) << magic.second << ": " << run.Err;
    }
}

TEST_F(SliceioToolTest, SamplesFromOtherSoftwareAreRefusedAtTheHeader)
{
    const fs::path samples = fs::path(SLICEIO_SAMPLES_DIR) / "cli";
    if (!fs::is_directory(samples))
        GTEST_SKIP() << "no sample folder at " << samples;
    int seen = 0;
    for (const auto& entry : fs::directory_iterator(samples))
    {
        const std::string name = entry.path().filename().string();
        ExpectFailure(Tool({"info", entry.path().string()}), 1, {name.c_str(), "header"});
        ++seen;
    }
    EXPECT_GT(seen, 0);
}
