#include "M2DSliceIO_gcode_V2.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "../../contracts/M2DSlice.h"
#include "../../contracts/M2DSliceSource.h"
#include "../../contracts/MUnit.h"

namespace {

constexpr double kTolerance = 1e-5;
constexpr double kPi = 3.141592653589793;

bool Near(double a, double b)
{
    return std::fabs(a - b) < kTolerance;
}

bool IsSet(double value)
{
    return !Near(value, GCodeState::Unset);
}

} // namespace

M2DSliceIO_gcode_V2::M2DSliceIO_gcode_V2() = default;
M2DSliceIO_gcode_V2::~M2DSliceIO_gcode_V2() = default;

const GCodeParametersV2& M2DSliceIO_gcode_V2::_Profile()
{
    if (!_profile)
        _profile = std::make_unique<GCodeParametersV2>();
    return *_profile;
}

// ---------------------------------------------------------------- frame

bool M2DSliceIO_gcode_V2::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    return true;
}

bool M2DSliceIO_gcode_V2::_CloseFile()
{
    return true;
}

bool M2DSliceIO_gcode_V2::_ReadHeader(ITarget2DSlices* /*target*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode_V2::_ReadLayer(M2DSlice& /*slice*/, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode_V2::_ScanLayer(M2DSliceContainerScanInfo& /*info*/, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode_V2::_ReadFooter(ITarget2DSlices* /*target*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode_V2::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    const GCodeParametersV2& profile = _Profile();
    AddProfileProperties(profile, _properties);
    return _WriteLines(profile.UseCustomStartCode ? profile.CustomStartCode : profile.StartCode, true) ||
           _Fail("the start code could not be written");
}

bool M2DSliceIO_gcode_V2::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t z,
                                      const M2DSliceConstDataItems& items)
{
    if (items.Items.empty())
        return true;
    const GCodeParametersV2& profile = _Profile();
    _layerTime = 0.0;
    _ReducePrintingSpeed(items);
    const std::uint64_t number = _layerIndex + 1;
    bool result = _WriteLayerNumber(number);
    // Here the pre-layer lines come ahead of the Z move.
    result = _WriteLines(profile.GetPreLayer(number), false) && result;
    _WriteZValue(z / ZanSDK::Common::MInternalUnits::Get(), profile.ZSpeed);
    if (_nozzleHook && _state.Nozzle != GCodeState::NoNozzle)
        _WriteNozzleSwitchCommands(_state.Nozzle);
    result = _WriteAllVectorBlocks(items) && result;
    result = _WriteLines(profile.GetPostLayer(number), false) && result;
    _EndLayerWait();
    if (result)
        ++_layerIndex;
    _lastZ = z;
    return result || _Fail("the layer's lines could not be written");
}

bool M2DSliceIO_gcode_V2::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    const GCodeParametersV2& profile = _Profile();
    return _WriteLines(profile.UseCustomEndCode ? profile.CustomEndCode : profile.EndCode, false) ||
           _Fail("the end code could not be written");
}

// ---------------------------------------------------------------- lines

bool M2DSliceIO_gcode_V2::_WriteLine(const GCodeRichLine& line, bool expand)
{
    const std::string& text = line;
    if (text.empty())
        return true;
    if (expand)
        return _WriteLine(GCodeRichLine(GCodeExpandTemplate(text, _properties)), false);
    // Only the extruder's reset is followed here.
    if (line.ResetsE())
        _state.E = 0.0;
    return GCodeWriteText(_file, text);
}

bool M2DSliceIO_gcode_V2::_WriteLines(const std::vector<GCodeRichLine>& lines, bool expand)
{
    bool result = true;
    for (const GCodeRichLine& line : lines)
        result = _WriteLine(line, expand) && result;
    return result;
}

bool M2DSliceIO_gcode_V2::_Emit()
{
    std::string& line = _text.LineUpdate();
    bool x, y, z, e;
    GCodeRichLine::DeriveResets(line.data(), line.size(), x, y, z, e);
    if (e)
        _state.E = 0.0;
    if (line.empty())
        return true;
    if (line.back() != '\n')
        line += '\n';
    return _file.WriteBytes(line.data(), line.size()) == line.size();
}

bool M2DSliceIO_gcode_V2::_WriteComment(const std::string& text, bool expand)
{
    if (text.empty())
        return true;
    return _WriteLine(GCodeRichLine("; " + text), expand);
}

bool M2DSliceIO_gcode_V2::_WriteLayerNumber(std::uint64_t number)
{
    if (number == _lastLayerNumber)
        return true;
    _lastLayerNumber = number;
    return _WriteComment("LAYER_NO " + std::to_string(number), false);
}

bool M2DSliceIO_gcode_V2::_WriteNozzleTemperature(double temperature)
{
    if (Near(temperature, _state.NozzleTemperature))
        return true;
    _text.Clear();
    _text.Text("M104 S").Fixed(temperature, 1);
    _state.NozzleTemperature = temperature;
    bool result = _Emit();
    if (_Profile().WaitForNozzleTemperature)
        result = _WriteNozzleWait(temperature) && result;
    return result;
}

bool M2DSliceIO_gcode_V2::_WriteBedTemperature(double temperature)
{
    _text.Clear();
    _text.Text("M140 S").General(temperature);
    return _Emit();
}

bool M2DSliceIO_gcode_V2::_WriteNozzleWait(double temperature)
{
    _text.Clear();
    _text.Text("M109 S").General(temperature);
    return _Emit();
}

bool M2DSliceIO_gcode_V2::_WriteBedWait(double temperature)
{
    _text.Clear();
    _text.Text("M190 S").General(temperature);
    return _Emit();
}

bool M2DSliceIO_gcode_V2::_WriteWaitSeconds(double seconds)
{
    if (!(seconds > 0))
        return true;
    _text.Clear();
    _text.Text("G4 S").General(seconds);
    return _Emit();
}

// ---------------------------------------------------------------- moves

bool M2DSliceIO_gcode_V2::_WriteMoveCommand(eGCodeMoveCommand command, const GCodeState& target)
{
    const GCodeParametersV2& profile = _Profile();
    _text.Clear();
    _text.Text(profile.GetMoveCommand(command));
    _AddLayerPrintingTime(target);
    if (IsSet(target.X))
    {
        _text.Text(" X").Fixed(target.X, 5);
        _state.X = target.X;
    }
    if (IsSet(target.Y))
    {
        _text.Text(" Y").Fixed(target.Y, 5);
        _state.Y = target.Y;
    }
    if (IsSet(target.Z))
    {
        _text.Text(" Z").Fixed(target.Z, 5);
        _state.Z = target.Z;
    }
    if (IsSet(target.E))
    {
        _text.Text(" E").Fixed(target.E, 5);
        _state.E = profile.RelativeExtrusion ? 0.0 : target.E;
    }
    if (IsSet(target.Speed) && !Near(target.Speed, _state.Speed))
    {
        _text.Text(" F").Fixed(target.Speed, 1);
        _state.Speed = target.Speed;
    }
    if (!target.Comment.empty())
        _text.Text("; ").Text(target.Comment);
    return _Emit();
}

void M2DSliceIO_gcode_V2::_AddLayerPrintingTime(const GCodeState& target)
{
    if (target.Speed < kTolerance)
        return; // also below 1e-5 in magnitude or negative
    const double x = IsSet(target.X) ? target.X : _state.X;
    const double y = IsSet(target.Y) ? target.Y : _state.Y;
    _layerTime += _GetJumpLength(_state.X, _state.Y, x, y) / target.Speed;
}

bool M2DSliceIO_gcode_V2::_WriteZValue(double z, double speed)
{
    if (speed < 0)
        speed = _Profile().ZSpeed;
    if (Near(z, _state.Z))
        return true;
    GCodeState target;
    target.Z = z;
    target.Speed = speed;
    return _WriteMoveCommand(eGCodeMoveCommand_ZMove, target);
}

bool M2DSliceIO_gcode_V2::_WriteSpeedValue(double speed)
{
    if (Near(speed, _state.Speed))
        return true;
    GCodeState target;
    target.Speed = speed;
    return _WriteMoveCommand(eGCodeMoveCommand_Speed, target);
}

bool M2DSliceIO_gcode_V2::_WriteMoveWithoutExtrusion(double x, double y, double speed)
{
    GCodeState target;
    target.X = x;
    target.Y = y;
    target.Speed = speed;
    return _WriteMoveCommand(eGCodeMoveCommand_Jump, target);
}

bool M2DSliceIO_gcode_V2::_WriteCoasting(double x, double y, double speed)
{
    GCodeState target;
    target.X = x;
    target.Y = y;
    target.Speed = speed;
    target.Comment = "coasting";
    return _WriteMoveCommand(eGCodeMoveCommand_Print, target);
}

bool M2DSliceIO_gcode_V2::_WriteMoveWithExtrusion(double x, double y, double speed, double e)
{
    GCodeState target;
    target.X = x;
    target.Y = y;
    target.E = e;
    target.Speed = speed;
    return _WriteMoveCommand(eGCodeMoveCommand_Print, target);
}

bool M2DSliceIO_gcode_V2::_WriteZOffset(double offset, bool back)
{
    if (std::fabs(offset) < kTolerance)
        return true;
    return _WriteZValue(back ? _state.Z - offset : _state.Z + offset, _Profile().ZSpeed);
}

bool M2DSliceIO_gcode_V2::_WriteRetraction(std::int32_t nozzle, bool back)
{
    const GCodeParametersV2& profile = _Profile();
    GCodeState target;
    if (back)
    {
        target.E = _state.E + profile.GetRetractionBackLength(nozzle);
        target.Speed = profile.GetRetractionBackSpeed(nozzle);
        target.Comment = "priming";
    }
    else
    {
        target.E = _state.E - profile.GetRetractionLength(nozzle);
        target.Speed = profile.GetRetractionSpeed(nozzle);
        target.Comment = "retraction";
    }
    return _WriteMoveCommand(eGCodeMoveCommand_Retraction, target);
}

bool M2DSliceIO_gcode_V2::_WriteHopping(std::int32_t nozzle, bool back)
{
    const GCodeParametersV2& profile = _Profile();
    GCodeState target;
    target.Z = back ? _state.Z - profile.GetHopValue(nozzle) : _state.Z + profile.GetHopValue(nozzle);
    target.Speed = profile.GetHopSpeed(nozzle);
    target.Comment = "vertical move";
    return _WriteMoveCommand(eGCodeMoveCommand_ZMove, target);
}

bool M2DSliceIO_gcode_V2::_WriteJumpTo(double x, double y, std::int32_t nozzle, const GCodeZoneParameters& zone)
{
    if (Near(x, _state.X) && Near(y, _state.Y))
        return true;
    const GCodeParametersV2& profile = _Profile();
    const double distance = _GetJumpLength(_state.X, _state.Y, x, y);
    const bool retract = zone.ForceRetraction ||
                         (profile.GetRetractionEnabled(nozzle) && distance > profile.GetRetractionThreshold(nozzle));
    const bool hop = zone.ForceHop || (profile.GetHopEnabled(nozzle) && distance > profile.GetHopThreshhold(nozzle));
    bool result = true;
    if (retract)
        result = _WriteRetraction(nozzle, false) && result;
    if (hop)
        result = _WriteHopping(_state.Nozzle, false) && result;
    result = _WriteMoveWithoutExtrusion(x, y, profile.JumpSpeed) && result;
    if (hop)
        result = _WriteHopping(_state.Nozzle, true) && result;
    if (retract)
        result = _WriteRetraction(nozzle, true) && result;
    return result;
}

bool M2DSliceIO_gcode_V2::_WriteNozzleSwitchCommands(std::int32_t nozzle)
{
    if (!_nozzleHook)
        return true;
    std::vector<GCodeRichLine> lines;
    _nozzleHook->_OnNozzleSwitch(lines, static_cast<std::uint64_t>(static_cast<std::int64_t>(nozzle)), _layerIndex + 1);
    return _WriteLines(lines, false);
}

bool M2DSliceIO_gcode_V2::_WriteNozzleSwitch(std::int32_t nozzle, double x, double y)
{
    if (nozzle == _state.Nozzle)
        return true;
    const GCodeParametersV2& profile = _Profile();
    const std::int32_t current = _state.Nozzle;
    bool hopped = false;
    if (current != GCodeState::NoNozzle)
    {
        const auto currentKey = static_cast<std::uint64_t>(static_cast<std::int64_t>(current));
        if (!profile.GetUseCustomToolSwitchFromNozzle(currentKey))
        {
            _WriteRetraction(current, false);
            _WriteHopping(current, false);
            hopped = true;
        }
        else
            _WriteLines(profile.GetCustomToolSwitchFromNozzle(currentKey), false);
    }
    _state.E = 0.0;
    _text.Clear();
    _text.Text("G92 E0\nT").Integer(nozzle).Text("\nG92 E0\n");
    _WriteLine(GCodeRichLine(_text.Line()), false);
    _WriteMoveWithoutExtrusion(x, y, profile.JumpSpeed);
    const auto key = static_cast<std::uint64_t>(static_cast<std::int64_t>(nozzle));
    if (!profile.GetUseCustomToolSwitchToNozzle(key))
    {
        // The old nozzle is still the stored one, so its hop rules the way down too.
        if (hopped)
            _WriteHopping(_state.Nozzle, true);
        _WriteRetraction(nozzle, true);
    }
    else
        _WriteLines(profile.GetCustomToolSwitchToNozzle(key), false);
    _state.E = 0.0;
    _WriteLine(GCodeRichLine("G92 E0\n"), false);
    _state.Nozzle = nozzle;
    if (_nozzleHook)
        _WriteNozzleSwitchCommands(nozzle);
    return true;
}

// ---------------------------------------------------------------- blocks

void M2DSliceIO_gcode_V2::_GetCurrentParameterSet(GCodeZoneParameters& zone, const M2DSliceVectorBlock& block) const
{
    const std::int32_t index = block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter);
    if (index < 0)
        return;
    zone = _profile ? _profile->GetZoneOverrideParameterSet(index) : GCodeParametersV2().GetZoneOverrideParameterSet(index);
}

std::int32_t M2DSliceIO_gcode_V2::_GetNozzleIndex(const M2DSliceVectorBlock* block)
{
    const std::int32_t nozzle = block->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Nozzle);
    return nozzle == -1 ? 0 : nozzle;
}

double M2DSliceIO_gcode_V2::_GetExtrusionFromCylindricVolume(double length, std::int32_t nozzle, double multiplier) const
{
    const GCodeParametersV2& profile = *_profile;
    const double section = profile.GetTrackWidth(nozzle) * profile.SliceThickness;
    if (std::fabs(section) < kTolerance)
        throw std::invalid_argument("Too small the output size of nozzle id = " + std::to_string(nozzle));
    const double radius = profile.GetFilamentWidth(nozzle) * 0.5;
    const double area = kPi * (radius * radius);
    if (std::fabs(area) < kTolerance)
        throw std::invalid_argument("Too small filament width of the nozzle id = " + std::to_string(nozzle));
    if (std::fabs(multiplier) < kTolerance)
        throw std::invalid_argument("Invalid extrusion multiplier");
    const double e = section / area * length * multiplier / 100.0;
    return profile.RelativeExtrusion ? e : e + _state.E;
}

bool M2DSliceIO_gcode_V2::_WriteVectorBlock(const M2DSliceVectorBlock* block)
{
    if (block == nullptr || block->Vectors.empty())
        return true;
    const GCodeParametersV2& profile = _Profile();
    GCodeZoneParameters zone;
    _GetCurrentParameterSet(zone, *block);
    const std::int32_t nozzle = _GetNozzleIndex(block);
    const bool coasting = block->GetTypeInfo().GetFlag(e2DSliceVectorTypeFlag_7);
    const double slowed = zone.Speed * _speedFactor;
    const double divisor = ZanSDK::Common::MInternalUnits::Get();
    bool result = true;
    double lastX = 0.0, lastY = 0.0;
    for (std::size_t i = 0; i < block->Vectors.size(); ++i)
    {
        const M2DSliceVector& v = block->Vectors[i];
        const double sx = v.x1 / divisor;
        const double sy = v.y1 / divisor;
        const double ex = v.x2 / divisor;
        const double ey = v.y2 / divisor;
        if (i == 0)
        {
            result = _WriteComment(zone.Comment, false) && result;
            result = _WriteNozzleTemperature(zone.NozzleTemperature) && result;
            if (zone.SwitchNozzle)
                result = _WriteNozzleSwitch(nozzle, sx, sy) && result;
            result = _WriteJumpTo(sx, sy, nozzle, zone) && result;
            if (!Near(slowed, _state.Speed))
            {
                GCodeState target;
                target.Speed = slowed;
                result = _WriteMoveCommand(eGCodeMoveCommand_Speed, target) && result;
            }
            if (std::fabs(zone.ZOffset) >= kTolerance)
                result = _WriteZValue(_state.Z + zone.ZOffset, profile.ZSpeed) && result;
        }
        else if (!Near(sx, lastX) || !Near(sy, lastY))
        {
            result = _WriteJumpTo(sx, sy, nozzle, zone) && result;
            result = _WriteSpeedValue(slowed) && result;
        }
        // The move carries the zone's own speed: a slowed layer's factor lasts until here.
        if (coasting)
            result = _WriteCoasting(ex, ey, zone.Speed) && result;
        else
        {
            const double e = _GetExtrusionFromCylindricVolume(_GetJumpLength(sx, sy, ex, ey), nozzle,
                                                              zone.ExtrusionMultiplier);
            result = _WriteMoveWithExtrusion(ex, ey, zone.Speed, e) && result;
        }
        lastX = ex;
        lastY = ey;
    }
    if (std::fabs(zone.ZOffset) >= kTolerance)
        result = _WriteZValue(_state.Z - zone.ZOffset, profile.ZSpeed) && result;
    return result;
}

bool M2DSliceIO_gcode_V2::_WriteAllVectorBlocks(const M2DSliceConstDataItems& items)
{
    bool result = true;
    for (const M2DSliceConstDataItem& item : items.Items)
        if (const M2DSliceVectorBlock* block = item.GetVectorBlock())
            result = _WriteVectorBlock(block) && result;
    return result;
}

// ---------------------------------------------------------------- queries

double M2DSliceIO_gcode_V2::_GetJumpLength(double x0, double y0, double x1, double y1) const
{
    return GCodeSafeDistance(x0, y0, x1, y1);
}

bool M2DSliceIO_gcode_V2::_CheckLastCoordinate(double a, double b, double c, double d) const
{
    return Near(a, c) && Near(b, d);
}

double M2DSliceIO_gcode_V2::_GetZIncrement(std::int32_t z) const
{
    // No first-layer rules here: every layer counts in full.
    if (_lastZ == INT32_MIN)
        return _profile ? _profile->SliceThickness : GCodeParametersV2().SliceThickness;
    return (static_cast<double>(z) - static_cast<double>(_lastZ)) / ZanSDK::Common::MInternalUnits::Get();
}

// ---------------------------------------------------------------- time

double M2DSliceIO_gcode_V2::_GetEstimatedLayerPrintingTime(const M2DSliceConstDataItems& items, double& slowest) const
{
    slowest = std::numeric_limits<double>::max();
    double total = 0.0;
    const double mark = std::numeric_limits<double>::min();
    double lastX = mark, lastY = mark;
    const double divisor = ZanSDK::Common::MInternalUnits::Get();
    for (const M2DSliceConstDataItem& item : items.Items)
    {
        const M2DSliceVectorBlock* block = item.GetVectorBlock();
        if (block == nullptr)
            continue;
        GCodeZoneParameters zone;
        _GetCurrentParameterSet(zone, *block);
        const double speed = zone.Speed;
        if (!(speed > 0))
            continue;
        slowest = std::min(slowest, speed);
        if (block->Vectors.empty())
            continue;
        const M2DSliceVector& first = block->Vectors.front();
        if (Near(lastX, mark))
        {
            lastX = first.x1 / divisor;
            lastY = first.y1 / divisor;
        }
        double distance = _GetJumpLength(lastX, lastY, first.x1 / divisor, first.y1 / divisor);
        for (const M2DSliceVector& v : block->Vectors)
        {
            const double ex = v.x2 / divisor;
            const double ey = v.y2 / divisor;
            distance += _GetJumpLength(v.x1 / divisor, v.y1 / divisor, ex, ey);
            lastX = ex;
            lastY = ey;
        }
        total += distance / speed;
    }
    return total;
}

void M2DSliceIO_gcode_V2::_ReducePrintingSpeed(const M2DSliceConstDataItems& items)
{
    _speedFactor = 1.0;
    _pendingWait = 0.0;
    double slowest = 0.0;
    const double estimate = _GetEstimatedLayerPrintingTime(items, slowest);
    if (Near(estimate, 0.0) && estimate < 0)
        return;
    _estimatedLayerTime = estimate;
    if (Near(slowest, 0.0) && slowest < 0)
        return;
    const double minimum = _Profile().MinimumLayerTime;
    if (!(minimum > 0) || !(estimate < minimum))
        return;
    const double ratio = _Profile().MinimumSpeed / slowest;
    const double slowedTime = ratio * minimum;
    const double difference = slowedTime - estimate;
    if (std::fabs(difference) < kTolerance && estimate > slowedTime)
    {
        _speedFactor = estimate / minimum;
        return;
    }
    _speedFactor = ratio;
    _pendingWait = difference;
}

bool M2DSliceIO_gcode_V2::_EndLayerWait()
{
    bool result = true;
    if (_Profile().WaitAtLayerEnd)
    {
        _layerTime += _pendingWait;
        result = _WriteWaitSeconds(_pendingWait * 60.0);
    }
    _overallTime += _layerTime;
    return result;
}
