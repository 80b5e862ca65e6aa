// The CLF writer: header, one layer group per layer with content, seek table and end marker.
#include "M2DSliceIO_clf.h"

#include <cstring>

#include "../../contracts/M2DSliceUtilities.h"
#include "../../contracts/PersistentProperties.h"
#include "../../contracts/StringConversion.h"

using namespace clf;

namespace {

// The bytes of a layer go to the file whenever they grow past this, so that a huge layer never
// needs a buffer of its own size.
constexpr std::size_t kFlushBytes = 1 << 20;

void PutF32(std::vector<unsigned char>& out, float value)
{
    const std::size_t at = out.size();
    out.resize(at + 4);
    ByteOrder::StoreLE<float>(out.data() + at, value);
}

inline float ToFile(std::int32_t value, double c) { return static_cast<float>(static_cast<double>(value) / c); }

// An item of known size: identifier and size in short form, then the payload.
void PutItemHead(std::vector<unsigned char>& out, std::uint64_t id, std::uint64_t size)
{
    PutVarInt(out, id);
    PutVarInt(out, size);
}

void PutVarIntItem(std::vector<unsigned char>& out, std::uint64_t id, std::uint64_t value)
{
    PutItemHead(out, id, VarIntSize(value));
    PutVarInt(out, value);
}

void PutBox(std::vector<unsigned char>& out, std::uint64_t id, const float (&box)[6])
{
    PutItemHead(out, id, 24);
    for (float v : box)
        PutF32(out, v);
}

bool HasFlag1(const M2DSliceVectorTypeInfo& info) { return info.GetFlag(e2DSliceVectorTypeFlag_1); }

} // namespace

M2DSliceIO_clf::M2DSliceIO_clf()
{
    _vectorLabel.SetType(e2DSliceVectorType_Border);
    _vectorLabel.SetFlag(e2DSliceVectorTypeFlag_1, true);
}

M2DSliceIO_clf::~M2DSliceIO_clf() = default;

bool M2DSliceIO_clf::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    // What belongs to the file last read or written goes.
    _parts.clear();
    _seekTable.clear();
    _seekTableField = _boxField = -1;
    _seekTablePosition = 0;
    _numOrphanShapes = 0;
    _out.clear();
    _openGroups.clear();
    return true;
}

// ---------------------------------------------------------------- output with patched sizes

// Writes the bytes gathered so far; patches of groups still open then go to the file.
bool M2DSliceIO_clf::_FlushOut()
{
    const bool ok = WriteAll(_file, _out);
    _outStart += static_cast<std::int64_t>(_out.size());
    _out.clear();
    return ok;
}

namespace {

// A group whose size is known only when it closes: identifier, then a long-form 0 as size.
// Returns the file position of its payload.
std::int64_t OpenGroup(std::vector<unsigned char>& out, std::int64_t outStart, std::uint64_t id)
{
    PutVarInt(out, id);
    PutLongVarInt(out, 0);
    return outStart + static_cast<std::int64_t>(out.size());
}

// Patches the size of the group whose payload starts at payload and ends at end: in the
// buffer while the size field is still there, else in the file.
bool CloseGroup(MFile& file, std::vector<unsigned char>& out, std::int64_t outStart, std::int64_t payload)
{
    const std::int64_t end = outStart + static_cast<std::int64_t>(out.size());
    const std::int64_t field = payload - static_cast<std::int64_t>(kLongVarIntBytes);
    unsigned char bytes[kLongVarIntBytes];
    StoreLongVarInt(bytes, static_cast<std::uint64_t>(end - payload));
    if (field >= outStart)
    {
        std::memcpy(out.data() + (field - outStart), bytes, sizeof bytes);
        return true;
    }
    // The buffer holds what follows outStart; the file ends there.
    return file.SEEK(field, 0) && WriteAll(file, bytes, sizeof bytes) && file.SEEK(outStart, 0);
}

} // namespace

// ---------------------------------------------------------------- header

bool M2DSliceIO_clf::_WritePart(const ISource2DSlices& source)
{
    const double c = _GetConversionFactor();
    const std::int64_t group = OpenGroup(_out, _outStart, Header_Part);
    const PersistentProperties* properties = source.GetProperties();
    std::int32_t id = 0;
    std::wstring name;
    const bool hasId = properties && properties->GetValue(L"PartID", id);
    if (hasId)
        PutVarIntItem(_out, Part_Id, ToUInt32(id));
    const bool hasName = hasId && properties->GetValue(L"PartName", name);
    if (hasName)
    {
        const std::u16string text = StringConversion::Utf8ToUtf16(StringConversion::NativeToUtf8(name));
        PutItemHead(_out, Part_Name, 2 * (text.size() + 1));
        for (char16_t unit : text)
        {
            const std::size_t at = _out.size();
            _out.resize(at + 2);
            ByteOrder::StoreLE<std::uint16_t>(_out.data() + at, static_cast<std::uint16_t>(unit));
        }
        _out.push_back(0);
        _out.push_back(0);

        float box[6] = {};
        const std::uint64_t n = source.GetNumSlices();
        if (n > 0)
        {
            const M2DSliceXYArea area = source.GetXYArea();
            const std::int32_t values[6] = {area.XMin, area.YMin, source.GetSliceZPosition(0),
                                            area.XMax, area.YMax, source.GetSliceZPosition(n - 1)};
            for (int i = 0; i < 6; ++i)
                box[i] = ToFile(values[i], c);
        }
        PutBox(_out, Part_Box, box);
        PutItemHead(_out, Part_Thickness, 4);
        PutF32(_out, ToFile(source.GetSliceThickness(), c));
    }
    CloseGroup(_file, _out, _outStart, group);
    if (!hasId)
        return _Fail("a source without a \"PartID\" property");
    return hasName || _Fail("a source without a \"PartName\" property");
}

bool M2DSliceIO_clf::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    // Reopened for update so that the header's fields can be patched at the end.
    _file.CLOSE();
    if (!_file.OPEN_UPDATE(_path.c_str()))
        return _Fail("the file cannot be reopened for update");
    _out.clear();
    _outStart = 0;
    _seekTable.clear();

    const std::int64_t header = OpenGroup(_out, _outStart, Top_Header);
    PutItemHead(_out, Header_FileId, sizeof kFileId);
    _out.insert(_out.end(), kFileId, kFileId + sizeof kFileId);
    PutItemHead(_out, Header_Version, 2);
    PutVarInt(_out, 1);
    PutVarInt(_out, 0);
    PutVarIntItem(_out, Header_NumLayers, ToUInt32(ToInt32(_GetNumLayers())));
    PutItemHead(_out, Header_Box, 24);
    _boxField = _outStart + static_cast<std::int64_t>(_out.size());
    _out.resize(_out.size() + 24);

    bool ok = true;
    for (const ISource2DSlices* source : sources)
        ok = (source && _WritePart(*source)) && ok;

    PutVarInt(_out, Header_SeekTablePosition);
    PutLongVarInt(_out, kLongVarIntBytes);
    _seekTableField = _outStart + static_cast<std::int64_t>(_out.size());
    PutLongVarInt(_out, 0);
    CloseGroup(_file, _out, _outStart, header);
    if (!_FlushOut())
        return _Fail("the header could not be written");
    return ok;
}

bool M2DSliceIO_clf::_WriteHeaderPerSliceContainer(std::uint64_t /*index*/) { return true; }

// ---------------------------------------------------------------- layers

bool M2DSliceIO_clf::_BuildRecord(const M2DSlice& slice, LayerRecord& record)
{
    // Borders: one shape per area (an outer contour and its holes), one polygon per contour.
    const M2DSliceContourLayer& border = *slice.GetSliceBorder();
    if (border.GetNumContours() > 0)
    {
        M2DSliceOperatorDetermineAreas areas;
        areas.DetermineAreas(&border);
        for (const std::vector<std::size_t>& group : areas.GetGroups())
        {
            Shape shape;
            for (std::size_t index : group)
            {
                const M2DSliceContour& contour = *border.GetContour(index);
                Polygon polygon;
                const bool closed = contour.GetIsClosed();
                polygon.Class = HasFlag1(contour.GetTypeInfo()) && !closed ? Class_OpenOrFlagged
                                : contour.GetIsOuterContour()               ? Class_Outer
                                                                            : Class_Inner;
                polygon.Form = closed ? Form_Closed : Form_Open;
                polygon.Count = contour.GetNumPoints();
                polygon.Contour = &contour;
                shape.push_back(polygon);
            }
            // A hole without its outer contour stands for an outer contour.
            if (!shape.empty() && shape.front().Class == Class_Inner)
            {
                ++_numOrphanShapes;
                if (_dropOrphanShapes)
                    continue;
                shape.front().Class = Class_Outer;
            }
            record.Shapes[Kind_Borders].push_back(std::move(shape));
        }
    }

    // Vector blocks: polyline sets are split into their chains, each a block of its own; hatch
    // blocks and blocks with flag 1 are a polygon each as they are.
    for (const M2DSliceVectorBlock* block = slice.GetVectors()->GetFirstVectorBlock(); block;
         block = block->GetNextVectorBlock())
    {
        const M2DSliceVectorTypeInfo& info = block->GetTypeInfo();
        const e2DSliceVectorType type = info.GetType();
        const bool flagged = HasFlag1(info);
        auto addPolygon = [&](const M2DSliceVectorBlock& b) {
            Polygon polygon;
            polygon.Class = Class_Inner + (flagged ? 1 : 0);
            polygon.Form = Form_Pairs;
            polygon.Count = ToPointCount(2 * std::uint64_t{b.Vectors.size()});
            polygon.Block = &b;
            record.Shapes[Kind_Vectors].push_back(Shape{polygon});
        };
        if (type != e2DSliceVectorType_Hatch && type != e2DSliceVectorType_VectorGroup7 &&
            type != e2DSliceVectorType_VectorGroup8 && !flagged)
        {
            M2DSliceContourLayer chains;
            M2DSliceUtilities::ConvertVectorsToContours(*block, chains);
            for (const M2DSliceContour& chain : chains)
            {
                record.Blocks.push_back(std::make_unique<M2DSliceVectorBlock>());
                M2DSliceUtilities::ConvertContourToVectors(chain, *record.Blocks.back());
                addPolygon(*record.Blocks.back());
            }
        }
        else if (!block->Vectors.empty())
            addPolygon(*block);
    }

    // Point sets: one shape each, one single-point polygon per point.
    for (const M2DSlicePointBlock* block = slice.GetPoints()->GetFirstPointBlock(); block;
         block = block->GetNextPointBlock())
    {
        Shape shape;
        for (const M2DSlicePoint& point : block->Points)
        {
            Polygon polygon;
            polygon.Class = Class_OpenOrFlagged;
            polygon.Form = Form_Closed;
            polygon.Count = 1;
            polygon.Point = &point;
            shape.push_back(polygon);
        }
        record.Shapes[Kind_Points].push_back(std::move(shape));
    }
    return true;
}

void M2DSliceIO_clf::_PutShapes(const LayerRecord& record)
{
    for (std::uint32_t kind = 0; kind < 3; ++kind)
        for (const Shape& shape : record.Shapes[kind])
        {
            if (shape.empty())
                continue;
            const std::int64_t group = OpenGroup(_out, _outStart, Layer_Shape);
            PutVarIntItem(_out, Shape_PartId, record.PartId);
            PutVarIntItem(_out, Shape_Kind, kind);
            for (const Polygon& polygon : shape)
            {
                const std::int64_t item = OpenGroup(_out, _outStart, Shape_Polygon);
                PutVarIntItem(_out, Polygon_Class, polygon.Class);
                PutVarIntItem(_out, Polygon_Form, polygon.Form);
                PutVarIntItem(_out, Polygon_Count, polygon.Count);
                CloseGroup(_file, _out, _outStart, item);
            }
            CloseGroup(_file, _out, _outStart, group);
        }
}

void M2DSliceIO_clf::_PutCoordinates(const LayerRecord& record)
{
    const double c = _GetConversionFactor();
    auto reserve = [&](std::size_t pairs) {
        const std::size_t at = _out.size();
        _out.resize(at + 8 * pairs);
        return _out.data() + at;
    };
    auto put = [c](unsigned char*& p, std::int32_t x, std::int32_t y) {
        ByteOrder::StoreLE<float>(p, ToFile(x, c));
        ByteOrder::StoreLE<float>(p + 4, ToFile(y, c));
        p += 8;
    };
    for (std::uint32_t kind = 0; kind < 3; ++kind)
        for (const Shape& shape : record.Shapes[kind])
            for (const Polygon& polygon : shape)
            {
                if (polygon.Contour)
                {
                    unsigned char* p = reserve(polygon.Contour->GetNumPoints());
                    for (const M2DSliceContourPoint& point : *polygon.Contour)
                        put(p, point.x, point.y);
                }
                else if (polygon.Block)
                {
                    // Pairs: start and end of every vector, a chunk at a time.
                    const std::vector<M2DSliceVector>& vectors = polygon.Block->Vectors;
                    constexpr std::size_t kChunk = 8192;
                    for (std::size_t i = 0; i < vectors.size();)
                    {
                        const std::size_t n = std::min(kChunk, vectors.size() - i);
                        unsigned char* p = reserve(2 * n);
                        for (const std::size_t end = i + n; i < end; ++i)
                        {
                            put(p, vectors[i].x1, vectors[i].y1);
                            put(p, vectors[i].x2, vectors[i].y2);
                        }
                        if (_out.size() >= kFlushBytes)
                            _FlushOut();
                    }
                }
                else if (polygon.Point)
                {
                    unsigned char* p = reserve(1);
                    put(p, polygon.Point->x, polygon.Point->y);
                }
                if (_out.size() >= kFlushBytes)
                    _FlushOut();
            }
}

bool M2DSliceIO_clf::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                 const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    bool content = false;
    for (const M2DSlice* slice : slices)
        content = content || (slice && !slice->IsEmpty());
    if (!content)
        return _Fail("a layer without content is not written");
    const double c = _GetConversionFactor();
    if (c == 0)
        return _Fail("the conversion factor is 0");
    if (slices.empty() || slices.size() != sources.size())
        return _Fail("each slice of a layer needs its own source");

    auto entry = std::make_shared<SeekTableEntry>();
    entry->Height = ToFile(z, c);
    entry->Position = static_cast<std::uint64_t>(_TellFilePos());

    std::vector<LayerRecord> records(slices.size());
    std::uint64_t pairs = 0;
    for (std::size_t i = 0; i < slices.size(); ++i)
    {
        const PersistentProperties* properties = sources[i] ? sources[i]->GetProperties() : nullptr;
        std::int32_t id = 0;
        if (!slices[i] || !properties || !properties->GetValue(L"PartID", id))
            return _Fail("a source without a \"PartID\" property");
        records[i].PartId = ToUInt32(id);
        _BuildRecord(*slices[i], records[i]);
        for (const auto& shapes : records[i].Shapes)
            for (const Shape& shape : shapes)
                for (const Polygon& polygon : shape)
                    pairs += polygon.Count;
    }

    _outStart = _file.TELL();
    const std::int64_t layer = OpenGroup(_out, _outStart, Top_Layer);
    PutItemHead(_out, Layer_Height, 4);
    PutF32(_out, entry->Height);
    PutVarIntItem(_out, Layer_NumPairs, ToUInt32(ToInt32(pairs)));
    for (const LayerRecord& record : records)
        _PutShapes(record);
    const std::int64_t coordinates = OpenGroup(_out, _outStart, Layer_Coordinates);
    for (const LayerRecord& record : records)
        _PutCoordinates(record);
    const bool ok = CloseGroup(_file, _out, _outStart, coordinates) && CloseGroup(_file, _out, _outStart, layer) &&
                    _FlushOut();
    if (!ok)
        return _Fail("the layer could not be written");
    _seekTable.push_back(std::move(entry));
    return true;
}

// ---------------------------------------------------------------- footer and close

bool M2DSliceIO_clf::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    _outStart = _file.TELL();
    const std::int64_t position = _TellFilePos();
    const std::int64_t table = OpenGroup(_out, _outStart, Top_SeekTable);
    for (const auto& entry : _seekTable)
    {
        const std::uint32_t at = ToUInt32(ToInt32(static_cast<std::int64_t>(entry->Position)));
        PutItemHead(_out, Seek_Entry, 2 + 4 + 2 + VarIntSize(at));
        PutItemHead(_out, SeekEntry_Height, 4);
        PutF32(_out, entry->Height);
        PutVarIntItem(_out, SeekEntry_Position, at);
    }
    CloseGroup(_file, _out, _outStart, table);
    bool ok = _FlushOut();

    unsigned char field[kLongVarIntBytes];
    StoreLongVarInt(field, ToUInt64(position));
    const std::int64_t end = _file.TELL();
    ok = ok && _seekTableField >= 0 && _file.SEEK(_seekTableField, 0) && WriteAll(_file, field, sizeof field) &&
         _file.SEEK(end, 0);
    const unsigned char marker[2] = {Top_End, 0};
    ok = ok && WriteAll(_file, marker, sizeof marker);
    return ok || _Fail("the seek table could not be written");
}

bool M2DSliceIO_clf::_CloseFile()
{
    if (_mode == Read)
        return true;
    if (_boxField < 0)
        return _Fail("no header was written");
    if (!_file.OPEN_UPDATE(_path.c_str()))
        return _Fail("the file cannot be reopened to patch its bounding box");
    const double c = _GetConversionFactor();
    const M2DSliceContainerIODimensions& d = _properties.Dimensions;
    const std::int32_t values[6] = {d.XMin, d.YMin, d.ZMin, d.XMax, d.YMax, d.ZMax};
    unsigned char box[24];
    for (int i = 0; i < 6; ++i)
        ByteOrder::StoreLE<float>(box + 4 * i, c == 0 ? 0.0f : ToFile(values[i], c));
    const bool ok = _file.SEEK(_boxField, 0) && WriteAll(_file, box, sizeof box);
    return _file.CLOSE() && ok ? true : _Fail("the bounding box could not be patched");
}
