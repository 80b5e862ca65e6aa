// Models and build styles of an SLM file: gathered from the sources' properties on writing,
// turned into build parameters and build style lists on reading; generating parameters from
// the material database and the configuration XML.
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <fmt/format.h>

#include <sstream>

#include "../../contracts/StringConversion.h"
#include "M2DSliceIO_slm.h"

using namespace Sectioned;
namespace pt = boost::property_tree;

namespace {

constexpr const wchar_t* kStylesKey = L"SLMBuildStyles";

// Which styles of a source's list a kind of source keeps, and how it names them.
enum class StyleFilter
{
    Part,          // every id but 16, 17 and 19; factors read
    VolumeSupport, // 16 and 17
    WallSupport,   // 19
};

bool Keeps(StyleFilter filter, std::int64_t id)
{
    switch (filter)
    {
    case StyleFilter::Part:
        return id != 16 && id != 17 && id != 19;
    case StyleFilter::VolumeSupport:
        return id == 16 || id == 17;
    case StyleFilter::WallSupport:
        return id == 19;
    }
    return false;
}

// A number kept as a double, or as an integer by a caller that had no fraction to give.
bool GetNumber(const PersistentProperties& properties, const wchar_t* key, double& value)
{
    std::int32_t integer = 0;
    if (properties.GetValue(key, value))
        return true;
    if (!properties.GetValue(key, integer))
        return false;
    value = integer;
    return true;
}

std::u16string ToUtf16(const std::string& utf8) { return StringConversion::Utf8ToUtf16(utf8); }

// Under "SLMMaterialDatabase.Categories" the "Category" named by the material, under its
// "Shortcuts" the "BuildStrategy" named by the strategy: a copy of that subtree.
bool GetBuildStrategySubPtree(const pt::ptree& tree, const std::string& category, const std::string& strategy,
                              pt::ptree& out)
{
    try
    {
        for (const auto& c : tree.get_child("SLMMaterialDatabase.Categories"))
        {
            if (c.first != "Category" || c.second.get<std::string>("<xmlattr>.Name", "") != category)
                continue;
            for (const auto& s : c.second.get_child("Shortcuts"))
                if (s.first == "BuildStrategy" && s.second.get<std::string>("<xmlattr>.Name", "") == strategy)
                {
                    out = s.second;
                    return true;
                }
        }
    }
    catch (const pt::ptree_error&)
    {
    }
    return false;
}

// The parameters the configuration names for a style id: key and unit of each.
bool GetConfigInfo(const pt::ptree& config, std::int64_t styleId,
                   std::vector<M2DSliceIO_sectioned::GeneratingParameterEntry>& entries)
{
    const std::string id = std::to_string(styleId);
    try
    {
        for (const auto& type : config.get_child("Config"))
        {
            if (type.first != "VectorType" || type.second.get<std::string>("<xmlattr>.Id", "") != id)
                continue;
            for (const auto& parameter : type.second)
            {
                if (parameter.first != "Parameter")
                    continue;
                const std::string key = parameter.second.get<std::string>("<xmlattr>.Key", "");
                if (key.empty())
                    continue;
                M2DSliceIO_sectioned::GeneratingParameterEntry entry;
                entry.Key = ToUtf16(key);
                entry.Unit = ToUtf16(parameter.second.get<std::string>("<xmlattr>.Unit", ""));
                entries.push_back(std::move(entry));
            }
        }
    }
    catch (const pt::ptree_error&)
    {
    }
    return !entries.empty();
}

bool FindGeneratingParameterValueForKey(const pt::ptree& strategy, const std::u16string& key, std::u16string& value)
{
    try
    {
        const auto found = strategy.get_optional<std::string>(pt::ptree::path_type(StringConversion::Utf16ToUtf8(key), '.'));
        if (!found)
            return false;
        value = ToUtf16(*found);
        return true;
    }
    catch (const pt::ptree_error&)
    {
        return false;
    }
}

} // namespace

// ------------------------------------------------------------------ gathering (writing)

namespace {

// One build style list of a source, filtered by kind.
bool ReadStyles(const PersistentProperties& source, const PersistentProperties& defaults, StyleFilter filter,
                std::vector<std::unique_ptr<M2DSliceIO_sectioned::BuildStyle>>& list)
{
    IndexedProperties<PersistentProperties> styles;
    if (!source.GetValue(kStylesKey, styles) && !defaults.GetValue(kStylesKey, styles))
        return false;
    const bool part = filter == StyleFilter::Part;
    for (std::size_t i = 0; i < styles.GetNum(); ++i)
    {
        const PersistentProperties& item = styles.Get(i);
        std::int32_t id = 0, pointDistance = 0, exposureTime = 0, laserIndex = 0;
        double focus = 0, power = 0, speed = 0, powerFactor = 0, speedFactor = 0;
        if (!item.GetValue(L"SLMBuildStyleID", id) || !item.GetValue(L"PointDistance", pointDistance) ||
            !item.GetValue(L"ExposureTime", exposureTime) || !item.GetValue(L"LaserIndex", laserIndex) ||
            !GetNumber(item, L"LaserFocus", focus) || !GetNumber(item, L"LaserPower", power) ||
            !GetNumber(item, L"LaserSpeed", speed))
            return false;
        if (part && (!GetNumber(item, L"LaserPowerFactor", powerFactor) ||
                     !GetNumber(item, L"LaserSpeedFactor", speedFactor)))
            return false;
        if (!Keeps(filter, id))
            continue;
        auto style = std::make_unique<M2DSliceIO_sectioned::BuildStyle>();
        style->BuildStyleId = id;
        style->PointDistance = pointDistance;
        style->ExposureTime = exposureTime;
        style->LaserFocus = static_cast<float>(focus);
        style->LaserPower = static_cast<float>(power);
        style->LaserSpeed = static_cast<float>(speed);
        style->LaserPowerFactor = static_cast<float>(powerFactor);
        style->LaserSpeedFactor = static_cast<float>(speedFactor);
        style->LaserIndex = laserIndex;
        item.GetValue(part ? L"SLMBuildStyleName" : L"VectorType", style->BuildStyleName);
        list.push_back(std::move(style));
    }
    return true;
}

} // namespace

void M2DSliceIO_sectioned::SetDefaultBuildStyles(const std::vector<BuildStyle>& styles)
{
    PersistentProperties defaults;
    defaults.SetValue(L"PartID", std::int32_t{1});
    defaults.SetValue(L"IsSupport", false);
    defaults.SetValue(L"IsVolumeSupport", false);
    IndexedProperties<PersistentProperties> list;
    for (const BuildStyle& style : styles)
    {
        PersistentProperties& item = list.Add();
        item.SetValue(L"SLMBuildStyleID", static_cast<std::int32_t>(style.BuildStyleId));
        item.SetValue(L"PointDistance", static_cast<std::int32_t>(style.PointDistance));
        item.SetValue(L"ExposureTime", static_cast<std::int32_t>(style.ExposureTime));
        item.SetValue(L"LaserFocus", static_cast<double>(style.LaserFocus));
        item.SetValue(L"LaserPower", static_cast<double>(style.LaserPower));
        item.SetValue(L"LaserSpeed", static_cast<double>(style.LaserSpeed));
        item.SetValue(L"LaserPowerFactor", static_cast<double>(style.LaserPowerFactor));
        item.SetValue(L"LaserSpeedFactor", static_cast<double>(style.LaserSpeedFactor));
        item.SetValue(L"LaserIndex", style.LaserIndex);
        item.SetValue(L"SLMBuildStyleName", style.BuildStyleName);
        item.SetValue(L"VectorType", style.BuildStyleName);
    }
    defaults.SetValue(kStylesKey, list);
    _sourceDefaults = std::move(defaults);
}

bool M2DSliceIO_sectioned::NamesBuildStyles(const PersistentProperties* properties)
{
    IndexedProperties<PersistentProperties> list;
    return properties && properties->GetValue(kStylesKey, list);
}

bool M2DSliceIO_sectioned::_GetBuildStylesForPart(const PersistentProperties& source,
                                                  std::vector<std::unique_ptr<BuildStyle>>& list)
{
    return ReadStyles(source, _sourceDefaults, StyleFilter::Part, list);
}

bool M2DSliceIO_sectioned::_GetBuildStylesForVolumeSupports(const PersistentProperties& source,
                                                            std::vector<std::unique_ptr<BuildStyle>>& list)
{
    return ReadStyles(source, _sourceDefaults, StyleFilter::VolumeSupport, list);
}

bool M2DSliceIO_sectioned::_GetBuildStylesForWallSupports(const PersistentProperties& source,
                                                          std::vector<std::unique_ptr<BuildStyle>>& list)
{
    return ReadStyles(source, _sourceDefaults, StyleFilter::WallSupport, list);
}

bool M2DSliceIO_sectioned::_GetBuildStyleListNameAndTopSlice(const std::vector<const ISource2DSlices*>& sources,
                                                             std::vector<std::unique_ptr<ModelInfoMap>>& models)
{
    // Both texts given: the material database and the configuration that names the
    // generating parameters. Parse errors and a configuration that cannot be opened are
    // thrown to the caller.
    pt::ptree database, config;
    if (!_parameterXml.empty() && !_configXmlPath.empty())
    {
        std::istringstream text(_parameterXml);
        pt::read_xml(text, database);
        pt::read_xml(_configXmlPath, config);
    }
    const bool generate = !database.empty() && !config.empty();

    bool ok = true;
    for (std::size_t s = 0; s < sources.size(); ++s)
    {
        const PersistentProperties* properties = sources[s] ? sources[s]->GetProperties() : nullptr;
        if (!properties && _sourceDefaults.GetNumProperties() == 0)
            return _Fail(fmt::format("source {} has no properties naming its model", s + 1));
        static const PersistentProperties kNone;
        const PersistentProperties& source = properties ? *properties : kNone;
        std::int32_t partId = 0;
        bool isSupport = false, isVolumeSupport = false;
        if (!_SourceValue(source, L"PartID", partId) || !_SourceValue(source, L"IsSupport", isSupport) ||
            !_SourceValue(source, L"IsVolumeSupport", isVolumeSupport))
            return _Fail(fmt::format("source {} lacks \"PartID\", \"IsSupport\" or \"IsVolumeSupport\"", s + 1));

        ModelInfoMap* model = nullptr;
        for (auto& m : models)
            if (m->ModelId == partId)
                model = m.get();
        if (!model)
        {
            models.push_back(std::make_unique<ModelInfoMap>());
            model = models.back().get();
            model->ModelId = partId;
            model->BuildStrategyProtection = _buildStrategyProtection;
        }

        bool gathered = true;
        if (isSupport && !isVolumeSupport && !model->SupportsFound)
        {
            gathered = _GetBuildStylesForWallSupports(source, model->BuildStyles);
            model->SupportsFound = true;
        }
        else if (isVolumeSupport && !model->VolumeSupportsFound)
        {
            gathered = _GetBuildStylesForVolumeSupports(source, model->BuildStyles);
            model->VolumeSupportsFound = true;
        }
        else if (!isSupport && !isVolumeSupport && !model->PartFound)
        {
            gathered = _GetBuildStylesForPart(source, model->BuildStyles);
            _SourceValue(source, L"PartName", model->ModelName);
            std::wstring text;
            model->BuildStrategyName =
                _SourceValue(source, L"SLMBuildStrategyName", text) && !text.empty() ? text : _usedBuildStrategyName;
            text.clear();
            model->BuildStrategyComment = _SourceValue(source, L"SLMBuildStrategyComment", text) && !text.empty()
                                              ? text
                                              : _usedBuildStrategyComment;
            bool readOnly = false;
            model->BuildStrategyProtection =
                _SourceValue(source, L"IsReadOnly", readOnly) ? readOnly : _buildStrategyProtection;
            // The number of the top slice: its height over the thickness, in whole slices,
            // plus one. A source without a thickness counts its slices instead.
            const ISource2DSlices& slices = *sources[s];
            const std::uint64_t n = slices.GetNumSlices();
            const std::int32_t thickness = slices.GetSliceThickness();
            if (n == 0)
                model->ModelTopSlice = 0;
            else if (thickness > 0)
                model->ModelTopSlice = slices.GetSliceZPosition(n - 1) / thickness + 1;
            else
                model->ModelTopSlice = static_cast<std::int32_t>(n);
            model->PartFound = true;
            if (generate)
            {
                pt::ptree strategy;
                if (GetBuildStrategySubPtree(database, StringConversion::NativeToUtf8(_usedMaterialName),
                                             StringConversion::NativeToUtf8(model->BuildStrategyName), strategy))
                    for (const auto& style : model->BuildStyles)
                    {
                        std::vector<GeneratingParameterEntry> entries, kept;
                        if (!GetConfigInfo(config, style->BuildStyleId, entries))
                            continue;
                        for (auto& entry : entries)
                            if (FindGeneratingParameterValueForKey(strategy, entry.Key, entry.Value))
                                kept.push_back(std::move(entry));
                        model->GeneratingParameters[std::to_string(style->BuildStyleId)] = std::move(kept);
                    }
            }
        }
        if (!gathered)
        {
            _Fail(fmt::format("source {} has no complete \"SLMBuildStyles\" list", s + 1));
            ok = false;
        }
    }
    return ok;
}

bool M2DSliceIO_sectioned::_isNamedStrategyUsed(const std::vector<std::unique_ptr<ModelInfoMap>>& models,
                                                const std::wstring& name)
{
    for (const auto& model : models)
        if (model->BuildStrategyName == name)
            return true;
    return false;
}

const M2DSliceIO_sectioned::BuildStyle* M2DSliceIO_sectioned::_FindWrittenBuildStyle(std::int64_t modelId,
                                                                         std::int64_t styleId) const
{
    for (const auto& model : _models)
        if (model->ModelId == modelId)
            for (const auto& style : model->BuildStyles)
                if (style->BuildStyleId == styleId)
                    return style.get();
    return nullptr;
}

// ------------------------------------------------------------------ model sections

std::int64_t M2DSliceIO_sectioned::_CalcBuildStyleSectionSize(const BuildStyle& style)
{
    return IntegerSectionSize(Id_BuildStyleId, static_cast<std::uint64_t>(style.BuildStyleId)) +
           3 * SectionSize(Id_LaserSpeed, 4) +
           IntegerSectionSize(Id_PointDistance, static_cast<std::uint64_t>(style.PointDistance)) +
           IntegerSectionSize(Id_ExposureTime, static_cast<std::uint64_t>(style.ExposureTime)) +
           SectionSize(Id_LaserIndex, 4) + WideSectionSize(Id_BuildStyleName, style.BuildStyleName);
}

void M2DSliceIO_sectioned::_WriteBuildStyleSection(const BuildStyle& style, SectionBuffer& out)
{
    out.Head(Id_BuildStyle, _CalcBuildStyleSectionSize(style));
    out.Integer(Id_BuildStyleId, static_cast<std::uint64_t>(style.BuildStyleId));
    // Speed, power, focus: the reverse of the record's order.
    out.Float(Id_LaserSpeed, style.LaserSpeed);
    out.Float(Id_LaserPower, style.LaserPower);
    out.Float(Id_LaserFocus, style.LaserFocus);
    out.Integer(Id_PointDistance, static_cast<std::uint64_t>(style.PointDistance));
    out.Integer(Id_ExposureTime, static_cast<std::uint64_t>(style.ExposureTime));
    out.Int32(Id_LaserIndex, style.LaserIndex);
    // The name last: a reader takes everything from here to the end of the style as the name.
    out.Wide(Id_BuildStyleName, style.BuildStyleName);
}

std::int64_t M2DSliceIO_sectioned::_CalcExtraBuildStyleSectionSize(const BuildStyle& style, bool withHead)
{
    const std::int64_t body = 3 * SectionSize(Id_LaserSpeed, 4) +
                              IntegerSectionSize(Id_PointDistance, static_cast<std::uint64_t>(style.PointDistance)) +
                              IntegerSectionSize(Id_ExposureTime, static_cast<std::uint64_t>(style.ExposureTime)) +
                              SectionSize(Id_LaserIndex, 4);
    return withHead ? SectionSize(Id_ExtraBuildStyle, body) : body;
}

void M2DSliceIO_sectioned::_WriteExtraBuildStyleSection(const BuildStyle& style, SectionBuffer& out)
{
    out.Head(Id_ExtraBuildStyle, _CalcExtraBuildStyleSectionSize(style, false));
    // The factors apply here, as single-precision products, and nowhere else.
    out.Float(Id_LaserSpeed, style.LaserSpeedFactor * style.LaserSpeed);
    out.Float(Id_LaserPower, style.LaserPowerFactor * style.LaserPower);
    out.Float(Id_LaserFocus, style.LaserFocus);
    out.Integer(Id_PointDistance, static_cast<std::uint64_t>(style.PointDistance));
    out.Integer(Id_ExposureTime, static_cast<std::uint64_t>(style.ExposureTime));
    out.Int32(Id_LaserIndex, style.LaserIndex);
}

bool M2DSliceIO_sectioned::_WriteModelSection(const ModelInfoMap& model, SectionBuffer& out) const
{
    const std::size_t at = out.OpenFixed(Id_Model);
    out.Integer(Id_ModelId, static_cast<std::uint64_t>(static_cast<std::int64_t>(model.ModelId)));
    out.Wide(Id_ModelName, model.ModelName);
    out.Integer(Id_ModelTopSlice, static_cast<std::uint64_t>(static_cast<std::int64_t>(model.ModelTopSlice)));
    out.Wide(Id_UsedBuildStrategyName, model.BuildStrategyName);
    out.Wide(Id_UsedBuildStrategyComment, model.BuildStrategyComment);
    out.Boolean(Id_UsedBuildStrategyProtection, model.BuildStrategyProtection);
    for (const auto& style : model.BuildStyles)
        _WriteBuildStyleSection(*style, out);
    for (const auto& style : model.BuildStyles)
    {
        const auto found = model.GeneratingParameters.find(std::to_string(style->BuildStyleId));
        if (found == model.GeneratingParameters.end() || found->second.empty())
            continue;
        const std::size_t entryAt = out.OpenFixed(Id_GeneratingParameterMapEntry);
        out.Integer(Id_MapEntryBuildStyleId, static_cast<std::uint64_t>(style->BuildStyleId));
        for (const GeneratingParameterEntry& entry : found->second)
        {
            const std::size_t parameterAt = out.OpenFixed(Id_GeneratingParameter);
            for (const std::u16string* text : {&entry.Key, &entry.Value, &entry.Unit})
            {
                for (char16_t unit : *text)
                {
                    out.U8(static_cast<std::uint8_t>(unit & 0xFF));
                    out.U8(static_cast<std::uint8_t>(unit >> 8));
                }
                out.U8(0);
                out.U8(0);
            }
            out.CloseFixed(parameterAt);
        }
        out.CloseFixed(entryAt);
    }
    out.CloseFixed(at);
    return out.Ok();
}

// ------------------------------------------------------------------ reading

M2DSliceIO_sectioned::ModelInfo* M2DSliceIO_sectioned::_GetModelInfoByID(std::int64_t id) const
{
    const auto found = _modelTable.find(id);
    return found == _modelTable.end() ? nullptr : found->second.get();
}

M2DSliceIO_sectioned::BuildStyle* M2DSliceIO_sectioned::_GetBuildStyleByMapAndID(const ModelInfo& model, std::int64_t id)
{
    const auto found = model.BuildStyles.find(id);
    return found == model.BuildStyles.end() ? nullptr : found->second.get();
}

namespace {

constexpr std::int64_t kMaxModelNameSize = 1000;

// A build style's fields; false when a field section is too short. The name is everything
// from its section to the end of the style, its NUL unit included, and one NUL more.
bool LoadStyleFields(ByteCursor body, M2DSliceIO_sectioned::BuildStyle& style, std::int64_t* id, bool names)
{
    SectionHeader head;
    ByteCursor field;
    while (!body.AtEnd())
    {
        if (!ReadSection(body, head, field))
            return false;
        bool ok = true;
        switch (head.Id)
        {
        case Id_BuildStyleId:
            ok = id ? LoadInteger(field, *id) : true;
            break;
        case Id_LaserSpeed:
            ok = LoadFloat(field, style.LaserSpeed);
            break;
        case Id_LaserPower:
            ok = LoadFloat(field, style.LaserPower);
            break;
        case Id_LaserFocus:
            ok = LoadFloat(field, style.LaserFocus);
            break;
        case Id_PointDistance:
            ok = LoadInteger(field, style.PointDistance);
            break;
        case Id_ExposureTime:
            ok = LoadInteger(field, style.ExposureTime);
            break;
        case Id_LaserIndex:
            ok = LoadInt32(field, style.LaserIndex);
            break;
        case Id_BuildStyleName:
            if (!names)
                break; // a format without style names passes the section over
            style.BuildStyleName = LoadWideRaw(ByteCursor(field.Data(), field.Remaining() + body.Remaining()));
            style.BuildStyleName += L'\0';
            body.Skip(body.Remaining());
            break;
        default:
            break;
        }
        if (!ok)
            return false;
    }
    return true;
}

} // namespace

bool M2DSliceIO_sectioned::_LoadModelBuildStyle(ModelInfo& model, ByteCursor body)
{
    auto style = std::make_unique<BuildStyle>();
    if (!LoadStyleFields(body, *style, &style->BuildStyleId, _namedStyles))
        return _Fail(fmt::format("build style of model {} cut short", model.ModelId));
    const std::int64_t id = style->BuildStyleId;
    model.BuildStyles[id] = std::move(style);
    return true;
}

bool M2DSliceIO_sectioned::_LoadModelInfo(ByteCursor body)
{
    auto model = std::make_unique<ModelInfo>();
    SectionHeader head;
    ByteCursor field;
    while (!body.AtEnd())
    {
        if (!ReadSection(body, head, field))
            return _Fail("model section cut short");
        switch (head.Id)
        {
        case Id_ModelId:
            if (!LoadInteger(field, model->ModelId))
                return _Fail("model id section too short");
            break;
        case Id_ModelName:
        {
            if (head.Size >= kMaxModelNameSize)
                return _Fail(fmt::format("model name of {} bytes", head.Size));
            // The last code unit is taken as the terminator, whatever it holds.
            const std::size_t units = field.Remaining() / 2;
            model->ModelName =
                StringConversion::NativeToUtf8(LoadWide(ByteCursor(field.Data(), units > 0 ? 2 * (units - 1) : 0)));
            break;
        }
        case Id_BuildStyle:
            if (!_LoadModelBuildStyle(*model, field))
                return false;
            break;
        case Id_ModelTopSlice:
            if (!LoadInteger(field, model->ModelTopSlice))
                return _Fail("model top slice section too short");
            break;
        default:
            break; // 37, 39, 41, 48 are written for other tools
        }
    }
    const std::int64_t id = model->ModelId;
    _modelTable[id] = std::move(model);
    return true;
}

std::int32_t M2DSliceIO_sectioned::_ConvertBuildStyleToBuildParameters(const BuildStyle& style, std::int64_t modelId,
                                                                       std::int32_t id)
{
    M2DSliceBuildParameters::Instance instance;
    instance.SetID(id);
    PersistentProperties& values = instance.GetPropertiesUpdate();
    if (_namedStyles)
        values.SetValue(L"BuildStyleID", static_cast<std::int32_t>(style.BuildStyleId));
    values.SetValue(L"ModelID", static_cast<std::int32_t>(modelId));
    instance.SetLaserPower(static_cast<double>(style.LaserPower));
    values.SetValue(L"LaserPowerFactor", static_cast<double>(style.LaserPowerFactor));
    values.SetValue(L"LaserFocus", static_cast<double>(style.LaserFocus));
    instance.SetSpeed(static_cast<double>(style.LaserSpeed));
    values.SetValue(L"SpeedFactor", static_cast<double>(style.LaserSpeedFactor));
    values.SetValue(L"LaserIndex", style.LaserIndex);
    if (_namedStyles)
    {
        values.SetValue(L"VectorTypeName", style.BuildStyleName);
        instance.SetName(style.BuildStyleName.c_str());
    }
    values.SetValue(L"ExposureTime", static_cast<double>(style.ExposureTime) / 1e6);
    values.SetValue(L"PointDistance", static_cast<double>(style.PointDistance) / 1000.0);
    _buildParameters->AddInstance(instance);
    return static_cast<std::int32_t>(_buildParameters->GetNumInstances()) - 1;
}

void M2DSliceIO_sectioned::_ConvertModelInfoToBuildParameters(ITarget2DSlices* target)
{
    PersistentProperties* properties = target ? target->GetProperties() : nullptr;
    _buildParameters = M2DSliceBuildParameters::Get(properties, true);
    if (!_buildParameters)
        return;
    _buildParameters->GetLookupIdsUpdate().First = 0;
    for (const auto& model : _modelTable)
        for (const auto& style : model.second->BuildStyles)
            _ConvertBuildStyleToBuildParameters(*style.second, model.first, static_cast<std::int32_t>(style.first));
}

std::int32_t M2DSliceIO_sectioned::_GetBuildParametersIndexOfBuildStyle(const BuildStyle& style, std::int64_t modelId,
                                                                        bool generated)
{
    if (!_buildParameters)
        return -1;
    std::int32_t largest = 0;
    const std::size_t n = _buildParameters->GetNumInstances();
    for (std::size_t i = 0; i < n; ++i)
    {
        const M2DSliceBuildParameters::Instance& instance = _buildParameters->GetInstance(i);
        largest = std::max(largest, instance.GetID());
        if (generated ? instance.GetID() < 1000 : instance.GetID() != style.BuildStyleId)
            continue;
        const PersistentProperties& v = instance.GetProperties();
        std::int32_t styleId = 0, model = 0, laserIndex = 0;
        double powerFactor = 0, focus = 0, speedFactor = 0, exposure = 0, distance = 0;
        std::wstring name;
        // Without style names the instance holds neither the style id nor the name.
        const bool named = !_namedStyles || (v.GetValue(L"BuildStyleID", styleId) && styleId == style.BuildStyleId &&
                                             v.GetValue(L"VectorTypeName", name) && name == style.BuildStyleName);
        if (v.GetValue(L"ModelID", model) && model == modelId && named && instance.GetLaserPower() == static_cast<double>(style.LaserPower) &&
            v.GetValue(L"LaserPowerFactor", powerFactor) && powerFactor == static_cast<double>(style.LaserPowerFactor) &&
            v.GetValue(L"LaserFocus", focus) && focus == static_cast<double>(style.LaserFocus) &&
            instance.GetSpeed() == static_cast<double>(style.LaserSpeed) && v.GetValue(L"SpeedFactor", speedFactor) &&
            speedFactor == static_cast<double>(style.LaserSpeedFactor) && v.GetValue(L"LaserIndex", laserIndex) &&
            laserIndex == style.LaserIndex &&
            v.GetValue(L"ExposureTime", exposure) && exposure == static_cast<double>(style.ExposureTime) / 1e6 &&
            v.GetValue(L"PointDistance", distance) && distance == static_cast<double>(style.PointDistance) / 1000.0)
            return static_cast<std::int32_t>(i);
    }
    _ConvertBuildStyleToBuildParameters(style, modelId, std::max(largest + 1, 1000));
    return static_cast<std::int32_t>(_buildParameters->GetNumInstances()) - 1;
}

e2DSliceVectorType M2DSliceIO_sectioned::_GetVectorTypeFromBuildStyleId(std::int64_t id)
{
    switch (id)
    {
    case 3: case 16: case 19: case 71: case 75: return static_cast<e2DSliceVectorType>(1);
    case 4: return static_cast<e2DSliceVectorType>(2);
    case 10: return static_cast<e2DSliceVectorType>(7);
    case 12: case 42: return static_cast<e2DSliceVectorType>(9);
    case 21: return static_cast<e2DSliceVectorType>(10);
    case 24: case 61: return static_cast<e2DSliceVectorType>(8);
    case 60: case 62: return static_cast<e2DSliceVectorType>(11);
    default: return static_cast<e2DSliceVectorType>(6);
    }
}

void M2DSliceIO_sectioned::_AddVectorTypeInfo(std::int64_t id, M2DSliceVectorTypeInfo& info)
{
    switch (id)
    {
    case 4: case 10: case 21:
        info.SetFlag(2, true);
        break;
    case 16: case 17: case 19:
        info.SetFlag(1, true);
        break;
    case 33: case 36: case 39: case 42:
        info.SetIndex(11, id == 36 ? 1 : id == 39 ? 2 : 0);
        info.SetIndex(6, 0);
        break;
    case 60: case 61: case 62:
        info.SetFlag(3, true);
        break;
    case 70: case 71: case 74: case 75: case 76: case 77:
        info.SetFlag(9, true);
        info.SetFlag(4, id == 77);
        if (id == 70 || id == 71)
            info.SetIndex(6, 0);
        break;
    default:
        break;
    }
}

// ------------------------------------------------------------------ properties of blocks

std::int32_t M2DSliceIO_sectioned::_GetIndexOfProperties(const SlmBuildProperties& properties) const
{
    for (std::size_t i = 0; i < _properties.size(); ++i)
        if (_properties[i] == properties)
            return static_cast<std::int32_t>(i);
    return -1;
}

void M2DSliceIO_sectioned::_AddNewProperty(const SlmBuildProperties& properties)
{
    if (!_buildStyleList)
        return;
    PersistentProperties& item = _buildStyleList->Add();
    if (_namedStyles)
        item.SetValue(L"SLMBuildStyleName", properties.Name);
    item.SetValue(L"SLMBuildStyleID", properties.BuildStyleId);
    item.SetValue(L"LaserSpeed", static_cast<double>(properties.LaserSpeed));
    item.SetValue(L"LaserPower", static_cast<double>(properties.LaserPower));
    item.SetValue(L"LaserFocus", static_cast<double>(properties.LaserFocus));
    item.SetValue(L"PointDistance", properties.PointDistance);
    item.SetValue(L"ExposureTime", properties.ExposureTime);
    item.SetValue(L"LaserIndex", properties.LaserIndex);
}

void M2DSliceIO_sectioned::_SetBuildPropertiesToVectorBlock(M2DMTTVectorBlock& block, const SlmBuildProperties& properties)
{
    std::int32_t index = _GetIndexOfProperties(properties);
    if (index < 0)
    {
        _properties.push_back(properties);
        _AddNewProperty(properties);
        index = static_cast<std::int32_t>(_properties.size()) - 1;
    }
    block.PropertyIndex = index;
}

namespace {

M2DSliceIO_sectioned::SlmBuildProperties PropertiesOf(const M2DSliceIO_sectioned::BuildStyle& style)
{
    M2DSliceIO_sectioned::SlmBuildProperties p;
    p.BuildStyleId = static_cast<std::int32_t>(style.BuildStyleId);
    p.PointDistance = static_cast<std::int32_t>(style.PointDistance);
    p.ExposureTime = static_cast<std::int32_t>(style.ExposureTime);
    p.LaserFocus = style.LaserFocus;
    p.LaserPower = style.LaserPower;
    p.LaserSpeed = style.LaserSpeed;
    p.LaserIndex = style.LaserIndex;
    p.Name = style.BuildStyleName;
    return p;
}

} // namespace

bool M2DSliceIO_sectioned::_FindBuildProperties(M2DMTTVectorBlock& block)
{
    const ModelInfo* model = _GetModelInfoByID(block.ModelId);
    const BuildStyle* style = model ? _GetBuildStyleByMapAndID(*model, block.StyleId) : nullptr;
    if (!style)
        return false;
    _SetBuildPropertiesToVectorBlock(block, PropertiesOf(*style));
    block.ParameterId = static_cast<std::int32_t>(block.StyleId);
    return true;
}

bool M2DSliceIO_sectioned::_LoadBuildParameterSection(M2DMTTVectorBlock& block, ByteCursor body)
{
    BuildStyle style;
    if (!LoadStyleFields(body, style, nullptr, _namedStyles))
        return _Fail("extra build style section cut short");
    style.BuildStyleId = block.StyleId;
    _SetBuildPropertiesToVectorBlock(block, PropertiesOf(style));
    style.LaserPowerFactor = 1.0f;
    style.LaserSpeedFactor = 1.0f;
    const std::int32_t index = _GetBuildParametersIndexOfBuildStyle(style, block.ModelId, true);
    if (index >= 0)
        block.ParameterId = _buildParameters->GetInstance(static_cast<std::size_t>(index)).GetID();
    return true;
}
