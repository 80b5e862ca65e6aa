#pragma once
// The parameters of the G-code writers: the machine's command words, the start and end code,
// per-nozzle retraction, hop, extrusion and temperature, per-category speeds, Z offsets and
// extrusion percentages (first writer), per-zone overrides (second writer), and the lines
// and state records the writers work with.
//
// Units: lengths in millimetres, speeds in millimetres per minute, times in minutes,
// temperatures in degrees Celsius, percentages as 100 for unchanged.
//
// The defaults make a file that a common filament machine (0.4 mm nozzle, 1.75 mm filament,
// PLA at 210 / 60 degrees, Marlin-style firmware, absolute extrusion) accepts and prints.
#include "../framework/Export.h"
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

class M2DSlice;
class PersistentProperties;

// The line kinds whose opening word the machine's dialect decides.
enum eGCodeMoveCommand : std::int32_t
{
    eGCodeMoveCommand_Print = 0,      // a move that extrudes (also a coasting move)
    eGCodeMoveCommand_Jump = 1,       // a travel move
    eGCodeMoveCommand_ZMove = 2,      // a move in Z only
    eGCodeMoveCommand_Speed = 3,      // a change of feed rate alone
    eGCodeMoveCommand_Retraction = 4, // retraction and priming (second writer)
    eGCodeMoveCommand_Count = 5,
};

// A line of G-code text (it may hold several lines) with four marks that say the machine's
// coordinate in that axis is zero after it. Built from a text, the marks are derived from
// it: a "G92" line sets each axis it names with the value 0 to zero, and all four when it
// names none; a "G28" line homes the axes it names, or X, Y and Z when it names none.
// Comments after ';' and lines in parentheses are ignored.
class SLICEIO_API GCodeRichLine
{
public:
    GCodeRichLine() = default;
    GCodeRichLine(const std::string& text);
    GCodeRichLine(const char* text);
    GCodeRichLine(std::string text, bool resetsX, bool resetsY, bool resetsZ, bool resetsE);

    operator const std::string&() const { return _text; }
    const std::string& GetText() const { return _text; }
    bool ResetsX() const { return _resetsX; }
    bool ResetsY() const { return _resetsY; }
    bool ResetsZ() const { return _resetsZ; }
    bool ResetsE() const { return _resetsE; }
    bool operator==(const GCodeRichLine& o) const
    {
        return _text == o._text && _resetsX == o._resetsX && _resetsY == o._resetsY && _resetsZ == o._resetsZ &&
               _resetsE == o._resetsE;
    }

    // The marks of a text, as the string constructor derives them.
    static void DeriveResets(const char* text, std::size_t size, bool& x, bool& y, bool& z, bool& e);

private:
    std::string _text;
    bool _resetsX = false;
    bool _resetsY = false;
    bool _resetsZ = false;
    bool _resetsE = false;
};

// Lines from a text: each '\n'-separated line becomes one rich line.
SLICEIO_API std::vector<GCodeRichLine> GCodeLinesFromText(const std::string& text);

// The writers' picture of the machine. The largest double stands for "not known" (the
// first writer compares with it as with any value; the second treats it as "not set").
struct SLICEIO_API GCodeState
{
    static constexpr double Unset = std::numeric_limits<double>::max();
    static constexpr std::int32_t NoNozzle = 2147483647;

    double X = Unset;
    double Y = Unset;
    double Z = Unset;
    double E = Unset;
    double Speed = Unset;
    double NozzleTemperature = Unset; // not known until the writer sets one
    std::int32_t Nozzle = NoNozzle;
    std::string Comment;
};

// What one nozzle (tool) needs: extrusion geometry, temperature, retraction, hop, and the
// lines that replace the standard tool change.
struct SLICEIO_API GCodeNozzleParameters
{
    double NozzleSize = 0.4;
    double TrackWidth = 0.45;    // width of an extruded track
    double FilamentWidth = 1.75; // filament diameter
    std::int32_t TemperatureNozzle = 210;
    bool RetractionEnabled = true;
    double RetractionThreshold = 2.0; // travel longer than this retracts
    double RetractionLength = 2.0;
    double RetractionSpeed = 2400.0;
    double RetractionBackLength = 2.0;
    double RetractionBackSpeed = 2400.0;
    bool HopEnabled = false;
    double HopThreshhold = 2.0; // travel longer than this lifts
    double HopValue = 0.4;
    double HopSpeed = 600.0;
    bool UseCustomToolSwitchFromNozzle = false;
    std::vector<GCodeRichLine> CustomToolSwitchFromNozzle; // leaving this nozzle
    bool UseCustomToolSwitchToNozzle = false;
    std::vector<GCodeRichLine> CustomToolSwitchToNozzle; // arriving at this nozzle
};

// What both writers read. Nozzle values are asked for by nozzle number; a number without an
// entry of its own gets nozzle 0's values (and those of a default nozzle when the list is
// empty), so that any label in a slice leads to defined values.
class SLICEIO_API GCodeBaseParameters
{
public:
    GCodeBaseParameters();
    virtual ~GCodeBaseParameters() = default;
    GCodeBaseParameters(const GCodeBaseParameters&) = default;
    GCodeBaseParameters& operator=(const GCodeBaseParameters&) = default;

    // Brings the record into shape: one word per move command (missing ones get the
    // default word) and at least one nozzle.
    virtual void update();

    const std::string& GetMoveCommand(eGCodeMoveCommand command) const;
    // The lines before and after the blocks of layer `layer` (counted from 1): the lines of
    // every layer followed by those given for that layer alone.
    std::vector<GCodeRichLine> GetPreLayer(std::uint64_t layer) const;
    std::vector<GCodeRichLine> GetPostLayer(std::uint64_t layer) const;

    const GCodeNozzleParameters& GetNozzle(std::int32_t nozzle) const;
    bool GetRetractionEnabled(std::int32_t n) const { return GetNozzle(n).RetractionEnabled; }
    double GetRetractionThreshold(std::int32_t n) const { return GetNozzle(n).RetractionThreshold; }
    double GetRetractionLength(std::int32_t n) const { return GetNozzle(n).RetractionLength; }
    double GetRetractionSpeed(std::int32_t n) const { return GetNozzle(n).RetractionSpeed; }
    double GetRetractionBackLength(std::int32_t n) const { return GetNozzle(n).RetractionBackLength; }
    double GetRetractionBackSpeed(std::int32_t n) const { return GetNozzle(n).RetractionBackSpeed; }
    bool GetHopEnabled(std::int32_t n) const { return GetNozzle(n).HopEnabled; }
    double GetHopThreshhold(std::int32_t n) const { return GetNozzle(n).HopThreshhold; }
    double GetHopValue(std::int32_t n) const { return GetNozzle(n).HopValue; }
    double GetHopSpeed(std::int32_t n) const { return GetNozzle(n).HopSpeed; }
    double GetNozzleSize(std::int32_t n) const { return GetNozzle(n).NozzleSize; }
    double GetTrackWidth(std::int32_t n) const { return GetNozzle(n).TrackWidth; }
    double GetFilamentWidth(std::int32_t n) const { return GetNozzle(n).FilamentWidth; }
    std::int32_t GetTemperatureNozzle(std::int32_t n) const { return GetNozzle(n).TemperatureNozzle; }
    bool GetUseCustomToolSwitchFromNozzle(std::uint64_t n) const;
    std::vector<GCodeRichLine> GetCustomToolSwitchFromNozzle(std::uint64_t n) const;
    bool GetUseCustomToolSwitchToNozzle(std::uint64_t n) const;
    std::vector<GCodeRichLine> GetCustomToolSwitchToNozzle(std::uint64_t n) const;

    // Opening words by eGCodeMoveCommand: "G1" print, "G0" jump, "G0" Z move, "G1" speed
    // change, "G1" retraction.
    std::vector<std::string> MoveCommands;
    std::vector<GCodeRichLine> PreLayerCode;  // before the blocks of every layer
    std::vector<GCodeRichLine> PostLayerCode; // after the blocks of every layer
    std::map<std::uint64_t, std::vector<GCodeRichLine>> PreLayerCodeAt;  // by layer number, after PreLayerCode
    std::map<std::uint64_t, std::vector<GCodeRichLine>> PostLayerCodeAt; // by layer number, after PostLayerCode
    std::vector<GCodeNozzleParameters> Nozzles;

    bool RelativeExtrusion = false; // E of each move is its own step instead of the running sum
    // The start code is expanded: %%KEY%% is replaced by the values AddProfileProperties
    // enters and by the date (%%YYYY%%, %%YY%%, %%MM%%, %%DD%%).
    bool UseCustomStartCode = false;
    bool UseCustomEndCode = false;
    std::vector<GCodeRichLine> StartCode;
    std::vector<GCodeRichLine> CustomStartCode;
    std::vector<GCodeRichLine> EndCode;
    std::vector<GCodeRichLine> CustomEndCode;
    double SliceThickness = 0.2;        // layer height, for the extrusion formula
    std::int32_t BedTemperature = 60;   // for the start code
    bool WaitForNozzleTemperature = false; // second writer: M109 after each M104
    double MinimumLayerTime = 0.1;      // minutes; shorter layers are slowed down
    double MinimumSpeed = 600.0;        // the slowest a slowed layer goes
    bool WaitAtLayerEnd = false;        // wait out what slowing cannot make up

    static std::vector<GCodeRichLine> DefaultStartCode();
    static std::vector<GCodeRichLine> DefaultEndCode();
};

// The first writer's parameters: per-category values by part, first layers, raft, brim and
// skirt.
class SLICEIO_API GCodeParameters : public GCodeBaseParameters
{
public:
    // Z offsets by block category, in millimetres.
    struct SLICEIO_API ZOffsets
    {
        double Contour = 0, Infill = 0, SupportPerimeter = 0, SupportInfill = 0, SupportRoof = 0, Down = 0, Up = 0,
               SecondDown = 0, SecondUp = 0, Brim = 0, Skirt = 0, Raft = 0, FollowingRaft = 0;
    };
    // Speeds by block category, in millimetres per minute. JumpSpeed and ZSpeed of the
    // default record serve every jump and Z move.
    struct SLICEIO_API Speeds
    {
        double JumpSpeed = 7200, ZSpeed = 600;
        double Contour = 1800, Infill = 3000, SupportPerimeter = 2400, SupportInfill = 3000, SupportRoof = 2400,
               Down = 1800, Up = 1800, SecondDown = 1800, SecondUp = 1800;
        double Reserved1 = 0, Reserved2 = 0; // not read by the writer
        double Brim = 1200, Skirt = 1200, Raft = 1200, FollowingRaft = 1800;
        double InitialLayer = 1200; // every other category in the first layers
    };
    // Extrusion by block category, in percent of the cylinder formula.
    struct SLICEIO_API Extrusions
    {
        double General = 100; // not read by the writer
        double Contour = 100, Infill = 100, SupportPerimeter = 100, SupportInfill = 100, SupportRoof = 100,
               Down = 100, Up = 100, SecondDown = 100, SecondUp = 100;
        double Reserved = 100; // not read by the writer
        double Brim = 100, Skirt = 100, Raft = 100, FollowingRaft = 100;
    };

    // The record of a part index: its own when given, else the default one.
    const ZOffsets& GetZOffsets(std::int32_t index) const;
    const Speeds& GetSpeeds(std::int32_t index) const;
    const Extrusions& GetExtrusions(std::int32_t index) const;

    ZOffsets DefaultZOffsets;
    Speeds DefaultSpeeds;
    Extrusions DefaultExtrusions;
    std::map<std::int32_t, ZOffsets> PartZOffsets;
    std::map<std::int32_t, Speeds> PartSpeeds;
    std::map<std::int32_t, Extrusions> PartExtrusions;

    std::int32_t InitialLayerCount = 1;
    double InitialLayerHeightPercent = 100;
    double InitialLayerExtrusionPercent = 100;
    bool RaftEnabled = false;
    bool BrimEnabled = false;
    bool SkirtEnabled = false;
    bool RaftTopTemperatureEnabled = false;
    std::int32_t RaftTopTemperature = 220;
};

// The second writer's per-zone values, chosen by a block's parameter index.
struct SLICEIO_API GCodeZoneParameters
{
    double Speed = 1800;               // mm/min
    double NozzleTemperature = 210;
    double ExtrusionMultiplier = 100;  // percent
    double ZOffset = 0;                // mm
    bool SwitchNozzle = true;          // the block may change the nozzle
    bool ForceRetraction = false;      // retract on every jump
    bool ForceHop = false;             // lift on every jump
    std::string Comment;               // rides on the block's first line
};

// The second writer's parameters.
class SLICEIO_API GCodeParametersV2 : public GCodeBaseParameters
{
public:
    // The zone of a parameter index: its own when given, else a default zone.
    GCodeZoneParameters GetZoneOverrideParameterSet(std::int32_t index) const;

    double JumpSpeed = 7200;
    double ZSpeed = 600;
    std::map<std::int32_t, GCodeZoneParameters> Zones;
};

// Enters the values that start and end code may name as %%KEY%% into a dictionary, as wide
// strings: "NozzleTemperature" (nozzle 0), "BedTemperature", "SliceThickness",
// "NozzleSize", "TrackWidth", "FilamentWidth" (nozzle 0), "ExtrusionMode" ("M83" relative,
// "M82" absolute), "NozzleCount".
SLICEIO_API void AddProfileProperties(const GCodeBaseParameters& parameters, PersistentProperties& properties);

// The lines a client adds at a nozzle change and at each layer start, for the nozzle then
// current and the layer number (from 1).
class SLICEIO_API INozzleSwitchHook
{
public:
    INozzleSwitchHook() = default;
    INozzleSwitchHook(const INozzleSwitchHook&) = default;
    INozzleSwitchHook& operator=(const INozzleSwitchHook&) = default;
    virtual ~INozzleSwitchHook() = default;
    virtual void _OnNozzleSwitch(std::vector<GCodeRichLine>& lines, std::uint64_t nozzle, std::uint64_t layer) = 0;
};

// Lines by nozzle and by first layer: the lines of the greatest layer key not above the
// layer asked for stay in force up to the next key. A key of 0 is never used.
class SLICEIO_API NozzleSwitchHook : public INozzleSwitchHook
{
public:
    using LinesByLayer = std::map<std::uint64_t, std::vector<GCodeRichLine>>;
    using Map = std::map<std::uint64_t, LinesByLayer>;
    explicit NozzleSwitchHook(const Map& lines) : _lines(lines) {}
    NozzleSwitchHook(const NozzleSwitchHook&) = default;
    NozzleSwitchHook& operator=(const NozzleSwitchHook&) = default;
    void _OnNozzleSwitch(std::vector<GCodeRichLine>& lines, std::uint64_t nozzle, std::uint64_t layer) override;

private:
    Map _lines;
};

// The first writer's profile: its parameters plus the machine-only layers that a client
// prepares outside the library.
class SLICEIO_API GCodeProfile : public GCodeParameters
{
public:
    void update() override { GCodeBaseParameters::update(); }

    std::vector<std::shared_ptr<M2DSlice>> RaftSlices;
    std::shared_ptr<M2DSlice> BrimSlice;
    std::shared_ptr<M2DSlice> SkirtSlice;
};
