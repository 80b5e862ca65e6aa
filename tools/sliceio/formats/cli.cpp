// The tool's side of the Common Layer Interface: the header's declarations for info and
// check (layer count, extents, part labels, a unit text that the reader takes at another
// scale), and the scale a CLI file must be written at to read back.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>

#include <fmt/format.h>

#include "../../../contracts/M2DSliceSource.h"
#include "../../../contracts/PersistentProperties.h"
#include "../../../contracts/StringConversion.h"
#include "../../../framework/M2DSliceIOFactory.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {
namespace {

// The header entries "$$NAME/value" up to "$$HEADEREND", in file order. The value runs to
// the end of its line or to the next "$$".
std::vector<std::pair<std::string, std::string>> HeaderEntries(const std::string& path)
{
    constexpr std::size_t kMaxHeader = 1 << 20;
    std::ifstream in(path, std::ios::binary);
    std::string text(kMaxHeader, '\0');
    in.read(&text[0], static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    const std::size_t end = text.find("$$HEADEREND");
    text.resize(end == std::string::npos ? text.size() : end);

    std::vector<std::pair<std::string, std::string>> entries;
    for (std::size_t at = text.find("$$"); at != std::string::npos;)
    {
        const std::size_t next = text.find("$$", at + 2);
        std::string entry = text.substr(at + 2, (next == std::string::npos ? text.size() : next) - at - 2);
        entry = entry.substr(0, entry.find_first_of("\r\n"));
        const std::size_t slash = entry.find('/');
        if (slash != std::string::npos)
            entries.emplace_back(entry.substr(0, slash), entry.substr(slash + 1));
        at = next;
    }
    return entries;
}

bool ParseDouble(const std::string& text, double& value)
{
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos)
        return false;
    const char* first = text.data() + start;
    const char* last = text.data() + text.size();
    // from_chars takes no leading '+' and no leading '.'; "0" in front of the dot is the same number.
    std::string copy;
    if (*first == '.')
    {
        copy = "0" + std::string(first, last);
        first = copy.data();
        last = copy.data() + copy.size();
    }
    const auto result = std::from_chars(first, last, value);
    return result.ec == std::errc() && std::isfinite(value);
}

// The steps per millimetre the library's reader takes from the header, or 0.
std::int32_t ReaderInverseResolution(const std::string& path, short code)
{
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(code);
    if (!io)
        return 0;
    std::int32_t inverse = 0;
    try
    {
        if (io->OpenFile(WidePath(path), I2DSliceIO::Read) && io->ReadHeader(nullptr))
        {
            M2DSliceContainerIOProperties properties;
            io->GetIoProperties(properties);
            inverse = properties.InverseResolution;
        }
    }
    catch (const std::exception&)
    {
        inverse = 0;
    }
    io->CloseFile();
    return inverse;
}

void DescribeCli(const std::string& path, short code, FileReport& report)
{
    // The reader turns each polyline round, so its closing repeat comes first.
    report.RepeatLeads = true;
    std::string labels;
    for (const auto& [name, value] : HeaderEntries(path))
    {
        if (name == "LAYERS")
        {
            double layers = 0;
            if (ParseDouble(value, layers) && layers >= 0 && layers == std::floor(layers))
                report.DeclaredLayers = static_cast<std::int64_t>(layers);
        }
        else if (name == "LABEL")
        {
            const std::size_t comma = value.find(',');
            double id = 0;
            if (comma != std::string::npos && ParseDouble(value.substr(0, comma), id) && id == std::floor(id) &&
                std::fabs(id) < 1e9)
            {
                std::string text = value.substr(comma + 1);
                text.erase(text.find_last_not_of(" \t") + 1);
                report.Parts[static_cast<std::int32_t>(id)]["PartName"] = text;
                labels += fmt::format("{}{} {}", labels.empty() ? "" : ", ", static_cast<std::int32_t>(id), text);
            }
        }
        else if (name == "DIMENSION")
        {
            double v[6];
            std::size_t at = 0;
            int n = 0;
            for (; n < 6; ++n)
            {
                const std::size_t comma = value.find(',', at);
                if (!ParseDouble(value.substr(at, comma == std::string::npos ? std::string::npos : comma - at), v[n]))
                    break;
                if (comma == std::string::npos)
                {
                    ++n;
                    break;
                }
                at = comma + 1;
            }
            if (n == 6)
            {
                report.ExtentsDeclared = true;
                // The header gives x, y, z minimum, then the maxima.
                std::copy(v, v + 6, report.DeclaredExtents);
            }
        }
        else if (name == "UNITS")
        {
            double meant = 0;
            std::string text = value;
            text.erase(text.find_last_not_of(" \t") + 1);
            report.Rows.emplace_back("units", text + " mm per step");
            const std::int32_t read = ReaderInverseResolution(path, code);
            if (ParseDouble(text, meant) && meant > 0 && read > 0 && std::lround(1.0 / meant) != read)
            {
                report.MeantUnits = meant;
                report.Warnings.push_back(fmt::format(
                    "the header's \"$$UNITS/{}\" is read as {} step{} per mm though it means {} mm per step, so the "
                    "geometry reads {:g} times too {}; convert with --input-units {}",
                    text, read, read == 1 ? "" : "s", text, read * meant > 1 ? read * meant : 1 / (read * meant),
                    read * meant > 1 ? "small" : "large", text));
            }
        }
    }
    if (!labels.empty())
        report.Rows.emplace_back("labels", labels);
}

// CLI files carry no unit: they are read in millimetres, at the resolution "$$UNITS/" gives.
void PrepareCli(WriterSetup& setup)
{
    for (const auto& entry : setup.Settings.items())
        throw Failure(fmt::format("settings: unknown key \"cli\".\"{}\" (the section takes no keys)", entry.key()));
    if (setup.UnitConversion != MUnit::GetIE())
    {
        if (setup.ScaleGiven)
            throw Failure(fmt::format("CLI files carry no unit and are read in millimetres, so --units inch would read "
                                      "back {:.1f} times too small; leave --units out",
                                      static_cast<double>(setup.UnitConversion) / MUnit::GetIE()));
        setup.UnitConversion = MUnit::GetIE();
    }
    // The reader takes the rounded inverse of "$$UNITS/" as a float.
    const float units = static_cast<float>(1.0 / setup.InverseResolution);
    if (std::lroundf(1.0f / units) != setup.InverseResolution)
    {
        if (setup.ScaleGiven)
            throw Failure(fmt::format("--resolution {} would be read back from \"$$UNITS/\" as {} steps per mm",
                                      setup.InverseResolution, std::lroundf(1.0f / units)));
        setup.InverseResolution = 1000;
    }
    // The short form holds 0 to 65535 steps: unless told otherwise, a build that does not fit
    // at the chosen resolution gets the finest one that fits.
    if (setup.Code == 35 && !setup.ScaleGiven)
    {
        double high = 0;
        for (const ISource2DSlices* source : setup.Sources)
        {
            const M2DSliceXYArea area = source->GetXYArea();
            if (!area.IsEmpty())
                high = std::max({high, static_cast<double>(area.XMax), static_cast<double>(area.YMax)});
            for (std::uint64_t i = 0; i < source->GetNumSlices(); ++i)
                high = std::max(high, static_cast<double>(source->GetSliceZPosition(i)));
        }
        const double fitting = std::floor(65535.0 * setup.UnitConversion / (high + 1));
        if (high > 0 && fitting < setup.InverseResolution && fitting >= 1)
        {
            setup.InverseResolution = static_cast<std::int32_t>(fitting);
            setup.Notes.push_back(fmt::format("resolution lowered to {} steps per mm for the short form", setup.InverseResolution));
        }
    }
    // The ASCII writer numbers the parts from 1 and labels the first one only.
    if (setup.Code == 56)
    {
        if (setup.Sources.size() > 1)
            setup.Notes.push_back("part names not kept (the ASCII header labels part1 only)");
        return;
    }
    // The binary writer numbers the parts from 0 and names them "part1", "part2", ...
    bool renamed = false;
    for (std::size_t i = 0; i < setup.SourceProperties.size(); ++i)
    {
        const auto* name = setup.SourceProperties[i]->GetPropertyOfType<std::wstring>(L"PartName");
        renamed = renamed || !name || name->GetValue() != L"part" + std::to_wstring(i + 1);
    }
    if (renamed && setup.SourceProperties.size() > 0)
        setup.Notes.push_back(fmt::format("parts labelled part1..part{} (CLI labels are numbered, not named)",
                                          setup.SourceProperties.size()));
}

nlohmann::json CliDefaults() { return nlohmann::json::object(); }

const FormatHooks kCliHooks = {"cli", PrepareCli, CliDefaults, DescribeCli};
const bool registered = RegisterFormatHooks(kCliHooks);

} // namespace
} // namespace sliceio
