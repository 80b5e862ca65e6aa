// Builds a hostile stack and G-code parameters from the bytes (empty layers and blocks,
// zero-length vectors, coordinates over the whole 32-bit range, any labels and nozzles, NaN,
// infinite, zero and negative parameters, template texts of any bytes) and writes it with
// both G-code writers. Neither may crash or hang; the second may refuse with its documented
// std::invalid_argument.
#include <cmath>
#include <limits>
#include <stdexcept>

#include "RoundTrip.h"
#include "ScratchFile.h"
#include "formats/gcode/M2DSliceIO_gcode.h"
#include "formats/gcode/M2DSliceIO_gcode_V2.h"

namespace {

using SliceIOFuzz::ByteReader;

double Number(ByteReader& in)
{
    switch (in.U8() % 10)
    {
    case 0: return std::numeric_limits<double>::quiet_NaN();
    case 1: return std::numeric_limits<double>::infinity();
    case 2: return -std::numeric_limits<double>::infinity();
    case 3: return 0.0;
    case 4: return -static_cast<double>(in.In(0, 100000));
    case 5: return std::numeric_limits<double>::max();
    case 6: return 1e-300;
    default: return static_cast<double>(in.In(0, 1000000)) / 100.0;
    }
}

std::int32_t Coordinate(ByteReader& in)
{
    if (in.Bit())
        return static_cast<std::int32_t>(in.In(INT32_MIN, INT32_MAX));
    return static_cast<std::int32_t>(in.In(-20000, 20000));
}

std::string Text(ByteReader& in)
{
    static const char* const pieces[] = {"%%", "%", "YYYY", "NozzleTemperature", "G92 E0", "G28", "\n", "G1 X1", ";", "T0"};
    std::string text;
    const int n = static_cast<int>(in.In(0, 6));
    for (int i = 0; i < n; ++i)
        text += in.Bit() ? std::string(pieces[in.U8() % 10]) : std::string(1, static_cast<char>(in.U8()));
    return text;
}

std::vector<GCodeRichLine> Code(ByteReader& in)
{
    std::vector<GCodeRichLine> lines;
    const int n = static_cast<int>(in.In(0, 2));
    for (int i = 0; i < n; ++i)
        lines.emplace_back(Text(in));
    return lines;
}

M2DSlice BuildSlice(ByteReader& in, std::int32_t z)
{
    M2DSlice slice;
    slice.SetZ(z);
    if (in.Bit())
    {
        M2DSliceContour* contour = slice.GetSliceBorderUpdate()->AddContourAtEnd();
        for (int i = static_cast<int>(in.In(0, 4)); i > 0; --i)
            contour->InsertAtEnd(Coordinate(in), Coordinate(in), nullptr);
    }
    for (int b = static_cast<int>(in.In(0, 4)); b > 0; --b)
    {
        M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
        M2DSliceVectorTypeInfo info(static_cast<e2DSliceVectorType>(in.In(0, 15)));
        info.SetFlag(e2DSliceVectorTypeFlag_1, in.Bit());
        info.SetFlag(e2DSliceVectorTypeFlag_7, in.Bit());
        if (in.Bit())
            info.SetIndex(e2DSliceVectorTypeIndex_Nozzle, static_cast<std::int32_t>(in.In(-3, 3)) * (in.Bit() ? 1 : 1000000));
        info.SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int32_t>(in.In(-2, 3)));
        info.SetIndex(e2DSliceVectorTypeIndex_Parameter, static_cast<std::int32_t>(in.In(-2, 3)));
        block->SetTypeInfo(info);
        std::int32_t x = Coordinate(in), y = Coordinate(in);
        for (int v = static_cast<int>(in.In(0, 8)); v > 0; --v)
        {
            // Chained, zero-length or jumping.
            const int kind = in.U8() % 3;
            std::int32_t sx = kind == 2 ? Coordinate(in) : x, sy = kind == 2 ? Coordinate(in) : y;
            std::int32_t ex = kind == 1 ? sx : Coordinate(in), ey = kind == 1 ? sy : Coordinate(in);
            block->Vectors.emplace_back(sx, sy, ex, ey);
            x = ex;
            y = ey;
        }
    }
    return slice;
}

void FillBase(ByteReader& in, GCodeBaseParameters& p)
{
    if (in.Bit())
        p.MoveCommands.resize(in.In(0, 5), "G92");
    p.Nozzles.resize(static_cast<std::size_t>(in.In(0, 3)));
    for (GCodeNozzleParameters& n : p.Nozzles)
    {
        n.TrackWidth = Number(in);
        n.FilamentWidth = Number(in);
        n.RetractionEnabled = in.Bit();
        n.RetractionThreshold = Number(in);
        n.RetractionLength = Number(in);
        n.RetractionSpeed = Number(in);
        n.HopEnabled = in.Bit();
        n.HopThreshhold = Number(in);
        n.HopValue = Number(in);
        n.HopSpeed = Number(in);
        n.TemperatureNozzle = static_cast<std::int32_t>(in.In(INT32_MIN, INT32_MAX));
        n.UseCustomToolSwitchFromNozzle = in.Bit();
        n.CustomToolSwitchFromNozzle = Code(in);
        n.UseCustomToolSwitchToNozzle = in.Bit();
        n.CustomToolSwitchToNozzle = Code(in);
    }
    p.PreLayerCode = Code(in);
    p.PostLayerCode = Code(in);
    p.StartCode = Code(in);
    p.EndCode = Code(in);
    p.RelativeExtrusion = in.Bit();
    p.SliceThickness = Number(in);
    p.MinimumLayerTime = Number(in);
    p.MinimumSpeed = Number(in);
    p.WaitAtLayerEnd = in.Bit();
    p.WaitForNozzleTemperature = in.Bit();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static SliceIOFuzz::ScratchFile file;
    ByteReader in(data, size);

    M2DSliceStack stack;
    std::int32_t z = static_cast<std::int32_t>(in.In(-100000, 100000));
    for (int layers = static_cast<int>(in.In(0, 6)); layers > 0; --layers)
    {
        M2DSlice slice = BuildSlice(in, z);
        stack.AddSlice(slice, true);
        const std::int64_t next = static_cast<std::int64_t>(z) + in.In(1, 1000000);
        if (next > INT32_MAX)
            break;
        z = static_cast<std::int32_t>(next);
    }

    GCodeProfile profile;
    FillBase(in, profile);
    profile.DefaultSpeeds.JumpSpeed = Number(in);
    profile.DefaultSpeeds.ZSpeed = Number(in);
    profile.DefaultSpeeds.Infill = Number(in);
    profile.DefaultSpeeds.Contour = Number(in);
    profile.DefaultSpeeds.InitialLayer = Number(in);
    profile.DefaultZOffsets.Contour = Number(in);
    profile.DefaultExtrusions.Infill = Number(in);
    profile.InitialLayerCount = static_cast<std::int32_t>(in.In(INT32_MIN, INT32_MAX));
    profile.InitialLayerExtrusionPercent = Number(in);
    profile.RaftEnabled = in.Bit();
    profile.BrimEnabled = in.Bit();
    profile.SkirtEnabled = in.Bit();
    profile.RaftTopTemperatureEnabled = in.Bit();
    for (int i = static_cast<int>(in.In(0, 3)); i > 0; --i)
        profile.RaftSlices.push_back(in.Bit() ? std::make_shared<M2DSlice>(BuildSlice(in, Coordinate(in))) : nullptr);
    if (in.Bit())
        profile.BrimSlice = std::make_shared<M2DSlice>(BuildSlice(in, Coordinate(in)));
    if (in.Bit())
        profile.SkirtSlice = std::make_shared<M2DSlice>(BuildSlice(in, Coordinate(in)));
    NozzleSwitchHook::Map hookLines;
    for (int i = static_cast<int>(in.In(0, 3)); i > 0; --i)
        hookLines[static_cast<std::uint64_t>(in.In(0, 3))][static_cast<std::uint64_t>(in.In(0, 4))] = Code(in);

    auto v1 = std::make_shared<M2DSliceIO_gcode>();
    v1->SetGCodeProfile(profile);
    v1->SetNozzleSwitchHook(std::make_unique<NozzleSwitchHook>(hookLines));
    std::shared_ptr<I2DSliceIO> io = v1;
    M2DSliceContainerIO(io).WriteContainer(stack, file.Path(), 10000, 1, nullptr);

    auto parameters = std::make_unique<GCodeParametersV2>();
    FillBase(in, *parameters);
    parameters->JumpSpeed = Number(in);
    parameters->ZSpeed = Number(in);
    for (int i = static_cast<int>(in.In(0, 3)); i > 0; --i)
    {
        GCodeZoneParameters& zone = parameters->Zones[static_cast<std::int32_t>(in.In(-1, 3))];
        zone.Speed = Number(in);
        zone.NozzleTemperature = Number(in);
        zone.ExtrusionMultiplier = Number(in);
        zone.ZOffset = Number(in);
        zone.SwitchNozzle = in.Bit();
        zone.ForceRetraction = in.Bit();
        zone.ForceHop = in.Bit();
        zone.Comment = Text(in);
    }
    auto v2 = std::make_shared<M2DSliceIO_gcode_V2>();
    if (in.Bit())
        v2->SetProfile(std::move(parameters));
    v2->SetNozzleSwitchHook(std::make_unique<NozzleSwitchHook>(hookLines));
    io = v2;
    try
    {
        M2DSliceContainerIO(io).WriteContainer(stack, file.Path(), 10000, 1, nullptr);
    }
    catch (const std::invalid_argument&)
    {
        // documented: extrusion parameters the second writer cannot use
    }
    return 0;
}
