// What `sliceio convert` and `sliceio check` keep and report: parts with their ids and
// labels, idempotent conversions, empty layers, damage, misread units and the settings file.
#include <cstring>

#include <nlohmann/json.hpp>

#include "contracts/ByteOrder.h"
#include "framework/M2DSliceContainerIO.h"
#include "tests/kit/FormatTestKit.h"
#include "tests/tools/ToolRunner.h"

namespace fs = std::filesystem;

namespace {

// A binary CLI file (long form) built by hand: two parts with ids 1 and 2 and labels
// "housing" and "lid", three layers of 0.1 mm of which the second is empty. Part 1 has a
// closed square of 10 mm (stored, as CLI does, from the last point back with the closing
// repeat) and a hatch block, part 2 a closed triangle in the first layer and a hatch block
// in the third. Coordinates are steps of units mm.
std::string TwoPartCli(const std::string& unitsText = "0.001", double steps = 1000.0,
                       const std::string& layersText = "000003")
{
    kit::Bytes b;
    b.text("$$HEADERSTART\n$$BINARY\n$$UNITS/" + unitsText + "\n$$VERSION/200\n$$LABEL/1,housing\n$$LABEL/2,lid\n"
           "$$DATE/010126\n$$DIMENSION/0,0,0.1,20,20,0.3\n$$LAYERS/" + layersText + "\n$$HEADEREND");
    const auto layer = [&](double zmm) { b.u16(127).f32(static_cast<float>(zmm * steps)); };
    const auto polyline = [&](int id, int dir, std::vector<std::pair<double, double>> mm) {
        b.u16(130).i32(id).i32(dir).i32(static_cast<std::int32_t>(mm.size()));
        for (const auto& [x, y] : mm)
            b.f32(static_cast<float>(x * steps)).f32(static_cast<float>(y * steps));
    };
    const auto hatches = [&](int id, std::vector<std::array<double, 4>> mm) {
        b.u16(132).i32(id).i32(static_cast<std::int32_t>(mm.size()));
        for (const auto& v : mm)
            for (double c : v)
                b.f32(static_cast<float>(c * steps));
    };
    layer(0.1);
    polyline(1, 1, {{0, 10}, {10, 10}, {10, 0}, {0, 0}, {0, 10}});
    hatches(1, {{{1, 1, 9, 1}}, {{9, 2, 1, 2}}});
    polyline(2, 1, {{20, 20}, {15, 20}, {20, 15}, {20, 20}});
    layer(0.2);
    layer(0.3);
    hatches(2, {{{15, 15, 19, 15}}});
    return b;
}

// The records of a binary long-form CLI file after its header: per layer its height and
// per polyline / hatch record its command, id and count.
struct Record
{
    std::uint16_t Command;
    std::int32_t Id, Count;
    bool operator==(const Record& o) const { return Command == o.Command && Id == o.Id && Count == o.Count; }
};
std::vector<Record> Records(const std::string& file)
{
    std::vector<Record> records;
    std::size_t at = file.find("$$HEADEREND");
    if (at == std::string::npos)
        return records;
    at += 11;
    const auto u16 = [&](std::size_t p) { return ByteOrder::LoadLE<std::uint16_t>(file.data() + p); };
    const auto i32 = [&](std::size_t p) { return ByteOrder::LoadLE<std::int32_t>(file.data() + p); };
    while (at + 2 <= file.size())
    {
        const std::uint16_t command = u16(at);
        if (command == 127)
        {
            records.push_back({command, 0, 0});
            at += 6;
        }
        else if (command == 130)
        {
            records.push_back({command, i32(at + 2), i32(at + 10)});
            at += 14 + 8 * static_cast<std::size_t>(i32(at + 10));
        }
        else if (command == 132)
        {
            records.push_back({command, i32(at + 2), i32(at + 6)});
            at += 10 + 16 * static_cast<std::size_t>(i32(at + 6));
        }
        else
            break;
    }
    return records;
}

std::string HeaderOf(const std::string& file) { return file.substr(0, file.find("$$HEADEREND")); }

class ConvertTest : public ToolTest
{
};

} // namespace

TEST_F(ConvertTest, TwoPartCliKeepsPartsLabelsEmptyLayersAndIsIdempotent)
{
    const std::string in = Path("two.cli"), once = Path("once.cli"), twice = Path("twice.cli"),
                      thrice = Path("thrice.cli");
    ts::WriteFile(in, TwoPartCli());
    const std::string said = Ok({"convert", in, once});
    EXPECT_NE(said.find("3 layers"), std::string::npos) << said;
    EXPECT_NE(said.find("2 parts"), std::string::npos) << said;
    Ok({"convert", once, twice});
    Ok({"convert", twice, thrice});

    // One id and one label per part, numbered from 0 by the writer; the square and the
    // triangle keep their 4 and 3 corners plus the one closing repeat; the empty layer stays.
    const std::string out = ts::ReadFile(once);
    const std::string header = HeaderOf(out);
    EXPECT_NE(header.find("$$LABEL/0,part1\n$$LABEL/1,part2\n"), std::string::npos) << header;
    EXPECT_NE(header.find("$$LAYERS/000003\n"), std::string::npos) << header;
    const std::vector<Record> expected = {{127, 0, 0}, {130, 0, 5}, {132, 0, 2}, {130, 1, 4},
                                          {127, 0, 0}, {127, 0, 0}, {132, 1, 1}};
    EXPECT_EQ(Records(out), expected);
    // The geometry is the input's, point for point: only the ids and the header differ.
    const std::string original = ts::ReadFile(in);
    EXPECT_EQ(out.substr(out.find("$$HEADEREND") + 31, 40), original.substr(original.find("$$HEADEREND") + 31, 40));
    EXPECT_EQ(out.substr(out.size() - 16), original.substr(original.size() - 16));

    // Converting the output again changes nothing (the date is the same within a test).
    EXPECT_TRUE(kit::SameBytes(ts::ReadFile(once), ts::ReadFile(twice)));
    EXPECT_TRUE(kit::SameBytes(ts::ReadFile(twice), ts::ReadFile(thrice)));

    // info and check agree with the header.
    const nlohmann::json info = nlohmann::json::parse(Ok({"info", once, "--json", "--declared"}));
    EXPECT_EQ(info.at("layers"), 3);
    EXPECT_EQ(info.at("declared").at("layers"), 3);
    EXPECT_EQ(info.at("declared").at("parts").at("1").at("PartName"), "part2");
    EXPECT_EQ(info.at("declared").at("extents_mm"), (std::vector<double>{0, 0, 0.1, 20, 20, 0.3}));
    EXPECT_FALSE(info.contains("warnings")) << info.dump();
    EXPECT_EQ(Tool({"check", once}).Code, 0);
    EXPECT_EQ(Tool({"check", in}).Code, 0) << Tool({"check", in}).Out;

    // --drop-empty-layers drops the empty layer on purpose, and the header follows.
    const std::string dropped = Path("dropped.cli");
    EXPECT_NE(Ok({"convert", in, dropped, "--drop-empty-layers"}).find("1 empty layers dropped"), std::string::npos);
    EXPECT_NE(HeaderOf(ts::ReadFile(dropped)).find("$$LAYERS/000002\n"), std::string::npos);
    EXPECT_EQ(Records(ts::ReadFile(dropped)).size(), expected.size() - 1);
}

TEST_F(ConvertTest, OptionsPickLayersAndTurnOrDropContours)
{
    const std::string in = Path("two.cli");
    ts::WriteFile(in, TwoPartCli());

    const std::string first = Path("first.cli");
    Ok({"convert", in, first, "--layers", "0:0"});
    EXPECT_EQ(Records(ts::ReadFile(first)), (std::vector<Record>{{127, 0, 0}, {130, 0, 5}, {132, 0, 2}, {130, 1, 4}}));
    const std::string tail = Path("tail.cli");
    Ok({"convert", in, tail, "--layers", "1:"});
    EXPECT_EQ(Records(ts::ReadFile(tail)), (std::vector<Record>{{127, 0, 0}, {127, 0, 0}, {132, 0, 1}}));

    // The square's 4 sides and the triangle's 3 become hatch records of their part.
    const std::string vectors = Path("vectors.cli");
    EXPECT_NE(Ok({"convert", in, vectors, "--contours-as-vectors"}).find("2 contours written as vectors"),
              std::string::npos);
    EXPECT_EQ(Records(ts::ReadFile(vectors)), (std::vector<Record>{{127, 0, 0}, {132, 0, 4}, {132, 0, 2}, {132, 1, 3},
                                                                  {127, 0, 0}, {127, 0, 0}, {132, 1, 1}}));
    const std::string bare = Path("bare.cli");
    EXPECT_NE(Ok({"convert", in, bare, "--no-contours"}).find("2 contours dropped"), std::string::npos);
    EXPECT_EQ(Records(ts::ReadFile(bare)),
              (std::vector<Record>{{127, 0, 0}, {132, 0, 2}, {127, 0, 0}, {127, 0, 0}, {132, 1, 1}}));

    for (const char* range : {"2:1", "a:b", ":"})
        ExpectFailure(Tool({"convert", in, Path("x.cli"), "--layers", range}), 2, {"--layers"});
    ExpectFailure(Tool({"convert", in, Path("x.cli"), "--layers", "7:"}), 1, {"no layer is left"});
    ExpectFailure(Tool({"convert", in, Path("x.cli"), "--no-contours", "--contours-as-vectors"}), 2, {"exclude"});
    EXPECT_FALSE(fs::exists(Path("x.cli")));
}

TEST_F(ConvertTest, TruncatedAndMiscountedFilesAreReported)
{
    const std::string in = Path("two.cli");
    const std::string bytes = TwoPartCli();
    ts::WriteFile(in, bytes);

    // Cut after the second layer's height: the header declares 3 layers, 2 are there.
    const std::string cut = Path("cut.cli");
    ts::WriteFile(cut, bytes.substr(0, bytes.size() - 2 - 4 - 2 - 8 - 16));
    const ToolRun check = Tool({"check", cut});
    EXPECT_EQ(check.Code, 1) << check.Out << check.Err;
    EXPECT_NE(check.Out.find("problem: "), std::string::npos) << check.Out;
    EXPECT_NE(check.Out.find("layer 2"), std::string::npos) << check.Out;
    const ToolRun info = Tool({"info", cut});
    EXPECT_EQ(info.Code, 0);
    EXPECT_NE(info.Out.find("warning: the file declares 3 layers but 2 were read"), std::string::npos) << info.Out;
    ExpectFailure(Tool({"convert", cut, Path("o.cli")}), 1, {"cut.cli", "declares 3 layers", "nothing was written"});
    EXPECT_FALSE(fs::exists(Path("o.cli")));

    // A header whose extents do not match the layers.
    std::string wrong = bytes;
    wrong.replace(wrong.find("20,20,0.3"), 9, "30,20,0.3");
    ts::WriteFile(Path("wrong.cli"), wrong);
    const ToolRun extents = Tool({"check", Path("wrong.cli")});
    EXPECT_EQ(extents.Code, 1);
    EXPECT_NE(extents.Out.find("x maximum of 30.0000 mm"), std::string::npos) << extents.Out;
}

TEST_F(ConvertTest, MisreadUnitsArePointedOutAndInputUnitsReadsThemRight)
{
    // ".001" is read as 1 step per mm: a 20 mm build would read as 20 m.
    const std::string in = Path("field.cli");
    ts::WriteFile(in, TwoPartCli(".001"));
    const nlohmann::json info = nlohmann::json::parse(Ok({"info", in, "--json"}));
    ASSERT_EQ(info.at("warnings").size(), 1u) << info.dump();
    EXPECT_NE(info.at("warnings")[0].get<std::string>().find("--input-units .001"), std::string::npos);
    EXPECT_NEAR(info.at("x_max_mm").get<double>(), 20000.0, 1e-6);
    const ToolRun check = Tool({"check", in});
    EXPECT_NE(check.Out.find("warning: the header's \"$$UNITS/.001\""), std::string::npos) << check.Out;

    const ToolRun plain = Tool({"convert", in, Path("big.cli")});
    EXPECT_EQ(plain.Code, 0);
    EXPECT_NE(plain.Err.find("warning"), std::string::npos);
    EXPECT_NE(plain.Err.find("--input-units"), std::string::npos);

    const std::string fixed = Path("fixed.cli");
    const ToolRun run = Tool({"convert", in, fixed, "--input-units", ".001"});
    EXPECT_EQ(run.Code, 0) << run.Err;
    EXPECT_TRUE(run.Err.empty()) << run.Err;
    const nlohmann::json back = nlohmann::json::parse(Ok({"info", fixed, "--json"}));
    EXPECT_NEAR(back.at("x_max_mm").get<double>(), 20.0, 1e-6);
    EXPECT_NEAR(back.at("z_max_mm").get<double>(), 0.3, 1e-6);
    EXPECT_FALSE(back.contains("warnings"));
    // Written at 1000 steps per mm, it reads the same as a file that said "0.001".
    EXPECT_EQ(Records(ts::ReadFile(fixed)), Records(ts::ReadFile(Path("big.cli"))));

    ExpectFailure(Tool({"convert", in, Path("x.cli"), "--input-units", "0.3"}), 2, {"--input-units", "1/N"});
}

TEST_F(ConvertTest, SettingsFileIsCheckedKeyByKey)
{
    const std::string in = Path("two.cli");
    ts::WriteFile(in, TwoPartCli());
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {R"({"frobnicate": 1})", {"\"frobnicate\"", "general keys"}},
        {R"({"cli": {"Speed": 1}})", {"\"cli\".\"Speed\""}},
        {R"({"parts": {"1": {"IsSupport": [true]}}})", {"\"IsSupport\""}},
        {R"({"parts": {"*": {"M2DSliceBuildParameters": [{"Speed": "fast"}]}}})", {"\"Speed\"", "number"}},
        {R"({"parts": {"*": {"M2DSliceBuildParameters": [{"Sped": 3}]}}})", {"\"Sped\""}},
        {R"({"labels": {"Hatchy": {"Parameter": 2}}})", {"\"Hatchy\""}},
        {R"({"labels": {"Hatch": {"Parameter": 2.5}}})", {"\"Parameter\"", "whole number"}},
        {R"({"parts": [1]})", {"\"parts\""}},
        {R"([1, 2])", {"one JSON object"}},
        {R"({"parts": )", {"not JSON"}},
    };
    for (const auto& [text, words] : cases)
    {
        SCOPED_TRACE(text);
        ts::WriteFile(Path("s.json"), text);
        ExpectFailure(Tool({"convert", in, Path("o.cli"), "--settings", Path("s.json")}), 1, words);
        EXPECT_FALSE(fs::exists(Path("o.cli")));
    }
    ExpectFailure(Tool({"convert", in, Path("o.cli"), "--settings", Path("none.json")}), 1, {"none.json"});

    // A good file: parts by id, by name and for all, labels; --show-settings shows it with
    // every family's section.
    ts::WriteFile(Path("good.json"), R"({"parts": {"*": {"IsSupport": false}, "2": {"IsSupport": true},
        "housing": {"M2DSliceBuildParameters": [{"ID": 1, "Name": "skin", "Speed": 800, "LaserPower": 200}]}},
        "labels": {"Hatch": {"Parameter": 1, "LaserSpeed": 900}}, "cli": {}})");
    Ok({"convert", in, Path("o.cli"), "--settings", Path("good.json")});
    const nlohmann::json shown = nlohmann::json::parse(Ok({"convert", "--show-settings", "--settings", Path("good.json")}));
    EXPECT_EQ(shown.at("parts").at("2").at("IsSupport"), true);
    EXPECT_EQ(shown.at("labels").at("Hatch").at("Parameter"), 1);
    for (const FormatDescriptor* family : FormatRegistry::Families())
        EXPECT_TRUE(shown.contains(family->Family)) << family->Family;
}
