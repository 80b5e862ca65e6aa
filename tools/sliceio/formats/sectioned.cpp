// The tool's side of SLM and MTT layer files: a model per input part with build styles from
// the settings file's "sectioned" section where the input has none, material and strategy
// names, the optional material database and configuration XML (SLM only: MTT files hold
// none of these), and the millimetre scale the files read back at. `info` shows the header,
// the models and their build styles.
#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include <fmt/format.h>

#include "../../../contracts/MUnit.h"
#include "../../../contracts/StringConversion.h"
#include "../../../formats/sectioned/M2DSliceIO_mtt.h"
#include "../../../formats/sectioned/M2DSliceIO_slm.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

using nlohmann::json;

json DefaultStyle(int id, const char* name)
{
    json style = json::object();
    style["Id"] = id;
    style["Name"] = name;
    style["LaserSpeed"] = 1000.0;
    style["LaserPower"] = 200.0;
    style["LaserFocus"] = 0.0;
    style["LaserSpeedFactor"] = 1.0;
    style["LaserPowerFactor"] = 1.0;
    style["PointDistance"] = 70;
    style["ExposureTime"] = 80;
    style["LaserIndex"] = 1;
    return style;
}

json Defaults()
{
    json settings = json::object();
    // Given to every input part that names no build styles of its own. A block refers to a
    // style by its parameter index, so the defaults cover the indexes inputs commonly use.
    settings["BuildStyles"] = json::array({DefaultStyle(0, "Hatch"), DefaultStyle(1, "Contour"),
                                           DefaultStyle(2, "Hatch 2"), DefaultStyle(3, "Contour 2")});
    settings["MaterialName"] = "";
    settings["MaterialComment"] = "";
    settings["BuildStrategyName"] = "";
    settings["BuildStrategyComment"] = "";
    settings["BuildStrategyProtection"] = true;
    settings["ProductName"] = "sliceio";
    settings["ProductVersion"] = "1.0";
    settings["FileGuid"] = ""; // empty: a new random one
    settings["MaterialDatabaseXml"] = ""; // path; with ConfigXml, gives generating parameters
    settings["ConfigXml"] = "";
    settings["ContoursAsPolygons"] = true; // false: contours are not written
    settings["KindlessBlocks"] = true;     // blocks of no known kind: chains as polygons, else hatches
    settings["WriteOrder"] = "PerSlice";   // or "ByBuildOrder", or for MTT "SortedRegions"
    return settings;
}

[[noreturn]] void Wrong(const std::string& key, const char* expected)
{
    throw Failure(fmt::format("settings: \"sectioned.{}\" must be {}", key, expected));
}

std::wstring WideText(const json& settings, const char* key)
{
    if (!settings[key].is_string())
        Wrong(key, "a text");
    return StringConversion::Utf8ToNative(settings[key].get<std::string>());
}

std::wstring RandomGuid()
{
    std::random_device device;
    std::mt19937_64 random((static_cast<std::uint64_t>(device()) << 32) ^ device());
    const std::uint64_t a = random(), b = random();
    return StringConversion::Utf8ToNative(fmt::format("{:08x}-{:04x}-4{:03x}-{:04x}-{:012x}", a >> 32, (a >> 16) & 0xFFFF,
                                                      a & 0xFFF, 0x8000 | ((b >> 48) & 0x3FFF), b & 0xFFFFFFFFFFFFull));
}

std::vector<M2DSliceIO_slm::BuildStyle> StylesOf(const json& list)
{
    const char* shape = "a list of styles, each {\"Id\": whole number, \"Name\": text, \"LaserSpeed\", \"LaserPower\", "
                        "\"LaserFocus\", \"LaserSpeedFactor\", \"LaserPowerFactor\": numbers, \"PointDistance\", "
                        "\"ExposureTime\", \"LaserIndex\": whole numbers}";
    if (!list.is_array())
        Wrong("BuildStyles", shape);
    std::vector<M2DSliceIO_slm::BuildStyle> styles;
    for (const json& entry : list)
    {
        if (!entry.is_object())
            Wrong("BuildStyles", shape);
        json style = DefaultStyle(0, "");
        for (const auto& [key, value] : entry.items())
        {
            if (!style.contains(key))
                throw Failure(fmt::format("settings: unknown key \"sectioned.BuildStyles[].{}\"", key));
            style[key] = value;
        }
        for (const char* key : {"Id", "PointDistance", "ExposureTime", "LaserIndex"})
        {
            const json& v = style[key];
            if (!v.is_number_integer() || v.get<std::int64_t>() < 0 || v.get<std::int64_t>() > INT32_MAX)
                Wrong(std::string("BuildStyles[].") + key, "a whole number from 0");
        }
        for (const char* key : {"LaserSpeed", "LaserPower", "LaserFocus", "LaserSpeedFactor", "LaserPowerFactor"})
            if (!style[key].is_number())
                Wrong(std::string("BuildStyles[].") + key, "a number");
        if (!style["Name"].is_string())
            Wrong("BuildStyles[].Name", "a text");
        M2DSliceIO_slm::BuildStyle s;
        s.BuildStyleId = style["Id"].get<std::int32_t>();
        s.PointDistance = style["PointDistance"].get<std::int32_t>();
        s.ExposureTime = style["ExposureTime"].get<std::int32_t>();
        s.LaserIndex = style["LaserIndex"].get<std::int32_t>();
        s.LaserSpeed = style["LaserSpeed"].get<float>();
        s.LaserPower = style["LaserPower"].get<float>();
        s.LaserFocus = style["LaserFocus"].get<float>();
        s.LaserSpeedFactor = style["LaserSpeedFactor"].get<float>();
        s.LaserPowerFactor = style["LaserPowerFactor"].get<float>();
        s.BuildStyleName = StringConversion::Utf8ToNative(style["Name"].get<std::string>());
        styles.push_back(s);
    }
    return styles;
}

std::string ReadText(const std::string& path, const char* key)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw Failure(fmt::format("settings: \"sectioned.{}\" names \"{}\", which cannot be opened", key, path));
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void Prepare(WriterSetup& setup)
{
    auto* io = dynamic_cast<M2DSliceIO_sectioned*>(setup.Writer);
    if (!io)
        return;
    auto* slm = dynamic_cast<M2DSliceIO_slm*>(setup.Writer); // null for MTT
    json settings = Defaults();
    for (const auto& [key, value] : setup.Settings.items())
    {
        if (!settings.contains(key))
            throw Failure(fmt::format("settings: unknown key \"sectioned.{}\"", key));
        settings[key] = value;
    }

    // Coordinates are floats in millimetres, and a reader takes them so: only that scale
    // reads back true.
    if (setup.ScaleGiven && (setup.UnitConversion != MUnit::GetIE() || setup.InverseResolution != 1))
        throw Failure("SLM and MTT files hold millimetres and read back at that scale only: leave out --units and "
                      "--resolution (or give millimetres at resolution 1)");
    setup.UnitConversion = MUnit::GetIE();
    setup.InverseResolution = 1;

    // Every part becomes a model; what a part does not say of itself comes from here.
    io->SetDefaultBuildStyles(StylesOf(settings["BuildStyles"]));
    std::size_t withOwn = 0;
    for (const ISource2DSlices* source : setup.Sources)
        withOwn += source && M2DSliceIO_slm::NamesBuildStyles(source->GetProperties()) ? 1 : 0;

    io->SetFileType(static_cast<unsigned short>(setup.Code));
    // The texts are checked for either format; an MTT file has no place for them.
    const std::wstring material = WideText(settings, "MaterialName");
    const std::wstring materialComment = WideText(settings, "MaterialComment");
    const std::wstring strategy = WideText(settings, "BuildStrategyName");
    const std::wstring strategyComment = WideText(settings, "BuildStrategyComment");
    if (!settings["BuildStrategyProtection"].is_boolean())
        Wrong("BuildStrategyProtection", "true or false");
    const std::wstring product = WideText(settings, "ProductName"), version = WideText(settings, "ProductVersion");
    const std::wstring guid = WideText(settings, "FileGuid");
    if (slm)
    {
        slm->SetUsedMaterialName(material);
        slm->SetUsedMaterialComment(materialComment);
        slm->SetUsedBuildStrategyName(strategy);
        slm->SetUsedBuildStrategyComment(strategyComment);
        slm->SetUsedBuildStrategyProtection(settings["BuildStrategyProtection"].get<bool>());
        slm->SetProductInformation(product, version);
        slm->SetFileGuid(guid.empty() ? RandomGuid() : guid);
    }
    if (!settings["ContoursAsPolygons"].is_boolean())
        Wrong("ContoursAsPolygons", "true or false");
    const bool contours = settings["ContoursAsPolygons"].get<bool>();
    io->SetContoursAsPolygons(contours);
    if (!settings["KindlessBlocks"].is_boolean())
        Wrong("KindlessBlocks", "true or false");
    io->SetKindlessBlocksInferred(settings["KindlessBlocks"].get<bool>());
    const json& order = settings["WriteOrder"];
    if (!order.is_string() || (order != "PerSlice" && order != "ByBuildOrder" && (slm || order != "SortedRegions")))
        Wrong("WriteOrder", slm ? "\"PerSlice\" or \"ByBuildOrder\""
                                : "\"PerSlice\", \"ByBuildOrder\" or \"SortedRegions\"");
    io->SetWriteOrder(order == "PerSlice"       ? M2DSliceIO_sectioned::WriteOrderPerSlice
                      : order == "ByBuildOrder" ? M2DSliceIO_sectioned::WriteOrderByBuildOrder
                                                : M2DSliceIO_sectioned::WriteOrderSortedRegions);

    WideText(settings, "MaterialDatabaseXml");
    WideText(settings, "ConfigXml");
    const std::string database = settings["MaterialDatabaseXml"].get<std::string>();
    const std::string config = settings["ConfigXml"].get<std::string>();
    if (!database.empty() && !config.empty() && !slm)
        setup.Notes.push_back("no generating parameters: MTT files hold none");
    else if (!database.empty() && !config.empty())
    {
        slm->SetParameterXml(ReadText(database, "MaterialDatabaseXml"));
        ReadText(config, "ConfigXml"); // said here, before the writer's parser says it
        slm->SetConfigXml(config);
        setup.Notes.push_back("generating parameters from the material database");
    }

    setup.Notes.push_back(fmt::format("{} model(s), build styles from {}", setup.Sources.size(),
                                      withOwn == setup.Sources.size() ? "the input"
                                      : withOwn == 0                 ? "the settings"
                                                                     : "the input and the settings"));
    setup.Notes.push_back(contours ? "contours as polygon blocks" : "contours not written");
    setup.Notes.push_back("point blocks not written");
    setup.Notes.push_back("millimetres as floats");
}

void Describe(const std::string& path, short code, FileReport& report)
{
    std::unique_ptr<M2DSliceIO_sectioned> io;
    if (code == 51)
        io = std::make_unique<M2DSliceIO_mtt>(false);
    else
        io = std::make_unique<M2DSliceIO_slm>(false);
    M2DSliceIO_sectioned& reader = *io;
    if (code == 48)
        report.Rows.emplace_back("decoded in", "repair mode: zero bits after the coded stream, sections 41 and 44 "
                                               "with their fixed size again");
    if (!reader.OpenFile(WidePath(path), I2DSliceIO::Read))
        return;
    if (!reader.ReadHeader(nullptr))
    {
        report.Warnings.push_back("header: " + reader.GetFailureReason());
        reader.CloseFile();
        return;
    }
    const auto& info = reader.GetHeaderInfo();
    for (const char* key : {"File ID String", "File Version", "Layer Z Unit"})
    {
        const auto found = info.find(key);
        if (found != info.end())
            report.Rows.emplace_back(key, found->second);
    }
    if (info.count("Layer Z Unit") && info.at("Layer Z Unit") != std::to_string(MUnit::GetIE()))
        report.Warnings.push_back(fmt::format("z unit {} differs from this library's {}: heights read as if it were {}",
                                              info.at("Layer Z Unit"), MUnit::GetIE(), MUnit::GetIE()));
    const auto* slm = dynamic_cast<const M2DSliceIO_slm*>(&reader);
    if (slm && !slm->GetFileGuid().empty())
        report.Rows.emplace_back("GUID", StringConversion::NativeToUtf8(slm->GetFileGuid()));
    for (const auto& [id, model] : reader.GetModelTable())
    {
        std::string styles;
        for (const auto& [styleId, style] : model->BuildStyles)
        {
            std::wstring name = style->BuildStyleName;
            name = name.substr(0, name.find(L'\0'));
            styles += fmt::format("{}{}{}{} ({} mm/s, {} W)", styles.empty() ? "" : "; ", styleId,
                                  name.empty() ? "" : " ", StringConversion::NativeToUtf8(name), style->LaserSpeed,
                                  style->LaserPower);
        }
        report.Rows.emplace_back(fmt::format("model {}", id),
                                 fmt::format("\"{}\", top slice {}, styles: {}", model->ModelName, model->ModelTopSlice,
                                             styles.empty() ? "none" : styles));
    }
    reader.CloseFile();
}

const FormatHooks kHooks = [] {
    FormatHooks hooks;
    hooks.Family = "sectioned";
    hooks.PrepareWriter = Prepare;
    hooks.DefaultSettings = Defaults;
    hooks.DescribeFile = Describe;
    return hooks;
}();

const bool registered = RegisterFormatHooks(kHooks);

// Read literally, a compressed build file does not give back the plain file it was made of:
// the tool reads every one in repair mode.
const bool repairing = [] {
    M2DSliceIO_slm::SetDecompressRepairByDefault(true);
    return true;
}();

} // namespace

} // namespace sliceio
