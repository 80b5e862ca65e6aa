// The sliceio tool's ZFF hooks, called directly: settings to metadata, defaults without a
// settings file, the scale that reads back, and the info/check rows.
#include <gtest/gtest.h>

#include "../../../tools/sliceio/formats/zff.cpp"
#include "BuildGenerator.h"
#include "framework/M2DSliceContainerIO.h"
#include "tests/TestSupport.h"

// The tool keeps its registry in its own sources; here the one family's hooks are used
// directly. Weak, so that a test of another family doing the same links too.
namespace sliceio {
__attribute__((weak)) bool RegisterFormatHooks(const FormatHooks&) { return true; }
} // namespace sliceio

namespace {

using sliceio::hooks;

sliceio::WriterSetup WriterFor(M2DSliceIO_zff& io, const std::vector<const ISource2DSlices*>& sources)
{
    sliceio::WriterSetup setup;
    setup.Code = 44;
    setup.Writer = &io;
    setup.Sources = sources;
    setup.LayerThickness = 500;
    return setup;
}

} // namespace

TEST(ZffToolHooks, DefaultsSettingsScaleAndReport)
{
    ts::ScratchDir dir;
    BuildShape shape = BuildShape::Rich(2, 2);
    shape.OpenPolylinePoints = 0; // contours and hatches only: two kinds per part
    BuildGenerator build(shape);

    // No settings: every part's contours and hatches get the machine defaults, and the file
    // is written in millimetres.
    M2DSliceIO_zff plain;
    sliceio::WriterSetup setup = WriterFor(plain, {&build});
    hooks.PrepareWriter(setup);
    EXPECT_EQ(setup.UnitConversion, 10000);
    EXPECT_EQ(setup.InverseResolution, 1);
    const ZffVectorAttributes hatches = plain.GetMetaData().GetAttributes(1, 6);
    const auto& set = hatches.GetAttributes();
    EXPECT_EQ(set.at(ZffVectorAttributes::LaserPower).FloatValue, 200.0f);
    EXPECT_FALSE(set.at(ZffVectorAttributes::LaserPower).IsInteger);
    EXPECT_EQ(plain.GetMetaData().GetAttributes(0, 1).GetAttributes().at(ZffVectorAttributes::LaserSpeed).FloatValue,
              800.0f);
    EXPECT_EQ(plain.GetMetaData().GetLayerThickness(), 500);
    EXPECT_EQ(hooks.DefaultSettings()["Origin"], "Zandervolle Stack Processor");

    // Settings: texts, thickness, a part's own attributes with an extra integer one, header names.
    M2DSliceIO_zff io;
    setup = WriterFor(io, {&build});
    setup.Settings = nlohmann::json::parse(R"({"Origin": "Plant 2", "Material": "316L", "LayerThickness": 400,
        "AttributeSets": {"1": {"6": {"LaserPower": 370, "Attributes": {"9": 70, "34": 0.08}}}},
        "AdditionalHeaderAttributes": {"9": "PointDistance"}})");
    hooks.PrepareWriter(setup);
    ZffMetaData& meta = io.GetMetaData();
    EXPECT_EQ(meta.GetOrigin(), "Plant 2");
    EXPECT_EQ(meta.GetLayerThickness(), 400);
    const ZffVectorAttributes own = meta.GetAttributes(1, 6);
    EXPECT_EQ(own.GetAttributes().at(ZffVectorAttributes::LaserPower).FloatValue, 370.0f);
    EXPECT_EQ(own.GetAttributes().at(9).IntValue, 70);
    EXPECT_TRUE(own.GetAttributes().at(9).IsInteger);
    EXPECT_EQ(own.GetAttributes().at(34).FloatValue, 0.08f);
    EXPECT_EQ(meta.GetAttributes(0, 6).GetAttributes().at(ZffVectorAttributes::LaserPower).FloatValue, 200.0f);
    EXPECT_EQ(meta.GetAdditionalHeaderAttributes().at(9), "PointDistance");

    // The written file reads back with the part's settings and passes the check. (Point
    // distance is left out here: an attribute only some blocks carry stays in force for the
    // blocks after them on reading.)
    M2DSliceIO_zff written;
    setup = WriterFor(written, {&build});
    setup.Settings = nlohmann::json::parse(R"({"Material": "316L",
        "AttributeSets": {"1": {"6": {"LaserPower": 370, "LaserSpeed": 1000}}}})");
    hooks.PrepareWriter(setup);
    const std::string path = dir.File("hooked.zff");
    {
        std::shared_ptr<I2DSliceIO> shared(&written, [](I2DSliceIO*) {});
        M2DSliceContainerIO driver(shared);
        ASSERT_TRUE(driver.WriteContainer(build, ts::Wide(path), setup.UnitConversion, setup.InverseResolution, nullptr));
    }
    sliceio::FileReport report;
    hooks.DescribeFile(path, 44, report);
    EXPECT_TRUE(report.Problems.empty()) << report.Problems.front();
    std::map<std::string, std::string> rows(report.Rows.begin(), report.Rows.end());
    EXPECT_EQ(rows["Material"], "316L");
    EXPECT_EQ(rows["distinct scan settings"], "3"); // contours, hatches, part 1's hatches
    // A header that declares more layers than the file holds is a problem for check.
    std::string bytes = ts::ReadFile(path);
    bytes.replace(bytes.find("<Layers>2<"), 10, "<Layers>3<");
    ts::WriteFile(path, bytes);
    report = sliceio::FileReport();
    hooks.DescribeFile(path, 44, report);
    ASSERT_EQ(report.Problems.size(), 1u);
    EXPECT_NE(report.Problems[0].find("declares 3 layers"), std::string::npos);

    // Wrong settings name the key; a scale asked for that does not read back is refused.
    for (const char* bad : {R"({"Colour": 1})", R"({"Origin": 5})", R"({"AttributeSets": {"x": {}}})",
                            R"({"AttributeSets": {"1": {"6": {"Power": 1}}}})"})
    {
        M2DSliceIO_zff other;
        setup = WriterFor(other, {&build});
        setup.Settings = nlohmann::json::parse(bad);
        EXPECT_THROW(hooks.PrepareWriter(setup), sliceio::Failure) << bad;
    }
    M2DSliceIO_zff scaled;
    setup = WriterFor(scaled, {&build});
    setup.ScaleGiven = true;
    setup.InverseResolution = 1000;
    EXPECT_THROW(hooks.PrepareWriter(setup), sliceio::Failure);
}
