#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class MFile;
class PersistentProperties;

// Value kinds of the property store.
enum class EPropertyType : std::uint8_t
{
    Long = 1,    // std::int32_t
    Double = 2,
    Bool = 3,
    String = 4,  // std::wstring
    Indexed = 5, // IndexedProperties<PersistentProperties>: a nested list of stores
    Object = 6,  // a record type registered by name (IPersistentObject)
};

// A list of nested property stores, addressed by position.
template <class P>
class IndexedProperties
{
public:
    std::size_t GetNum() const { return _entries.size(); }
    P& Get(std::size_t i) { return _entries[i]; }
    const P& Get(std::size_t i) const { return _entries[i]; }
    P& Add() { return _entries.emplace_back(); }
    P& Add(const P& entry) { return _entries.emplace_back(entry); }
    void Remove(std::size_t i) { _entries.erase(_entries.begin() + static_cast<std::ptrdiff_t>(i)); }
    void Clear() { _entries.clear(); }
    bool operator==(const IndexedProperties& o) const { return _entries == o._entries; }
    bool operator!=(const IndexedProperties& o) const { return !(*this == o); }

private:
    std::vector<P> _entries;
};

// A record kept as one property value: it copies, compares and persists itself.
class SLICEIO_API IPersistentObject
{
public:
    virtual ~IPersistentObject() = default;
    // Registered name of the record's type, written to files so that reading can make one.
    virtual const char* GetTypeName() const = 0;
    virtual std::unique_ptr<IPersistentObject> Clone() const = 0;
    virtual bool Equals(const IPersistentObject& other) const = 0;
    virtual bool Write(MFile& file) const = 0;
    virtual bool Read(MFile& file) = 0;

    using Factory = std::unique_ptr<IPersistentObject> (*)();
    // Makes a record type readable by name. Thread-safe; a second registration of a name
    // replaces the first.
    static void Register(const char* typeName, Factory factory);
    static std::unique_ptr<IPersistentObject> Create(const std::string& typeName);
};

class SLICEIO_API IPersistentProperty
{
public:
    virtual ~IPersistentProperty() = default;
    virtual const std::wstring& GetName() const = 0;
    virtual EPropertyType GetType() const = 0;
    // A property may exist without a value: undefined.
    virtual bool IsDefined() const = 0;
    virtual void SetUndefined() = 0;
    virtual std::unique_ptr<IPersistentProperty> Clone() const = 0;
    virtual bool Equals(const IPersistentProperty& other) const = 0;
};

// One level of undo: Remember keeps the current state, Undo brings it back.
class SLICEIO_API IPersistentPropertyUndo
{
public:
    virtual ~IPersistentPropertyUndo() = default;
    virtual void Remember() = 0;
    virtual void Undo() = 0;
};

template <class T>
SLICEIO_API EPropertyType GetTypeOfProperty();
template <class T>
SLICEIO_API bool WriteValueOfProperty(MFile& file, const T& value);
template <class T>
SLICEIO_API bool ReadValueOfProperty(MFile& file, T& value);

template <class T>
class PersistentProperty : public IPersistentProperty, public IPersistentPropertyUndo
{
public:
    PersistentProperty(std::wstring name, const T& value, bool defined)
        : _name(std::move(name)), _value(value), _defined(defined), _undoValue(value), _undoDefined(defined)
    {
    }
    const std::wstring& GetName() const override { return _name; }
    EPropertyType GetType() const override { return GetTypeOfProperty<T>(); }
    bool IsDefined() const override { return _defined; }
    void SetUndefined() override { _defined = false; }
    std::unique_ptr<IPersistentProperty> Clone() const override
    {
        return std::make_unique<PersistentProperty<T>>(*this);
    }
    bool Equals(const IPersistentProperty& other) const override
    {
        auto* o = dynamic_cast<const PersistentProperty<T>*>(&other);
        return o && o->_name == _name && o->_defined == _defined && (!_defined || o->_value == _value);
    }
    void Remember() override
    {
        _undoValue = _value;
        _undoDefined = _defined;
    }
    void Undo() override
    {
        _value = _undoValue;
        _defined = _undoDefined;
    }

    const T& GetValue() const { return _value; }
    T& GetValueUpdate()
    {
        _defined = true;
        return _value;
    }
    void SetValue(const T& value)
    {
        _value = value;
        _defined = true;
    }

private:
    std::wstring _name;
    T _value;
    bool _defined;
    T _undoValue;
    bool _undoDefined;
};

// Owning handle of a registered record, so that PersistentProperty<ObjectHolder> copies
// and compares by value.
class ObjectHolder
{
public:
    ObjectHolder() = default;
    explicit ObjectHolder(std::unique_ptr<IPersistentObject> object) : _object(std::move(object)) {}
    ObjectHolder(const ObjectHolder& o) : _object(o._object ? o._object->Clone() : nullptr) {}
    ObjectHolder(ObjectHolder&&) noexcept = default;
    ObjectHolder& operator=(const ObjectHolder& o)
    {
        if (this != &o)
            _object = o._object ? o._object->Clone() : nullptr;
        return *this;
    }
    ObjectHolder& operator=(ObjectHolder&&) noexcept = default;
    bool operator==(const ObjectHolder& o) const
    {
        if (!_object || !o._object)
            return !_object && !o._object;
        return _object->Equals(*o._object);
    }
    IPersistentObject* Get() const { return _object.get(); }
    void Reset(std::unique_ptr<IPersistentObject> object) { _object = std::move(object); }

private:
    std::unique_ptr<IPersistentObject> _object;
};

// A keyed store of typed values. Keys are unique wide strings; order of insertion is kept.
//
// Value types: std::int32_t (Long), double, bool, std::wstring,
// IndexedProperties<PersistentProperties>, ObjectHolder.
class SLICEIO_API PersistentProperties
{
public:
    PersistentProperties() = default;
    PersistentProperties(const PersistentProperties& other);
    PersistentProperties(PersistentProperties&&) noexcept = default;
    PersistentProperties& operator=(const PersistentProperties& other);
    PersistentProperties& operator=(PersistentProperties&&) noexcept = default;
    virtual ~PersistentProperties() = default;

    // Adds a property, or returns the existing one of that name and type (its value is
    // then left alone). Null when the name exists with another type.
    template <class T>
    PersistentProperty<T>* AddProperty(const std::wstring& name, const T& value = T(), bool defined = true);

    std::size_t GetNumProperties() const { return _properties.size(); }
    IPersistentProperty* GetProperty(long i) const;
    IPersistentProperty* GetProperty(const std::wstring& name) const;
    template <class T>
    PersistentProperty<T>* GetPropertyOfType(const std::wstring& name) const
    {
        return dynamic_cast<PersistentProperty<T>*>(GetProperty(name));
    }
    bool RemoveProperty(const std::wstring& name);
    void Clear() { _properties.clear(); }

    // Sets a value, adding the property or replacing one of another type.
    template <class T>
    void SetValue(const std::wstring& name, const T& value);
    // The value when the property exists, has this type and is defined.
    template <class T>
    bool GetValue(const std::wstring& name, T& value) const
    {
        auto* p = GetPropertyOfType<T>(name);
        if (!p || !p->IsDefined())
            return false;
        value = p->GetValue();
        return true;
    }

    bool operator==(const PersistentProperties& other) const;
    bool operator!=(const PersistentProperties& other) const { return !(*this == other); }

    // Binary persistence, little-endian, self-describing. Read replaces the content and
    // refuses (false, content unchanged) anything malformed or truncated.
    bool Write(MFile& file) const;
    bool Read(MFile& file);

private:
    std::vector<std::unique_ptr<IPersistentProperty>> _properties;
};

template <class T>
PersistentProperty<T>* PersistentProperties::AddProperty(const std::wstring& name, const T& value, bool defined)
{
    if (IPersistentProperty* existing = GetProperty(name))
        return dynamic_cast<PersistentProperty<T>*>(existing);
    auto p = std::make_unique<PersistentProperty<T>>(name, value, defined);
    auto* raw = p.get();
    _properties.push_back(std::move(p));
    return raw;
}

template <class T>
void PersistentProperties::SetValue(const std::wstring& name, const T& value)
{
    auto* p = GetPropertyOfType<T>(name);
    if (!p)
    {
        RemoveProperty(name);
        p = AddProperty<T>(name, value, true);
    }
    p->SetValue(value);
}
