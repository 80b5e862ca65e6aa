// Runs the sliceio executable as a user would and checks what it prints against what the
// library itself reports for the same files.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "framework/M2DSliceContainerIterator.h"
#include "framework/FormatDescriptor.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/tools/ToolRunner.h"

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

namespace {

// The value of "key" in the JSON report, searched from `from` on (a row of the layer table).
std::string Field(const std::string& json, const std::string& key, std::size_t from = 0)
{
    const std::size_t at = json.find("\"" + key + "\": ", from);
    if (at == std::string::npos)
        return "<absent>";
    const std::size_t start = at + key.size() + 4;
    if (json[start] == '"') // the tool's texts hold no quotes
        return json.substr(start, json.find('"', start + 1) + 1 - start);
    return json.substr(start, json.find_first_of(",}\n", start) - start);
}
double Number(const std::string& json, const std::string& key, std::size_t from = 0) { return std::stod(Field(json, key, from)); }

// The value of a "key:   value" line of the text report.
std::string TextValue(const std::string& text, const std::string& key)
{
    const std::size_t at = text.find("\n" + key + ":");
    if (at == std::string::npos)
        return "<absent>";
    const std::size_t start = text.find_first_not_of(' ', at + key.size() + 2);
    return text.substr(start, text.find('\n', start) - start);
}

constexpr double kMm = 10000.0;

class SliceioToolTest : public ToolTest
{
};

} // namespace

TEST_F(SliceioToolTest, HelpAndUsageErrors)
{
    for (const char* help : {"--help", "help"})
    {
        const std::string out = Ok({help});
        EXPECT_NE(out.find("usage: sliceio"), std::string::npos);
        EXPECT_NE(out.find("convert IN OUT"), std::string::npos);
    }
    Ok({"info", "--help"});

    const std::string file = MakeSample("s.cli", 2), out = Path("o.cli"), svg = Path("o.svg");
    const std::pair<std::vector<std::string>, std::vector<std::string>> cases[] = {
        {{}, {"missing command"}},
        {{"frobnicate"}, {"unknown command 'frobnicate'"}},
        {{"info"}, {"FILE"}},
        {{"info", file, "extra"}, {"extra"}},
        {{"info", file, "--bogus"}, {"--bogus"}},
        {{"info", file, "--type"}, {"--type"}},
        {{"info", file, "--type", "7"}, {"'7'", "sliceio formats"}},
        {{"info", file, "--type=abc"}, {"'abc'"}},
        {{"convert", file}, {"IN and OUT"}},
        {{"convert", file, out, "--units", "furlong"}, {"furlong"}},
        {{"convert", file, out, "--resolution", "0"}, {"--resolution"}},
        {{"svg", file, svg}, {"--layer"}},
        {{"svg", file, svg, "--layer", "-1"}, {"--layer"}},
        {{"sample", out, "--layers", "0"}, {"--layers"}}};
    for (const auto& c : cases)
        ExpectFailure(Tool(c.first), 2, c.second);
    EXPECT_FALSE(fs::exists(out));
}

TEST_F(SliceioToolTest, FormatsAgreeWithTheFactory)
{
    const std::string out = Ok({"formats"});
    std::istringstream lines(out);
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
        const FormatCodeRow* row = FormatRegistry::RowFor(static_cast<short>(code));
        ASSERT_NE(row, nullptr) << line;
        const bool writeOnly = !row->Reads;
        EXPECT_EQ(w[w.size() - 2], available && !writeOnly ? "yes" : "no") << line;
        EXPECT_EQ(w.back(), available ? "yes" : "no") << line;
    }
    // Every registered code and nothing else, and every code the factory makes an object for
    // is registered: the gaps stay gaps.
    std::vector<int> expected;
    for (int code = -1; code <= 300; ++code)
        if (M2DSliceIOFactory::GetSliceIO(static_cast<short>(code)))
            expected.push_back(code);
    EXPECT_EQ(codes, expected);
    for (const FormatCodeRow& row : FormatRegistry::Codes())
        EXPECT_NE(std::find(codes.begin(), codes.end(), row.Code), codes.end()) << row.Code;
    EXPECT_NE(out.find("SVG"), std::string::npos);
}

TEST_F(SliceioToolTest, InfoMatchesTheLibraryScan)
{
    const std::string file = MakeSample("build.cli");
    const std::string json = Ok({"info", file, "--json", "--layers"});

    M2DSliceContainerIterator it(ts::Wide(file), 0, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    const auto& table = it.GetLayerTable();
    const M2DSliceContainerScanInfo& totals = it.GetTotals();
    for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"format", "\"CLI (binary, long)\""}, {"type_code", "0"}, {"layers", std::to_string(table.size())},
             {"contours", std::to_string(totals.NumContours)}})
        EXPECT_EQ(Field(json, key), value) << key;
    const std::pair<const char*, double> expected[] = {
        {"z_min_mm", table.front().Info.Z}, {"z_max_mm", table.back().Info.Z}, {"x_min_mm", totals.Area.XMin},
        {"x_max_mm", totals.Area.XMax},     {"y_min_mm", totals.Area.YMin},    {"y_max_mm", totals.Area.YMax}};
    for (const auto& e : expected)
        EXPECT_NEAR(Number(json, e.first), e.second / kMm, 1e-6) << e.first;
    EXPECT_NEAR(Number(json, "contour_length_mm"), it.GetTotalContourLength() / kMm, 1e-6);
    EXPECT_NEAR(Number(json, "surface_area_mm2"), it.GetTotalSurfaceArea() / (kMm * kMm), 1e-6);

    // The library's scan skips vectors; count the blocks of the slices it reads instead.
    const nlohmann::json parsed = nlohmann::json::parse(json);
    const nlohmann::json& rows = parsed.at("layer_table");
    ASSERT_EQ(rows.size(), table.size());
    std::uint64_t blocks = 0;
    for (std::size_t i = 0; i < table.size(); ++i)
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        blocks += slice.GetVectors()->GetNumVectorBlocks();
        EXPECT_EQ(rows[i].at("index"), i);
        EXPECT_EQ(rows[i].at("vector_blocks"), slice.GetVectors()->GetNumVectorBlocks());
        EXPECT_EQ(rows[i].at("contours"), table[i].Info.NumContours);
        EXPECT_NEAR(rows[i].at("z_mm").get<double>(), table[i].Info.Z / kMm, 1e-6);
        EXPECT_NEAR(rows[i].at("y_max_mm").get<double>(), table[i].Info.Area.YMax / kMm, 1e-6);
    }
    EXPECT_EQ(parsed.at("vector_blocks"), blocks);

    // What the generated build is: 20 layers of 0.05 mm; two squares with a hole and a
    // circle of 72 corners with radius 10 mm at the bottom, each hatched.
    EXPECT_EQ(std::make_tuple(table.size(), totals.NumContours, blocks), std::make_tuple(20u, 100u, 60u));
    EXPECT_NEAR(Number(json, "layer_thickness_mm"), 0.05, 1e-9);
    const double circle = 72 * 2 * 10 * std::sin(M_PI / 72);
    EXPECT_NEAR(rows[0].at("contour_length_mm").get<double>(), 80 + 32 + 80 + 24 + circle, 1e-3);

    // The text report says the same in four decimals.
    const std::string text = Ok({"info", file});
    for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"layers", "20"}, {"format", "CLI (binary, long) (code 0)"}, {"highest height", "1.0000 mm"},
             {"x extent", "5.0000 .. 55.0000 mm"}, {"vector blocks", "60"}})
        EXPECT_EQ(TextValue(text, key), value) << key;
    EXPECT_EQ(text.find("z_mm"), std::string::npos); // no table without --layers
    const std::string withTable = Ok({"info", file, "--layers"});
    EXPECT_EQ(std::count(withTable.begin(), withTable.end(), '\n'),
              std::count(text.begin(), text.end(), '\n') + 2 + 20); // a blank line, a heading, the rows
}

TEST_F(SliceioToolTest, ConvertLongToShortAndBack)
{
    const std::string file = MakeSample("build.cli");
    const std::string shortFile = Path("short.cli"), back = Path("back.dat");
    Ok({"convert", file, shortFile, "--to", "35"});
    Ok({"convert", shortFile, back, "--to", "0"});
    const std::string original = Ok({"info", file, "--json"});
    const std::string viaShort = Ok({"info", shortFile, "--json"});
    const std::string roundTrip = Ok({"info", back, "--json"}); // found by content, not by name
    EXPECT_EQ(Field(viaShort, "type_code"), "35");
    EXPECT_EQ(Field(roundTrip, "type_code"), "0");
    for (const char* key : {"layers", "contours", "vector_blocks", "z_min_mm", "z_max_mm", "x_min_mm", "x_max_mm",
                            "y_min_mm", "y_max_mm"})
    {
        EXPECT_EQ(Field(viaShort, key), Field(original, key)) << key;
        EXPECT_EQ(Field(roundTrip, key), Field(original, key)) << key;
    }
    // The short form holds whole steps of 1/1000 mm, the generated circle finer points.
    EXPECT_NEAR(Number(roundTrip, "contour_length_mm"), Number(original, "contour_length_mm"), 0.01);
    EXPECT_NEAR(Number(roundTrip, "surface_area_mm2"), Number(original, "surface_area_mm2"), 0.01);
    EXPECT_LT(fs::file_size(shortFile), fs::file_size(file));

    // Inches: CLI files carry no unit and read back as millimetres, 25.4 times too small, so
    // the tool refuses them.
    const std::string inch = Path("inch.cli");
    ExpectFailure(Tool({"convert", file, inch, "--units", "inch"}), 1, {"inch.cli", "millimetres", "25.4"});
    EXPECT_FALSE(fs::exists(inch));
}

TEST_F(SliceioToolTest, BadInputsAndFailedWritesNameTheFileAndTheStep)
{
    const std::string file = MakeSample("build.cli", 3);
    ExpectFailure(Tool({"convert", file, file}), 1, {"is the input file"});
    ExpectFailure(Tool({"convert", file, Path("out.xyz")}), 1, {"out.xyz", "--to"});
    ExpectFailure(Tool({"convert", file, Path("out.svg")}), 1, {"sliceio svg"});
    ExpectFailure(Tool({"convert", file, Path("missing/out.cli")}), 1, {"missing/out.cli", "does not exist"});
    ExpectFailure(Tool({"convert", file, _dir.Path().string() + "/"}), 1, {"is a directory"});
    // Coordinates up to 55 mm do not fit 65535 short steps of 1/10000 mm.
    ExpectFailure(Tool({"convert", file, Path("s.cli"), "--to", "35", "--resolution", "10000"}), 1,
                  {"s.cli", "short CLI", "lower the resolution"});
    EXPECT_FALSE(fs::exists(Path("s.cli")));

    // A write that fails half-way (the file size limit is hit) leaves no partial file.
    const std::string big = MakeSample("big.cli", 200), out = Path("partial.cli");
    const ToolRun run = Tool({"convert", big, out}, "trap '' XFSZ; ulimit -f 16; exec ");
    ExpectFailure(run, 1, {"partial.cli", "partial output was removed"});
    EXPECT_FALSE(fs::exists(out));

    ExpectFailure(Tool({"info", Path("nothing.cli")}), 1, {"nothing.cli", "no such file"});
    ExpectFailure(Tool({"info", _dir.Path().string()}), 1, {"is a directory"});
    ts::WriteFile(Path("junk.xyz"), "nothing a slice reader knows\n");
    ExpectFailure(Tool({"info", Path("junk.xyz")}), 1, {"junk.xyz", "unknown format", "--type"});

    // Cut inside the header: the reader refuses it there.
    const std::string cut = Path("cut.cli");
    ts::WriteFile(cut, ts::ReadFile(file).substr(0, 60));
    ExpectFailure(Tool({"info", cut}), 1, {"cut.cli", "header"});
    ExpectFailure(Tool({"convert", cut, Path("o.cli")}), 1, {"cut.cli", "header"});
    ExpectFailure(Tool({"svg", cut, Path("o.svg"), "--layer", "0"}), 1, {"cut.cli", "header"});
    EXPECT_FALSE(fs::exists(Path("o.cli")));

    // An ASCII file whose second layer announces more points than it holds.
    ts::WriteFile(Path("broken.cli"), "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$HEADEREND\n$$GEOMETRYSTART\n"
                                      "$$LAYER/1\n$$POLYLINE/1,1,3,0,0,1,0,0,0\n$$LAYER/2\n$$POLYLINE/1,1,5,0,0,1\n"
                                      "$$GEOMETRYEND\n");
    ExpectFailure(Tool({"info", Path("broken.cli")}), 1, {"broken.cli", "layer 1"});

    // Files of other software lack "$$VERSION" and are refused at the header.
    const fs::path samples = fs::path(SLICEIO_SAMPLES_DIR) / "cli";
    if (fs::is_directory(samples))
        for (const auto& entry : fs::directory_iterator(samples))
            ExpectFailure(Tool({"info", entry.path().string()}), 1, {entry.path().filename().string(), "header"});
}

TEST_F(SliceioToolTest, SvgDrawsOneLayerWithAViewBox)
{
    const std::string file = MakeSample("build.cli", 5), svg = Path("layer.svg");
    Ok({"svg", file, svg, "--layer", "4"});
    const std::string text = ts::ReadFile(svg);
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

TEST_F(SliceioToolTest, ContentNamesTheFormatWhateverTheName)
{
    // A CLI file under a foreign extension is still read as CLI; the short form is told by its
    // first layer command.
    ts::WriteFile(Path("a.bin"), "junk$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$VERSION/200\n$$HEADEREND" +
                                     std::string("\x80\x00\x02\x00", 4));
    const ToolRun run = Tool({"info", Path("a.bin")});
    EXPECT_NE(run.Out.find("CLI (binary, short) (code 35)"), std::string::npos) << run.Out << run.Err;
    ts::WriteFile(Path("b.bin"), std::string(64, '\0'));
    ExpectFailure(Tool({"info", Path("b.bin")}), 1, {"b.bin", "unknown format"});
}
