// The first G-code writer: lines worked out by hand from the line rules, the extrusion
// formula, the time estimate, nozzle changes and the machine-only layers.
#include <cmath>
#include <cstdio>
#include <ctime>

#include "GCodeTestSupport.h"
#include "framework/M2DSliceIOFactory.h"

using namespace gcodetest;

namespace {

// 0.4 mm tracks of 0.2 mm layers from 1.75 mm filament: 10 mm of track take 0.332601 mm of
// filament. Retraction 1 mm at 1800 mm/min beyond 2 mm of travel; no hop; no slowing.
GCodeProfile HandProfile()
{
    GCodeProfile p;
    p.StartCode = {GCodeRichLine("G92 E0")};
    p.EndCode = {GCodeRichLine("M84")};
    p.SliceThickness = 0.2;
    p.Nozzles.assign(1, GCodeNozzleParameters());
    GCodeNozzleParameters& n = p.Nozzles[0];
    n.TrackWidth = 0.4;
    n.FilamentWidth = 1.75;
    n.RetractionThreshold = 2;
    n.RetractionLength = 1;
    n.RetractionSpeed = 1800;
    n.RetractionBackLength = 1;
    n.RetractionBackSpeed = 1800;
    n.HopEnabled = false;
    p.MinimumLayerTime = 0;
    return p;
}

std::string WriteV1(const GCodeProfile& profile, const std::vector<std::shared_ptr<M2DSlice>>& slices)
{
    M2DSliceIO_gcode writer;
    writer.SetGCodeProfile(profile);
    return Write(writer, slices);
}

// The nozzle's first selection in a file: T line and priming although nothing was retracted.
const char* const kFirstNozzle0[] = {"G92 E0", "T0", "G92 E0", "G0 X0 Y0 F7200", "G1 E1.000000 F1800.000000", "G92 E0"};

std::string FirstNozzle0()
{
    std::string text;
    for (const char* line : kFirstNozzle0)
        text += std::string(line) + "\n";
    return text;
}

struct Probe : M2DSliceIO_gcode
{
    using M2DSliceIO_gcode::_GetBlockCategory;
    using M2DSliceIO_gcode::_GetEstimatedLayerPrintingTime;
    using M2DSliceIO_gcode::_layerIndex;
    using M2DSliceIO_gcode::_lastZ;
    using M2DSliceIO_gcode::_pendingWait;
    using M2DSliceIO_gcode::_ReducePrintingSpeed;
    using M2DSliceIO_gcode::_speedFactor;
    using M2DSliceIO_gcode::_WriteLayer;
    using M2DSliceIO_gcode::_GetZIncrement;
};

} // namespace

TEST(GCodeWriter, FactoryCodeMakesTheWriterThatReadsNothing)
{
    std::unique_ptr<I2DSliceIO> io(M2DSliceIOFactory::CreateSliceIO(50));
    ASSERT_NE(dynamic_cast<M2DSliceIO_gcode*>(io.get()), nullptr);
    EXPECT_FALSE(io->IsAppendModeSupported());
    ts::ScratchDir dir;
    ts::WriteFile(dir.File("a.gcode"), "G1 X1\n");
    ASSERT_TRUE(io->OpenFile(dir.WFile("a.gcode"), I2DSliceIO::Read));
    EXPECT_FALSE(io->ReadHeader(nullptr));
    EXPECT_NE(io->GetFailureReason().find("written only"), std::string::npos);
    M2DSlice slice;
    EXPECT_FALSE(io->ReadLayer(slice, nullptr, true));
}

TEST(GCodeWriter, TwoLayersByHand)
{
    // Layer 1 runs at the initial-layer speed; a chained vector follows without a jump, a
    // gap gives a retracted jump whose speed the next print move must set again.
    const auto l1 = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}, {100000, 0, 100000, 100000}, {200000, 0, 200000, 50000}}}});
    const auto l2 = Slice(4000, {{e2DSliceVectorType_Hatch, {{0, 0, 0, 100000}}}});
    const std::string expected = "G92 E0\n; LAYER_NO 1\nG0 Z0.2 F600\n" + FirstNozzle0() +
                                 Lines({"; INFILL", "G1 F1200", "G1 X10 Y0 E0.332601", "G1 X10 Y10 E0.665203",
                                        "G1 E-0.334797 F1800.000000", "G0 X20 Y0 F7200", "G1 E0.665203 F1800.000000",
                                        "G1 F1200", "G1 X20 Y5 E0.831503",
                                        // layer 2: the infill's own speed
                                        "; LAYER_NO 2", "G0 Z0.4 F600", "; INFILL", "G1 E-0.168497 F1800.000000",
                                        "G0 X0 Y0 F7200", "G1 E0.831503 F1800.000000", "G1 F3000",
                                        "G1 X0 Y10 E1.164105", "M84"});
    EXPECT_EQ(WriteV1(HandProfile(), {l1, l2}), expected);
}

TEST(GCodeWriter, NumbersAndRelativeExtrusion)
{
    // General form with six digits for coordinates, six decimals for E; in relative mode each
    // E is the step alone and a retraction prints minus its length.
    GCodeProfile p = HandProfile();
    p.RelativeExtrusion = true;
    const auto l1 = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}, {12345678, 0, 12345678, 10000}}}});
    const std::string text = WriteV1(p, {l1});
    const std::string expected = "G92 E0\n; LAYER_NO 1\nG0 Z0.2 F600\n" + FirstNozzle0() +
                                 Lines({"; INFILL", "G1 F1200", "G1 X10 Y0 E0.332601", "G1 E-1.000000 F1800.000000",
                                        "G0 X1234.57 Y0 F7200", "G1 E1.000000 F1800.000000", "G1 F1200",
                                        "G1 X1234.57 Y1 E0.033260", "M84"});
    EXPECT_EQ(text, expected);
}

TEST(GCodeWriter, ZOffsetLeavesZSpeedAsStateSpeed)
{
    // The contour's offset lifts and returns; the Z line's speed stays the state's, so the
    // next block sets its own speed again.
    GCodeProfile p = HandProfile();
    p.DefaultZOffsets.Contour = 0.1;
    const auto l1 = Slice(2000, {{e2DSliceVectorType_Border, {{0, 0, 100000, 0}}},
                                 {e2DSliceVectorType_Border, {{100000, 0, 100000, 100000}}}});
    const std::string expected = "G92 E0\n; LAYER_NO 1\nG0 Z0.2 F600\n" + FirstNozzle0() +
                                 Lines({"; CONTOUR", "G1 F1200", "G0 Z0.3 F600", "G1 X10 Y0 E0.332601", "G0 Z0.2 F600",
                                        "; CONTOUR", "G1 F1200", "G0 Z0.3 F600", "G1 X10 Y10 E0.665203", "G0 Z0.2 F600",
                                        "M84"});
    EXPECT_EQ(WriteV1(p, {l1}), expected);
}

TEST(GCodeWriter, NozzleChangeWithHop)
{
    // Retraction, up at the old nozzle's hop speed, T line, jump, down at the new one's,
    // priming with the new nozzle's values, reset.
    GCodeProfile p = HandProfile();
    p.Nozzles[0].HopValue = 0.5;
    p.Nozzles[0].HopSpeed = 300;
    p.Nozzles.push_back(p.Nozzles[0]);
    p.Nozzles[1].HopSpeed = 900;
    p.Nozzles[1].RetractionBackLength = 1.5;
    p.Nozzles[1].RetractionBackSpeed = 1500;
    BlockSpec a{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}};
    a.Nozzle = 0;
    BlockSpec b{e2DSliceVectorType_Hatch, {{200000, 0, 300000, 0}}};
    b.Nozzle = 1;
    const std::string expected = "G92 E0\n; LAYER_NO 1\nG0 Z0.2 F600\n" + FirstNozzle0() +
                                 Lines({"; INFILL", "G1 F1200", "G1 X10 Y0 E0.332601", "G1 E-0.667399 F1800.000000",
                                        "G0 Z0.7 F300", "G92 E0", "T1", "G92 E0", "G0 X20 Y0 F7200", "G0 Z0.2 F900",
                                        "G1 E1.500000 F1500.000000", "G92 E0", "; INFILL", "G1 F1200",
                                        "G1 X30 Y0 E0.332601", "M84"});
    EXPECT_EQ(WriteV1(p, {Slice(2000, {a, b})}), expected);
}

TEST(GCodeWriter, SkirtBrimAndRaftShareTheFirstNumber)
{
    GCodeProfile p = HandProfile();
    p.PreLayerCode = {GCodeRichLine("M117 pre")};
    p.PostLayerCode = {GCodeRichLine("M117 post")};
    p.SkirtEnabled = p.BrimEnabled = p.RaftEnabled = true;
    p.RaftTopTemperatureEnabled = true;
    p.RaftTopTemperature = 230;
    p.SkirtSlice = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}});
    p.BrimSlice = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 0, 100000}}}});
    p.RaftSlices = {Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 100000, 100000, 100000}}}}),
                    Slice(4000, {{e2DSliceVectorType_Hatch, {{100000, 100000, 100000, 0}}}})};
    const auto m1 = Slice(6000, {{e2DSliceVectorType_Hatch, {{100000, 0, 0, 0}}}});
    const auto m2 = Slice(8000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}});
    const std::string expected =
        Lines({"G92 E0", "; LAYER_NO 1", "G0 Z0.2 F600", "G1 F1200", "M117 pre"}) + FirstNozzle0() +
        Lines({"; SKIRT", "G1 F1200", "G1 X10 Y0 E0.332601",
               // brim: same number, Z, speed and pre-layer, so nothing of them again
               "; BRIM", "G1 E-0.667399 F1800.000000", "G0 X0 Y0 F7200", "G1 E0.332601 F1800.000000", "G1 F1200",
               "G1 X0 Y10 E0.665203",
               // first raft layer: retracts on its jumps only; here it starts where the brim ended
               "; RAFT", "G1 X10 Y10 E0.997804", "M117 post",
               // top raft layer
               "; LAYER_NO 2", "M104 S230", "G0 Z0.4 F600", "G1 F1800", "M117 pre", "; FOLLOWING RAFT",
               "G1 X10 Y0 E1.330405", "M117 post",
               // first model layer: still an initial layer, counted after the raft
               "; LAYER_NO 3", "G0 Z0.6 F600", "M117 pre", "; INFILL", "G1 F1200", "G1 X0 Y0 E1.663007",
               "M117 post",
               // the regular temperature returns on the second layer above the raft
               "M104 S210", "; LAYER_NO 4", "G0 Z0.8 F600", "M117 pre", "; INFILL", "G1 F3000",
               "G1 X10 Y0 E1.995608", "M117 post", "M84"});
    EXPECT_EQ(WriteV1(p, {m1, m2}), expected);
}

TEST(GCodeWriter, RaftBlocksAlwaysRetract)
{
    GCodeProfile p = HandProfile();
    p.Nozzles[0].RetractionEnabled = false;
    p.RaftEnabled = true;
    p.RaftSlices = {Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 10000, 0}, {20000, 0, 30000, 0}}}})};
    const std::string text = WriteV1(p, {});
    // 1 mm of travel, below the threshold and with retraction off, still retracts.
    EXPECT_NE(text.find("G1 X1 Y0 E0.033260\nG1 E-0.966740 F1800.000000\nG0 X2 Y0 F7200\nG1 E0.033260 F1800.000000\n"),
              std::string::npos)
        << text;
}

TEST(GCodeWriter, SlowingShortLayers)
{
    // T = 6, M = 10, S = 40, minimum 10: factor 0.6, no wait. T = 2: factor 0.25 and a wait
    // of C - T = 0.5 minutes, written as 30 seconds. Jumps and retractions keep their speeds.
    GCodeProfile p = HandProfile();
    p.InitialLayerCount = 0;
    p.DefaultSpeeds.Infill = 40;
    p.MinimumLayerTime = 10;
    p.MinimumSpeed = 10;
    p.WaitAtLayerEnd = true;
    const auto six = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 2400000, 0}}}});
    const auto two = Slice(4000, {{e2DSliceVectorType_Hatch, {{2400000, 0, 2400000, 800000}}}});
    const std::string expected = "G92 E0\n; LAYER_NO 1\nG0 Z0.2 F600\n" + FirstNozzle0() +
                                 Lines({"; INFILL", "G1 F24", "G1 X240 Y0 E7.982432", "; LAYER_NO 2", "G0 Z0.4 F600",
                                        "; INFILL", "G1 F10", "G1 X240 Y80 E10.643243", "G4 S30", "M84"});
    EXPECT_EQ(WriteV1(p, {six, two}), expected);

    Probe probe;
    probe.SetGCodeProfile(p);
    M2DSliceConstDataItems items;
    items.AddSlice(Slice(0, {{e2DSliceVectorType_Hatch, {{0, 0, 4000000, 0}}}}));
    probe._ReducePrintingSpeed(items); // T = 10: at the minimum
    EXPECT_EQ(probe._speedFactor, 1.0);
    EXPECT_EQ(probe._pendingWait, 0.0);
}

TEST(GCodeWriter, EstimateTakesSpeedsByParameterIndexAndCountsJumps)
{
    GCodeProfile p = HandProfile();
    p.InitialLayerCount = 0;
    p.DefaultSpeeds.Infill = 100;
    p.PartSpeeds[1] = p.DefaultSpeeds;
    p.PartSpeeds[1].Infill = 50;
    p.PartSpeeds[1].Contour = 0; // skipped altogether
    Probe probe;
    probe.SetGCodeProfile(p);
    BlockSpec a{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}, {500000, 0, 600000, 0}}};
    BlockSpec b{e2DSliceVectorType_Hatch, {{600000, 300000, 600000, 400000}}};
    b.Parameter = 1; // 50 mm/min
    b.Part = 0;
    BlockSpec c{e2DSliceVectorType_Border, {{0, 0, 900000, 0}}};
    c.Parameter = 1;
    M2DSliceConstDataItems items;
    items.AddSlice(Slice(0, {a, b, c}));
    double slowest = 0;
    // a: 20 mm at 100 (the gap inside the block is not counted); b: 30 mm jump + 10 at 50.
    EXPECT_DOUBLE_EQ(probe._GetEstimatedLayerPrintingTime(items, slowest), 0.2 + 0.8);
    EXPECT_EQ(slowest, 50);
    M2DSliceConstDataItems none;
    EXPECT_EQ(probe._GetEstimatedLayerPrintingTime(none, slowest), 0.0);
    EXPECT_EQ(slowest, std::numeric_limits<double>::max());
}

TEST(GCodeWriter, CategoriesFromLabels)
{
    const auto category = [](int type, bool support) {
        M2DSliceVectorTypeInfo info(static_cast<e2DSliceVectorType>(type));
        info.SetFlag(e2DSliceVectorTypeFlag_1, support);
        return Probe::_GetBlockCategory(info);
    };
    const unsigned plain[12] = {0, 0, 9, 10, 0, 0, 1, 4, 5, 1, 1, 1};
    const unsigned support[12] = {11, 11, 2, 12, 11, 11, 2, 2, 12, 2, 2, 2};
    for (int t = 0; t < 12; ++t)
    {
        EXPECT_EQ(category(t, false), plain[t]) << t;
        EXPECT_EQ(category(t, true), support[t]) << t;
    }
    EXPECT_EQ(category(42, false), 0u);
}

TEST(GCodeWriter, TemplatesAndDroppedTimeTexts)
{
    GCodeProfile p = HandProfile();
    p.StartCode = GCodeLinesFromText("%%YYYY%%-%%MM%%/%%DD%% %%YY%%\n%%NOPE%%\n100%\n%%abc\na%b\nM140 S%%BedTemperature%%");
    p.EndCode = {GCodeRichLine("M84 ; %%NOT EXPANDED%%")};
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m/%d %y", &t);
    const std::string text = WriteV1(p, {Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}})});
    EXPECT_EQ(text.substr(0, text.find("; LAYER_NO")),
              std::string(date) + "\n%%NOPE%%\n100\n%%abc%%\na%b\nM140 S60\n");
    EXPECT_NE(text.find("M84 ; %%NOT EXPANDED%%\n"), std::string::npos);
    EXPECT_EQ(text.find("PRINTING_TIME"), std::string::npos);
}

TEST(GCodeWriter, HeaderTakesTheProfilesThickness)
{
    GCodeProfile p = HandProfile();
    M2DSliceIO_gcode writer;
    writer.SetGCodeProfile(p);
    writer.SetSliceThickness(0.4); // lost: the header copies the profile's 0.2
    const std::string text = Write(writer, {Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}})});
    EXPECT_NE(text.find("G1 X10 Y0 E0.332601\n"), std::string::npos) << text;
}

TEST(GCodeWriter, EmptyItemsWriteNothingAndHooksRun)
{
    Probe probe;
    GCodeProfile p = HandProfile();
    p.StartCode.clear();
    p.EndCode.clear();
    probe.SetGCodeProfile(p);
    NozzleSwitchHook::Map map;
    map[0][2] = {GCodeRichLine("M117 from 2")};
    probe.SetNozzleSwitchHook(std::make_unique<NozzleSwitchHook>(map));
    ts::ScratchDir dir;
    const M2DSliceStack source;
    const std::vector<const ISource2DSlices*> sources{&source};
    ASSERT_TRUE(probe.OpenFile(dir.WFile("o.gcode"), I2DSliceIO::Write));
    ASSERT_TRUE(probe.WriteHeader(sources, 10000, 1));
    EXPECT_TRUE(probe._WriteLayer(sources, 2000, M2DSliceConstDataItems()));
    EXPECT_EQ(probe._layerIndex, 0u);
    EXPECT_EQ(probe._lastZ, INT32_MIN);
    EXPECT_DOUBLE_EQ(probe._GetZIncrement(2000), 0.2);
    for (int z : {2000, 4000})
    {
        M2DSliceConstDataItems items;
        items.AddSlice(Slice(z, {{e2DSliceVectorType_Hatch, {{0, 0, 10000, 0}}}}));
        EXPECT_TRUE(probe.WriteLayer(sources, items));
    }
    EXPECT_EQ(probe._layerIndex, 2u);
    EXPECT_DOUBLE_EQ(probe._GetZIncrement(7000), 0.3);
    ASSERT_TRUE(probe.CloseFile());
    const std::string text = ts::ReadFile(dir.File("o.gcode"));
    // The hook is asked after each nozzle change and after each layer's Z line; nothing for
    // layer 1, its lines from layer 2 on.
    EXPECT_EQ(text.substr(0, 12), "; LAYER_NO 1");
    EXPECT_NE(text.find("; LAYER_NO 2\nG0 Z0.4 F600\nM117 from 2\n; INFILL\n"), std::string::npos) << text;
}

TEST(GCodeWriter, HookKeysAndRichLineMarks)
{
    NozzleSwitchHook::Map map;
    map[1][5] = {GCodeRichLine("five")};
    map[1][20] = {GCodeRichLine("twenty")};
    map[2][0] = {GCodeRichLine("never")};
    NozzleSwitchHook hook(map);
    std::vector<GCodeRichLine> lines{GCodeRichLine("stale")};
    const auto at = [&](std::uint64_t nozzle, std::uint64_t layer) {
        hook._OnNozzleSwitch(lines, nozzle, layer);
        return lines.empty() ? std::string() : lines[0].GetText();
    };
    EXPECT_EQ(at(1, 4), "");
    EXPECT_EQ(at(1, 5), "five");
    EXPECT_EQ(at(1, 19), "five");
    EXPECT_EQ(at(1, 20), "twenty");
    EXPECT_EQ(at(1, 1000), "twenty");
    EXPECT_EQ(at(2, 7), "");
    EXPECT_EQ(at(3, 7), "");

    const auto marks = [](const char* text) {
        const GCodeRichLine line(text);
        return std::string(line.ResetsX() ? "X" : "") + (line.ResetsY() ? "Y" : "") + (line.ResetsZ() ? "Z" : "") +
               (line.ResetsE() ? "E" : "");
    };
    EXPECT_EQ(marks("G92 E0"), "E");
    EXPECT_EQ(marks("G92 E1.5"), "");
    EXPECT_EQ(marks("G92"), "XYZE");
    EXPECT_EQ(marks("G92 X0 Y0.0 ; and E0 in a comment"), "XY");
    EXPECT_EQ(marks("G28"), "XYZ");
    EXPECT_EQ(marks("G28 X Y"), "XY");
    EXPECT_EQ(marks("M104 S0\nG92 E0\nT1"), "E");
    EXPECT_EQ(marks("G920 E0"), "");
}

TEST(GCodeWriter, NumbersPrintAsPrintfDoes)
{
    // Every number goes out as "%g" or "%.Nf" would print it, whatever shortcut is taken.
    std::uint64_t seed = 12345;
    const auto next = [&]() {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return seed >> 11;
    };
    for (int i = 0; i < 400000; ++i)
    {
        double v;
        switch (i % 5)
        {
        case 0: v = (static_cast<std::int64_t>(next() % 40000000001ull) - 20000000000ll) / 10000.0; break;
        case 1: v = (static_cast<std::int64_t>(next() % 200001) - 100000) / 10000.0 + (next() % 3) * 1e-9; break;
        case 2: v = std::ldexp(static_cast<double>(next()), static_cast<int>(next() % 120) - 100) * ((next() & 1) ? -1 : 1); break;
        case 3: v = static_cast<double>(next() % 20000000) / 10000.0 * 0.0332601; break;
        default: v = (next() % 2000000) * 0.5 / 10000.0; break; // ties at the sixth digit
        }
        char expected[512];
        GCodeText text;
        std::snprintf(expected, sizeof expected, "%g", v);
        text.General(v);
        ASSERT_EQ(text.Line(), expected) << v;
        for (int d : {1, 5, 6})
        {
            text.Clear();
            std::snprintf(expected, sizeof expected, "%.*f", d, v);
            text.Fixed(v, d);
            ASSERT_EQ(text.Line(), expected) << v << " with " << d;
        }
    }
    GCodeText text;
    text.General(-0.0).Text(" ").Fixed(-1e-12, 6).Text(" ").General(1e8).Text(" ").Fixed(0.0000005, 6).Text(" ").Fixed(0.0000015, 6);
    EXPECT_EQ(text.Line(), "-0 -0.000000 1e+08 0.000000 0.000002");
}
