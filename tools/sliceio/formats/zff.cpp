// The tool's side of ZFF build files: the metadata a writer needs, from the "zff" section of
// the settings file or from defaults a machine accepts, and what `info` and `check` add.
#include <cmath>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "../../../contracts/M2DSliceStack.h"
#include "../../../contracts/MUnit.h"
#include "../../../contracts/StringConversion.h"
#include "../../../formats/zff/M2DSliceIO_zff.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

using nlohmann::json;

// Attributes as the settings file names them: the setters of the attribute class, and any
// further attribute by its identifier (an integer value is written as an integer, any other
// number as a float).
json DefaultAttributes(double power, double speed)
{
    return json{{"LaserPower", power}, {"LaserSpeed", speed}, {"LaserFocus", 0.0}, {"Attributes", json::object()}};
}

json ZffDefaults()
{
    return json{
        {"Origin", "Zandervolle Stack Processor"},
        {"Material", "Unknown"},
        {"LayerThickness", 0}, // 0: the input's
        // Per vector kind (a label's parameter index, or its base kind: 1 contours, 6 hatches),
        // for every part of the input that AttributeSets does not name.
        {"DefaultAttributeSet", json{{"1", DefaultAttributes(150.0, 800.0)}, {"6", DefaultAttributes(200.0, 1000.0)}}},
        {"AttributeSets", json::object()}, // part id -> kind -> attributes
        {"AdditionalHeaderAttributes", json::object()}, // id -> name
    };
}

long Identifier(const std::string& text, long low, long high, const std::string& where)
{
    std::size_t used = 0;
    long value = 0;
    try
    {
        value = std::stol(text, &used);
    }
    catch (const std::exception&)
    {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < low || value > high)
        throw Failure(fmt::format("settings: zff.{}: \"{}\" is not a number from {} to {}", where, text, low, high));
    return value;
}

const json& Typed(const json& value, bool (json::*is)() const noexcept, const char* type, const std::string& where)
{
    if (!(value.*is)())
        throw Failure(fmt::format("settings: zff.{} must be {}", where, type));
    return value;
}

ZffVectorAttributes ParseAttributes(const json& object, const std::string& where)
{
    Typed(object, &json::is_object, "an object", where);
    ZffVectorAttributes attributes;
    for (const auto& [key, value] : object.items())
    {
        const std::string at = where + "." + key;
        if (key == "LaserPower" || key == "LaserSpeed" || key == "LaserFocus")
        {
            const float v = Typed(value, &json::is_number, "a number", at).get<float>();
            key == "LaserPower" ? attributes.SetLaserPower(v)
                                : key == "LaserSpeed" ? attributes.SetLaserSpeed(v) : attributes.SetLaserFocus(v);
        }
        else if (key == "Attributes")
            for (const auto& [id, number] : Typed(value, &json::is_object, "an object", at).items())
            {
                const auto n = static_cast<std::uint16_t>(Identifier(id, 1, 65535, at));
                Typed(number, &json::is_number, "a number", at + "." + id);
                if (number.is_number_integer())
                {
                    const auto i = number.get<std::int64_t>();
                    if (i < INT32_MIN || i > INT32_MAX)
                        throw Failure("settings: zff." + at + "." + id + " does not fit 32 bits");
                    attributes.AddAttribute(n, static_cast<std::int32_t>(i));
                }
                else
                    attributes.AddAttribute(n, number.get<float>());
            }
        else
            throw Failure("settings: zff." + at + ": unknown key");
    }
    return attributes;
}

std::map<std::int16_t, ZffVectorAttributes> ParseSet(const json& object, const std::string& where)
{
    std::map<std::int16_t, ZffVectorAttributes> set;
    for (const auto& [kind, attributes] : Typed(object, &json::is_object, "an object", where).items())
        set[static_cast<std::int16_t>(Identifier(kind, -32768, 32767, where))] =
            ParseAttributes(attributes, where + "." + kind);
    return set;
}

// The (part, kind) pairs a ZFF writer will ask its metadata for: the part is the "PartId" of a
// stack that names one, else the label's; the kind the label's parameter index or base kind.
std::set<std::pair<std::int64_t, std::int16_t>> KindsOfParts(const std::vector<const ISource2DSlices*>& sources)
{
    std::set<std::pair<std::int64_t, std::int16_t>> kinds;
    for (const ISource2DSlices* source : sources)
    {
        if (!source)
            continue;
        std::int32_t stackPart = 0;
        if (const auto* stack = dynamic_cast<const M2DSliceStack*>(source))
            stack->GetProperties()->GetValue(L"PartId", stackPart);
        const auto note = [&](const M2DSliceVectorTypeInfo& label) {
            const std::int32_t index = label.GetIndex(e2DSliceVectorTypeIndex_Parameter);
            const auto kind = static_cast<std::int16_t>(index != 0 ? index : static_cast<std::int32_t>(label.GetType()));
            kinds.emplace(stackPart != 0 ? stackPart : label.GetIndex(e2DSliceVectorTypeIndex_Part), kind);
        };
        for (std::uint64_t i = 0; i < source->GetNumSlices(); ++i)
        {
            const std::shared_ptr<const M2DSlice> slice = source->GetSlice(i);
            if (!slice)
                continue;
            for (const M2DSliceContour& contour : *slice->GetSliceBorder())
                note(contour.GetTypeInfo());
            for (auto* b = slice->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
                note(b->GetTypeInfo());
        }
    }
    return kinds;
}

void PrepareZffWriter(WriterSetup& setup)
{
    auto* io = dynamic_cast<M2DSliceIO_zff*>(setup.Writer);
    if (!io)
        throw Failure("the writer for code " + std::to_string(setup.Code) + " is not a ZFF writer");
    const json& settings = Typed(setup.Settings, &json::is_object, "an object", "section");
    ZffMetaData& meta = io->GetMetaData();

    std::map<std::int16_t, ZffVectorAttributes> defaults = ParseSet(ZffDefaults()["DefaultAttributeSet"], "DefaultAttributeSet");
    std::map<std::uint64_t, std::map<std::int16_t, ZffVectorAttributes>> sets;
    std::int32_t thickness = 0;
    for (const auto& [key, value] : settings.items())
    {
        if (key == "Origin")
            meta.SetOrigin(Typed(value, &json::is_string, "a text", key).get<std::string>());
        else if (key == "Material")
            meta.SetMaterial(Typed(value, &json::is_string, "a text", key).get<std::string>());
        else if (key == "LayerThickness")
        {
            const auto t = Typed(value, &json::is_number_integer, "an integer", key).get<std::int64_t>();
            if (t < 0 || t > INT32_MAX)
                throw Failure("settings: zff.LayerThickness must be from 0 to 2147483647 internal units");
            thickness = static_cast<std::int32_t>(t);
        }
        else if (key == "DefaultAttributeSet")
            defaults = ParseSet(value, key);
        else if (key == "AttributeSets")
            for (const auto& [part, set] : Typed(value, &json::is_object, "an object", key).items())
                sets[static_cast<std::uint64_t>(Identifier(part, INT32_MIN, INT32_MAX, key))] =
                    ParseSet(set, key + "." + part);
        else if (key == "AdditionalHeaderAttributes")
            for (const auto& [id, name] : Typed(value, &json::is_object, "an object", key).items())
                meta.AddAdditionalHeaderAttribute(Typed(name, &json::is_string, "a text", key + "." + id).get<std::string>(),
                                                  static_cast<std::uint16_t>(Identifier(id, 1, 65535, key)));
        else
            throw Failure("settings: zff." + key + ": unknown key");
    }
    meta.SetLayerThickness(thickness > 0 ? thickness : setup.LayerThickness);

    // Every part the input holds gets the default attributes of its kinds, unless the
    // settings give the part its own.
    for (const auto& [part, kind] : KindsOfParts(setup.Sources))
    {
        const auto key = static_cast<std::uint64_t>(part);
        const auto own = sets.find(key);
        if (own != sets.end() && own->second.count(kind))
            continue;
        const auto d = defaults.find(kind);
        if (d != defaults.end())
            meta.SetAttributes(key, kind, d->second);
    }
    for (const auto& [part, set] : sets)
        for (const auto& [kind, attributes] : set)
            meta.SetAttributes(part, kind, attributes);
    if (setup.Settings.empty())
        setup.Notes.push_back("scan values from defaults (contours 150 W at 800 mm/s, hatches 200 W at 1000 mm/s)");

    // Coordinates are read back as millimetres: one step per millimetre is the only scale
    // that comes back as written.
    if (setup.ScaleGiven && (setup.UnitConversion != MUnit::GetIE() || setup.InverseResolution != 1))
        throw Failure("ZFF files hold coordinates as millimetres and read back only as written with --units mm "
                      "and --resolution 1");
    setup.UnitConversion = MUnit::GetIE();
    setup.InverseResolution = 1;
    setup.Notes.push_back("coordinates in millimetres");
}

void DescribeZff(const std::string& path, short /*code*/, FileReport& report)
{
    M2DSliceIO_zff io;
    if (!io.OpenFile(StringConversion::Utf8ToNative(path), I2DSliceIO::Read))
    {
        report.Problems.push_back("the file does not open");
        return;
    }
    try
    {
        if (!io.ReadHeader(nullptr))
        {
            report.Problems.push_back(io.GetFailureReason());
            return;
        }
        const auto& values = io.GetHeaderValues();
        const auto value = [&](const char* key) {
            const auto it = values.find(key);
            return it == values.end() ? std::string("(none)") : it->second;
        };
        for (const char* key : {"Origin", "Machine", "Material", "Zunit", "LayerThickness"})
            report.Rows.emplace_back(key, value(key));
        if (value("Zunit") != std::to_string(MUnit::GetIE()))
            report.Warnings.push_back("Zunit " + value("Zunit") +
                                      ": coordinates are read as millimetres, heights scaled by it");
        std::uint64_t layers = 0;
        M2DSliceContainerScanInfo info;
        while (io.ScanLayer(info, nullptr, true))
            ++layers;
        if (!io.GetFailureReason().empty())
            report.Problems.push_back(io.GetFailureReason());
        report.Rows.emplace_back("distinct scan settings", std::to_string(io.GetBuildProperties().size()));
        if (value("Layers") != std::to_string(layers))
            report.Problems.push_back("the header declares " + value("Layers") + " layers, the file holds " +
                                      std::to_string(layers));
    }
    catch (const std::exception& e)
    {
        report.Problems.push_back(io.DescribeStep() + ": " + e.what() + " (a header element is missing)");
    }
}

const FormatHooks hooks = {"zff", PrepareZffWriter, ZffDefaults, DescribeZff};
const bool registered = RegisterFormatHooks(hooks);

} // namespace

} // namespace sliceio
