#include "Settings.h"

#include <climits>
#include <cstdio>
#include <set>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "../../contracts/M2DSliceBuildParameters.h"
#include "../../contracts/StringConversion.h"
#include "../../framework/FormatDescriptor.h"
#include "FormatHooks.h"
#include "Parts.h"
#include "Tool.h"

namespace sliceio {

namespace {

const char* const kTypeNames[] = {"None",          "Border",        "ContourGroup2", "ContourGroup3",
                                  "Other",         "Kind5",         "Hatch",         "VectorGroup7",
                                  "VectorGroup8",  "Kind9",         "Kind10",        "Kind11"};

std::string Where(const std::string& path) { return path.empty() ? "settings" : "settings file " + path; }

// A vector type named in "labels": its name or its number; -1 for "*".
int TypeOf(const std::string& key, const std::string& where)
{
    if (key == "*")
        return -1;
    for (int i = 0; i < static_cast<int>(std::size(kTypeNames)); ++i)
        if (key == kTypeNames[i] || key == std::to_string(i))
            return i;
    throw Failure(fmt::format("{}: unknown vector type \"labels\".\"{}\" (one of *, Border, Hatch, Other, Kind5, ... "
                              "or a number 0 to 11)",
                              where, key));
}

// The JSON type category of a value, for comparing a section's values with its defaults.
std::string Kind(const nlohmann::json& value)
{
    if (value.is_number())
        return "number";
    return value.type_name();
}

void CheckBuildParameters(const nlohmann::json& list, const std::string& where)
{
    if (!list.is_array())
        throw Failure(where + ".\"M2DSliceBuildParameters\" must be a list of build styles");
    for (const auto& style : list)
    {
        if (!style.is_object())
            throw Failure(where + ".\"M2DSliceBuildParameters\" must hold objects");
        for (const auto& [key, value] : style.items())
        {
            const bool known = key == "ID" || key == "Name" || key == "Speed" || key == "LaserPower" || key == "LaserDiameter";
            if (!known)
                throw Failure(fmt::format("{}.\"M2DSliceBuildParameters\": unknown key \"{}\" (ID, Name, Speed, "
                                          "LaserPower, LaserDiameter)",
                                          where, key));
            const bool ok = key == "Name" ? value.is_string()
                            : key == "ID" ? value.is_number_integer() && value.get<std::int64_t>() >= INT32_MIN &&
                                                value.get<std::int64_t>() <= INT32_MAX
                                          : value.is_number();
            if (!ok)
                throw Failure(fmt::format("{}.\"M2DSliceBuildParameters\": \"{}\" must be {}", where, key,
                                          key == "Name" ? "a text" : key == "ID" ? "a whole number" : "a number"));
        }
    }
}

void CheckGeneral(const nlohmann::json& file, const std::string& where)
{
    if (file.contains("parts"))
    {
        const nlohmann::json& parts = file["parts"];
        if (!parts.is_object())
            throw Failure(where + ": \"parts\" must be an object keyed by part id or name");
        for (const auto& [part, values] : parts.items())
        {
            const std::string at = fmt::format("{}: \"parts\".\"{}\"", where, part);
            if (!values.is_object())
                throw Failure(at + " must be an object of properties");
            for (const auto& [key, value] : values.items())
            {
                if (key == "M2DSliceBuildParameters")
                    CheckBuildParameters(value, at);
                else if (!value.is_boolean() && !value.is_number() && !value.is_string())
                    throw Failure(fmt::format("{}.\"{}\" must be a boolean, a number or a text", at, key));
                else if (key == "PartID" && !value.is_number_integer())
                    throw Failure(at + ".\"PartID\" must be a whole number");
            }
        }
    }
    if (file.contains("labels"))
    {
        const nlohmann::json& labels = file["labels"];
        if (!labels.is_object())
            throw Failure(where + ": \"labels\" must be an object keyed by vector type");
        for (const auto& [type, values] : labels.items())
        {
            TypeOf(type, where);
            const std::string at = fmt::format("{}: \"labels\".\"{}\"", where, type);
            if (!values.is_object())
                throw Failure(at + " must be an object of tags");
            for (const auto& [key, value] : values.items())
                if (key == "Parameter" ? !value.is_number_integer() : !value.is_number())
                    throw Failure(fmt::format("{}.\"{}\" must be {}", at, key,
                                              key == "Parameter" ? "a whole number" : "a number"));
        }
    }
}

// A section against its family's defaults: every key known, every value of the default's
// kind. The family's PrepareWriter checks further when it writes.
void CheckSection(const std::string& family, const nlohmann::json& section, const std::string& where)
{
    if (!section.is_object())
        throw Failure(fmt::format("{}: \"{}\" must be an object", where, family));
    const FormatHooks* hooks = FindFormatHooks(family);
    const nlohmann::json defaults = hooks && hooks->DefaultSettings ? hooks->DefaultSettings() : nlohmann::json::object();
    for (const auto& [key, value] : section.items())
    {
        if (!defaults.contains(key))
        {
            std::string known;
            for (const auto& entry : defaults.items())
                known += (known.empty() ? "" : ", ") + entry.key();
            throw Failure(fmt::format("{}: unknown key \"{}\".\"{}\" ({})", where, family, key,
                                      known.empty() ? "the section takes no keys" : "known: " + known));
        }
        const nlohmann::json& expected = defaults[key];
        if (!expected.is_null() && Kind(expected) != Kind(value))
            throw Failure(fmt::format("{}: \"{}\".\"{}\" must be a {}, not a {}", where, family, key, Kind(expected),
                                      Kind(value)));
    }
}

} // namespace

nlohmann::json LoadSettings(const std::optional<std::string>& path)
{
    if (!path)
        return nlohmann::json::object();
    CheckInputFile(*path);
    std::ifstream in(*path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    nlohmann::json file;
    try
    {
        file = nlohmann::json::parse(text.str());
    }
    catch (const nlohmann::json::parse_error& e)
    {
        std::string message = e.what();
        const std::size_t colon = message.find(": ");
        if (message.rfind("[json.exception", 0) == 0 && colon != std::string::npos)
            message = message.substr(colon + 2);
        throw Failure(fmt::format("{}: not JSON: {}", Where(*path), message));
    }
    const std::string where = Where(*path);
    if (!file.is_object())
        throw Failure(where + ": must hold one JSON object");
    for (const auto& [key, value] : file.items())
    {
        if (key == "parts" || key == "labels")
            continue;
        bool family = false;
        for (const FormatDescriptor* descriptor : FormatRegistry::Families())
            family = family || key == descriptor->Family;
        if (!family)
        {
            std::string known;
            for (const FormatDescriptor* descriptor : FormatRegistry::Families())
                known += std::string(", ") + descriptor->Family;
            throw Failure(fmt::format("{}: unknown key \"{}\" (general keys: parts, labels; format sections{})",
                                      where, key, known));
        }
        CheckSection(key, value, where);
    }
    CheckGeneral(file, where);
    return file;
}

nlohmann::json EffectiveSettings(const nlohmann::json& file)
{
    nlohmann::json out = nlohmann::json::object();
    out["parts"] = file.contains("parts") ? file["parts"] : nlohmann::json::object();
    out["labels"] = file.contains("labels") ? file["labels"] : nlohmann::json::object();
    for (const FormatDescriptor* descriptor : FormatRegistry::Families())
    {
        const FormatHooks* hooks = FindFormatHooks(descriptor->Family);
        nlohmann::json section = hooks && hooks->DefaultSettings ? hooks->DefaultSettings() : nlohmann::json::object();
        if (file.contains(descriptor->Family))
            section.merge_patch(file[descriptor->Family]);
        out[descriptor->Family] = section;
    }
    return out;
}

nlohmann::json SectionOf(const nlohmann::json& file, const std::string& family)
{
    return file.contains(family) ? file[family] : nlohmann::json::object();
}

namespace {

void SetBuildParameters(PersistentProperties& properties, const nlohmann::json& list)
{
    M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(&properties, true);
    for (const auto& style : list)
    {
        M2DSliceBuildParameters::Instance instance;
        instance.SetID(style.value("ID", 0));
        instance.SetName(StringConversion::Utf8ToNative(style.value("Name", std::string())).c_str());
        instance.SetSpeed(style.value("Speed", 0.0));
        instance.SetLaserPower(style.value("LaserPower", 0.0));
        instance.SetLaserDiameter(style.value("LaserDiameter", 0.0));
        table->AddInstance(instance);
    }
}

void ApplyPart(PartSource& part, const nlohmann::json& values, const std::string& where)
{
    nlohmann::json plain = values;
    if (plain.contains("M2DSliceBuildParameters"))
    {
        SetBuildParameters(part.Properties(), plain["M2DSliceBuildParameters"]);
        plain.erase("M2DSliceBuildParameters");
    }
    SetProperties(part.Properties(), plain, where);
}

// The tags of a label entry, on a label that lacks them.
void ApplyLabel(M2DSliceVectorTypeInfo& label, const nlohmann::json& tags)
{
    for (const auto& [key, value] : tags.items())
    {
        if (key == "Parameter")
        {
            if (label.GetIndex(e2DSliceVectorTypeIndex_Parameter) == 0)
                label.SetIndex(e2DSliceVectorTypeIndex_Parameter, value.get<std::int32_t>());
            continue;
        }
        const int id = M2DSliceVectorTypeInfo::GetNumberID(StringConversion::Utf8ToNative(key).c_str());
        if (label.GetNumber(id) == 0.0)
            label.SetNumber(id, value.get<double>());
    }
}

} // namespace

void ApplyGeneralSettings(const nlohmann::json& file, const std::vector<PartSource*>& parts)
{
    if (file.contains("parts"))
    {
        const nlohmann::json& settings = file["parts"];
        std::set<std::string> used = {"*"};
        for (PartSource* part : parts)
        {
            const auto* name = part->Properties().GetPropertyOfType<std::wstring>(L"PartName");
            const std::string partName = name ? StringConversion::NativeToUtf8(name->GetValue()) : std::string();
            // Least specific first: every part, then by id, then by name.
            for (const std::string& key : {std::string("*"), std::to_string(part->GetPart()), partName})
                if (!key.empty() && settings.contains(key))
                {
                    ApplyPart(*part, settings[key], "settings: \"parts\".\"" + key + "\"");
                    used.insert(key);
                }
        }
        // A key that names no part is most likely a typing error: say so, and go on.
        for (const auto& entry : settings.items())
            if (!used.count(entry.key()))
                std::fprintf(stderr, "sliceio: warning: settings: \"parts\".\"%s\" names no part of the input\n",
                             entry.key().c_str());
    }
    if (file.contains("labels"))
    {
        const nlohmann::json& labels = file["labels"];
        const auto apply = [&labels](M2DSliceVectorTypeInfo& label) {
            const int type = label.GetType();
            for (const auto& [key, tags] : labels.items())
                if (key != "*" && TypeOf(key, "settings") == type)
                    ApplyLabel(label, tags);
            if (labels.contains("*"))
                ApplyLabel(label, labels["*"]);
        };
        for (PartSource* part : parts)
            for (const auto& slice : part->Slices())
            {
                for (M2DSliceContour& contour : *slice->GetSliceBorderUpdate())
                    apply(contour.GetTypeInfoUpdate());
                for (std::size_t k = 0; k < slice->GetVectors()->GetNumVectorBlocks(); ++k)
                    apply(slice->GetVectorsUpdate()->GetVectorBlock(k)->GetTypeInfoUpdate());
                for (std::size_t k = 0; k < slice->GetPoints()->GetNumPointBlocks(); ++k)
                    apply(slice->GetPointsUpdate()->GetPointBlock(k)->GetTypeInfoUpdate());
            }
    }
}

} // namespace sliceio
