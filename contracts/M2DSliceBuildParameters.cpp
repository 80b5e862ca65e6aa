#include "M2DSliceBuildParameters.h"

#include "MFile.h"

// Record layout: uint32 count of instances, then per instance int32 id, the name as a
// property string, float64 speed, laser power and laser diameter, and the instance's named
// values as a property store; then the two int32 lookup ids.

namespace {

constexpr std::int64_t MinInstanceSize = 4 + 4 + 3 * 8 + 12; // an empty store: magic, version, count

} // namespace

M2DSliceBuildParameters* M2DSliceBuildParameters::Get(PersistentProperties* properties, bool create)
{
    if (!properties)
        return nullptr;
    auto find = [&]() -> M2DSliceBuildParameters* {
        auto* p = properties->GetPropertyOfType<ObjectHolder>(PropertyName);
        return p && p->IsDefined() ? dynamic_cast<M2DSliceBuildParameters*>(p->GetValue().Get()) : nullptr;
    };
    M2DSliceBuildParameters* found = find();
    if (found || !create)
        return found;
    properties->SetValue(PropertyName, ObjectHolder(std::make_unique<M2DSliceBuildParameters>()));
    return find();
}

std::unique_ptr<IPersistentObject> M2DSliceBuildParameters::Clone() const
{
    return std::make_unique<M2DSliceBuildParameters>(*this);
}

bool M2DSliceBuildParameters::Equals(const IPersistentObject& other) const
{
    auto* o = dynamic_cast<const M2DSliceBuildParameters*>(&other);
    return o && o->_instances == _instances && o->_lookup == _lookup;
}

bool M2DSliceBuildParameters::Write(MFile& file) const
{
    auto count = static_cast<std::uint32_t>(_instances.size());
    bool ok = file.WriteInt32(&count, 1) == 4;
    for (const Instance& instance : _instances)
    {
        std::int32_t id = instance.GetID();
        double numbers[3] = {instance.GetSpeed(), instance.GetLaserPower(), instance.GetLaserDiameter()};
        ok = ok && file.WriteInt32(&id, 1) == 4 && WriteValueOfProperty(file, instance.GetName()) &&
             file.WriteDouble(numbers, 3) == sizeof(numbers) && instance.GetProperties().Write(file);
    }
    std::int32_t ids[2] = {_lookup.First, _lookup.Second};
    return ok && file.WriteInt32(ids, 2) == sizeof(ids);
}

bool M2DSliceBuildParameters::Read(MFile& file)
{
    std::uint32_t count;
    if (file.ReadInt32(&count, 1) != 4 || count * MinInstanceSize > file.GET_SIZE() - file.TELL())
        return false;
    std::vector<Instance> instances;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        std::int32_t id;
        std::wstring name;
        double numbers[3];
        if (file.ReadInt32(&id, 1) != 4 || !ReadValueOfProperty(file, name) ||
            file.ReadDouble(numbers, 3) != sizeof(numbers))
            return false;
        PersistentProperties values;
        if (!values.Read(file))
            return false;
        Instance& instance = instances.emplace_back();
        instance.GetPropertiesUpdate() = std::move(values);
        instance.SetID(id);
        instance.SetName(name.c_str());
        instance.SetSpeed(numbers[0]);
        instance.SetLaserPower(numbers[1]);
        instance.SetLaserDiameter(numbers[2]);
    }
    std::int32_t ids[2];
    if (file.ReadInt32(ids, 2) != sizeof(ids))
        return false;
    _instances = std::move(instances);
    _lookup.First = ids[0];
    _lookup.Second = ids[1];
    return true;
}
