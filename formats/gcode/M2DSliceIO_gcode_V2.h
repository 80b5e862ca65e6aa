#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../../contracts/GCodeParameters.h"
#include "../../contracts/PersistentProperties.h"
#include "../../framework/I2DSliceIO.h"
#include "GCodeText.h"

// The second G-code writer: per-zone parameters chosen by a block's parameter index, every
// motion through one move command with fixed decimals, comments on their move lines, and
// doubles compared with a tolerance of 1e-5. No raft, brim or skirt. Bad extrusion
// parameters throw std::invalid_argument. Write only; reached by no file-type code.
class SLICEIO_API M2DSliceIO_gcode_V2 : public I2DSliceIO
{
public:
    M2DSliceIO_gcode_V2();
    ~M2DSliceIO_gcode_V2() override;

    // Each replaces and destroys what was there.
    void SetProfile(std::unique_ptr<GCodeParametersV2> profile) { _profile = std::move(profile); }
    void SetNozzleSwitchHook(std::unique_ptr<INozzleSwitchHook> hook) { _nozzleHook = std::move(hook); }
    const GCodeState GetCurrentGcodeState() const { return _state; }

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override;
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* target) override;

    bool _WriteMoveCommand(eGCodeMoveCommand command, const GCodeState& target);
    bool _WriteLayerNumber(std::uint64_t number);
    bool _WriteNozzleSwitch(std::int32_t nozzle, double x, double y);
    bool _WriteNozzleSwitchCommands(std::int32_t nozzle);
    bool _WriteZValue(double z, double speed);
    bool _WriteSpeedValue(double speed);
    bool _WriteMoveWithoutExtrusion(double x, double y, double speed);
    bool _WriteCoasting(double x, double y, double speed);
    bool _WriteMoveWithExtrusion(double x, double y, double speed, double e);
    bool _WriteZOffset(double offset, bool back);
    bool _WriteRetraction(std::int32_t nozzle, bool back);
    bool _WriteHopping(std::int32_t nozzle, bool back);
    bool _WriteComment(const std::string& text, bool expand);
    bool _WriteJumpTo(double x, double y, std::int32_t nozzle, const GCodeZoneParameters& zone);
    bool _WriteVectorBlock(const M2DSliceVectorBlock* block);
    bool _WriteAllVectorBlocks(const M2DSliceConstDataItems& items);
    bool _WriteNozzleTemperature(double temperature);
    bool _WriteBedTemperature(double temperature);
    bool _WriteNozzleWait(double temperature);
    bool _WriteBedWait(double temperature);
    bool _WriteWaitSeconds(double seconds);
    bool _WriteLines(const std::vector<GCodeRichLine>& lines, bool expand);
    bool _WriteLine(const GCodeRichLine& line, bool expand);

    void _GetCurrentParameterSet(GCodeZoneParameters& zone, const M2DSliceVectorBlock& block) const;
    double _GetExtrusionFromCylindricVolume(double length, std::int32_t nozzle, double multiplier) const;
    double _GetJumpLength(double x0, double y0, double x1, double y1) const;
    double _GetZIncrement(std::int32_t z) const;
    bool _CheckLastCoordinate(double a, double b, double c, double d) const;
    static std::int32_t _GetNozzleIndex(const M2DSliceVectorBlock* block);

    void _AddLayerPrintingTime(const GCodeState& target);
    double _GetEstimatedLayerPrintingTime(const M2DSliceConstDataItems& items, double& slowest) const;
    void _ReducePrintingSpeed(const M2DSliceConstDataItems& items);
    double _GetReducedSpeedValue(double speed) const { return speed * _speedFactor; }
    bool _EndLayerWait();

    GCodeState _state;
    std::int32_t _lastZ = INT32_MIN;
    std::unique_ptr<INozzleSwitchHook> _nozzleHook;
    std::unique_ptr<GCodeParametersV2> _profile;
    std::uint64_t _layerIndex = 0;
    std::uint64_t _lastLayerNumber = UINT64_MAX;
    double _layerTime = 0.0;
    double _overallTime = 0.0;
    double _estimatedLayerTime = 0.0;
    double _speedFactor = 1.0;
    double _pendingWait = 0.0;
    PersistentProperties _properties;

private:
    const GCodeParametersV2& _Profile();
    bool _Emit();

    GCodeText _text;
};
