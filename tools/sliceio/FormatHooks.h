#pragma once
// What the tool needs to know of a format family beyond its descriptor: how to set a writer up
// for a conversion (settings the input does not carry, a scale that reads back), and what to
// add to `info` and `check`. Each family registers its hooks in one file of its own under
// tools/sliceio/formats/, with one line:
//     static const bool registered = RegisterFormatHooks(hooks);
// The family's section of the settings file is the object under the descriptor's family name
// ("cli", "sectioned", "wza", ...).
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

class I2DSliceIO;
class ISource2DSlices;
class PersistentProperties;

namespace sliceio {

// A writer about to be used by `convert`, with what the tool knows of the conversion.
struct WriterSetup
{
    short Code = 0;               // the output's file-type code
    I2DSliceIO* Writer = nullptr; // made by the factory for Code; its WriteEmptyLayers is on
    // Set by a hook that writes with an object no code reaches (the second G-code writer):
    // the conversion then writes with this one instead of Writer.
    std::shared_ptr<I2DSliceIO> Replacement;
    nlohmann::json Settings = nlohmann::json::object(); // the family's section, {} when absent
    // The input as read: one source per part (with "PartID"/"PartName" properties where the
    // input names parts), its layer thickness in internal units (0: unknown).
    std::vector<const ISource2DSlices*> Sources;
    // The properties of each source, in the same order, for a hook to add what its format
    // needs and the input lacks (never replacing what is there).
    std::vector<PersistentProperties*> SourceProperties;
    std::int32_t LayerThickness = 0;
    // The scale the file is written at; a hook may change it when the format reads back at one
    // scale only, unless ScaleGiven (the user asked for --units or --resolution): then it
    // throws a Failure saying why that scale would not read back.
    std::int32_t UnitConversion = 10000;
    std::int32_t InverseResolution = 1000;
    bool ScaleGiven = false;
    // One short phrase per thing carried or dropped, for the closing line ("scan parameters
    // from defaults", "point blocks dropped").
    std::vector<std::string> Notes;
};

// `info` and `check` additions: rows of "label: value", warnings and, for check, problems.
struct FileReport
{
    std::vector<std::pair<std::string, std::string>> Rows;
    std::vector<std::string> Warnings;
    std::vector<std::string> Problems; // each one line naming layer or offset where known
    // What the file declares, where the format records it: its layer count (-1: not
    // declared), for the tool to compare with the layers it reads.
    std::int64_t DeclaredLayers = -1;
    // The extents the file declares, in millimetres: x, y, z minimum, then x, y, z maximum.
    bool ExtentsDeclared = false;
    double DeclaredExtents[6] = {};
    // Per part index (the labels' e2DSliceVectorTypeIndex_Part), properties the file
    // declares for the part: "PartName", "IsSupport", "IsVolumeSupport", ... `convert` puts
    // them on the part's source.
    std::map<std::int32_t, nlohmann::json> Parts;
    // Millimetres per file step that the file means where its reader takes another scale
    // (0: none); `convert` reads at this scale when told so with --input-units.
    double MeantUnits = 0;
    // A closed contour as the reader gives it starts with its closing repeat (the file
    // stores it reversed and the reader turns it round), so that the repeat to drop is
    // the first point, not the last.
    bool RepeatLeads = false;
};

struct FormatHooks
{
    const char* Family = ""; // the descriptor's Family
    // Checks the settings section (an unknown key or a wrong type throws a Failure naming the
    // key) and sets the writer up. Null: the writer needs nothing.
    void (*PrepareWriter)(WriterSetup& setup) = nullptr;
    // The section with every key and its default, for --show-settings and the README.
    nlohmann::json (*DefaultSettings)() = nullptr;
    // Extra rows and warnings for `info`, and declared-against-held problems for `check`.
    void (*DescribeFile)(const std::string& path, short code, FileReport& report) = nullptr;
};

bool RegisterFormatHooks(const FormatHooks& hooks);
// The hooks of a family, or null.
const FormatHooks* FindFormatHooks(const std::string& family);
const std::vector<const FormatHooks*>& AllFormatHooks();
// The report of the family's DescribeFile for the file, empty when it has none.
FileReport DescribeWithHooks(const std::string& path, short code);

} // namespace sliceio
