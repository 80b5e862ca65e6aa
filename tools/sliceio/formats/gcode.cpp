// G-code: the machine profile from the settings file's "gcode" section, keys named as the
// parameter members. "Version" 1 (default) writes with the first writer (code 50), 2 with
// the second, zone-based one. The layer height comes from the input. Without settings the
// defaults make a file for a 0.4 mm nozzle, 1.75 mm filament machine.
//
//     "gcode": { "Version": 1, "RelativeExtrusion": false, "BedTemperature": 60,
//                "StartCode": "G28\nG92 E0", "Nozzles": [ { "TemperatureNozzle": 215 } ],
//                "Speeds": { "Infill": 3600 }, "Zones": { "1": { "Speed": 1200 } } }
#include <functional>
#include <map>
#include <set>

#include "../../../contracts/GCodeParameters.h"
#include "../../../contracts/M2DSlice.h"
#include "../../../contracts/M2DSliceSource.h"
#include "../../../formats/gcode/M2DSliceIO_gcode.h"
#include "../../../formats/gcode/M2DSliceIO_gcode_V2.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

using json = nlohmann::json;

// Reads the keys of one object into members, refusing unknown keys and wrong types.
class Section
{
public:
    Section(const json& object, std::string where) : _object(object), _where(std::move(where))
    {
        if (!_object.is_object())
            throw Failure("settings: " + _where + " must be an object");
    }
    void Number(const char* key, double& out) { _Take(key, [&](const json& v) { _Check(v.is_number(), key, "a number"); out = v.get<double>(); }); }
    void Integer(const char* key, std::int32_t& out)
    {
        _Take(key, [&](const json& v) {
            _Check(v.is_number_integer() && v.get<std::int64_t>() >= INT32_MIN && v.get<std::int64_t>() <= INT32_MAX, key,
                   "a 32-bit integer");
            out = static_cast<std::int32_t>(v.get<std::int64_t>());
        });
    }
    void Bool(const char* key, bool& out) { _Take(key, [&](const json& v) { _Check(v.is_boolean(), key, "true or false"); out = v.get<bool>(); }); }
    void Text(const char* key, std::string& out) { _Take(key, [&](const json& v) { _Check(v.is_string(), key, "a text"); out = v.get<std::string>(); }); }
    // A text of lines ("\n" between them) or an array of lines.
    void Lines(const char* key, std::vector<GCodeRichLine>& out)
    {
        _Take(key, [&](const json& v) {
            if (v.is_string())
            {
                out = GCodeLinesFromText(v.get<std::string>());
                return;
            }
            _Check(v.is_array(), key, "a text or an array of texts");
            out.clear();
            for (const json& line : v)
            {
                _Check(line.is_string(), key, "a text or an array of texts");
                out.emplace_back(line.get<std::string>());
            }
        });
    }
    void Object(const char* key, const std::function<void(Section&)>& read)
    {
        _Take(key, [&](const json& v) {
            Section inner(v, _where + "." + key);
            read(inner);
            inner.Done();
        });
    }
    const json* Raw(const char* key)
    {
        _known.insert(key);
        const auto found = _object.find(key);
        return found == _object.end() ? nullptr : &*found;
    }
    const std::string& Where() const { return _where; }
    void Done() const
    {
        for (const auto& item : _object.items())
            if (_known.count(item.key()) == 0)
                throw Failure("settings: unknown key " + _where + "." + item.key());
    }

private:
    void _Take(const char* key, const std::function<void(const json&)>& read)
    {
        _known.insert(key);
        const auto found = _object.find(key);
        if (found != _object.end())
            read(*found);
    }
    void _Check(bool ok, const char* key, const char* what) const
    {
        if (!ok)
            throw Failure("settings: " + _where + "." + key + " must be " + what);
    }

    const json& _object;
    std::string _where;
    std::set<std::string> _known;
};

void ReadNozzle(Section& s, GCodeNozzleParameters& n)
{
    s.Number("NozzleSize", n.NozzleSize);
    s.Number("TrackWidth", n.TrackWidth);
    s.Number("FilamentWidth", n.FilamentWidth);
    s.Integer("TemperatureNozzle", n.TemperatureNozzle);
    s.Bool("RetractionEnabled", n.RetractionEnabled);
    s.Number("RetractionThreshold", n.RetractionThreshold);
    s.Number("RetractionLength", n.RetractionLength);
    s.Number("RetractionSpeed", n.RetractionSpeed);
    s.Number("RetractionBackLength", n.RetractionBackLength);
    s.Number("RetractionBackSpeed", n.RetractionBackSpeed);
    s.Bool("HopEnabled", n.HopEnabled);
    s.Number("HopThreshhold", n.HopThreshhold);
    s.Number("HopValue", n.HopValue);
    s.Number("HopSpeed", n.HopSpeed);
    s.Bool("UseCustomToolSwitchFromNozzle", n.UseCustomToolSwitchFromNozzle);
    s.Lines("CustomToolSwitchFromNozzle", n.CustomToolSwitchFromNozzle);
    s.Bool("UseCustomToolSwitchToNozzle", n.UseCustomToolSwitchToNozzle);
    s.Lines("CustomToolSwitchToNozzle", n.CustomToolSwitchToNozzle);
}

void ReadBase(Section& s, GCodeBaseParameters& p)
{
    if (const json* words = s.Raw("MoveCommands"))
    {
        if (!words->is_array() || words->size() != eGCodeMoveCommand_Count)
            throw Failure("settings: " + s.Where() + ".MoveCommands must be an array of 5 texts (print, jump, Z move, "
                                                     "speed change, retraction)");
        p.MoveCommands.clear();
        for (const json& w : *words)
        {
            if (!w.is_string())
                throw Failure("settings: " + s.Where() + ".MoveCommands must hold texts");
            p.MoveCommands.push_back(w.get<std::string>());
        }
    }
    s.Lines("PreLayerCode", p.PreLayerCode);
    s.Lines("PostLayerCode", p.PostLayerCode);
    s.Bool("RelativeExtrusion", p.RelativeExtrusion);
    s.Bool("UseCustomStartCode", p.UseCustomStartCode);
    s.Bool("UseCustomEndCode", p.UseCustomEndCode);
    s.Lines("StartCode", p.StartCode);
    s.Lines("CustomStartCode", p.CustomStartCode);
    s.Lines("EndCode", p.EndCode);
    s.Lines("CustomEndCode", p.CustomEndCode);
    s.Number("SliceThickness", p.SliceThickness);
    s.Integer("BedTemperature", p.BedTemperature);
    s.Bool("WaitForNozzleTemperature", p.WaitForNozzleTemperature);
    s.Number("MinimumLayerTime", p.MinimumLayerTime);
    s.Number("MinimumSpeed", p.MinimumSpeed);
    s.Bool("WaitAtLayerEnd", p.WaitAtLayerEnd);
    if (const json* nozzles = s.Raw("Nozzles"))
    {
        if (!nozzles->is_array() || nozzles->empty())
            throw Failure("settings: " + s.Where() + ".Nozzles must be a non-empty array of objects");
        p.Nozzles.assign(nozzles->size(), GCodeNozzleParameters());
        for (std::size_t i = 0; i < nozzles->size(); ++i)
        {
            Section n((*nozzles)[i], s.Where() + ".Nozzles[" + std::to_string(i) + "]");
            ReadNozzle(n, p.Nozzles[i]);
            n.Done();
        }
    }
}

template <class Record>
void ReadCategories(Section& s, Record& r)
{
    s.Number("Contour", r.Contour);
    s.Number("Infill", r.Infill);
    s.Number("SupportPerimeter", r.SupportPerimeter);
    s.Number("SupportInfill", r.SupportInfill);
    s.Number("SupportRoof", r.SupportRoof);
    s.Number("Down", r.Down);
    s.Number("Up", r.Up);
    s.Number("SecondDown", r.SecondDown);
    s.Number("SecondUp", r.SecondUp);
    s.Number("Brim", r.Brim);
    s.Number("Skirt", r.Skirt);
    s.Number("Raft", r.Raft);
    s.Number("FollowingRaft", r.FollowingRaft);
}

void ReadSpeeds(Section& s, GCodeParameters::Speeds& r)
{
    s.Number("JumpSpeed", r.JumpSpeed);
    s.Number("ZSpeed", r.ZSpeed);
    ReadCategories(s, r);
    s.Number("InitialLayer", r.InitialLayer);
}

void ReadZone(Section& s, GCodeZoneParameters& z)
{
    s.Number("Speed", z.Speed);
    s.Number("NozzleTemperature", z.NozzleTemperature);
    s.Number("ExtrusionMultiplier", z.ExtrusionMultiplier);
    s.Number("ZOffset", z.ZOffset);
    s.Bool("SwitchNozzle", z.SwitchNozzle);
    s.Bool("ForceRetraction", z.ForceRetraction);
    s.Bool("ForceHop", z.ForceHop);
    s.Text("Comment", z.Comment);
}

// What the writer leaves out of this input, for the closing line.
void NoteDropped(WriterSetup& setup)
{
    bool contours = false, points = false, vectors = false;
    for (const ISource2DSlices* source : setup.Sources)
        for (std::uint64_t i = 0; source && i < source->GetNumSlices() && !(contours && points && vectors); ++i)
        {
            const std::shared_ptr<const M2DSlice> slice = source->GetSlice(i);
            if (!slice)
                continue;
            contours = contours || slice->GetSliceBorder()->GetNumContours() > 0;
            points = points || slice->GetPoints()->GetNumPointBlocks() > 0;
            vectors = vectors || slice->GetVectors()->GetNumVectorBlocks() > 0;
        }
    if (contours)
        setup.Notes.push_back("contours not printed (only vector blocks are; --contours-as-vectors prints them)");
    if (points)
        setup.Notes.push_back("point blocks dropped");
    if (!vectors)
        setup.Notes.push_back("no vector blocks: the file holds no print moves");
}

void PrepareGcodeWriter(WriterSetup& setup)
{
    Section root(setup.Settings, "gcode");
    std::int32_t version = 1;
    root.Integer("Version", version);
    if (version != 1 && version != 2)
        throw Failure("settings: gcode.Version must be 1 or 2");
    const double layerHeight = setup.LayerThickness > 0 ? setup.LayerThickness / 10000.0 : 0.0;
    if (version == 1)
    {
        GCodeProfile profile;
        ReadBase(root, profile);
        root.Object("Speeds", [&](Section& s) { ReadSpeeds(s, profile.DefaultSpeeds); });
        root.Object("ZOffsets", [&](Section& s) { ReadCategories(s, profile.DefaultZOffsets); });
        root.Object("Extrusions", [&](Section& s) { ReadCategories(s, profile.DefaultExtrusions); });
        root.Integer("InitialLayerCount", profile.InitialLayerCount);
        root.Number("InitialLayerHeightPercent", profile.InitialLayerHeightPercent);
        root.Number("InitialLayerExtrusionPercent", profile.InitialLayerExtrusionPercent);
        if (root.Raw("Zones") != nullptr)
            setup.Notes.push_back("Zones ignored (they belong to Version 2)");
        root.Done();
        if (layerHeight > 0)
            profile.SliceThickness = layerHeight;
        auto* writer = dynamic_cast<I2DSliceIO_gcode*>(setup.Writer);
        if (writer == nullptr)
            throw Failure("the G-code writer of this build is not the expected class");
        writer->SetGCodeProfile(profile);
        setup.Notes.push_back("G-code V1");
    }
    else
    {
        auto profile = std::make_unique<GCodeParametersV2>();
        ReadBase(root, *profile);
        root.Number("JumpSpeed", profile->JumpSpeed);
        root.Number("ZSpeed", profile->ZSpeed);
        if (const json* zones = root.Raw("Zones"))
        {
            if (!zones->is_object())
                throw Failure("settings: gcode.Zones must be an object of parameter index to zone");
            for (const auto& item : zones->items())
            {
                std::size_t used = 0;
                long index = 0;
                try
                {
                    index = std::stol(item.key(), &used);
                }
                catch (const std::exception&)
                {
                    used = 0;
                }
                if (used != item.key().size() || index < 0 || index > INT32_MAX)
                    throw Failure("settings: gcode.Zones." + item.key() + ": a zone's key is its parameter index (0 or more)");
                Section z(item.value(), "gcode.Zones." + item.key());
                ReadZone(z, profile->Zones[static_cast<std::int32_t>(index)]);
                z.Done();
            }
        }
        root.Done();
        if (layerHeight > 0)
            profile->SliceThickness = layerHeight;
        auto writer = std::make_shared<M2DSliceIO_gcode_V2>();
        writer->SetProfile(std::move(profile));
        setup.Replacement = writer;
        setup.Notes.push_back("G-code V2");
    }
    NoteDropped(setup);
}

json GcodeDefaults()
{
    const GCodeProfile p;
    const GCodeNozzleParameters& n = p.GetNozzle(0);
    const auto text = [](const std::vector<GCodeRichLine>& lines) {
        std::string out;
        for (const GCodeRichLine& line : lines)
            out += (out.empty() ? "" : "\n") + line.GetText();
        return out;
    };
    const GCodeParameters::Speeds& s = p.DefaultSpeeds;
    const GCodeZoneParameters zone;
    return json{
        {"Version", 1},
        {"MoveCommands", p.MoveCommands},
        {"StartCode", text(p.StartCode)},
        {"EndCode", text(p.EndCode)},
        {"PreLayerCode", ""},
        {"PostLayerCode", ""},
        {"RelativeExtrusion", p.RelativeExtrusion},
        {"SliceThickness", p.SliceThickness},
        {"BedTemperature", p.BedTemperature},
        {"MinimumLayerTime", p.MinimumLayerTime},
        {"MinimumSpeed", p.MinimumSpeed},
        {"WaitAtLayerEnd", p.WaitAtLayerEnd},
        {"WaitForNozzleTemperature", p.WaitForNozzleTemperature},
        {"Nozzles",
         json::array({json{{"NozzleSize", n.NozzleSize},
                           {"TrackWidth", n.TrackWidth},
                           {"FilamentWidth", n.FilamentWidth},
                           {"TemperatureNozzle", n.TemperatureNozzle},
                           {"RetractionEnabled", n.RetractionEnabled},
                           {"RetractionThreshold", n.RetractionThreshold},
                           {"RetractionLength", n.RetractionLength},
                           {"RetractionSpeed", n.RetractionSpeed},
                           {"RetractionBackLength", n.RetractionBackLength},
                           {"RetractionBackSpeed", n.RetractionBackSpeed},
                           {"HopEnabled", n.HopEnabled},
                           {"HopThreshhold", n.HopThreshhold},
                           {"HopValue", n.HopValue},
                           {"HopSpeed", n.HopSpeed}}})},
        {"Speeds", json{{"JumpSpeed", s.JumpSpeed}, {"ZSpeed", s.ZSpeed}, {"Contour", s.Contour}, {"Infill", s.Infill},
                        {"SupportPerimeter", s.SupportPerimeter}, {"SupportInfill", s.SupportInfill},
                        {"SupportRoof", s.SupportRoof}, {"Down", s.Down}, {"Up", s.Up}, {"SecondDown", s.SecondDown},
                        {"SecondUp", s.SecondUp}, {"Brim", s.Brim}, {"Skirt", s.Skirt}, {"Raft", s.Raft},
                        {"FollowingRaft", s.FollowingRaft}, {"InitialLayer", s.InitialLayer}}},
        {"InitialLayerCount", p.InitialLayerCount},
        {"InitialLayerHeightPercent", p.InitialLayerHeightPercent},
        {"InitialLayerExtrusionPercent", p.InitialLayerExtrusionPercent},
        {"Zones", json{{"0", json{{"Speed", zone.Speed},
                                              {"NozzleTemperature", zone.NozzleTemperature},
                                              {"ExtrusionMultiplier", zone.ExtrusionMultiplier},
                                              {"ZOffset", zone.ZOffset},
                                              {"SwitchNozzle", zone.SwitchNozzle},
                                              {"ForceRetraction", zone.ForceRetraction},
                                              {"ForceHop", zone.ForceHop},
                                              {"Comment", zone.Comment}}}}},
    };
}

const FormatHooks kHooks = {"gcode", PrepareGcodeWriter, GcodeDefaults, nullptr};
const bool registered = RegisterFormatHooks(kHooks);

} // namespace

} // namespace sliceio
