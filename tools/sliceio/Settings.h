#pragma once
// The settings file of `convert`: what the output format needs and the input does not have.
// A JSON object whose general keys are
//   "parts":  per part ("*" for every part, a part id such as "2", or a part name) an object
//             of properties set on the part's source ("PartName", "IsSupport", ...), and
//             "M2DSliceBuildParameters": a list of build styles {"ID", "Name", "Speed",
//             "LaserPower", "LaserDiameter"};
//   "labels": per vector type ("*", "Border", "Hatch", "Other", ... or its number) the tags
//             that blocks and contours of that type get where they have none: "Parameter"
//             (the build style index) and named numbers such as "LaserSpeed";
// and whose other keys are the sections of the format families, under the family's name
// ("cli", "sectioned", ...), each checked by its family.
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sliceio {

class PartSource;

// The file's object, checked: general keys, section names, and the keys and types of each
// section against its family's defaults. {} without a file. Throws a Failure of one line
// naming the key.
nlohmann::json LoadSettings(const std::optional<std::string>& path);

// The general settings and every family's defaults, overlaid with the file.
nlohmann::json EffectiveSettings(const nlohmann::json& file);

// The family's section of the file, {} when absent.
nlohmann::json SectionOf(const nlohmann::json& file, const std::string& family);

// Sets the "parts" properties on the parts and the "labels" tags on their geometry.
void ApplyGeneralSettings(const nlohmann::json& file, const std::vector<PartSource*>& parts);

} // namespace sliceio
