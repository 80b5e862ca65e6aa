#include "PersistentProperties.h"

#include <map>
#include <mutex>

#include "M2DSliceBuildParameters.h"
#include "MFile.h"
#include "StringConversion.h"

// Binary layout, all numbers little-endian:
//   store:    "ZPRP", uint32 version 1, body
//   body:     uint32 count, then per property: uint8 type, uint8 defined (0/1),
//             string name, value
//   string:   uint32 count of UTF-16 units, the units
//   values:   Long int32; Double float64; Bool uint8 (0/1); String string;
//             Indexed uint32 count, then one body per entry;
//             Object uint32 length and the bytes of the type name (0: no object), then
//             uint64 size of the record and the record as it writes itself.
// Reading checks every count against the bytes left in the file before it trusts it.

namespace {

constexpr char Magic[4] = {'Z', 'P', 'R', 'P'};
constexpr std::uint32_t Version = 1;
constexpr int MaxDepth = 32;              // nesting of indexed lists and records
constexpr std::int64_t MinPropertySize = 7; // type, defined, name length, smallest value
constexpr std::uint32_t MaxTypeNameLength = 256;

std::int64_t Remaining(MFile& file) { return file.GET_SIZE() - file.TELL(); }

bool WriteU32(MFile& file, std::uint32_t v) { return file.WriteInt32(&v, 1) == 4; }
bool ReadU32(MFile& file, std::uint32_t& v) { return file.ReadInt32(&v, 1) == 4; }
bool WriteU8(MFile& file, std::uint8_t v) { return file.WRITE(&v, 1) == 1; }
bool ReadU8(MFile& file, std::uint8_t& v) { return file.READ(&v, 1) == 1; }
bool ReadFlag(MFile& file, bool& v)
{
    std::uint8_t b;
    if (!ReadU8(file, b) || b > 1)
        return false;
    v = b == 1;
    return true;
}

// Counts the nesting of reads on this thread, so that a crafted file can not recurse deeply.
class DepthGuard
{
public:
    DepthGuard() { ++_depth; }
    ~DepthGuard() { --_depth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;
    bool Ok() const { return _depth <= MaxDepth; }

private:
    static thread_local int _depth;
};
thread_local int DepthGuard::_depth = 0;

bool WriteValue(MFile& file, const std::int32_t& v) { return file.WriteInt32(&v, 1) == 4; }
bool ReadValue(MFile& file, std::int32_t& v) { return file.ReadInt32(&v, 1) == 4; }
bool WriteValue(MFile& file, const double& v) { return file.WriteDouble(&v, 1) == 8; }
bool ReadValue(MFile& file, double& v) { return file.ReadDouble(&v, 1) == 8; }
bool WriteValue(MFile& file, const bool& v) { return WriteU8(file, v ? 1 : 0); }
bool ReadValue(MFile& file, bool& v) { return ReadFlag(file, v); }

bool WriteValue(MFile& file, const std::wstring& v)
{
    std::u16string units = StringConversion::Utf8ToUtf16(StringConversion::NativeToUtf8(v));
    auto n = static_cast<std::uint32_t>(units.size());
    return WriteU32(file, n) &&
           file.WriteInt16(reinterpret_cast<const unsigned short*>(units.data()), n) == std::size_t(n) * 2;
}

bool ReadValue(MFile& file, std::wstring& v)
{
    std::uint32_t n;
    if (!ReadU32(file, n) || std::int64_t(n) * 2 > Remaining(file))
        return false;
    std::u16string units(n, u'\0');
    if (file.ReadInt16(reinterpret_cast<unsigned short*>(units.data()), n) != std::size_t(n) * 2)
        return false;
    v = StringConversion::Utf8ToNative(StringConversion::Utf16ToUtf8(units));
    return true;
}

bool WriteBody(MFile& file, const PersistentProperties& store);
bool ReadBody(MFile& file, PersistentProperties& store);

bool WriteValue(MFile& file, const IndexedProperties<PersistentProperties>& v)
{
    bool ok = WriteU32(file, static_cast<std::uint32_t>(v.GetNum()));
    for (std::size_t i = 0; ok && i < v.GetNum(); ++i)
        ok = WriteBody(file, v.Get(i));
    return ok;
}

bool ReadValue(MFile& file, IndexedProperties<PersistentProperties>& v)
{
    std::uint32_t n;
    if (!ReadU32(file, n) || std::int64_t(n) * 4 > Remaining(file)) // an empty entry takes 4 bytes
        return false;
    IndexedProperties<PersistentProperties> list;
    for (std::uint32_t i = 0; i < n; ++i)
        if (!ReadBody(file, list.Add()))
            return false;
    v = std::move(list);
    return true;
}

bool WriteValue(MFile& file, const ObjectHolder& v)
{
    const IPersistentObject* object = v.Get();
    if (!object)
        return WriteU32(file, 0);
    std::string name = object->GetTypeName();
    bool ok = WriteU32(file, static_cast<std::uint32_t>(name.size())) && file.WRITE_STRING(name);
    // The record's size goes in front of it, patched once the record is written.
    std::int64_t sizeAt = file.TELL();
    std::uint64_t size = 0;
    ok = ok && file.WriteInt64(&size, 1) == 8 && object->Write(file);
    std::int64_t end = file.TELL();
    size = static_cast<std::uint64_t>(end - sizeAt - 8);
    return ok && file.SEEK(sizeAt, 0) && file.WriteInt64(&size, 1) == 8 && file.SEEK(end, 0);
}

bool ReadValue(MFile& file, ObjectHolder& v)
{
    std::uint32_t length;
    if (!ReadU32(file, length) || length > MaxTypeNameLength)
        return false;
    if (length == 0)
    {
        v.Reset(nullptr);
        return true;
    }
    std::string name(length, '\0');
    if (file.READ(name.data(), length) != length)
        return false;
    std::unique_ptr<IPersistentObject> object = IPersistentObject::Create(name);
    std::int64_t size;
    if (!object || file.ReadInt64(&size, 1) != 8 || size < 0 || size > Remaining(file))
        return false;
    std::int64_t start = file.TELL();
    DepthGuard depth;
    if (!depth.Ok() || !object->Read(file) || file.TELL() != start + size)
        return false;
    v.Reset(std::move(object));
    return true;
}

template <class T>
bool WriteProperty(MFile& file, const IPersistentProperty& property)
{
    auto* typed = dynamic_cast<const PersistentProperty<T>*>(&property);
    return typed && WriteValue(file, typed->GetValue());
}

template <class T>
bool ReadProperty(MFile& file, PersistentProperties& store, const std::wstring& name, bool defined)
{
    T value{};
    return ReadValue(file, value) && store.AddProperty<T>(name, value, defined);
}

bool WriteBody(MFile& file, const PersistentProperties& store)
{
    bool ok = WriteU32(file, static_cast<std::uint32_t>(store.GetNumProperties()));
    for (std::size_t i = 0; ok && i < store.GetNumProperties(); ++i)
    {
        const IPersistentProperty& p = *store.GetProperty(static_cast<long>(i));
        EPropertyType type = p.GetType();
        ok = WriteU8(file, static_cast<std::uint8_t>(type)) && WriteU8(file, p.IsDefined() ? 1 : 0) &&
             WriteValue(file, p.GetName());
        switch (type)
        {
        case EPropertyType::Long:
            ok = ok && WriteProperty<std::int32_t>(file, p);
            break;
        case EPropertyType::Double:
            ok = ok && WriteProperty<double>(file, p);
            break;
        case EPropertyType::Bool:
            ok = ok && WriteProperty<bool>(file, p);
            break;
        case EPropertyType::String:
            ok = ok && WriteProperty<std::wstring>(file, p);
            break;
        case EPropertyType::Indexed:
            ok = ok && WriteProperty<IndexedProperties<PersistentProperties>>(file, p);
            break;
        case EPropertyType::Object:
            ok = ok && WriteProperty<ObjectHolder>(file, p);
            break;
        }
    }
    return ok;
}

bool ReadBody(MFile& file, PersistentProperties& store)
{
    DepthGuard depth;
    std::uint32_t count;
    if (!depth.Ok() || !ReadU32(file, count) || count * MinPropertySize > Remaining(file))
        return false;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        std::uint8_t type;
        bool defined;
        std::wstring name;
        if (!ReadU8(file, type) || !ReadFlag(file, defined) || !ReadValue(file, name) || store.GetProperty(name))
            return false;
        bool ok = false;
        switch (static_cast<EPropertyType>(type))
        {
        case EPropertyType::Long:
            ok = ReadProperty<std::int32_t>(file, store, name, defined);
            break;
        case EPropertyType::Double:
            ok = ReadProperty<double>(file, store, name, defined);
            break;
        case EPropertyType::Bool:
            ok = ReadProperty<bool>(file, store, name, defined);
            break;
        case EPropertyType::String:
            ok = ReadProperty<std::wstring>(file, store, name, defined);
            break;
        case EPropertyType::Indexed:
            ok = ReadProperty<IndexedProperties<PersistentProperties>>(file, store, name, defined);
            break;
        case EPropertyType::Object:
            ok = ReadProperty<ObjectHolder>(file, store, name, defined);
            break;
        }
        if (!ok)
            return false;
    }
    return true;
}

// Record types by name. The build-parameter table is known from the start, so that stores
// holding one can be read even where nothing else has touched that class yet.
class Registry
{
public:
    static Registry& Instance()
    {
        static Registry registry;
        return registry;
    }
    void Add(const std::string& name, IPersistentObject::Factory factory)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _factories[name] = factory;
    }
    IPersistentObject::Factory Find(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        auto it = _factories.find(name);
        return it == _factories.end() ? nullptr : it->second;
    }

private:
    Registry()
    {
        _factories["M2DSliceBuildParameters"] = []() -> std::unique_ptr<IPersistentObject> {
            return std::make_unique<M2DSliceBuildParameters>();
        };
    }
    std::mutex _mutex;
    std::map<std::string, IPersistentObject::Factory> _factories;
};

} // namespace

void IPersistentObject::Register(const char* typeName, Factory factory)
{
    if (typeName && factory)
        Registry::Instance().Add(typeName, factory);
}

std::unique_ptr<IPersistentObject> IPersistentObject::Create(const std::string& typeName)
{
    Factory factory = Registry::Instance().Find(typeName);
    return factory ? factory() : nullptr;
}

template <class T>
EPropertyType GetTypeOfProperty()
{
    if constexpr (std::is_same_v<T, std::int32_t>)
        return EPropertyType::Long;
    else if constexpr (std::is_same_v<T, double>)
        return EPropertyType::Double;
    else if constexpr (std::is_same_v<T, bool>)
        return EPropertyType::Bool;
    else if constexpr (std::is_same_v<T, std::wstring>)
        return EPropertyType::String;
    else if constexpr (std::is_same_v<T, IndexedProperties<PersistentProperties>>)
        return EPropertyType::Indexed;
    else
    {
        static_assert(std::is_same_v<T, ObjectHolder>, "not a property value type");
        return EPropertyType::Object;
    }
}

template <class T>
bool WriteValueOfProperty(MFile& file, const T& value)
{
    return WriteValue(file, value);
}

template <class T>
bool ReadValueOfProperty(MFile& file, T& value)
{
    T read{};
    if (!ReadValue(file, read))
        return false;
    value = std::move(read);
    return true;
}

#define SLICEIO_PROPERTY_TYPE(T)                                                                                     \
    template EPropertyType GetTypeOfProperty<T>();                                                                   \
    template bool WriteValueOfProperty<T>(MFile&, const T&);                                                         \
    template bool ReadValueOfProperty<T>(MFile&, T&);
SLICEIO_PROPERTY_TYPE(std::int32_t)
SLICEIO_PROPERTY_TYPE(double)
SLICEIO_PROPERTY_TYPE(bool)
SLICEIO_PROPERTY_TYPE(std::wstring)
SLICEIO_PROPERTY_TYPE(IndexedProperties<PersistentProperties>)
SLICEIO_PROPERTY_TYPE(ObjectHolder)
#undef SLICEIO_PROPERTY_TYPE

PersistentProperties::PersistentProperties(const PersistentProperties& other)
{
    _properties.reserve(other._properties.size());
    for (const auto& p : other._properties)
        _properties.push_back(p->Clone());
}

PersistentProperties& PersistentProperties::operator=(const PersistentProperties& other)
{
    if (this != &other)
        *this = PersistentProperties(other);
    return *this;
}

IPersistentProperty* PersistentProperties::GetProperty(long i) const
{
    if (i < 0 || static_cast<std::size_t>(i) >= _properties.size())
        return nullptr;
    return _properties[static_cast<std::size_t>(i)].get();
}

IPersistentProperty* PersistentProperties::GetProperty(const std::wstring& name) const
{
    for (const auto& p : _properties)
        if (p->GetName() == name)
            return p.get();
    return nullptr;
}

bool PersistentProperties::RemoveProperty(const std::wstring& name)
{
    for (auto it = _properties.begin(); it != _properties.end(); ++it)
        if ((*it)->GetName() == name)
        {
            _properties.erase(it);
            return true;
        }
    return false;
}

// Stores are equal when they hold the same properties, whatever the order.
bool PersistentProperties::operator==(const PersistentProperties& other) const
{
    if (_properties.size() != other._properties.size())
        return false;
    for (const auto& p : _properties)
    {
        const IPersistentProperty* q = other.GetProperty(p->GetName());
        if (!q || !p->Equals(*q))
            return false;
    }
    return true;
}

bool PersistentProperties::Write(MFile& file) const
{
    return file.WRITE(Magic, 4) == 4 && WriteU32(file, Version) && WriteBody(file, *this);
}

bool PersistentProperties::Read(MFile& file)
{
    char magic[4];
    std::uint32_t version;
    if (file.READ(magic, 4) != 4 || std::string(magic, 4) != std::string(Magic, 4) || !ReadU32(file, version) ||
        version != Version)
        return false;
    PersistentProperties read;
    if (!ReadBody(file, read))
        return false;
    *this = std::move(read);
    return true;
}
