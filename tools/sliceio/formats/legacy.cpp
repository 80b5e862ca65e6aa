// Writer setup for SLI (3), SLC (4), SSL (5) and F&S (6). Each of these readers assumes a
// scale of its own, so each is written at the one scale that reads back at the right size:
// SLC in floats of the unit (1 step per unit), SLI in millimetres at a resolution whose steps
// fit 16 bits, F&S in millimetres at 40 steps per millimetre, SSL always in inches.
#include <cmath>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "../FormatHooks.h"
#include "../Tool.h"
#include "contracts/M2DSliceSource.h"
#include "contracts/MUnit.h"
#include "formats/legacy/LegacySource.h"
#include "formats/legacy/M2DSliceIO_fs.h"
#include "formats/legacy/M2DSliceIO_slc.h"
#include "formats/legacy/M2DSliceIO_sli_3ds.h"
#include "formats/legacy/M2DSliceIO_ssl.h"

namespace sliceio {
namespace {

constexpr std::int32_t kFsSteps = 40;
const std::int32_t kResolutions[] = {1000, 500, 200, 100, 50, 20, 10, 5, 2, 1};

nlohmann::json Defaults()
{
    return {{"slc_type", "web"}, {"sli_hatch_distance_x_mm", 0.1}, {"sli_hatch_distance_y_mm", 0.1}, {"fs_part_type", 0}};
}

// The section with every key checked; the defaults fill what is missing.
nlohmann::json Checked(const nlohmann::json& section)
{
    nlohmann::json values = Defaults();
    if (!section.is_object())
        throw Failure("settings: the \"legacy\" section must be an object");
    for (const auto& [key, value] : section.items())
    {
        if (!values.contains(key))
            throw Failure("settings: unknown key \"legacy." + key + "\"");
        if (key == "slc_type")
        {
            if (!value.is_string() || (value != "part" && value != "support" && value != "web"))
                throw Failure("settings: \"legacy.slc_type\" must be \"part\", \"support\" or \"web\"");
        }
        else if (key == "fs_part_type")
        {
            if (!value.is_number_integer() || (value != 0 && value != 1))
                throw Failure("settings: \"legacy.fs_part_type\" must be 0 or 1");
        }
        else if (!value.is_number() || value.get<double>() <= 0)
            throw Failure("settings: \"legacy." + key + "\" must be a positive number of millimetres");
        values[key] = value;
    }
    return values;
}

// Sources that live until the next writer is set up: the conversion that asked uses them.
std::vector<std::unique_ptr<ISource2DSlices>>& Held()
{
    static std::vector<std::unique_ptr<ISource2DSlices>> held;
    return held;
}

// The sources as one, with the given parameters; the setup's sources become that one.
void JoinSources(WriterSetup& setup, const M2DSliceIOParameters& parameters)
{
    Held().clear();
    if (setup.Sources.empty())
        return;
    if (setup.Sources.size() > 1)
        setup.Notes.push_back("parts joined into one slice per layer");
    Held().push_back(std::make_unique<legacy::JoinedSource>(setup.Sources, parameters));
    setup.Sources = {Held().back().get()};
}

// The farthest a coordinate or height of the build lies from zero, in internal units.
double Reach(const std::vector<const ISource2DSlices*>& sources)
{
    double reach = 0;
    for (const ISource2DSlices* source : sources)
    {
        const M2DSliceXYArea area = source->GetXYArea();
        if (!area.IsEmpty())
            for (double v : {double(area.XMin), double(area.XMax), double(area.YMin), double(area.YMax)})
                reach = std::max(reach, std::fabs(v));
        for (std::uint64_t i = 0; i < source->GetNumSlices(); ++i)
            reach = std::max(reach, std::fabs(double(source->GetSliceZPosition(i))));
    }
    return reach;
}

void PrepareSlc(WriterSetup& setup, const nlohmann::json& values)
{
    if (setup.ScaleGiven && setup.InverseResolution != 1)
        throw Failure(fmt::format("SLC files are read at 1 step per {} (floats in the unit), not {}; "
                                  "give --resolution 1 or leave it out",
                                  setup.UnitConversion == MUnit::GetIE() ? "mm" : "inch", setup.InverseResolution));
    setup.InverseResolution = 1;
    const std::string type = values["slc_type"];
    if (auto* slc = dynamic_cast<M2DSliceIO_slc*>(setup.Writer))
        slc->SetSLCType(type == "part" ? M2DSliceIO_slc::Part
                        : type == "support" ? M2DSliceIO_slc::Support
                                            : M2DSliceIO_slc::Web);
    setup.Notes.push_back("SLC in floats of the unit, type " + type);
}

void PrepareSli(WriterSetup& setup, const nlohmann::json& values)
{
    if (setup.ScaleGiven && setup.UnitConversion != MUnit::GetIE())
        throw Failure("SLI files are read in millimetres; leave out --units inch");
    const double reach = Reach(setup.Sources);
    const auto fits = [&](std::int32_t resolution) {
        return reach / (double(MUnit::GetIE()) / resolution) + 0.5 < 32767.0;
    };
    if (setup.ScaleGiven)
    {
        if (setup.InverseResolution > 65535 || !fits(setup.InverseResolution))
            throw Failure(fmt::format("SLI holds coordinates as 16-bit steps, and at {} steps per mm the build "
                                      "reaches {:.1f} mm; give a lower --resolution",
                                      setup.InverseResolution, reach / MUnit::GetIE()));
    }
    else
    {
        std::int32_t chosen = 0;
        for (std::int32_t resolution : kResolutions)
            if (fits(resolution))
            {
                chosen = resolution;
                break;
            }
        if (chosen == 0)
            throw Failure(fmt::format("SLI holds coordinates as 16-bit steps, and the build reaches {:.1f} mm, "
                                      "beyond 32767 mm even at 1 step per mm",
                                      reach / MUnit::GetIE()));
        setup.InverseResolution = chosen;
    }
    setup.UnitConversion = MUnit::GetIE();

    // Hatch distances: the input's own when it has one pair, else the settings'.
    M2DSliceIOParameters parameters;
    const M2DSliceIOParameters* first = setup.Sources.empty() ? nullptr : setup.Sources[0]->GetSliceIOParameters();
    bool own = first && first->HatchDistanceX != 0 && first->HatchDistanceY != 0;
    for (const ISource2DSlices* source : setup.Sources)
    {
        const M2DSliceIOParameters* p = source->GetSliceIOParameters();
        own = own && p && p->HatchDistanceX == first->HatchDistanceX && p->HatchDistanceY == first->HatchDistanceY;
    }
    if (own)
        parameters = *first;
    else
    {
        parameters.HatchDistanceX = static_cast<std::int32_t>(
            std::lround(values["sli_hatch_distance_x_mm"].get<double>() * MUnit::GetIE()));
        parameters.HatchDistanceY = static_cast<std::int32_t>(
            std::lround(values["sli_hatch_distance_y_mm"].get<double>() * MUnit::GetIE()));
        setup.Notes.push_back(fmt::format("hatch distances {} x {} mm from {}", values["sli_hatch_distance_x_mm"].dump(),
                                          values["sli_hatch_distance_y_mm"].dump(),
                                          setup.Settings.contains("sli_hatch_distance_x_mm") ? "settings" : "defaults"));
    }
    if (!setup.Sources.empty())
        parameters.BordersFirst = setup.Sources[0]->GetSliceIOParameters()->BordersFirst;
    JoinSources(setup, parameters);
    setup.Notes.push_back(fmt::format("SLI at {} steps per mm", setup.InverseResolution));
}

void PrepareSsl(WriterSetup& setup)
{
    M2DSliceIOParameters parameters;
    if (!setup.Sources.empty())
        parameters = *setup.Sources[0]->GetSliceIOParameters();
    JoinSources(setup, parameters);
    setup.Notes.push_back("SSL always in inches");
    for (const ISource2DSlices* source : setup.Sources)
    {
        const M2DSliceXYArea area = source->GetXYArea();
        if (!area.IsEmpty() && (area.XMin < 0 || area.YMin < 0))
            setup.Notes.push_back("coordinates below zero read back without their sign");
    }
}

void PrepareFs(WriterSetup& setup, const nlohmann::json& values)
{
    if (setup.ScaleGiven && (setup.UnitConversion != MUnit::GetIE() || setup.InverseResolution != kFsSteps))
        throw Failure(fmt::format("F&S files are read in millimetres at {} steps per mm only; "
                                  "give --units mm --resolution {} or leave both out",
                                  kFsSteps, kFsSteps));
    setup.UnitConversion = MUnit::GetIE();
    setup.InverseResolution = kFsSteps;
    if (auto* fs = dynamic_cast<M2DSliceIO_fs*>(setup.Writer))
        fs->SetPartType(values["fs_part_type"] == 1 ? M2DSliceIO_fs::PartTypePolylines : M2DSliceIO_fs::PartTypeDefault);
    M2DSliceIOParameters parameters;
    if (!setup.Sources.empty())
        parameters = *setup.Sources[0]->GetSliceIOParameters();
    JoinSources(setup, parameters);
    setup.Notes.push_back(fmt::format("F&S at {} steps per mm", kFsSteps));
}

void PrepareWriter(WriterSetup& setup)
{
    const nlohmann::json values = Checked(setup.Settings);
    switch (setup.Code)
    {
    case 3:
        PrepareSli(setup, values);
        break;
    case 4:
        PrepareSlc(setup, values);
        break;
    case 5:
        PrepareSsl(setup);
        break;
    case 6:
        PrepareFs(setup, values);
        break;
    default:
        break;
    }
}

// What the header says that the scan does not show.
void DescribeFile(const std::string& path, short code, FileReport& report)
{
    std::unique_ptr<I2DSliceIO> io;
    if (code == 3)
        io = std::make_unique<M2DSliceIO_sli_3ds>();
    else if (code == 4)
        io = std::make_unique<M2DSliceIO_slc>();
    else
        return;
    if (!io->OpenFile(WidePath(path), I2DSliceIO::Read) || !io->ReadHeader(nullptr))
    {
        io->CloseFile();
        return;
    }
    M2DSliceContainerIOProperties properties;
    io->GetIoProperties(properties);
    const bool inch = properties.UnitConversionFactor != MUnit::GetIE();
    if (code == 3)
    {
        report.Rows.emplace_back("resolution", fmt::format("{} steps per mm", properties.InverseResolution));
        report.Rows.emplace_back("hatch distances", fmt::format("{:.4f} x {:.4f} mm",
                                                                properties.HatchDistanceX / double(MUnit::GetIE()),
                                                                properties.HatchDistanceY / double(MUnit::GetIE())));
    }
    else
    {
        const auto type = static_cast<M2DSliceIO_slc*>(io.get())->GetSLCType();
        report.Rows.emplace_back("SLC unit", inch ? "inch" : "mm");
        report.Rows.emplace_back("SLC type", type == M2DSliceIO_slc::Part      ? "part"
                                             : type == M2DSliceIO_slc::Support ? "support"
                                                                               : "web");
    }
    io->CloseFile();
}

const FormatHooks kHooks{"legacy", PrepareWriter, Defaults, DescribeFile};
const bool registered = RegisterFormatHooks(kHooks);

} // namespace
} // namespace sliceio
