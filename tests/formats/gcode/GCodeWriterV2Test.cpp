// The second G-code writer: one move command with five decimals, zones, tolerances, and its
// exceptions.
#include <stdexcept>

#include "GCodeTestSupport.h"

using namespace gcodetest;

namespace {

std::unique_ptr<GCodeParametersV2> HandProfile()
{
    auto p = std::make_unique<GCodeParametersV2>();
    p->StartCode = {GCodeRichLine("G92 E0")};
    p->EndCode = {GCodeRichLine("M84")};
    p->SliceThickness = 0.2;
    p->Nozzles.assign(1, GCodeNozzleParameters());
    GCodeNozzleParameters& n = p->Nozzles[0];
    n.TrackWidth = 0.4;
    n.FilamentWidth = 1.75;
    n.RetractionThreshold = 2;
    n.RetractionLength = 1;
    n.RetractionSpeed = 1800;
    n.RetractionBackLength = 1;
    n.RetractionBackSpeed = 1800;
    n.HopEnabled = false;
    n.HopValue = 0.4;
    n.HopSpeed = 600;
    p->MinimumLayerTime = 0;
    return p;
}

std::string WriteV2(std::unique_ptr<GCodeParametersV2> profile, const std::vector<std::shared_ptr<M2DSlice>>& slices)
{
    M2DSliceIO_gcode_V2 writer;
    writer.SetProfile(std::move(profile));
    return Write(writer, slices);
}

const std::string kFirstNozzle0 = Lines({"G92 E0", "T0", "G92 E0", "G0 X0.00000 Y0.00000 F7200.0",
                                         "G1 E1.00000 F1800.0; priming", "G92 E0"});

struct ProbeV2 : M2DSliceIO_gcode_V2
{
    using M2DSliceIO_gcode_V2::_GetJumpLength;
    using M2DSliceIO_gcode_V2::_WriteRetraction;
};

} // namespace

TEST(GCodeWriterV2, LayerByHand)
{
    const auto l1 = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}, {200000, 0, 200000, 50000}}}});
    const std::string expected = Lines({"G92 E0", "; LAYER_NO 1", "G0 Z0.20000 F600.0", "M104 S210.0"}) + kFirstNozzle0 +
                                 Lines({"G1 X10.00000 Y0.00000 E0.33260",
                                        // the retraction's speed equals the state's: no F
                                        "G1 E-0.66740; retraction", "G0 X20.00000 Y0.00000 F7200.0",
                                        "G1 E0.33260 F1800.0; priming", "G1 X20.00000 Y5.00000 E0.49890", "M84"});
    EXPECT_EQ(WriteV2(HandProfile(), {l1}), expected);
}

TEST(GCodeWriterV2, ZonesSlowingAndPreLayerBeforeZ)
{
    // Zone 3: own speed, temperature, comment and Z offset, a hop on every jump. The slowed
    // speed goes out as a speed line, and the print move's own F brings the zone speed back.
    auto p = HandProfile();
    p->PreLayerCode = {GCodeRichLine("M117 pre")};
    p->MinimumLayerTime = 1;
    p->MinimumSpeed = 600; // T = 10 mm / 1200 < C = 0.5 * 1: factor 0.5, wait 0.5 - T
    GCodeZoneParameters zone;
    zone.Speed = 1200;
    zone.NozzleTemperature = 215;
    zone.ZOffset = 0.1;
    zone.ForceHop = true;
    zone.SwitchNozzle = false;
    zone.Comment = "outer wall";
    p->Zones[3] = zone;
    BlockSpec b{e2DSliceVectorType_Border, {{0, 0, 100000, 0}}};
    b.Parameter = 3;
    const std::string text = WriteV2(std::move(p), {Slice(2000, {b})});
    // Without a nozzle change nothing resets E: the start code's G92 E0 does.
    const std::string expected = Lines({"G92 E0", "; LAYER_NO 1", "M117 pre", "G0 Z0.20000 F600.0", "; outer wall",
                                        "M104 S215.0",
                                        // coming from nowhere, the jump is longer than any threshold
                                        "G1 E-1.00000 F1800.0; retraction", "G0 Z0.60000 F600.0; vertical move",
                                        "G0 X0.00000 Y0.00000 F7200.0", "G0 Z0.20000 F600.0; vertical move",
                                        "G1 E0.00000 F1800.0; priming", "G1 F600.0", "G0 Z0.30000", "G1 X10.00000 Y0.00000 E0.33260 F1200.0",
                                        "G0 Z0.20000 F600.0", "M84"});
    EXPECT_EQ(text, expected);
}

TEST(GCodeWriterV2, JumpsHopsCoastingAndUnsetE)
{
    // No start code: E stays unset and print moves carry none. A forced hop lifts on a jump
    // although hops are off; a coasting block moves without E. Points closer than 1e-5 mm
    // are the same point.
    auto p = HandProfile();
    p->StartCode.clear();
    p->Nozzles[0].RetractionEnabled = false;
    GCodeZoneParameters zone;
    zone.SwitchNozzle = false;
    zone.ForceHop = true;
    zone.NozzleTemperature = 0;
    p->Zones[0] = zone;
    BlockSpec a{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}, {100000, 0, 200000, 0}}};
    BlockSpec c{e2DSliceVectorType_Hatch, {{300000, 0, 400000, 0}}};
    c.Coasting = true;
    const std::string text = WriteV2(std::move(p), {Slice(2000, {a, c})});
    const std::string expected =
        Lines({"; LAYER_NO 1", "G0 Z0.20000 F600.0", "M104 S0.0", "G0 Z0.60000; vertical move",
               "G0 X0.00000 Y0.00000 F7200.0", "G0 Z0.20000 F600.0; vertical move", "G1 F1800.0",
               "G1 X10.00000 Y0.00000", "G1 X20.00000 Y0.00000",
               // second block: same temperature, so no M104
               "G0 Z0.60000 F600.0; vertical move", "G0 X30.00000 Y0.00000 F7200.0", "G0 Z0.20000 F600.0; vertical move",
               "G1 F1800.0", "G1 X40.00000 Y0.00000; coasting", "M84"});
    EXPECT_EQ(text, expected);
}

TEST(GCodeWriterV2, ExtrusionExceptionsAfterTheBlocksStart)
{
    const auto block = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}});
    const auto attempt = [&](std::unique_ptr<GCodeParametersV2> p, const std::string& message, std::string& text) {
        M2DSliceIO_gcode_V2 writer;
        writer.SetProfile(std::move(p));
        ts::ScratchDir dir;
        const M2DSliceStack source;
        const std::vector<const ISource2DSlices*> sources{&source};
        ASSERT_TRUE(writer.OpenFile(dir.WFile("o.gcode"), I2DSliceIO::Write));
        ASSERT_TRUE(writer.WriteHeader(sources, 10000, 1));
        M2DSliceConstDataItems items;
        items.AddSlice(block);
        try
        {
            writer.WriteLayer(sources, items);
            ADD_FAILURE() << "no exception for " << message;
        }
        catch (const std::invalid_argument& e)
        {
            EXPECT_EQ(std::string(e.what()), message);
        }
        writer.CloseFile();
        text = ts::ReadFile(dir.File("o.gcode"));
    };
    std::string text;
    auto p = HandProfile();
    GCodeZoneParameters zone;
    zone.ExtrusionMultiplier = 0;
    zone.Comment = "z";
    p->Zones[0] = zone;
    attempt(std::move(p), "Invalid extrusion multiplier", text);
    EXPECT_EQ(text, Lines({"G92 E0", "; LAYER_NO 1", "G0 Z0.20000 F600.0", "; z", "M104 S210.0"}) + kFirstNozzle0);

    p = HandProfile();
    p->Nozzles.push_back(p->Nozzles[0]);
    p->Nozzles.push_back(p->Nozzles[0]);
    p->Nozzles[2].TrackWidth = 0;
    auto withNozzle2 = Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}});
    withNozzle2->GetVectorsUpdate()->GetFirstVectorBlock()->GetTypeInfoUpdate().SetIndex(e2DSliceVectorTypeIndex_Nozzle, 2);
    {
        M2DSliceIO_gcode_V2 writer;
        writer.SetProfile(std::move(p));
        ts::ScratchDir dir;
        const M2DSliceStack source;
        const std::vector<const ISource2DSlices*> sources{&source};
        ASSERT_TRUE(writer.OpenFile(dir.WFile("o.gcode"), I2DSliceIO::Write));
        ASSERT_TRUE(writer.WriteHeader(sources, 10000, 1));
        M2DSliceConstDataItems items;
        items.AddSlice(withNozzle2);
        EXPECT_THROW(
            try { writer.WriteLayer(sources, items); } catch (const std::invalid_argument& e) {
                EXPECT_EQ(std::string(e.what()), "Too small the output size of nozzle id = 2");
                throw;
            },
            std::invalid_argument);
    }
    p = HandProfile();
    p->Nozzles[0].FilamentWidth = 0.001;
    attempt(std::move(p), "Too small filament width of the nozzle id = 0", text);
}

TEST(GCodeWriterV2, DefaultsAndRetractionLine)
{
    // Without SetProfile a default profile serves: its start code expands, and a file comes
    // out whose moves carry E.
    M2DSliceIO_gcode_V2 writer;
    const std::string text = Write(writer, {Slice(2000, {{e2DSliceVectorType_Hatch, {{0, 0, 100000, 0}}}})});
    EXPECT_NE(text.find("M109 S210\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nG1 X10.00000 Y0.00000 E0.37418 F1800.0\n"), std::string::npos) << text;
    EXPECT_EQ(writer.GetCurrentGcodeState().Nozzle, 0);

    ProbeV2 probe;
    auto p = HandProfile();
    p->Nozzles[0].RetractionLength = 1.5;
    p->Nozzles[0].RetractionSpeed = 1800;
    probe.SetProfile(std::move(p));
    ts::ScratchDir dir;
    const M2DSliceStack source;
    ASSERT_TRUE(probe.OpenFile(dir.WFile("r.gcode"), I2DSliceIO::Write));
    ASSERT_TRUE(probe.WriteHeader({&source}, 10000, 1));
    EXPECT_TRUE(probe._WriteRetraction(0, false));
    ASSERT_TRUE(probe.CloseFile());
    EXPECT_EQ(ts::ReadFile(dir.File("r.gcode")), "G92 E0\nG1 E-1.50000 F1800.0; retraction\n");
    EXPECT_DOUBLE_EQ(probe._GetJumpLength(0, 0, 3, 4), 5.0);
    EXPECT_DOUBLE_EQ(probe._GetJumpLength(0, 0, 3e300, 4e300), 5e300);
}
