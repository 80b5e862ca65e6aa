#include "M2DSliceVectorTypeInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace {

template <class V>
auto FindId(V& list, std::int32_t id)
{
    return std::lower_bound(list.begin(), list.end(), id,
                            [](const auto& entry, std::int32_t key) { return entry.first < key; });
}

template <class V, class T>
void SetSorted(V& list, std::int32_t id, const T& value, bool unset)
{
    auto it = FindId(list, id);
    bool found = it != list.end() && it->first == id;
    if (unset)
    {
        if (found)
            list.erase(it);
    }
    else if (found)
        it->second = value;
    else
        list.insert(it, {id, value});
}

// Named tags get ids above the fixed enumerators, separately per tag family.
class TagRegistry
{
public:
    explicit TagRegistry(int firstId) : _next(firstId) {}
    int Get(const wchar_t* name)
    {
        if (!name)
            return -1;
        std::lock_guard<std::mutex> lock(_mutex);
        auto it = _ids.find(name);
        if (it != _ids.end())
            return it->second;
        int id = _next++;
        _ids.emplace(name, id);
        return id;
    }

private:
    std::mutex _mutex;
    std::map<std::wstring, int> _ids;
    int _next;
};

TagRegistry& FlagRegistry()
{
    static TagRegistry r(e2DSliceVectorTypeFlag_Count);
    return r;
}
TagRegistry& IndexRegistry()
{
    static TagRegistry r(e2DSliceVectorTypeIndex_Count);
    return r;
}
TagRegistry& NumberRegistry()
{
    static TagRegistry r(e2DSliceVectorTypeNumber_Count);
    return r;
}

} // namespace

M2DSliceVectorTypeInfo& M2DSliceVectorTypeInfo::operator=(const e2DSliceVectorType& type)
{
    *this = M2DSliceVectorTypeInfo(type);
    return *this;
}

bool M2DSliceVectorTypeInfo::operator==(const M2DSliceVectorTypeInfo& other) const
{
    return _type == other._type && _flags == other._flags && _indexes == other._indexes &&
           _numbers == other._numbers;
}

bool M2DSliceVectorTypeInfo::GetFlag(int id) const
{
    return std::binary_search(_flags.begin(), _flags.end(), id);
}

void M2DSliceVectorTypeInfo::SetFlag(int id, bool value)
{
    auto it = std::lower_bound(_flags.begin(), _flags.end(), id);
    bool found = it != _flags.end() && *it == id;
    if (value && !found)
        _flags.insert(it, id);
    else if (!value && found)
        _flags.erase(it);
}

std::int32_t M2DSliceVectorTypeInfo::GetIndex(int id) const
{
    auto it = FindId(_indexes, id);
    return it != _indexes.end() && it->first == id ? it->second : 0;
}

void M2DSliceVectorTypeInfo::SetIndex(int id, std::int32_t value) { SetSorted(_indexes, id, value, value == 0); }

double M2DSliceVectorTypeInfo::GetNumber(int id) const
{
    auto it = FindId(_numbers, id);
    return it != _numbers.end() && it->first == id ? it->second : 0.0;
}

void M2DSliceVectorTypeInfo::SetNumber(int id, double value) { SetSorted(_numbers, id, value, value == 0.0); }

int M2DSliceVectorTypeInfo::GetFlagID(const wchar_t* name) { return FlagRegistry().Get(name); }
int M2DSliceVectorTypeInfo::GetIndexID(const wchar_t* name) { return IndexRegistry().Get(name); }
int M2DSliceVectorTypeInfo::GetNumberID(const wchar_t* name) { return NumberRegistry().Get(name); }

bool M2DSliceVectorTypeInfo::Write(ZanSAX::ISAXWriter& writer) const
{
    std::ostringstream flags, indexes, numbers;
    for (std::size_t i = 0; i < _flags.size(); ++i)
        flags << (i ? " " : "") << _flags[i];
    for (std::size_t i = 0; i < _indexes.size(); ++i)
        indexes << (i ? " " : "") << _indexes[i].first << ':' << _indexes[i].second;
    char buffer[40];
    for (std::size_t i = 0; i < _numbers.size(); ++i)
    {
        std::snprintf(buffer, sizeof buffer, "%.17g", _numbers[i].second);
        numbers << (i ? " " : "") << _numbers[i].first << ':' << buffer;
    }
    bool ok = writer.WriteStartTag("VectorType");
    ok = writer.WriteAttribute("type", std::to_string(static_cast<int>(_type))) && ok;
    ok = writer.WriteAttribute("flags", flags.str()) && ok;
    ok = writer.WriteAttribute("indexes", indexes.str()) && ok;
    ok = writer.WriteAttribute("numbers", numbers.str()) && ok;
    return writer.WriteEndTag("VectorType") && ok;
}

bool M2DSliceVectorTypeInfo::HandleTag(const ZanSAX::ISAXReader& reader)
{
    if (reader.GetTagName() != "VectorType")
        return false;
    M2DSliceVectorTypeInfo info;
    std::string text;
    if (reader.GetAttribute("type", text))
        info._type = static_cast<e2DSliceVectorType>(std::strtol(text.c_str(), nullptr, 10));
    if (reader.GetAttribute("flags", text))
    {
        std::istringstream in(text);
        int id;
        while (in >> id)
            info.SetFlag(id, true);
    }
    // "id:value id:value ..." into one of the tag lists.
    auto pairs = [&](const char* name, auto set) {
        if (!reader.GetAttribute(name, text))
            return true;
        std::istringstream in(text);
        std::string pair;
        while (in >> pair)
        {
            auto colon = pair.find(':');
            if (colon == std::string::npos)
                return false;
            set(static_cast<int>(std::strtol(pair.c_str(), nullptr, 10)), pair.c_str() + colon + 1);
        }
        return true;
    };
    if (!pairs("indexes", [&](int id, const char* v) {
            info.SetIndex(id, static_cast<std::int32_t>(std::strtol(v, nullptr, 10)));
        }) ||
        !pairs("numbers", [&](int id, const char* v) { info.SetNumber(id, std::strtod(v, nullptr)); }))
        return false;
    *this = std::move(info);
    return true;
}

// The SLI code of a label is its base kind; labels read from SLI carry just that kind.
M2DSliceVectorTypeInfo M2DSliceVectorTypes::ConvertFromSliType(unsigned short code)
{
    return M2DSliceVectorTypeInfo(static_cast<e2DSliceVectorType>(code));
}

unsigned short M2DSliceVectorTypes::ConvertToSliType(const M2DSliceVectorTypeInfo& info)
{
    return static_cast<unsigned short>(info.GetType());
}
