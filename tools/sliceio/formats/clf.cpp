// The tool's side of CLF: a file is written at the one scale it reads back at, each part of
// the input becomes a part group, and `info`/`check` show the header and the seek table.
#include <fmt/format.h>

#include "../../../contracts/M2DSliceSource.h"
#include "../../../contracts/MUnit.h"
#include "../../../contracts/PersistentProperties.h"
#include "../../../contracts/StringConversion.h"
#include "../../../formats/clf/ClfItems.h"
#include "../FormatHooks.h"
#include "../Tool.h"

namespace sliceio {

namespace {

// A CLF file does not say its unit, and its reader takes millimetres at one step per
// millimetre; anything else would read back scaled, so that is the only scale written.
void PrepareClf(WriterSetup& setup)
{
    if (!setup.Settings.is_object())
        throw Failure("settings: the \"clf\" section must be an object");
    for (const auto& entry : setup.Settings.items())
        throw Failure("settings: \"clf\" has no key \"" + entry.key() + "\"");
    if (setup.ScaleGiven && (setup.UnitConversion != MUnit::GetIE() || setup.InverseResolution != 1))
        throw Failure("CLF is read back in millimetres at 1 step per millimetre only; drop --units and --resolution "
                      "or give --units mm --resolution 1");
    setup.UnitConversion = MUnit::GetIE();
    setup.InverseResolution = 1;
    std::size_t named = 0;
    for (const ISource2DSlices* source : setup.Sources)
    {
        std::int32_t id;
        std::wstring name;
        const PersistentProperties* properties = source ? source->GetProperties() : nullptr;
        if (properties && properties->GetValue(L"PartID", id) && properties->GetValue(L"PartName", name))
            ++named;
    }
    setup.Notes.push_back(fmt::format("{} part{} ({} named)", setup.Sources.size(),
                                      setup.Sources.size() == 1 ? "" : "s", named));
    setup.Notes.push_back("millimetres, float coordinates");
}

nlohmann::json DefaultClf() { return nlohmann::json::object(); }

void DescribeClf(const std::string& path, short /*code*/, FileReport& report)
{
    clf::HeaderData header;
    std::vector<std::shared_ptr<clf::SeekTableEntry>> table;
    std::string reason;
    if (!clf::ReadHeaderAndTable(WidePath(path), header, table, reason))
    {
        report.Problems.push_back(reason);
        return;
    }
    report.Rows.emplace_back("version", fmt::format("{}.{}", header.VersionMajor, header.VersionMinor));
    if (header.HasNumLayers)
        report.Rows.emplace_back("declared layers", std::to_string(header.NumLayers));
    report.Rows.emplace_back("seek table", fmt::format("{} layers", table.size()));
    for (const clf::PartRecord& part : header.Parts)
        report.Rows.emplace_back("part", fmt::format("{} \"{}\", layer thickness {} mm", part.Id,
                                                     StringConversion::NativeToUtf8(part.Name), part.Thickness));
    if (header.HasComment)
        report.Rows.emplace_back("comment", header.Comment);
    report.Warnings.push_back("the file does not say its unit: coordinates are taken as millimetres");
    // The declared count includes layers without content, which have no entry.
    if (header.HasNumLayers && table.size() > header.NumLayers)
        report.Problems.push_back(fmt::format("the seek table lists {} layers, the header declares {}", table.size(),
                                              header.NumLayers));
    for (std::size_t i = 1; i < table.size(); ++i)
        if (table[i]->Position <= table[i - 1]->Position)
        {
            report.Problems.push_back(fmt::format("seek table entry {} does not lie after entry {}", i, i - 1));
            break;
        }
}

const FormatHooks kHooks = {"clf", PrepareClf, DefaultClf, DescribeClf};
const bool registered = RegisterFormatHooks(kHooks);

} // namespace

} // namespace sliceio
