// The tool's side of WZA job files: the scan parameter table per part and the version from the
// settings file's "wza" section, or a table made from the input's parts and labels; the slice
// height from the input's layer thickness; the header and the digest in `info` and `check`.
#include <cctype>
#include <cmath>
#include <list>
#include <map>

#include <fmt/format.h>

#include "../../../contracts/M2DSliceSource.h"
#include "../../../contracts/PersistentProperties.h"
#include "../../../formats/wza/M2DSliceIO_wza.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

using nlohmann::json;
using WZADataStructures::ScanValues;
using WZADataStructures::WZAPartStructure;

const char* const kKeys = "Version, SliceHeightMm, JobName, Material, MachineType, MachineTypeId, Default, Parts";
const char* const kValueKeys =
    "TypeCode, Speed, Power, LaserDiameter, PulsingEnabled, PulsingDuration, PulsingPeriod, VectorDelay, EntityDelay";

json ValuesToJson(const ScanValues& v)
{
    return {{"TypeCode", v.TypeCode},
            {"Speed", v.Speed},
            {"Power", v.Power},
            {"LaserDiameter", v.LaserDiameter},
            {"PulsingEnabled", v.PulsingEnabled},
            {"PulsingDuration", v.PulsingDuration},
            {"PulsingPeriod", v.PulsingPeriod},
            {"VectorDelay", v.VectorDelay},
            {"EntityDelay", v.EntityDelay}};
}

// Hatches at 1000 mm/s and 200 W with a 0.1 mm spot: values a machine takes.
ScanValues DefaultValues()
{
    ScanValues v;
    v.TypeCode = 2000;
    v.Speed = 1000.0f;
    v.Power = 200.0f;
    v.LaserDiameter = 0.1f;
    return v;
}

json Defaults()
{
    // SliceHeightMm null: the input's layer thickness. Parts empty: one part per part id of the
    // input, every parameter index of it with the default values, the type code chosen by the
    // block's vector type and power, speed and diameter taken from its label where it has them.
    return {{"Version", 4000},
            {"SliceHeightMm", nullptr},
            {"JobName", "sliceio"},
            {"Material", ""},
            {"MachineType", ""},
            {"MachineTypeId", 0},
            {"Default", ValuesToJson(DefaultValues())},
            {"Parts", json::array()}};
}

bool IsWhole(const json& j) { return j.is_number_integer() && j.get<std::int64_t>() >= 0 && j.get<std::int64_t>() <= UINT32_MAX; }

[[noreturn]] void Wrong(const std::string& key, const char* expected)
{
    throw Failure(fmt::format("settings: \"wza.{}\" must be {}", key, expected));
}

ScanValues ValuesFromJson(const json& j, const std::string& key, ScanValues v)
{
    if (!j.is_object())
        Wrong(key, "an object of scan values");
    for (const auto& item : j.items())
    {
        // Plain names, not structured bindings: lambdas below take them.
        const std::string name = item.key();
        const json& value = item.value();
        const std::string where = key + "." + name;
        auto whole = [&]() {
            if (!IsWhole(value))
                Wrong(where, "a whole number");
            return value.get<std::uint32_t>();
        };
        auto number = [&]() {
            if (!value.is_number())
                Wrong(where, "a number");
            return value.get<float>();
        };
        if (name == "TypeCode")
            v.TypeCode = whole();
        else if (name == "Speed")
            v.Speed = number();
        else if (name == "Power")
            v.Power = number();
        else if (name == "LaserDiameter")
            v.LaserDiameter = number();
        else if (name == "PulsingEnabled")
        {
            if (!value.is_boolean())
                Wrong(where, "true or false");
            v.PulsingEnabled = value.get<bool>();
        }
        else if (name == "PulsingDuration")
            v.PulsingDuration = whole();
        else if (name == "PulsingPeriod")
            v.PulsingPeriod = whole();
        else if (name == "VectorDelay")
            v.VectorDelay = whole();
        else if (name == "EntityDelay")
            v.EntityDelay = whole();
        else
            throw Failure(fmt::format("settings: unknown key \"wza.{}\" (known: {})", where, kValueKeys));
    }
    return v;
}

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// The code a block of this vector type is exposed with; the reader maps these codes back to
// the same types.
std::uint32_t CodeForType(e2DSliceVectorType type, std::uint32_t fallback)
{
    switch (type)
    {
    case e2DSliceVectorType_Border:
        return 1000;
    case e2DSliceVectorType_Hatch:
        return 2000;
    case e2DSliceVectorType_ContourGroup3:
        return 11000;
    case e2DSliceVectorType_VectorGroup8:
        return 12000;
    case e2DSliceVectorType_ContourGroup2:
        return 21000;
    case e2DSliceVectorType_VectorGroup7:
        return 22000;
    default:
        return fallback;
    }
}

// One part per part id of the input's vector blocks, with an entry for every parameter index.
std::list<WZAPartStructure> PartsFromInput(const std::vector<const ISource2DSlices*>& sources, const ScanValues& base)
{
    std::map<std::int32_t, WZAPartStructure> parts;
    // Names the input gives its parts.
    std::map<std::int32_t, std::wstring> names;
    for (const ISource2DSlices* source : sources)
        if (const PersistentProperties* properties = source ? source->GetProperties() : nullptr)
        {
            std::int32_t id = 0;
            std::wstring name;
            if (properties->GetValue(L"PartID", id) && properties->GetValue(L"PartName", name))
                names[id] = name;
        }
    for (const ISource2DSlices* source : sources)
    {
        if (!source)
            continue;
        for (std::uint64_t i = 0; i < source->GetNumSlices(); ++i)
        {
            const std::shared_ptr<const M2DSlice> slice = source->GetSlice(i);
            if (!slice)
                continue;
            for (const M2DSliceVectorBlock* b = slice->GetVectors()->GetFirstVectorBlock(); b;
                 b = b->GetNextVectorBlock())
            {
                const M2DSliceVectorTypeInfo& info = b->GetTypeInfo();
                const std::int32_t id = info.GetIndex(e2DSliceVectorTypeIndex_Part);
                WZAPartStructure& part = parts[id];
                if (part.Name.empty())
                {
                    part.Id = id;
                    const auto named = names.find(id);
                    part.Name = named != names.end() ? named->second : L"part" + std::to_wstring(id + 1);
                }
                const std::int32_t key = info.GetIndex(e2DSliceVectorTypeIndex_Parameter);
                if (part.ScanValuesByKey.count(key))
                    continue;
                ScanValues v = base;
                v.TypeCode = CodeForType(info.GetType(), base.TypeCode);
                if (info.GetNumber(e2DSliceVectorTypeNumber_0) > 0)
                    v.Power = static_cast<float>(info.GetNumber(e2DSliceVectorTypeNumber_0));
                if (info.GetNumber(e2DSliceVectorTypeNumber_1) > 0)
                    v.Speed = static_cast<float>(info.GetNumber(e2DSliceVectorTypeNumber_1));
                if (info.GetNumber(e2DSliceVectorTypeNumber_2) > 0)
                    v.LaserDiameter = static_cast<float>(info.GetNumber(e2DSliceVectorTypeNumber_2));
                part.ScanValuesByKey[key] = v;
            }
        }
    }
    std::list<WZAPartStructure> list;
    for (auto& entry : parts)
        list.push_back(std::move(entry.second));
    return list;
}

void Prepare(WriterSetup& setup)
{
    auto* wza = dynamic_cast<M2DSliceIO_wza*>(setup.Writer);
    if (!wza)
        return;
    json settings = Defaults();
    for (const auto& [key, value] : setup.Settings.items())
    {
        if (!settings.contains(key))
            throw Failure(fmt::format("settings: unknown key \"wza.{}\" (known: {})", key, kKeys));
        settings[key] = value;
    }

    const json& version = settings["Version"];
    if (!IsWhole(version) || version.get<unsigned>() < 1401 || version.get<unsigned>() > 4000)
        Wrong("Version", "a whole number from 1401 to 4000 (older versions cannot read the header written)");
    wza->SetVersion(version.get<unsigned>());

    const json& height = settings["SliceHeightMm"];
    if (!height.is_null() && (!height.is_number() || height.get<double>() <= 0))
        Wrong("SliceHeightMm", "a positive number of millimetres");
    const std::int32_t sliceHeight = height.is_null()
                                         ? setup.LayerThickness
                                         : static_cast<std::int32_t>(std::lround(height.get<double>() * MUnit::GetIE()));
    wza->SetSliceHeight(sliceHeight);

    for (const char* key : {"JobName", "Material", "MachineType"})
        if (!settings[key].is_string())
            Wrong(key, "a text");
    if (!IsWhole(settings["MachineTypeId"]))
        Wrong("MachineTypeId", "a whole number");
    wza->SetJobName(Wide(settings["JobName"].get<std::string>()));
    wza->SetMachineTypeId(settings["MachineTypeId"].get<unsigned>());
    wza->SetMetaTexts(Wide(settings["Material"].get<std::string>()), Wide(settings["MachineType"].get<std::string>()));

    const ScanValues base = ValuesFromJson(settings["Default"], "Default", DefaultValues());
    std::list<WZAPartStructure> parts;
    const json& table = settings["Parts"];
    if (!table.is_array())
        Wrong("Parts", "a list of {\"Id\", \"Name\", \"BuildStrategy\", \"ScanValues\": {index: values}}");
    for (std::size_t i = 0; i < table.size(); ++i)
    {
        const json& entry = table[i];
        const std::string where = fmt::format("Parts[{}]", i);
        if (!entry.is_object() || !entry.contains("Id") || !entry["Id"].is_number_integer())
            Wrong(where, "an object with a whole \"Id\"");
        WZAPartStructure part;
        part.Id = entry["Id"].get<std::int32_t>();
        part.Name = Wide(entry.value("Name", fmt::format("part{}", part.Id)));
        part.BuildStrategy = Wide(entry.value("BuildStrategy", std::string()));
        if (entry.contains("ScanValues"))
        {
            if (!entry["ScanValues"].is_object())
                Wrong(where + ".ScanValues", "an object of parameter index to scan values");
            for (const auto& [key, values] : entry["ScanValues"].items())
            {
                std::int32_t index = 0;
                try
                {
                    std::size_t used = 0;
                    index = std::stoi(key, &used);
                    if (used != key.size())
                        throw std::invalid_argument(key);
                }
                catch (const std::exception&)
                {
                    Wrong(where + ".ScanValues", "keyed by whole parameter indexes");
                }
                part.ScanValuesByKey[index] = ValuesFromJson(values, where + ".ScanValues." + key, base);
            }
        }
        parts.push_back(std::move(part));
    }
    const bool fromInput = parts.empty();
    if (fromInput)
        parts = PartsFromInput(setup.Sources, base);
    const std::size_t count = parts.size();
    wza->SetParts(std::move(parts));
    setup.Notes.push_back(fmt::format("version {}, slices of {} mm, {} part{} with scan parameters {}",
                                      version.get<unsigned>(), sliceHeight / static_cast<double>(MUnit::GetIE()),
                                      count, count == 1 ? "" : "s", fromInput ? "from defaults" : "from the settings"));
    setup.Notes.push_back("point blocks are not written");
}

std::string WithoutNul(std::string text)
{
    while (!text.empty() && (text.back() == '\0' || text.back() == '\xff'))
        text.pop_back();
    return text;
}

void Describe(const std::string& path, short /*code*/, FileReport& report)
{
    M2DSliceIO_wza io;
    const std::wstring wide = WidePath(path);
    if (io.OpenFile(wide, I2DSliceIO::Read) && io.ReadHeader(nullptr))
    {
        const auto& p = io.GetHeaderProperties();
        auto get = [&](const char* key) {
            const auto it = p.find(key);
            return it == p.end() ? std::string() : it->second;
        };
        report.Rows.emplace_back("WZA version", get("VERSION"));
        report.Rows.emplace_back("job name", WithoutNul(get("NAME")));
        if (!get("MACHINE_TYPE_ID").empty())
            report.Rows.emplace_back("machine type id", get("MACHINE_TYPE_ID"));
        report.Rows.emplace_back("slice height", fmt::format("{:.4f} mm", io.GetSliceHeight() / 10000.0));
        for (const auto& [id, name] : io.GetPartsById())
            report.Parts[static_cast<std::int32_t>(id)] = {{"PartName", name}};
        try
        {
            report.DeclaredLayers = std::stoll(get("SLICE_COUNT"));
        }
        catch (const std::exception&)
        {
        }
    }
    io.CloseFile();

    std::string stored;
    const std::string computed = M2DSliceIO_wza::DigestOfFileBody(wide, &stored);
    std::string lower = stored;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!computed.empty() && lower == computed)
        report.Rows.emplace_back("MD5 digest", "matches (" + computed + ")");
    else
    {
        const std::string what = computed.empty() ? "the file is too short to hold an MD5 digest"
                                                  : "the MD5 digest at the end does not match the file (computed " +
                                                        computed + ")";
        report.Rows.emplace_back("MD5 digest", computed.empty() ? "missing" : "does not match (computed " + computed + ")");
        report.Problems.push_back(what);
    }
}

const FormatHooks kHooks = [] {
    FormatHooks hooks;
    hooks.Family = "wza";
    hooks.PrepareWriter = Prepare;
    hooks.DefaultSettings = Defaults;
    hooks.DescribeFile = Describe;
    return hooks;
}();

const bool registered = RegisterFormatHooks(kHooks);

} // namespace

} // namespace sliceio
