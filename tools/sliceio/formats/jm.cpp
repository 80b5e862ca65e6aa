// The tool's side of JM job files: thickness, part names and manufacturing entries, from the
// settings file's "jm" section or from the input.
#include <climits>
#include <cstdint>

#include <fmt/format.h>

#include "../../../contracts/PersistentProperties.h"
#include "../../../formats/jm/M2DSliceIO_jm.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

using nlohmann::json;

const char* const kEntryShape = "a list of {\"Name\": text, \"Values\": up to ten whole numbers}";

json Defaults()
{
    // Thickness null: the input's layer thickness; PartNames empty: the input's part names.
    json entry = json::object();
    entry["Name"] = "default";
    entry["Values"] = json::array({0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    json settings = json::object();
    settings["Thickness"] = nullptr;
    settings["PartNames"] = json::array();
    settings["ManufacturingData"] = json::array({entry});
    return settings;
}

bool IsWhole(const json& value) { return value.is_number_integer() && value.get<std::int64_t>() >= 0 && value.get<std::int64_t>() <= UINT32_MAX; }

[[noreturn]] void Wrong(const std::string& key, const char* expected)
{
    throw Failure(fmt::format("settings: \"jm.{}\" must be {}", key, expected));
}

void Prepare(WriterSetup& setup)
{
    auto* jm = dynamic_cast<M2DSliceIO_jm*>(setup.Writer);
    if (!jm)
        return;
    json settings = Defaults();
    for (const auto& [key, value] : setup.Settings.items())
    {
        if (!settings.contains(key))
            throw Failure(
                fmt::format("settings: unknown key \"jm.{}\" (known: Thickness, PartNames, ManufacturingData)", key));
        settings[key] = value;
    }

    // Micrometres; by default the input's layer thickness.
    const json& thickness = settings["Thickness"];
    if (!thickness.is_null() && (!IsWhole(thickness) || thickness.get<std::int64_t>() > INT32_MAX))
        Wrong("Thickness", "a whole number of micrometres");
    const std::int32_t micrometres = thickness.is_null() ? M2DSliceIO_jm::StlUnitsToMicrometers(setup.LayerThickness)
                                                         : thickness.get<std::int32_t>();
    jm->SetThickness(micrometres);

    std::vector<std::wstring> names;
    const json& partNames = settings["PartNames"];
    if (!partNames.is_array())
        Wrong("PartNames", "a list of texts");
    for (const json& name : partNames)
    {
        if (!name.is_string())
            Wrong("PartNames", "a list of texts");
        const std::string text = name.get<std::string>();
        names.emplace_back(text.begin(), text.end());
    }
    if (names.empty())
        for (std::size_t i = 0; i < setup.Sources.size(); ++i)
        {
            std::wstring name = L"part" + std::to_wstring(i + 1);
            if (const PersistentProperties* properties = setup.Sources[i] ? setup.Sources[i]->GetProperties() : nullptr)
                properties->GetValue(L"PartName", name);
            names.push_back(name);
        }
    jm->SetPartNames(names);

    std::vector<M2DSliceIO_jm::ManufacturingData> entries;
    const json& data = settings["ManufacturingData"];
    if (!data.is_array())
        Wrong("ManufacturingData", kEntryShape);
    for (const json& entry : data)
    {
        M2DSliceIO_jm::ManufacturingData d;
        if (!entry.is_object() || !entry.contains("Name") || !entry["Name"].is_string())
            Wrong("ManufacturingData", kEntryShape);
        d.Name = entry["Name"].get<std::string>();
        if (entry.contains("Values"))
        {
            const json& values = entry["Values"];
            if (!values.is_array() || values.size() > 10)
                Wrong("ManufacturingData", kEntryShape);
            for (std::size_t i = 0; i < values.size(); ++i)
            {
                if (!IsWhole(values[i]))
                    Wrong("ManufacturingData", kEntryShape);
                d.Values[i] = values[i].get<std::uint32_t>();
            }
        }
        entries.push_back(d);
    }
    jm->SetManufacturingData(entries);
    setup.Notes.push_back(fmt::format("{} part names, {} manufacturing entries, layers of {} um", names.size(),
                                      entries.size(), micrometres));
}

const FormatHooks kHooks = [] {
    FormatHooks hooks;
    hooks.Family = "jm";
    hooks.PrepareWriter = Prepare;
    hooks.DefaultSettings = Defaults;
    return hooks;
}();

const bool registered = RegisterFormatHooks(kHooks);

} // namespace

} // namespace sliceio
