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

// The G-code writers' common root: owns the profile.
class SLICEIO_API I2DSliceIO_gcode : public I2DSliceIO
{
public:
    // Copies the parameters, the raft slices one by one, and shares brim and skirt.
    void SetGCodeProfile(const GCodeProfile& profile);
    const GCodeProfile& GetGCodeProfile() const { return _profile; }

protected:
    GCodeProfile _profile;
};

// Writes a stack of slices as the program of a filament-extruding machine: vector blocks
// become moves with extrusion, in the order of the layer's items (contours and point blocks
// are not printed). Write only.
class SLICEIO_API M2DSliceIO_gcode : public I2DSliceIO_gcode
{
public:
    M2DSliceIO_gcode();
    ~M2DSliceIO_gcode() override;

    // Overwrites the layer height of the extrusion formula; the header takes the profile's
    // SliceThickness, so a value set before the header is lost.
    void SetSliceThickness(double thickness) { _sliceThickness = thickness; }
    // Takes ownership; the previous hook is destroyed.
    void SetNozzleSwitchHook(std::unique_ptr<INozzleSwitchHook> hook) { _nozzleHook = std::move(hook); }
    const GCodeState& GetCurrentGcodeState() const { return _state; }

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

    bool _WriteLayerNumber(std::uint64_t number);
    bool _WriteNozzleSwitch(std::int32_t nozzle, double x, double y);
    bool _WriteZValue(double z, double speed);
    bool _WriteSpeedValue(double speed);
    bool _WritePreLayer(std::uint64_t layer);
    bool _WritePostLayer(std::uint64_t layer);
    bool _WriteJumpTo(double x, double y, unsigned category, std::int32_t nozzle);
    bool _WriteJumpLine(double x, double y);
    bool _WriteMoveTo(double x, double y, double e);
    bool _WriteZOffset(double offset);
    bool _WriteZOffsetBack(double offset);
    bool _WriteBrim();
    bool _WriteSkirt();
    bool _WriteRaft();
    bool _WriteRetraction(std::int32_t nozzle);
    bool _WriteRetractionBack(std::int32_t nozzle);
    bool _WriteVectorBlock(const M2DSliceVectorBlock* block, int category);
    bool _WriteAllVectorBlocks(const M2DSliceConstDataItems& items);
    bool _WriteComment(const std::string& text);
    bool _WriteNozzleTemperature(std::int32_t temperature);
    bool _WriteBedTemperature(std::int32_t temperature);
    bool _WriteNozzleWait(std::int32_t temperature);
    bool _WriteBedWait(std::int32_t temperature);
    bool _WriteWaitSeconds(double seconds);
    bool _WriteLines(const std::vector<GCodeRichLine>& lines, bool expand);
    bool _WriteLine(const GCodeRichLine& line, bool expand);

    double _GetZIncrement(std::int32_t z) const;
    double _GetJumpLength(double x, double y) const;
    static double _GetJumpLength(double x0, double y0, double x1, double y1);
    static double _ConvertUnits(std::int32_t value) { return value / 10000.0; }
    double _GetZOffset(unsigned category, std::int32_t index) const;
    static std::int32_t _GetNozzleIndex(const M2DSliceVectorBlock* block);
    double _GetSpeedForType(unsigned category, std::int32_t index) const;
    double _GetExtrusionFactor(unsigned category, std::int32_t index) const;
    double _GetExtrusionFromCylindricVolume(double length, int category, std::int32_t nozzle, double factor) const;
    static std::string _GetBlockStartComment(unsigned category);
    static bool _CheckLastCoordinate(double a, double b, double c, double d) { return a == c && b == d; }
    // The writer's own category (0 to 12) of a block, from its label.
    static unsigned _GetBlockCategory(const M2DSliceVectorTypeInfo& info);

    // Printing time and slowing of short layers.
    double _GetEstimatedLayerPrintingTime(const M2DSliceConstDataItems& items, double& slowest) const;
    void _ReducePrintingSpeed(const M2DSliceConstDataItems& items);
    double _GetReducedSpeedValue(double speed) const { return speed * _speedFactor; }
    bool _EndLayerWait();
    void _AddLayerPrintingTime(double x, double y, double speed);

    GCodeState _state;
    std::int32_t _lastZ = INT32_MIN;
    std::unique_ptr<INozzleSwitchHook> _nozzleHook;
    std::uint64_t _layerIndex = 0;
    std::uint64_t _lastLayerNumber = UINT64_MAX;
    double _sliceThickness = 0.0;
    bool _raftWritten = false;
    bool _brimWritten = false;
    bool _skirtWritten = false;
    bool _preLayerWritten = false;
    std::uint64_t _raftLayerCount = 0;
    double _layerTime = 0.0;
    double _overallTime = 0.0;
    double _estimatedLayerTime = 0.0;
    double _speedFactor = 1.0;
    double _pendingWait = 0.0;
    PersistentProperties _properties;

private:
    // Writes a composed line (the text in _text) by the rich-line rules.
    bool _Emit();
    // One line of a command word and its integer value, such as "M104 S210".
    bool _WriteIntegerCommand(const char* word, std::int32_t value);
    bool _WriteHookLines(std::uint64_t nozzle, std::uint64_t layer);
    bool _WriteMachineLayer(const M2DSlice& slice, unsigned category, double speed);

    GCodeText _text;
};
