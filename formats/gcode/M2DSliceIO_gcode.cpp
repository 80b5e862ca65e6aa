#include "M2DSliceIO_gcode.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "../../contracts/M2DSlice.h"
#include "../../contracts/M2DSliceSource.h"

namespace {

constexpr double kPi = 3.141592653589793;

// Category numbers of the writer's own classification.
enum Category : unsigned
{
    Contour = 0,
    Infill = 1,
    SupportInfill = 2,
    Raft = 3,
    Down = 4,
    Up = 5,
    FollowingRaft = 6,
    Brim = 7,
    Skirt = 8,
    SecondDown = 9,
    SecondUp = 10,
    SupportPerimeter = 11,
    SupportRoof = 12,
};

// The member of a per-category record, or null for a category outside the table.
template <class Record>
const double* Member(const Record& r, unsigned category)
{
    switch (category)
    {
    case Contour: return &r.Contour;
    case Infill: return &r.Infill;
    case SupportInfill: return &r.SupportInfill;
    case Raft: return &r.Raft;
    case Down: return &r.Down;
    case Up: return &r.Up;
    case FollowingRaft: return &r.FollowingRaft;
    case Brim: return &r.Brim;
    case Skirt: return &r.Skirt;
    case SecondDown: return &r.SecondDown;
    case SecondUp: return &r.SecondUp;
    case SupportPerimeter: return &r.SupportPerimeter;
    case SupportRoof: return &r.SupportRoof;
    default: return nullptr;
    }
}

template <class Record>
double Value(const Record& r, unsigned category)
{
    const double* member = Member(r, category);
    return member ? *member : 0.0;
}

bool IsMachineLayerCategory(unsigned category)
{
    return category == Raft || category == FollowingRaft || category == Brim || category == Skirt;
}

double PlainDistance(double x0, double y0, double x1, double y1)
{
    const double dx = x1 - x0;
    const double dy = y1 - y0;
    return std::sqrt(dx * dx + dy * dy);
}

} // namespace

// ---------------------------------------------------------------- profile

void I2DSliceIO_gcode::SetGCodeProfile(const GCodeProfile& profile)
{
    static_cast<GCodeParameters&>(_profile) = static_cast<const GCodeParameters&>(profile);
    _profile.RaftSlices.clear();
    for (const auto& slice : profile.RaftSlices)
        _profile.RaftSlices.push_back(slice);
    _profile.BrimSlice = profile.BrimSlice;
    _profile.SkirtSlice = profile.SkirtSlice;
}

// ---------------------------------------------------------------- frame

M2DSliceIO_gcode::M2DSliceIO_gcode() = default;
M2DSliceIO_gcode::~M2DSliceIO_gcode() = default;

bool M2DSliceIO_gcode::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    return true;
}

bool M2DSliceIO_gcode::_CloseFile()
{
    return true;
}

bool M2DSliceIO_gcode::_ReadHeader(ITarget2DSlices* /*target*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode::_ReadLayer(M2DSlice& /*slice*/, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode::_ScanLayer(M2DSliceContainerScanInfo& /*info*/, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode::_ReadFooter(ITarget2DSlices* /*target*/)
{
    return _Fail("G-code is written only");
}

bool M2DSliceIO_gcode::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    AddProfileProperties(_profile, _properties);
    // Only the last step's result counts: earlier failures show in the file's error state.
    bool result = _WriteLines(_profile.UseCustomStartCode ? _profile.CustomStartCode : _profile.StartCode, true);
    _sliceThickness = _profile.SliceThickness;
    if (_profile.SkirtEnabled && !_skirtWritten)
        result = _WriteSkirt();
    if (_profile.BrimEnabled && !_brimWritten)
        result = _WriteBrim();
    if (_profile.RaftEnabled && !_raftWritten)
        result = _WriteRaft();
    return result || _Fail("the start code could not be written");
}

bool M2DSliceIO_gcode::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t z,
                                   const M2DSliceConstDataItems& items)
{
    if (items.Items.empty())
        return true;
    _layerTime = 0.0;
    _ReducePrintingSpeed(items);
    const std::uint64_t number = _layerIndex + 1;
    bool result = true;
    // The regular temperature comes back on the second layer above the raft.
    if (_profile.RaftEnabled && _profile.RaftTopTemperatureEnabled && _layerIndex == _raftLayerCount + 1 &&
        _state.Nozzle != GCodeState::NoNozzle)
        result = _WriteNozzleTemperature(_profile.GetTemperatureNozzle(_state.Nozzle)) && result;
    result = _WriteLayerNumber(number) && result;
    _WriteZValue(z / 10000.0, -1.0); // its result is not part of the layer's
    if (_nozzleHook && _state.Nozzle != GCodeState::NoNozzle)
        result = _WriteHookLines(static_cast<std::uint64_t>(_state.Nozzle), number) && result;
    // A brim or skirt already wrote the pre-layer lines of the first layer when no raft did.
    if (!(_layerIndex == _raftLayerCount && _preLayerWritten && !_raftWritten))
        result = _WriteLines(_profile.GetPreLayer(number), false) && result;
    result = _WriteAllVectorBlocks(items) && result;
    result = _WriteLines(_profile.GetPostLayer(number), false) && result;
    _EndLayerWait();
    if (result)
        ++_layerIndex;
    _lastZ = z;
    return result || _Fail("the layer's lines could not be written");
}

bool M2DSliceIO_gcode::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    // The overall time is known here but is not part of the file.
    return _WriteLines(_profile.UseCustomEndCode ? _profile.CustomEndCode : _profile.EndCode, false) ||
           _Fail("the end code could not be written");
}

// ---------------------------------------------------------------- lines

bool M2DSliceIO_gcode::_WriteLine(const GCodeRichLine& line, bool expand)
{
    const std::string& text = line;
    if (text.empty())
        return true;
    if (expand)
        return _WriteLine(GCodeRichLine(GCodeExpandTemplate(text, _properties)), false);
    if (line.ResetsE())
        _state.E = 0.0;
    if (line.ResetsX())
        _state.X = 0.0;
    if (line.ResetsY())
        _state.Y = 0.0;
    if (line.ResetsZ())
        _state.Z = 0.0;
    return GCodeWriteText(_file, text);
}

bool M2DSliceIO_gcode::_WriteLines(const std::vector<GCodeRichLine>& lines, bool expand)
{
    bool result = true;
    for (const GCodeRichLine& line : lines)
        result = _WriteLine(line, expand) && result;
    return result;
}

bool M2DSliceIO_gcode::_Emit()
{
    // The composed lines open with a move word; a dialect may still choose a word that
    // sets an axis, so the marks are derived as for any rich line.
    std::string& line = _text.LineUpdate();
    bool x, y, z, e;
    GCodeRichLine::DeriveResets(line.data(), line.size(), x, y, z, e);
    if (e)
        _state.E = 0.0;
    if (x)
        _state.X = 0.0;
    if (y)
        _state.Y = 0.0;
    if (z)
        _state.Z = 0.0;
    if (line.empty())
        return true;
    if (line.back() != '\n')
        line += '\n';
    return _file.WriteBytes(line.data(), line.size()) == line.size();
}

bool M2DSliceIO_gcode::_WriteComment(const std::string& text)
{
    _text.Clear();
    _text.Text("; ").Text(text);
    return _Emit();
}

bool M2DSliceIO_gcode::_WriteLayerNumber(std::uint64_t number)
{
    if (number == _lastLayerNumber)
        return true;
    _text.Clear();
    _text.Text("; LAYER_NO ").Unsigned(number);
    _lastLayerNumber = number;
    return _Emit();
}

bool M2DSliceIO_gcode::_WriteIntegerCommand(const char* word, std::int32_t value)
{
    _text.Clear();
    _text.Text(word).Integer(value);
    return _Emit();
}

bool M2DSliceIO_gcode::_WriteNozzleTemperature(std::int32_t temperature)
{
    return _WriteIntegerCommand("M104 S", temperature);
}

bool M2DSliceIO_gcode::_WriteBedTemperature(std::int32_t temperature)
{
    return _WriteIntegerCommand("M140 S", temperature);
}

bool M2DSliceIO_gcode::_WriteNozzleWait(std::int32_t temperature)
{
    return _WriteIntegerCommand("M109 S", temperature);
}

bool M2DSliceIO_gcode::_WriteBedWait(std::int32_t temperature)
{
    return _WriteIntegerCommand("M190 S", temperature);
}

bool M2DSliceIO_gcode::_WriteWaitSeconds(double seconds)
{
    if (!(seconds > 0))
        return true;
    _text.Clear();
    _text.Text("G4 S").General(seconds);
    return _Emit();
}

bool M2DSliceIO_gcode::_WritePreLayer(std::uint64_t layer)
{
    return _WriteLines(_profile.GetPreLayer(layer), false);
}

bool M2DSliceIO_gcode::_WritePostLayer(std::uint64_t layer)
{
    return _WriteLines(_profile.GetPostLayer(layer), false);
}

bool M2DSliceIO_gcode::_WriteHookLines(std::uint64_t nozzle, std::uint64_t layer)
{
    std::vector<GCodeRichLine> lines;
    _nozzleHook->_OnNozzleSwitch(lines, nozzle, layer);
    return _WriteLines(lines, false);
}

// ---------------------------------------------------------------- moves

bool M2DSliceIO_gcode::_WriteZValue(double z, double speed)
{
    if (speed < 0)
        speed = _profile.DefaultSpeeds.ZSpeed;
    if (z == _state.Z)
        return true;
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_ZMove)).Text(" Z").General(z).Text(" F").General(speed);
    _state.Z = z;
    _state.Speed = speed;
    return _Emit();
}

bool M2DSliceIO_gcode::_WriteSpeedValue(double speed)
{
    if (speed == _state.Speed)
        return true;
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_Speed)).Text(" F").General(speed);
    _state.Speed = speed;
    return _Emit();
}

bool M2DSliceIO_gcode::_WriteZOffset(double offset)
{
    if (offset == 0)
        return true;
    return _WriteZValue(_state.Z + offset, _profile.DefaultSpeeds.ZSpeed);
}

bool M2DSliceIO_gcode::_WriteZOffsetBack(double offset)
{
    if (offset == 0)
        return true;
    return _WriteZValue(_state.Z - offset, _profile.DefaultSpeeds.ZSpeed);
}

void M2DSliceIO_gcode::_AddLayerPrintingTime(double x, double y, double speed)
{
    if (speed > 0)
        _layerTime += PlainDistance(_state.X, _state.Y, x, y) / speed;
}

bool M2DSliceIO_gcode::_WriteJumpLine(double x, double y)
{
    const double speed = _profile.DefaultSpeeds.JumpSpeed;
    _AddLayerPrintingTime(x, y, speed);
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_Jump))
        .Text(" X")
        .General(x)
        .Text(" Y")
        .General(y)
        .Text(" F")
        .General(speed);
    const bool result = _Emit();
    _state.X = x;
    _state.Y = y;
    _state.Speed = speed;
    return result;
}

bool M2DSliceIO_gcode::_WriteMoveTo(double x, double y, double e)
{
    _AddLayerPrintingTime(x, y, _state.Speed);
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_Print))
        .Text(" X")
        .General(x)
        .Text(" Y")
        .General(y)
        .Text(" E")
        .Fixed(e, 6);
    const bool result = _Emit();
    _state.X = x;
    _state.Y = y;
    _state.E = _profile.RelativeExtrusion ? 0.0 : e;
    return result;
}

bool M2DSliceIO_gcode::_WriteRetraction(std::int32_t nozzle)
{
    const double e = _state.E - _profile.GetRetractionLength(nozzle);
    const double speed = _profile.GetRetractionSpeed(nozzle);
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_Print)).Text(" E").Fixed(e, 6).Text(" F").Fixed(speed, 6);
    const bool result = _Emit();
    _state.E = _profile.RelativeExtrusion ? 0.0 : e;
    _state.Speed = speed;
    return result;
}

bool M2DSliceIO_gcode::_WriteRetractionBack(std::int32_t nozzle)
{
    const double e = _state.E + _profile.GetRetractionBackLength(nozzle);
    const double speed = _profile.GetRetractionBackSpeed(nozzle);
    _text.Clear();
    _text.Text(_profile.GetMoveCommand(eGCodeMoveCommand_Print)).Text(" E").Fixed(e, 6).Text(" F").Fixed(speed, 6);
    const bool result = _Emit();
    _state.E = _profile.RelativeExtrusion ? 0.0 : e;
    _state.Speed = speed;
    return result;
}

bool M2DSliceIO_gcode::_WriteJumpTo(double x, double y, unsigned category, std::int32_t nozzle)
{
    if (x == _state.X && y == _state.Y)
        return true;
    const double distance = _GetJumpLength(x, y);
    // Raft layers always retract: their tracks are laid with gaps the filament must not fill.
    const bool retract = (_profile.GetRetractionEnabled(nozzle) && distance > _profile.GetRetractionThreshold(nozzle)) ||
                         category == Raft || category == FollowingRaft;
    if (retract)
        _WriteRetraction(nozzle);
    bool result;
    if (_profile.GetHopEnabled(nozzle) && distance > _profile.GetHopThreshhold(nozzle))
    {
        _WriteZValue(_state.Z + _profile.GetHopValue(nozzle), _profile.GetHopSpeed(nozzle));
        result = _WriteJumpLine(x, y);
        _WriteZValue(_state.Z - _profile.GetHopValue(nozzle), _profile.GetHopSpeed(nozzle));
    }
    else
        result = _WriteJumpLine(x, y);
    if (retract)
        _WriteRetractionBack(nozzle);
    return result;
}

bool M2DSliceIO_gcode::_WriteNozzleSwitch(std::int32_t nozzle, double x, double y)
{
    if (nozzle == _state.Nozzle)
        return true;
    double hop = 0.0;
    bool hopped = false;
    if (_state.Nozzle != GCodeState::NoNozzle)
    {
        const std::int32_t current = _state.Nozzle;
        const auto currentKey = static_cast<std::uint64_t>(static_cast<std::int64_t>(current));
        if (!_profile.GetUseCustomToolSwitchFromNozzle(currentKey))
        {
            _WriteRetraction(current);
            hop = _profile.GetHopValue(current);
            _WriteZValue(hop + _state.Z, _profile.GetHopSpeed(current));
            hopped = true;
        }
        else
            _WriteLines(_profile.GetCustomToolSwitchFromNozzle(currentKey), false);
    }
    _state.E = 0.0;
    _text.Clear();
    _text.Text("G92 E0\nT").Integer(nozzle).Text("\nG92 E0\n");
    _WriteLine(GCodeRichLine(_text.Line()), false);
    _WriteJumpLine(x, y);
    const auto key = static_cast<std::uint64_t>(static_cast<std::int64_t>(nozzle));
    if (!_profile.GetUseCustomToolSwitchToNozzle(key))
    {
        if (hopped)
            _WriteZValue(_state.Z - hop, _profile.GetHopSpeed(nozzle));
        _WriteRetractionBack(nozzle);
    }
    else
        _WriteLines(_profile.GetCustomToolSwitchToNozzle(key), false);
    _state.E = 0.0;
    _WriteLine(GCodeRichLine("G92 E0\n"), false);
    _state.Nozzle = nozzle;
    if (_nozzleHook)
        _WriteHookLines(key, _layerIndex + 1);
    return true;
}

// ---------------------------------------------------------------- blocks

unsigned M2DSliceIO_gcode::_GetBlockCategory(const M2DSliceVectorTypeInfo& info)
{
    unsigned category;
    switch (static_cast<int>(info.GetType()))
    {
    case 1: case 4: case 5: category = Contour; break;
    case 6: case 9: case 10: case 11: category = Infill; break;
    case 7: category = Down; break;
    case 8: category = Up; break;
    case 2: category = SecondDown; break;
    case 3: category = SecondUp; break;
    default: category = Contour; break;
    }
    if (info.GetFlag(e2DSliceVectorTypeFlag_1))
    {
        if (category == Contour)
            category = SupportPerimeter;
        else if (category == Up)
            category = SupportRoof;
        else if (category < 10)
            category = SupportInfill;
        else if (category == 10)
            category = SupportRoof;
    }
    return category;
}

std::int32_t M2DSliceIO_gcode::_GetNozzleIndex(const M2DSliceVectorBlock* block)
{
    const std::int32_t nozzle = block->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Nozzle);
    return nozzle == -1 ? 0 : nozzle;
}

double M2DSliceIO_gcode::_GetZOffset(unsigned category, std::int32_t index) const
{
    return Value(_profile.GetZOffsets(index), category);
}

double M2DSliceIO_gcode::_GetExtrusionFactor(unsigned category, std::int32_t index) const
{
    return Value(_profile.GetExtrusions(index), category);
}

double M2DSliceIO_gcode::_GetSpeedForType(unsigned category, std::int32_t index) const
{
    const GCodeParameters::Speeds& speeds = _profile.GetSpeeds(index);
    const auto initialLayers = static_cast<std::int64_t>(_profile.InitialLayerCount) + static_cast<std::int64_t>(_raftLayerCount);
    if (static_cast<std::int64_t>(_layerIndex) >= initialLayers)
        return Value(speeds, category);
    if (IsMachineLayerCategory(category))
        return Value(speeds, category);
    return speeds.InitialLayer;
}

double M2DSliceIO_gcode::_GetExtrusionFromCylindricVolume(double length, int category, std::int32_t nozzle,
                                                          double factor) const
{
    const auto initialLayers = static_cast<std::int64_t>(_profile.InitialLayerCount) + static_cast<std::int64_t>(_raftLayerCount);
    if (static_cast<std::int64_t>(_layerIndex) < initialLayers && _profile.InitialLayerExtrusionPercent != 100 &&
        !IsMachineLayerCategory(static_cast<unsigned>(category)))
        factor *= _profile.InitialLayerExtrusionPercent / 100.0;
    (void)_profile.GetNozzleSize(nozzle);
    const double radius = _profile.GetFilamentWidth(nozzle) * 0.5;
    return (factor / 100.0) * (_profile.GetTrackWidth(nozzle) * _sliceThickness) / (kPi * (radius * radius)) * length;
}

std::string M2DSliceIO_gcode::_GetBlockStartComment(unsigned category)
{
    static const char* const names[] = {"CONTOUR", "INFILL", "SUPPORT INFILL", "RAFT", "DOWN", "UP",
                                        "FOLLOWING RAFT", "BRIM", "SKIRT", "DOWN", "UP", "SUPPORT PERIMETER",
                                        "SUPPORT ROOF"};
    return category < 13 ? names[category] : "";
}

double M2DSliceIO_gcode::_GetJumpLength(double x, double y) const
{
    return PlainDistance(_state.X, _state.Y, x, y);
}

double M2DSliceIO_gcode::_GetJumpLength(double x0, double y0, double x1, double y1)
{
    return PlainDistance(x0, y0, x1, y1);
}

double M2DSliceIO_gcode::_GetZIncrement(std::int32_t z) const
{
    const double factor = static_cast<std::int64_t>(_layerIndex) < _profile.InitialLayerCount
                              ? _profile.InitialLayerHeightPercent / 100.0
                              : 1.0;
    if (_lastZ == INT32_MIN)
        return _sliceThickness * factor;
    return (static_cast<double>(z) - static_cast<double>(_lastZ)) / 10000.0 * factor;
}

bool M2DSliceIO_gcode::_WriteVectorBlock(const M2DSliceVectorBlock* block, int requested)
{
    if (block == nullptr || block->Vectors.empty())
        return true;
    const M2DSliceVectorTypeInfo& info = block->GetTypeInfo();
    const unsigned category = requested < 0 ? _GetBlockCategory(info) : static_cast<unsigned>(requested);
    const bool coasting = info.GetFlag(e2DSliceVectorTypeFlag_7);
    const std::int32_t part = info.GetIndex(e2DSliceVectorTypeIndex_Part);
    const std::int32_t nozzle = _GetNozzleIndex(block);
    const double offset = _GetZOffset(category, part);
    const double factor = _GetExtrusionFactor(category, part);
    const double speed = _GetSpeedForType(category, part);

    const M2DSliceVector& first = block->Vectors.front();
    const double x0 = _ConvertUnits(first.x1);
    const double y0 = _ConvertUnits(first.y1);
    _WriteNozzleSwitch(nozzle, x0, y0);
    _WriteComment(_GetBlockStartComment(category));
    _WriteJumpTo(x0, y0, category, nozzle);
    _WriteSpeedValue(speed * _speedFactor);
    if (offset != 0)
        _WriteZValue(_state.Z + offset, -1.0);
    double lastX = 0.0, lastY = 0.0;
    for (std::size_t i = 0; i < block->Vectors.size(); ++i)
    {
        const M2DSliceVector& v = block->Vectors[i];
        const double sx = _ConvertUnits(v.x1);
        const double sy = _ConvertUnits(v.y1);
        const double ex = _ConvertUnits(v.x2);
        const double ey = _ConvertUnits(v.y2);
        if (i > 0 && (sx != lastX || sy != lastY))
        {
            _WriteJumpTo(sx, sy, category, nozzle);
            _WriteSpeedValue(speed * _speedFactor);
        }
        if (coasting)
            _WriteJumpLine(ex, ey);
        else
        {
            const double length = PlainDistance(sx, sy, ex, ey);
            _WriteMoveTo(ex, ey, _state.E + _GetExtrusionFromCylindricVolume(length, static_cast<int>(category), nozzle, factor));
        }
        lastX = ex;
        lastY = ey;
    }
    if (offset != 0)
        _WriteZValue(_state.Z - offset, -1.0);
    return true;
}

bool M2DSliceIO_gcode::_WriteAllVectorBlocks(const M2DSliceConstDataItems& items)
{
    bool result = true;
    for (const M2DSliceConstDataItem& item : items.Items)
        if (const M2DSliceVectorBlock* block = item.GetVectorBlock())
            result = _WriteVectorBlock(block, -1) && result;
    return result;
}

// ---------------------------------------------------------------- time

double M2DSliceIO_gcode::_GetEstimatedLayerPrintingTime(const M2DSliceConstDataItems& items, double& slowest) const
{
    slowest = std::numeric_limits<double>::max();
    double total = 0.0;
    const double mark = std::numeric_limits<double>::min();
    double lastX = mark, lastY = mark;
    for (const M2DSliceConstDataItem& item : items.Items)
    {
        const M2DSliceVectorBlock* block = item.GetVectorBlock();
        if (block == nullptr)
            continue;
        const M2DSliceVectorTypeInfo& info = block->GetTypeInfo();
        // The estimate selects the speeds by the block's parameter index.
        const double speed = _GetSpeedForType(_GetBlockCategory(info), info.GetIndex(e2DSliceVectorTypeIndex_Parameter));
        if (!(speed > 0))
            continue;
        slowest = std::min(slowest, speed);
        if (block->Vectors.empty())
            continue;
        const M2DSliceVector& first = block->Vectors.front();
        if (lastX == mark)
        {
            lastX = _ConvertUnits(first.x1);
            lastY = _ConvertUnits(first.y1);
        }
        double distance = PlainDistance(lastX, lastY, _ConvertUnits(first.x1), _ConvertUnits(first.y1));
        for (const M2DSliceVector& v : block->Vectors)
        {
            const double ex = _ConvertUnits(v.x2);
            const double ey = _ConvertUnits(v.y2);
            distance += PlainDistance(_ConvertUnits(v.x1), _ConvertUnits(v.y1), ex, ey);
            lastX = ex;
            lastY = ey;
        }
        total += distance / speed;
    }
    return total;
}

void M2DSliceIO_gcode::_ReducePrintingSpeed(const M2DSliceConstDataItems& items)
{
    _pendingWait = 0.0;
    _speedFactor = 1.0;
    double slowest = 0.0;
    const double estimate = _GetEstimatedLayerPrintingTime(items, slowest);
    if (!(estimate > 0))
        return;
    _estimatedLayerTime = estimate;
    const double minimum = _profile.MinimumLayerTime;
    if (!(slowest > 0) || !(minimum > 0) || estimate >= minimum)
        return;
    const double ratio = _profile.MinimumSpeed / slowest;
    const double slowed = ratio * minimum;
    if (estimate >= slowed)
        _speedFactor = estimate / minimum;
    else
    {
        _speedFactor = ratio;
        _pendingWait = slowed - estimate;
    }
}

bool M2DSliceIO_gcode::_EndLayerWait()
{
    bool result = true;
    if (_profile.WaitAtLayerEnd)
    {
        _layerTime += _pendingWait;
        result = _WriteWaitSeconds(_pendingWait * 60.0);
    }
    _overallTime += _layerTime;
    // The estimate and the layer's time are known here but are not part of the file.
    return result;
}

// ---------------------------------------------------------------- machine layers

bool M2DSliceIO_gcode::_WriteMachineLayer(const M2DSlice& slice, unsigned category, double speed)
{
    bool result = _WriteLayerNumber(_layerIndex + 1);
    result = _WriteZValue(slice.GetZ() / 10000.0, -1.0) && result;
    result = _WriteSpeedValue(speed) && result;
    if (!_preLayerWritten)
    {
        result = _WriteLines(_profile.GetPreLayer(_layerIndex + 1), false) && result;
        _preLayerWritten = true;
    }
    for (const M2DSliceVectorBlock* block = slice.GetVectors()->GetFirstVectorBlock();
         block != nullptr; block = block->GetNextVectorBlock())
        _WriteVectorBlock(block, static_cast<int>(category));
    return result;
}

bool M2DSliceIO_gcode::_WriteBrim()
{
    if (!_profile.BrimSlice)
        return true;
    const bool result = _WriteMachineLayer(*_profile.BrimSlice, Brim, _profile.DefaultSpeeds.Brim);
    _brimWritten = true;
    return result;
}

bool M2DSliceIO_gcode::_WriteSkirt()
{
    if (!_profile.SkirtSlice)
        return true;
    const bool result = _WriteMachineLayer(*_profile.SkirtSlice, Skirt, _profile.DefaultSpeeds.Skirt);
    _skirtWritten = true;
    return result;
}

bool M2DSliceIO_gcode::_WriteRaft()
{
    if (_profile.RaftSlices.empty())
        return true;
    _raftLayerCount = _profile.RaftSlices.size();
    bool result = true;
    const std::size_t count = _profile.RaftSlices.size();
    for (std::size_t i = 0; i < count; ++i)
    {
        const M2DSlice* slice = _profile.RaftSlices[i].get();
        const std::uint64_t number = _layerIndex + 1;
        if (i == 0 && slice != nullptr)
        {
            result = _WriteMachineLayer(*slice, Raft, _profile.DefaultSpeeds.Raft) && result;
            result = _WriteLines(_profile.GetPostLayer(number), false) && result;
            if (result)
                ++_layerIndex;
            continue;
        }
        result = _WriteLayerNumber(number) && result;
        if (slice == nullptr)
            continue;
        if (i + 1 == count && _profile.RaftTopTemperatureEnabled)
            result = _WriteNozzleTemperature(_profile.RaftTopTemperature) && result;
        result = _WriteZValue(slice->GetZ() / 10000.0, -1.0) && result;
        if (_nozzleHook && _state.Nozzle != GCodeState::NoNozzle)
            result = _WriteHookLines(static_cast<std::uint64_t>(_state.Nozzle), number) && result;
        result = _WriteSpeedValue(_profile.DefaultSpeeds.FollowingRaft) && result;
        result = _WriteLines(_profile.GetPreLayer(number), false) && result;
        for (const M2DSliceVectorBlock* block = slice->GetVectors()->GetFirstVectorBlock();
             block != nullptr; block = block->GetNextVectorBlock())
            _WriteVectorBlock(block, FollowingRaft);
        result = _WriteLines(_profile.GetPostLayer(number), false) && result;
        if (result)
            ++_layerIndex;
    }
    _raftWritten = true;
    return result;
}
