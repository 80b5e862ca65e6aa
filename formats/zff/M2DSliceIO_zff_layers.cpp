// The layer sections of a ZFF file: written in two passes so that every size is known before
// it is written, and read a layer section at a time, in place where the file's buffer holds it.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "../../contracts/M2DSliceStack.h"
#include "../../framework/ConvertKernels.h"
#include "M2DSliceIO_zff.h"

namespace {

using ConvertKernels::Round;

// Bytes on their way to the file are staged in pieces of at most this.
constexpr std::size_t kStageBytes = 1 << 16;

// The attribute key of a contour or block: its parameter index, or its base kind when it has
// none; the key is a 16-bit number.
std::int16_t KeyOf(const M2DSliceVectorTypeInfo& label)
{
    const std::int32_t index = label.GetIndex(e2DSliceVectorTypeIndex_Parameter);
    return static_cast<std::int16_t>(index != 0 ? index : static_cast<std::int32_t>(label.GetType()));
}

// The part a slice belongs to: the "PartId" of the slice stack it comes from. The sources are
// the writer's; one joined source stands for the sources it joins.
std::int32_t ContainerPartId(const std::vector<const ISource2DSlices*>& sources, std::size_t slice,
                             std::size_t numSlices)
{
    const ISource2DSlices* source = sources.size() == numSlices ? sources[slice]
                                    : sources.size() == 1       ? sources[0]
                                                                : nullptr;
    if (const auto* joined = dynamic_cast<const M2DSliceSourceVector*>(source))
        source = joined->GetSources().size() == numSlices ? joined->GetSources()[slice] : nullptr;
    const auto* stack = dynamic_cast<const M2DSliceStack*>(source);
    std::int32_t id = 0;
    if (stack && stack->GetProperties()->GetValue(L"PartId", id))
        return id;
    return 0;
}

struct BlockPlan
{
    std::int64_t Size = 0; // content of the block section
    ZffVectorAttributes Attributes;
};

} // namespace

// ------------------------------------------------------------------ writing

bool M2DSliceIO_zff::_Flush()
{
    if (_staged > 0 && !WriteAll(_file, _out.get(), _staged))
        _writeFailed = true;
    _staged = 0;
    return !_writeFailed || _Fail("the file could not be written");
}

// Room for bytes (at most kStageBytes) at the end of the staged ones, writing these out first
// when they would not fit; the caller fills the room at once.
unsigned char* M2DSliceIO_zff::_Room(std::size_t bytes)
{
    if (!_out)
        _out.reset(new unsigned char[kStageBytes]);
    if (_staged + bytes > kStageBytes)
        _Flush();
    unsigned char* at = _out.get() + _staged;
    _staged += bytes;
    return at;
}

bool M2DSliceIO_zff::_WriteData(const void* data, std::int64_t size, std::int64_t& remaining)
{
    if (size < 0)
        return false;
    remaining -= size;
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::int64_t done = 0; done < size;)
    {
        const std::size_t n = std::min<std::size_t>(kStageBytes, static_cast<std::size_t>(size - done));
        std::memcpy(_Room(n), bytes + done, n);
        done += static_cast<std::int64_t>(n);
    }
    return true;
}

bool M2DSliceIO_zff::_WriteFixedSizeValue(std::int64_t value, std::int64_t size, std::int64_t& remaining)
{
    unsigned char bytes[8];
    switch (size)
    {
    case 1: ByteOrder::StoreLE<std::uint8_t>(bytes, static_cast<std::uint8_t>(value)); break;
    case 2: ByteOrder::StoreLE<std::uint16_t>(bytes, static_cast<std::uint16_t>(value)); break;
    case 4: ByteOrder::StoreLE<std::uint32_t>(bytes, static_cast<std::uint32_t>(value)); break;
    case 8: ByteOrder::StoreLE<std::uint64_t>(bytes, static_cast<std::uint64_t>(value)); break;
    default: return false;
    }
    return _WriteData(bytes, size, remaining);
}

bool M2DSliceIO_zff::_WriteFloat(float value, std::int64_t size, std::int64_t& remaining)
{
    unsigned char bytes[8];
    if (size == 4)
        ByteOrder::StoreLE<float>(bytes, value);
    else if (size == 8)
        ByteOrder::StoreLE<double>(bytes, value);
    else
        return false;
    return _WriteData(bytes, size, remaining);
}

bool M2DSliceIO_zff::_WriteSectionHeader(std::uint32_t id, std::int64_t size, std::int64_t& remaining)
{
    return _WriteFixedSizeValue(id, 2, remaining) && _WriteFixedSizeValue(size, 4, remaining);
}

bool M2DSliceIO_zff::_WriteLayerSection(std::int64_t size, std::int64_t& remaining)
{
    return _WriteSectionHeader(SectionLayer, size, remaining);
}

bool M2DSliceIO_zff::_WriteZPosition(std::int32_t z, std::int64_t& remaining)
{
    return _WriteSectionHeader(SectionHeight, 4, remaining) && _WriteFixedSizeValue(z, 4, remaining);
}

bool M2DSliceIO_zff::_WriteAttributes(const ZffVectorAttributes& attributes, std::int64_t& remaining)
{
    bool ok = true;
    for (const auto& [id, value] : attributes.GetAttributes())
    {
        ok = _WriteSectionHeader(id, 4, remaining) && ok;
        ok = (value.IsInteger ? _WriteFixedSizeValue(value.IntValue, 4, remaining)
                              : _WriteFloat(value.FloatValue, 4, remaining)) &&
             ok;
    }
    return ok;
}

bool M2DSliceIO_zff::_WriteContourData(const ZffSliceContour* contour, std::int64_t size, std::int64_t& remaining)
{
    if (!_WriteSectionHeader(SectionContourData, size, remaining))
        return false;
    const double c = _GetConversionFactor();
    for (const auto& point : *contour->Contour)
    {
        unsigned char* p = _Room(8);
        ByteOrder::StoreLE<float>(p, static_cast<float>(point.x / c));
        ByteOrder::StoreLE<float>(p + 4, static_cast<float>(point.y / c));
    }
    remaining -= 8 * std::int64_t{contour->Contour->GetNumPoints()};
    return true;
}

bool M2DSliceIO_zff::_WriteHatchData(const M2DSliceVectorBlock* block, std::int64_t size, std::int64_t& remaining)
{
    if (!_WriteSectionHeader(SectionHatchData, size, remaining))
        return false;
    const double c = _GetConversionFactor();
    const M2DSliceVector* v = block->Vectors.data();
    for (std::size_t left = block->Vectors.size(); left > 0;)
    {
        const std::size_t n = std::min(left, kStageBytes / 16);
        unsigned char* p = _Room(16 * n);
        for (const M2DSliceVector* end = v + n; v != end; ++v, p += 16)
        {
            ByteOrder::StoreLE<float>(p, static_cast<float>(v->x1 / c));
            ByteOrder::StoreLE<float>(p + 4, static_cast<float>(v->y1 / c));
            ByteOrder::StoreLE<float>(p + 8, static_cast<float>(v->x2 / c));
            ByteOrder::StoreLE<float>(p + 12, static_cast<float>(v->y2 / c));
        }
        left -= n;
    }
    remaining -= 16 * static_cast<std::int64_t>(block->Vectors.size());
    return true;
}

bool M2DSliceIO_zff::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                 const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);

    // The blocks in the order they go out.
    std::vector<const M2DSliceVectorBlock*> blocks;
    if (_sorter)
        _sorter->Sort(items.Slices, blocks);
    else
        for (const M2DSlice* slice : slices)
            for (const M2DSliceVectorBlock* b = slice->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
                blocks.push_back(b);

    // First pass: every contour and block with its attributes and size. A slice whose stack
    // names no part gives each contour and block the part of its own label.
    std::vector<ZffSliceContour> contours;
    std::unordered_map<const M2DSliceVectorBlock*, BlockPlan> plans;
    std::int64_t total = 0;
    for (std::size_t s = 0; s < slices.size(); ++s)
    {
        const std::int32_t containerPart = ContainerPartId(sources, s, slices.size());
        const auto partOf = [&](const M2DSliceVectorTypeInfo& label) {
            return containerPart != 0 ? containerPart : label.GetIndex(e2DSliceVectorTypeIndex_Part);
        };
        const auto attributesOf = [&](const M2DSliceVectorTypeInfo& label) {
            const std::int32_t part = partOf(label);
            ZffVectorAttributes attributes =
                _metaData.GetAttributes(static_cast<std::uint64_t>(static_cast<std::int64_t>(part)), KeyOf(label));
            attributes.SetPartID(part);
            return attributes;
        };
        for (const M2DSliceContour& contour : *slices[s]->GetSliceBorder())
        {
            ZffSliceContour& entry = contours.emplace_back();
            entry.Contour = &contour;
            entry.Attributes = attributesOf(contour.GetTypeInfo());
            total += 12 + entry.Attributes.GetAttributeSizeInFile() + 8 * std::int64_t{contour.GetNumPoints()};
        }
        for (const M2DSliceVectorBlock* b = slices[s]->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
        {
            BlockPlan& plan = plans[b];
            plan.Attributes = attributesOf(b->GetTypeInfo());
            plan.Size = 6 + plan.Attributes.GetAttributeSizeInFile() + 16 * static_cast<std::int64_t>(b->Vectors.size());
        }
    }
    // A block the sorter hands back that belongs to no slice of the layer is not written.
    blocks.erase(std::remove_if(blocks.begin(), blocks.end(), [&](const M2DSliceVectorBlock* b) { return !plans.count(b); }),
                 blocks.end());
    for (const M2DSliceVectorBlock* b : blocks)
        total += 6 + plans[b].Size;
    if (total + 10 > std::int64_t{UINT32_MAX})
        return _Fail("the layer at height " + std::to_string(z) + " holds more than a section's 4 GiB");

    // Second pass: the layer strictly forward.
    std::int64_t remaining = 6 + total + 10;
    _WriteLayerSection(total + 10, remaining);
    _WriteZPosition(z, remaining);
    for (const ZffSliceContour& entry : contours)
    {
        const std::int64_t points = 8 * std::int64_t{entry.Contour->GetNumPoints()};
        _WriteSectionHeader(SectionContourBlock, 6 + entry.Attributes.GetAttributeSizeInFile() + points, remaining);
        _WriteAttributes(entry.Attributes, remaining);
        _WriteContourData(&entry, points, remaining);
    }
    for (const M2DSliceVectorBlock* b : blocks)
    {
        const BlockPlan& plan = plans[b];
        _WriteSectionHeader(SectionHatchBlock, plan.Size, remaining);
        _WriteAttributes(plan.Attributes, remaining);
        _WriteHatchData(b, 16 * static_cast<std::int64_t>(b->Vectors.size()), remaining);
    }
    if (remaining != 0)
        return _Fail("the layer's sections do not add up to its size");
    return _Flush();
}

// ------------------------------------------------------------------ reading

bool M2DSliceIO_zff::_ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool /*readVectors*/)
{
    M2DSliceContainerScanInfo info;
    {
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, info, target))
            return false;
    }
    _ExtendSliceArea(slice, info.Area);
    slice.SetZ(info.Z);
    return true;
}

bool M2DSliceIO_zff::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool /*readVectors*/)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, info, target);
}

bool M2DSliceIO_zff::_FetchLayer(ILayerInput& input, M2DSliceContainerScanInfo& info, ITarget2DSlices* target)
{
    PersistentProperties* properties = target ? target->GetProperties() : nullptr;
    _scanParameters = nullptr;
    _buildParameters = nullptr;
    if (properties)
    {
        _scanParameters = properties->AddProperty<IndexedProperties<PersistentProperties>>(L"ScanParametersGeneric");
        _buildParameters = M2DSliceBuildParameters::Get(properties, true);
        if (_buildParameters)
            _buildParameters->GetLookupIdsUpdate().First = 0;
    }

    unsigned char head[6];
    const std::int64_t at = _file.TELL();
    const std::size_t got = _file.ReadBytes(head, sizeof head);
    if (got == 0)
        return false; // the end of the layers
    if (got < sizeof head)
        return _FailAt("the file ends inside a section head", at);
    const std::uint16_t id = ByteOrder::LoadLE<std::uint16_t>(head);
    const std::uint32_t size = ByteOrder::LoadLE<std::uint32_t>(head + 2);
    if (id != SectionLayer)
        return _FailAt("section " + std::to_string(id) + " where a layer section (1) should begin", at);
    ByteCursor layer;
    if (!ReadRecord(_file, size, _record, layer))
        return _FailAt("layer section of " + std::to_string(size) + " bytes runs past the end of the file", at);

    while (!layer.AtEnd())
    {
        const std::size_t sectionAt = layer.Offset();
        std::uint16_t section = 0;
        std::uint32_t sectionSize = 0;
        ByteCursor content;
        if (!layer.LE(section) || !layer.LE(sectionSize))
            return _FailAt("a section head is cut by the end of its layer", at + 6 + static_cast<std::int64_t>(sectionAt));
        if (!layer.Sub(sectionSize, content))
            return _FailAt("section " + std::to_string(section) + " runs past the end of its layer",
                           at + 6 + static_cast<std::int64_t>(sectionAt));
        if (section == SectionHeight)
        {
            std::int32_t z = 0;
            if (!content.LE(z))
                return _FailAt("the height section holds no height", at + 6 + static_cast<std::int64_t>(sectionAt));
            // Heights are kept in internal units; the header's Zunit says how many make a file unit.
            const std::int32_t zunit = static_cast<std::int32_t>(
                std::strtol(_LookupHeader("Zunit").c_str(), nullptr, 10));
            input.SetZ(Round(static_cast<double>(z) / zunit * _GetConversionFactor()));
        }
        else if (section == SectionContourBlock || section == SectionHatchBlock)
        {
            _cursor = &content;
            const bool ok = _ReadVectorBlock(input, section == SectionContourBlock ? ContourBlock : HatchBlock, sectionSize);
            _cursor = nullptr;
            if (!ok)
                return false;
        }
    }
    (void)info;
    return true;
}

bool M2DSliceIO_zff::_ReadVectorBlock(ILayerInput& input, EBlockType /*type*/, unsigned int /*size*/)
{
    ByteCursor& block = *_cursor;
    float laserDiameter = -1.0f;
    std::int32_t extraValue = -1;
    const auto settings = [&] {
        build_properties p;
        p.LaserSpeed = _current.LaserSpeed;
        p.LaserFocus = _current.LaserFocus;
        p.LaserPower = _current.LaserPower;
        p.PointDistance = _current.PointDistance;
        p.ExposureTime = _current.ExposureTime;
        p.LaserDiameter = laserDiameter;
        p.ExtraValue = extraValue;
        return p;
    };
    const double c = _GetConversionFactor();

    while (!block.AtEnd())
    {
        std::uint16_t id = 0;
        std::uint32_t size = 0;
        ByteCursor content;
        if (!block.LE(id) || !block.LE(size))
            return _Fail("a section head is cut by the end of its block");
        if (!block.Sub(size, content))
            return _Fail("section " + std::to_string(id) + " runs past the end of its block");
        switch (id)
        {
        case ZffVectorAttributes::LaserPower: content.LE(_current.LaserPower); break;
        case ZffVectorAttributes::LaserSpeed: content.LE(_current.LaserSpeed); break;
        case ZffVectorAttributes::LaserFocus: content.LE(_current.LaserFocus); break;
        case ZffVectorAttributes::PointDistance: content.LE(_current.PointDistance); break;
        case ZffVectorAttributes::ExposureTime: content.LE(_current.ExposureTime); break;
        case ZffVectorAttributes::PartID: content.LE(_current.PartID); break;
        case ZffVectorAttributes::ExtraValue: content.LE(extraValue); break;
        case ZffVectorAttributes::LaserDiameter: content.LE(laserDiameter); break;
        case SectionContourData:
        case SectionHatchData: {
            _RegisterSettings(settings());
            M2DSliceVectorTypeInfo label(e2DSliceVectorType_None);
            label.SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int16_t>(_current.PartID));
            label.SetIndex(e2DSliceVectorTypeIndex_Parameter, static_cast<std::int16_t>(_propertyIndex));
            if (id == SectionHatchData)
            {
                label.SetType(e2DSliceVectorType_Hatch);
                const std::size_t n = size / 16;
                input.StartVectorBlock(label, n);
                ConvertKernels::AddVectorRun(input, content.Data(), n, ConvertKernels::RawKind::FloatLE, c);
                break;
            }
            // A contour is the chain of vectors from each point to the next.
            label.SetType(e2DSliceVectorType_Border);
            const std::size_t n = size / 8;
            input.StartVectorBlock(label, n > 0 ? n - 1 : 0);
            const unsigned char* raw = content.Data();
            int last[2] = {0, 0};
            for (std::size_t done = 0; done < n;)
            {
                const std::size_t m = std::min(ConvertKernels::kVectorChunk, n - done);
                _coords.resize(2 * m);
                ConvertKernels::ConvertValues(raw + 8 * done, 2 * m, ConvertKernels::RawKind::FloatLE, c, _coords.data());
                _vectors.clear();
                for (std::size_t i = 0; i < m; ++i)
                {
                    const int x = _coords[2 * i];
                    const int y = _coords[2 * i + 1];
                    if (done + i > 0)
                        _vectors.emplace_back(last[0], last[1], x, y);
                    last[0] = x;
                    last[1] = y;
                }
                if (!_vectors.empty())
                    input.AddVectors(_vectors.data(), _vectors.size());
                done += m;
            }
            break;
        }
        default:
            break; // sections this reader does not know are skipped
        }
    }
    // A block without data registers its settings all the same.
    _RegisterSettings(settings());
    return true;
}
