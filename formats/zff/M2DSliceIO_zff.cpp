#include "M2DSliceIO_zff.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "../../contracts/StringConversion.h"
#include "../../framework/ByteCursor.h"

namespace {

const char kHeaderStart[] = "<Header type=\"Zanofab Buildfile\"";
const char kHeaderEnd[] = "</Header>";

// A header element the reader needs; a missing one is an error of the file's maker, which
// callers catch by this exception and its text.
const std::string& Lookup(const std::map<std::string, std::string>& values, const char* key)
{
    const auto it = values.find(key);
    if (it == values.end())
        throw std::out_of_range("invalid map<K, T> key");
    return it->second;
}

std::int32_t ToLong(const std::string& text) { return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10)); }

template <class T>
std::string Text(const T& value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

} // namespace

// ------------------------------------------------------------------ header reader

void XMLHEaderReader::OnStartElement(const std::string& name, const std::map<std::string, std::string>& attributes)
{
    for (const char* key : {"xmin", "ymin", "xmax", "ymax"})
    {
        const auto it = attributes.find(key);
        if (it != attributes.end())
            _values[key] = it->second;
    }
    if (name == "Part")
    {
        const auto it = attributes.find("name");
        _partNames.push_back(it != attributes.end() ? it->second : std::string());
    }
    static const char* const kTexts[] = {"Origin", "Zunit", "Zmin", "Zmax", "Layers", "LayerThickness", "Machine", "Material"};
    _element.clear();
    _text.clear();
    for (const char* text : kTexts)
        if (name == text)
            _element = name;
}

void XMLHEaderReader::OnCharacterData(const std::string& text)
{
    if (!_element.empty())
        _text += text;
}

void XMLHEaderReader::OnEndElement(const std::string& name)
{
    if (!_element.empty() && name == _element)
        _values[_element] = _text;
    _element.clear();
    _text.clear();
}

// ------------------------------------------------------------------ format

M2DSliceIO_zff::M2DSliceIO_zff() = default;
M2DSliceIO_zff::~M2DSliceIO_zff() = default;

bool M2DSliceIO_zff::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    _staged = 0;
    _writeFailed = false;
    return true;
}

bool M2DSliceIO_zff::_CloseFile() { return true; }

bool M2DSliceIO_zff::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/) { return _Flush(); }

bool M2DSliceIO_zff::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

// The conversion factor as the whole number the header states; 0 when it is no such number.
std::int32_t M2DSliceIO_zff::_HeaderZunit() const
{
    const double factor = _GetConversionFactor();
    return factor >= 0 && factor < 2147483648.0 ? static_cast<std::int32_t>(factor) : 0;
}

void M2DSliceIO_zff::_CalculateContainerDimensions(M2DSliceContainerIODimensions& dimensions,
                                                   const std::vector<const ISource2DSlices*>& sources) const
{
    dimensions = M2DSliceContainerIODimensions();
    for (const ISource2DSlices* source : sources)
    {
        if (!source || source->GetNumSlices() == 0)
            continue;
        const M2DSliceXYArea area = source->GetXYArea();
        dimensions.XMin = std::min(dimensions.XMin, area.XMin);
        dimensions.XMax = std::max(dimensions.XMax, area.XMax);
        dimensions.YMin = std::min(dimensions.YMin, area.YMin);
        dimensions.YMax = std::max(dimensions.YMax, area.YMax);
        for (std::uint64_t i : {std::uint64_t{0}, source->GetNumSlices() - 1})
        {
            const int z = source->GetSliceZPosition(i);
            dimensions.ZMin = std::min(dimensions.ZMin, z);
            dimensions.ZMax = std::max(dimensions.ZMax, z);
        }
    }
}

bool M2DSliceIO_zff::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    std::int32_t thickness = _metaData.GetLayerThickness();
    for (const ISource2DSlices* source : sources)
        if (source && source->GetSliceThickness() > 0)
        {
            // Any source that knows its thickness puts the first source's in force.
            thickness = sources.front() ? sources.front()->GetSliceThickness() : thickness;
            break;
        }
    const std::int32_t zunit = _HeaderZunit();

    bool ok = true;
    const auto line = [&](const std::string& text) { ok = _file.WRITE_STRING(text + "\r\n") && ok; };
    line("<Header type=\"Zanofab Buildfile\" version=\"1.0\">");
    line("<Origin>" + _metaData.GetOrigin() + "</Origin>");
    line("<Layers>" + Text(_GetNumLayers()) + "</Layers>");
    _CalculateContainerDimensions(_properties.Dimensions, sources);
    const M2DSliceContainerIODimensions& d = _properties.Dimensions;
    const auto bound = [&](int value) { return Text(static_cast<float>(value) / static_cast<float>(zunit)); };
    line("<Bounds xmin=\"" + bound(d.XMin) + "\" ymin=\"" + bound(d.YMin) + "\" xmax=\"" + bound(d.XMax) +
         "\" ymax=\"" + bound(d.YMax) + "\"></Bounds>");
    line("<Zunit>" + Text(zunit) + "</Zunit>");
    line("<Zmin>" + Text(d.ZMin) + "</Zmin>");
    line("<Zmax>" + Text(d.ZMax) + "</Zmax>");
    line("<LayerThickness>" + Text(thickness) + "</LayerThickness>");
    line("<Machine>Unknown</Machine>");
    line("<Material>" + _metaData.GetMaterial() + "</Material>");
    line("<Part name=\"no_name\" id=\"1\"></Part>");
    line("<VectorAttribute name=\"LaserPower\" id=\"6\"></VectorAttribute>");
    line("<VectorAttribute name=\"Speed\" id=\"7\"></VectorAttribute>");
    line("<VectorAttribute name=\"Focus\" id=\"8\"></VectorAttribute>");
    line("<VectorAttribute name=\"PartId\" id=\"11\"></VectorAttribute>");
    for (const auto& [id, name] : _metaData.GetAdditionalHeaderAttributes())
        line("<VectorAttribute name=\"" + name + "\" id=\"" + Text(id) + "\"></VectorAttribute>");
    line("</Header>");
    return ok || _Fail("the header could not be written");
}

bool M2DSliceIO_zff::_GetHeaderFile(std::string& header)
{
    constexpr std::size_t kStart = sizeof kHeaderStart - 1;
    char start[kStart];
    _file.REWIND();
    if (_file.ReadBytes(start, kStart) != kStart || std::memcmp(start, kHeaderStart, kStart) != 0)
        return _Fail("the file does not start with \"<Header type=\\\"Zanofab Buildfile\\\"\"");
    _file.REWIND();
    if (!_file.SEARCH_STRING(kHeaderEnd, -1, true))
        return _Fail("no \"</Header>\" ends the header");
    const std::int64_t end = _file.TELL();
    header.resize(static_cast<std::size_t>(end));
    _file.REWIND();
    if (_file.ReadBytes(header.data(), header.size()) != header.size())
        return _Fail("the header could not be read");
    // Past the CR LF that ends the header line.
    return _file.SEEK(end + 2, 0) || _Fail("the file ends in the header's line end");
}

bool M2DSliceIO_zff::_ReadHeader(ITarget2DSlices* target)
{
    std::string header;
    if (!_GetHeaderFile(header))
        return false;
    _headerReader.Clear();
    if (!_headerReader.ParseString(header))
        return _Fail("the header does not parse: " + _headerReader.GetErrorMessage());
    const std::map<std::string, std::string>& values = _headerReader.GetValues();
    const std::int32_t thickness = ToLong(Lookup(values, "LayerThickness"));
    PersistentProperties* properties = target ? target->GetProperties() : nullptr;
    if (!properties)
        return true;

    const double factor = _GetConversionFactor();
    const auto scaled = [&](const char* key) {
        return static_cast<std::int32_t>(std::lround(std::atof(Lookup(values, key).c_str()) * factor));
    };
    properties->SetValue(L"SliceThickness", thickness);
    properties->SetValue(L"JobXMin", scaled("xmin"));
    properties->SetValue(L"JobXMax", scaled("xmax"));
    properties->SetValue(L"JobYMin", scaled("ymin"));
    properties->SetValue(L"JobYMax", scaled("ymax"));
    properties->SetValue(L"JobZMin", ToLong(Lookup(values, "Zmin")));
    properties->SetValue(L"JobZMax", ToLong(Lookup(values, "Zmax")));
    properties->SetValue(L"ZUnit", ToLong(Lookup(values, "Zunit")));
    properties->SetValue(L"Machine", StringConversion::Utf8ToNative(Lookup(values, "Machine")));
    properties->SetValue(L"Material", StringConversion::Utf8ToNative(Lookup(values, "Material")));

    IndexedProperties<PersistentProperties> parts;
    std::int32_t id = 0;
    for (const std::string& name : _headerReader.GetPartNames())
    {
        PersistentProperties& entry = parts.Add();
        entry.SetValue(L"PartID", ++id);
        entry.SetValue(L"PartName", StringConversion::Utf8ToNative(name));
    }
    properties->SetValue(L"PartNames", parts);
    return true;
}

const std::string& M2DSliceIO_zff::_LookupHeader(const char* key) { return Lookup(_headerReader.GetValues(), key); }

// ------------------------------------------------------------------ distinct settings

std::int32_t M2DSliceIO_zff::GetIndexOfProperties(const build_properties& p) const
{
    for (std::size_t i = 0; i < _buildProperties.size(); ++i)
    {
        const build_properties& q = _buildProperties[i];
        if (q.LaserSpeed == p.LaserSpeed && q.LaserFocus == p.LaserFocus && q.LaserPower == p.LaserPower &&
            q.PointDistance == p.PointDistance && q.ExposureTime == p.ExposureTime &&
            q.LaserDiameter == p.LaserDiameter && q.ExtraValue == p.ExtraValue)
            return static_cast<std::int32_t>(i);
    }
    return -1;
}

void M2DSliceIO_zff::AddNewProperty(const build_properties& p)
{
    if (_scanParameters)
    {
        PersistentProperties& entry = _scanParameters->GetValueUpdate().Add();
        entry.SetValue(L"LaserSpeed", static_cast<double>(p.LaserSpeed));
        entry.SetValue(L"LaserPower", static_cast<double>(p.LaserPower));
        entry.SetValue(L"LaserFocus", static_cast<double>(p.LaserFocus));
        entry.SetValue(L"PointDistance", p.PointDistance);
        entry.SetValue(L"ExposureTime", p.ExposureTime);
    }
    _AddToBuildParameters(p, _propertyIndex);
}

void M2DSliceIO_zff::_AddToBuildParameters(const build_properties& p, std::int32_t index) const
{
    if (!_buildParameters)
        return;
    // The build-style record holds id, power, speed and diameter; point distance, exposure
    // time and focus reach the caller through "ScanParametersGeneric".
    M2DSliceBuildParameters::Instance instance;
    instance.SetID(index);
    instance.SetLaserPower(p.LaserPower);
    instance.SetSpeed(p.LaserSpeed);
    if (p.LaserDiameter != -1.0f)
        instance.SetLaserDiameter(p.LaserDiameter);
    _buildParameters->AddInstance(instance);
}

// Finds the setting in the list, adding it (and telling the target) when it is new, and
// makes it the current one.
void M2DSliceIO_zff::_RegisterSettings(const build_properties& p)
{
    const std::int32_t found = GetIndexOfProperties(p);
    if (found >= 0)
    {
        _propertyIndex = found;
        return;
    }
    _buildProperties.push_back(p);
    _propertyIndex = static_cast<std::int32_t>(_buildProperties.size() - 1);
    AddNewProperty(p);
}
