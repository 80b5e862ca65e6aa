#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "PersistentProperties.h"

// The build-style table of a part, kept as one record inside a PersistentProperties
// under the key "M2DSliceBuildParameters".
class SLICEIO_API M2DSliceBuildParameters : public IPersistentObject
{
public:
    class Instance
    {
    public:
        std::int32_t GetID() const { return _id; }
        void SetID(std::int32_t id) { _id = id; }
        const std::wstring& GetName() const { return _name; }
        void SetName(const wchar_t* name) { _name = name ? name : L""; }
        double GetSpeed() const { return _speed; }
        void SetSpeed(double speed) { _speed = speed; }
        double GetLaserPower() const { return _power; }
        void SetLaserPower(double power) { _power = power; }
        double GetLaserDiameter() const { return _diameter; }
        void SetLaserDiameter(double diameter) { _diameter = diameter; }
        bool operator==(const Instance& o) const
        {
            return _id == o._id && _name == o._name && _speed == o._speed && _power == o._power &&
                   _diameter == o._diameter;
        }

    private:
        std::int32_t _id = 0;
        std::wstring _name;
        double _speed = 0.0;
        double _power = 0.0;
        double _diameter = 0.0;
    };

    // Where a format finds its build styles: ids of lookup tables, filled by the formats.
    struct LookupIds
    {
        LookupIds() = default;
        std::int32_t First = -1;
        std::int32_t Second = -1;
        bool operator==(const LookupIds& o) const { return First == o.First && Second == o.Second; }
    };

    static constexpr const wchar_t* PropertyName = L"M2DSliceBuildParameters";

    // The table inside the store; with create true it is added when missing. Null when
    // the store is null, or the table is missing and create is false.
    static M2DSliceBuildParameters* Get(PersistentProperties* properties, bool create);

    std::size_t GetNumInstances() const { return _instances.size(); }
    const Instance& GetInstance(std::size_t i) const { return _instances[i]; }
    Instance& GetInstanceUpdate(std::size_t i) { return _instances[i]; }
    void AddInstance(const Instance& instance) { _instances.push_back(instance); }
    const LookupIds& GetLookupIds() const { return _lookup; }
    LookupIds& GetLookupIdsUpdate() { return _lookup; }
    void SetLookupIds(const LookupIds& ids) { _lookup = ids; }

    // IPersistentObject
    const char* GetTypeName() const override { return "M2DSliceBuildParameters"; }
    std::unique_ptr<IPersistentObject> Clone() const override;
    bool Equals(const IPersistentObject& other) const override;
    bool Write(MFile& file) const override;
    bool Read(MFile& file) override;

private:
    std::vector<Instance> _instances;
    LookupIds _lookup;
};
