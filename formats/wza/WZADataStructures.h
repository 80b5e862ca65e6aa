#pragma once
// Public records that a caller fills for M2DSliceIO_wza: the scan parameters of a block, the
// machine settings, the parts with their scan tables, preforms and melt pool monitoring.
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/variant.hpp>

namespace WZADataStructures {

// The scan parameters of one block as the layer tags carry them.
struct ScanValues
{
    float LaserDiameter = 0.0f;   // F
    float Speed = 0.0f;           // S
    float Power = 0.0f;           // P
    bool PulsingEnabled = false;  // E
    std::uint32_t PulsingDuration = 0; // O
    std::uint32_t PulsingPeriod = 0;   // K
    std::uint32_t VectorDelay = 0;     // L: matters for short vectors
    std::uint32_t EntityDelay = 0;     // W: between entities of different type
    std::uint32_t TypeCode = 0;        // G

    // All nine fields; floats by value, so a NaN equals nothing.
    bool operator==(const ScanValues& o) const
    {
        return CompareScanValues(o) && VectorDelay == o.VectorDelay && EntityDelay == o.EntityDelay;
    }
    bool operator!=(const ScanValues& o) const { return !(*this == o); }
    // All but the two delays.
    bool CompareScanValues(const ScanValues& o) const
    {
        return LaserDiameter == o.LaserDiameter && Speed == o.Speed && Power == o.Power &&
               PulsingEnabled == o.PulsingEnabled && PulsingDuration == o.PulsingDuration &&
               PulsingPeriod == o.PulsingPeriod && TypeCode == o.TypeCode;
    }
};

// One machine setting: an identifier and a value.
template <class T>
struct Setting
{
    Setting() = default;
    Setting(unsigned id, T value) : Id(id), Value(std::move(value)) {}
    unsigned Id = 0;
    T Value{};
};

// The machine settings hold one of the four kinds, in this order.
using SettingVariant = boost::variant<Setting<unsigned>, Setting<double>, Setting<bool>, Setting<std::string>>;

// Hands a setting to the callback of its kind; an empty callback ignores it.
class SettingsVisitor : public boost::static_visitor<void>
{
public:
    using UnsignedCallback = std::function<void(unsigned, unsigned)>;
    using DoubleCallback = std::function<void(unsigned, double)>;
    using BoolCallback = std::function<void(unsigned, bool)>;
    using StringCallback = std::function<void(unsigned, const std::string&)>;

    SettingsVisitor() = default;
    SettingsVisitor(UnsignedCallback onUnsigned, DoubleCallback onDouble, BoolCallback onBool, StringCallback onString)
        : _onUnsigned(std::move(onUnsigned)), _onDouble(std::move(onDouble)), _onBool(std::move(onBool)),
          _onString(std::move(onString))
    {
    }

    void operator()(const Setting<unsigned>& s) const
    {
        if (_onUnsigned)
            _onUnsigned(s.Id, s.Value);
    }
    void operator()(const Setting<double>& s) const
    {
        if (_onDouble)
            _onDouble(s.Id, s.Value);
    }
    void operator()(const Setting<bool>& s) const
    {
        if (_onBool)
            _onBool(s.Id, s.Value);
    }
    void operator()(const Setting<std::string>& s) const
    {
        if (_onString)
            _onString(s.Id, s.Value);
    }

private:
    UnsignedCallback _onUnsigned;
    DoubleCallback _onDouble;
    BoolCallback _onBool;
    StringCallback _onString;
};

// A part of the job with its scan table: block key to scan parameters.
struct WZAPartStructure
{
    std::int32_t Id = 0;
    std::wstring Name;
    std::wstring BuildStrategy;
    std::map<std::int32_t, ScanValues> ScanValuesByKey;
    bool IsSubpart = false;
    std::int32_t SubpartIndex = 0;
};

struct PreformEntry
{
    double First = 0.0;
    double Second = 0.0;
    double Third = 0.0;
    unsigned Marker = 0;
};

struct PreformsSettings
{
    bool Enabled = false;
    double PreformValue = 0.0;
    std::vector<PreformEntry> PreformEntries;
};

struct MeltPoolMonitoringSettings
{
    bool Enabled = false;
    std::vector<std::wstring> Texts;
};

} // namespace WZADataStructures
