#include "GCodeParameters.h"

#include <cctype>
#include <cstdlib>

#include <fmt/format.h>

#include "PersistentProperties.h"
#include "StringConversion.h"

namespace {

const char* const kDefaultWords[eGCodeMoveCommand_Count] = {"G1", "G0", "G0", "G1", "G1"};

// Marks of one line (without its '\n').
void DeriveLine(const char* p, const char* end, bool& x, bool& y, bool& z, bool& e)
{
    while (p < end && (*p == ' ' || *p == '\t'))
        ++p;
    if (p == end || (*p != 'G' && *p != 'g'))
        return;
    ++p;
    int code = 0;
    int digits = 0;
    while (p < end && std::isdigit(static_cast<unsigned char>(*p)))
    {
        if (digits++ < 3)
            code = code * 10 + (*p - '0');
        ++p;
    }
    const bool setting = digits == 2 && code == 92;
    const bool homing = digits == 2 && code == 28;
    if (!setting && !homing)
        return;
    if (p < end && *p != ' ' && *p != '\t' && *p != ';' && *p != '\r')
        return; // "G920" and the like
    bool named = false;
    bool ax = false, ay = false, az = false, ae = false;
    while (p < end && *p != ';' && *p != '(')
    {
        const char c = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
        ++p;
        if (c != 'X' && c != 'Y' && c != 'Z' && c != 'E')
            continue;
        named = true;
        const char* valueStart = p;
        while (p < end && *p != ' ' && *p != '\t' && *p != ';' && *p != '\r')
            ++p;
        const std::string value(valueStart, p);
        // Homing an axis brings it to its home whatever follows the letter; setting it
        // brings it to zero only for the value 0.
        bool zero = homing;
        if (setting)
        {
            char* stop = nullptr;
            const double v = std::strtod(value.c_str(), &stop);
            zero = !value.empty() && stop != nullptr && *stop == '\0' && v == 0.0;
        }
        if (!zero)
            continue;
        if (c == 'X')
            ax = true;
        else if (c == 'Y')
            ay = true;
        else if (c == 'Z')
            az = true;
        else
            ae = true;
    }
    if (!named)
    {
        ax = ay = az = true;
        ae = setting;
    }
    x = x || ax;
    y = y || ay;
    z = z || az;
    e = e || ae;
}

GCodeNozzleParameters& DefaultNozzle()
{
    static GCodeNozzleParameters nozzle;
    return nozzle;
}

template <class T>
const T& PartRecord(const std::map<std::int32_t, T>& parts, const T& fallback, std::int32_t index)
{
    const auto found = parts.find(index);
    return found == parts.end() ? fallback : found->second;
}

std::wstring Wide(const std::string& text)
{
    return StringConversion::LocaleToNative(text);
}

} // namespace

// ---------------------------------------------------------------- GCodeRichLine

GCodeRichLine::GCodeRichLine(const std::string& text) : _text(text)
{
    DeriveResets(_text.data(), _text.size(), _resetsX, _resetsY, _resetsZ, _resetsE);
}

GCodeRichLine::GCodeRichLine(const char* text) : GCodeRichLine(std::string(text ? text : "")) {}

GCodeRichLine::GCodeRichLine(std::string text, bool resetsX, bool resetsY, bool resetsZ, bool resetsE)
    : _text(std::move(text)), _resetsX(resetsX), _resetsY(resetsY), _resetsZ(resetsZ), _resetsE(resetsE)
{
}

void GCodeRichLine::DeriveResets(const char* text, std::size_t size, bool& x, bool& y, bool& z, bool& e)
{
    x = y = z = e = false;
    const char* p = text;
    const char* end = text + size;
    while (p < end)
    {
        const char* stop = p;
        while (stop < end && *stop != '\n')
            ++stop;
        DeriveLine(p, stop, x, y, z, e);
        p = stop + (stop < end ? 1 : 0);
    }
}

std::vector<GCodeRichLine> GCodeLinesFromText(const std::string& text)
{
    std::vector<GCodeRichLine> lines;
    std::size_t start = 0;
    while (start < text.size())
    {
        std::size_t stop = text.find('\n', start);
        if (stop == std::string::npos)
            stop = text.size();
        lines.emplace_back(text.substr(start, stop - start));
        start = stop + 1;
    }
    return lines;
}

// ---------------------------------------------------------------- GCodeBaseParameters

GCodeBaseParameters::GCodeBaseParameters()
    : MoveCommands(kDefaultWords, kDefaultWords + eGCodeMoveCommand_Count), Nozzles(1), StartCode(DefaultStartCode()),
      EndCode(DefaultEndCode())
{
}

std::vector<GCodeRichLine> GCodeBaseParameters::DefaultStartCode()
{
    return GCodeLinesFromText("; made by ZanSDK SliceIO on %%YYYY%%-%%MM%%-%%DD%%\n"
                              "M140 S%%BedTemperature%%\n"
                              "M104 S%%NozzleTemperature%%\n"
                              "M190 S%%BedTemperature%%\n"
                              "M109 S%%NozzleTemperature%%\n"
                              "G21\n"
                              "G90\n"
                              "%%ExtrusionMode%%\n"
                              "G28\n"
                              "G92 E0");
}

std::vector<GCodeRichLine> GCodeBaseParameters::DefaultEndCode()
{
    return GCodeLinesFromText("M104 S0\n"
                              "M140 S0\n"
                              "G91\n"
                              "G0 Z5 F600\n"
                              "G90\n"
                              "G28 X Y\n"
                              "M84");
}

void GCodeBaseParameters::update()
{
    for (std::size_t i = MoveCommands.size(); i < eGCodeMoveCommand_Count; ++i)
        MoveCommands.emplace_back(kDefaultWords[i]);
    if (Nozzles.empty())
        Nozzles.emplace_back();
}

const std::string& GCodeBaseParameters::GetMoveCommand(eGCodeMoveCommand command) const
{
    static const std::string empty;
    const auto i = static_cast<std::size_t>(command);
    if (command < 0)
        return empty;
    if (i < MoveCommands.size())
        return MoveCommands[i];
    static const std::string defaults[eGCodeMoveCommand_Count] = {"G1", "G0", "G0", "G1", "G1"};
    return i < eGCodeMoveCommand_Count ? defaults[i] : empty;
}

std::vector<GCodeRichLine> GCodeBaseParameters::GetPreLayer(std::uint64_t layer) const
{
    std::vector<GCodeRichLine> lines = PreLayerCode;
    const auto found = PreLayerCodeAt.find(layer);
    if (found != PreLayerCodeAt.end())
        lines.insert(lines.end(), found->second.begin(), found->second.end());
    return lines;
}

std::vector<GCodeRichLine> GCodeBaseParameters::GetPostLayer(std::uint64_t layer) const
{
    std::vector<GCodeRichLine> lines = PostLayerCode;
    const auto found = PostLayerCodeAt.find(layer);
    if (found != PostLayerCodeAt.end())
        lines.insert(lines.end(), found->second.begin(), found->second.end());
    return lines;
}

const GCodeNozzleParameters& GCodeBaseParameters::GetNozzle(std::int32_t nozzle) const
{
    if (Nozzles.empty())
        return DefaultNozzle();
    if (nozzle >= 0 && static_cast<std::size_t>(nozzle) < Nozzles.size())
        return Nozzles[static_cast<std::size_t>(nozzle)];
    return Nozzles[0];
}

static std::int32_t NozzleNumber(std::uint64_t n)
{
    return n > 2147483647u ? -1 : static_cast<std::int32_t>(n);
}

bool GCodeBaseParameters::GetUseCustomToolSwitchFromNozzle(std::uint64_t n) const
{
    return GetNozzle(NozzleNumber(n)).UseCustomToolSwitchFromNozzle;
}

std::vector<GCodeRichLine> GCodeBaseParameters::GetCustomToolSwitchFromNozzle(std::uint64_t n) const
{
    return GetNozzle(NozzleNumber(n)).CustomToolSwitchFromNozzle;
}

bool GCodeBaseParameters::GetUseCustomToolSwitchToNozzle(std::uint64_t n) const
{
    return GetNozzle(NozzleNumber(n)).UseCustomToolSwitchToNozzle;
}

std::vector<GCodeRichLine> GCodeBaseParameters::GetCustomToolSwitchToNozzle(std::uint64_t n) const
{
    return GetNozzle(NozzleNumber(n)).CustomToolSwitchToNozzle;
}

// ---------------------------------------------------------------- GCodeParameters

const GCodeParameters::ZOffsets& GCodeParameters::GetZOffsets(std::int32_t index) const
{
    return PartRecord(PartZOffsets, DefaultZOffsets, index);
}

const GCodeParameters::Speeds& GCodeParameters::GetSpeeds(std::int32_t index) const
{
    return PartRecord(PartSpeeds, DefaultSpeeds, index);
}

const GCodeParameters::Extrusions& GCodeParameters::GetExtrusions(std::int32_t index) const
{
    return PartRecord(PartExtrusions, DefaultExtrusions, index);
}

GCodeZoneParameters GCodeParametersV2::GetZoneOverrideParameterSet(std::int32_t index) const
{
    const auto found = Zones.find(index);
    return found == Zones.end() ? GCodeZoneParameters() : found->second;
}

// ---------------------------------------------------------------- dictionary and hook

void AddProfileProperties(const GCodeBaseParameters& parameters, PersistentProperties& properties)
{
    const GCodeNozzleParameters& nozzle = parameters.GetNozzle(0);
    properties.SetValue(L"NozzleTemperature", Wide(fmt::format("{}", nozzle.TemperatureNozzle)));
    properties.SetValue(L"BedTemperature", Wide(fmt::format("{}", parameters.BedTemperature)));
    properties.SetValue(L"SliceThickness", Wide(fmt::format("{:g}", parameters.SliceThickness)));
    properties.SetValue(L"NozzleSize", Wide(fmt::format("{:g}", nozzle.NozzleSize)));
    properties.SetValue(L"TrackWidth", Wide(fmt::format("{:g}", nozzle.TrackWidth)));
    properties.SetValue(L"FilamentWidth", Wide(fmt::format("{:g}", nozzle.FilamentWidth)));
    properties.SetValue(L"ExtrusionMode", std::wstring(parameters.RelativeExtrusion ? L"M83" : L"M82"));
    properties.SetValue(L"NozzleCount", Wide(fmt::format("{}", parameters.Nozzles.size())));
}

void NozzleSwitchHook::_OnNozzleSwitch(std::vector<GCodeRichLine>& lines, std::uint64_t nozzle, std::uint64_t layer)
{
    lines.clear();
    const auto found = _lines.find(nozzle);
    if (found == _lines.end() || found->second.empty())
        return;
    const std::vector<GCodeRichLine>* chosen = nullptr;
    std::uint64_t chosenKey = 0;
    for (const auto& [key, value] : found->second)
    {
        if (key > layer)
            break;
        chosen = &value;
        chosenKey = key;
    }
    if (chosen == nullptr || chosenKey == 0)
        return;
    lines = *chosen;
}
