// The CLF reader: header and seek table, then the layer groups from the first entry of the
// table on, each read once into memory and decoded with a cursor.
#include <cmath>
#include <cstring>

#include "../../contracts/PersistentProperties.h"
#include "../../contracts/StringConversion.h"
#include "../../framework/ConvertKernels.h"
#include "M2DSliceIO_clf.h"

using namespace clf;

namespace {

// A header value in internal units for a property: truncated, and held to the int range.
std::int32_t PropertyValue(float value, double c)
{
    const double v = static_cast<double>(value) * c;
    if (!(v == v))
        return 0;
    if (v <= -2147483648.0)
        return INT32_MIN;
    if (v >= 2147483647.0)
        return INT32_MAX;
    return static_cast<std::int32_t>(v);
}

} // namespace

bool M2DSliceIO_clf::_ReadSeekTable()
{
    std::uint64_t id, size;
    std::size_t head;
    ByteCursor payload;
    std::string reason;
    if (_seekTablePosition > static_cast<std::uint64_t>(INT64_MAX) ||
        !_file.SEEK(static_cast<std::int64_t>(_seekTablePosition), 0) || !ReadItemHead(_file, id, size, head))
        return _Fail("no seek table where the header says");
    if (id != Top_SeekTable)
        return _Fail("item " + std::to_string(id) + " where the header places the seek table");
    if (size > SIZE_MAX || !ReadRecord(_file, static_cast<std::size_t>(size), _storage, payload))
        return _Fail("the seek table runs past the end of the file");
    return DecodeSeekTable(payload, _seekTable, reason) || _Fail(reason);
}

bool M2DSliceIO_clf::_ReadHeader(ITarget2DSlices* target)
{
    _parts.clear();
    _seekTable.clear();
    _seekTablePosition = 0;
    _file.REWIND();
    std::uint64_t id, size;
    std::size_t head;
    if (!ReadItemHead(_file, id, size, head))
        return _Fail("the file is too short for a header");
    if (id != Top_Header)
        return _Fail("the file does not start with a header group");
    ByteCursor payload;
    if (size > SIZE_MAX || !ReadRecord(_file, static_cast<std::size_t>(size), _storage, payload))
        return _Fail("the header group runs past the end of the file");
    const std::int64_t headerEnd = _file.TELL();

    HeaderData header;
    std::string reason;
    if (!DecodeHeader(payload, header, reason))
        return _Fail(reason);

    // The file identifier and the version are checked and not kept.
    PersistentProperties* properties = target ? target->GetProperties() : nullptr;
    if (header.HasNumLayers)
    {
        const std::int32_t layers = ToInt32(header.NumLayers);
        if (properties)
            properties->SetValue(L"NumLayers", layers);
    }
    if (header.HasBox && properties)
    {
        const double c = _GetConversionFactor();
        static const wchar_t* const kNames[6] = {L"MinX", L"MinY", L"MinZ", L"MaxX", L"MaxY", L"MaxZ"};
        for (int i = 0; i < 6; ++i)
            properties->SetValue(kNames[i], PropertyValue(header.Box[i], c));
    }
    if (header.HasComment && properties)
        properties->SetValue(L"User Comment", StringConversion::LocaleToNative(header.Comment));
    for (PartRecord& part : header.Parts)
        _parts[part.Id] = std::move(part);

    if (header.HasSeekTablePosition)
    {
        _seekTablePosition = header.SeekTablePosition;
        if (!_ReadSeekTable())
            return false;
    }
    if (!_file.SEEK(headerEnd, 0))
        return _Fail("the end of the header cannot be reached");
    // Layers start where the table's first entry says.
    if (!_seekTable.empty() && _seekTable.front()->Position <= static_cast<std::uint64_t>(INT64_MAX))
        _file.SEEK(static_cast<std::int64_t>(_seekTable.front()->Position), 0);
    return true;
}

bool M2DSliceIO_clf::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    M2DSliceContainerScanInfo info;
    {
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, true))
            return false;
    }
    // Contours were inverted as they ended; turning the border back restores the file's order
    // with outer contours marked by their positive area.
    slice.GetSliceBorderUpdate()->Invert();
    _ExtendSliceArea(slice, info.Area);
    slice.SetZ(info.Z);
    return true;
}

bool M2DSliceIO_clf::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    // Measured as the read delivers the layer: contours in the file's order.
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, false);
}

bool M2DSliceIO_clf::_ReadFooter(ITarget2DSlices* /*target*/)
{
    std::uint64_t id, size;
    std::size_t head;
    if (_seekTablePosition > 0 && _file.TELL() == static_cast<std::int64_t>(_seekTablePosition))
    {
        ByteCursor payload;
        std::string reason;
        if (!ReadItemHead(_file, id, size, head) || id != Top_SeekTable || size > SIZE_MAX ||
            !ReadRecord(_file, static_cast<std::size_t>(size), _storage, payload))
            return _Fail("the seek table cannot be read again");
        if (!DecodeSeekTable(payload, _seekTable, reason))
            return _Fail(reason);
    }
    if (!ReadItemHead(_file, id, size, head) || id != Top_End || size != 0)
        return _Fail("no end marker after the seek table");
    return true;
}

// ---------------------------------------------------------------- layers

bool M2DSliceIO_clf::_FetchLayer(ILayerInput& input, bool invert)
{
    const std::int64_t start = _file.TELL();
    std::uint64_t id, size;
    std::size_t head;
    if (!ReadItemHead(_file, id, size, head))
        return false; // the file ends here
    if (id != Top_Layer)
    {
        // The layers end at the first item that is not a layer; it is left for the footer.
        _file.SEEK(start, 0);
        return false;
    }
    ByteCursor layer;
    if (size > SIZE_MAX || !ReadRecord(_file, static_cast<std::size_t>(size), _storage, layer))
    {
        _file.SEEK(0, 2);
        return _FailAt("a layer group runs past the end of the file", start);
    }

    const double c = _GetConversionFactor();
    _invert = invert;
    _polygons.clear();
    Item item;
    Item field;
    while (!layer.AtEnd())
    {
        if (!GetItem(layer, item))
            return _FailAt("a layer item runs past its group", start);
        switch (item.Id)
        {
        case Layer_Height:
        {
            float z;
            if (!item.Payload.LE(z))
                return _FailAt("a layer height shorter than 4 bytes", start);
            input.SetZ(ConvertKernels::Round(static_cast<double>(z) * c));
            break;
        }
        case Layer_NumPairs:
            break; // the counts of the polygons tell
        case Layer_Shape:
            while (!item.Payload.AtEnd())
            {
                if (!GetItem(item.Payload, field))
                    return _FailAt("a shape item runs past its group", start);
                if (field.Id != Shape_Polygon)
                    continue;
                ShapeRead polygon = {0, 0, 0};
                Item value;
                while (!field.Payload.AtEnd())
                {
                    if (!GetItem(field.Payload, value))
                        return _FailAt("a polygon item runs past its group", start);
                    std::uint64_t* target = value.Id == Polygon_Class  ? &polygon.Class
                                            : value.Id == Polygon_Form  ? &polygon.Form
                                            : value.Id == Polygon_Count ? &polygon.Count
                                                                        : nullptr;
                    if (target && !GetVarInt(value.Payload, *target))
                        return _FailAt("a polygon item is too short", start);
                }
                _polygons.push_back(polygon);
            }
            break;
        case Layer_Coordinates:
            if (c == 0)
                return _FailAt("the conversion factor is 0", start);
            for (const ShapeRead& polygon : _polygons)
                if (!_ReadPolygon(input, item.Payload, polygon.Class, polygon.Form, polygon.Count))
                    return _FailAt("the coordinates of a polygon are damaged", start);
            break;
        case Layer_Stop:
            return _FailAt("item 4 inside a layer group", start);
        default:
            break; // skipped
        }
    }
    input.EndContour(invert);
    return true;
}

namespace {

inline bool GetPoint(const unsigned char* p, double c, int& x, int& y)
{
    return Truncate(ByteOrder::LoadLE<float>(p), c, x) && Truncate(ByteOrder::LoadLE<float>(p + 4), c, y);
}

} // namespace

void M2DSliceIO_clf::_OpenVectorBlock(ILayerInput& input, std::size_t reserve)
{
    // One block of this label collects every vector of the layer.
    if (input.GetNumVectorBlocks() > 0)
        if (const M2DSliceVectorTypeInfo* last = input.GetVectorBlockTypeInfo(); last && *last == _vectorLabel)
            return;
    input.StartVectorBlock(_vectorLabel, reserve);
}

bool M2DSliceIO_clf::_ReadPolygon(ILayerInput& input, ByteCursor& coordinates, std::uint64_t cls,
                                  std::uint64_t form, std::uint64_t count)
{
    const double c = _GetConversionFactor();
    int x, y;
    if (form == Form_Pairs)
        return _ReadPairs(input, coordinates, count);
    if (form != Form_Closed && form != Form_Open)
    {
        // A form of no known meaning: its coordinates are passed over.
        return coordinates.HasItems(count, 8) && coordinates.Skip(static_cast<std::size_t>(count) * 8);
    }
    if (count == 1)
    {
        const unsigned char* p = coordinates.View(8);
        if (!p || !GetPoint(p, c, x, y))
            return false;
        input.AddPoint(x, y);
        return true;
    }
    if (cls == Class_OpenOrFlagged)
        return count < 2 || _ReadChain(input, coordinates, count);
    if (!coordinates.HasItems(count, 8))
        return false;
    const unsigned char* p = coordinates.View(static_cast<std::size_t>(count) * 8);
    input.StartContour(e2DSliceVectorType_Border);
    if (form == Form_Open)
        input.SetContourClosed(false);
    int firstX = 0, firstY = 0;
    for (std::uint64_t i = 0; i < count; ++i, p += 8)
    {
        if (!GetPoint(p, c, x, y))
        {
            input.EndContour(false);
            return false;
        }
        if (i == 0)
        {
            firstX = x;
            firstY = y;
        }
        // A closed contour's repeated first point is dropped.
        else if (form == Form_Closed && i + 1 == count && x == firstX && y == firstY)
            break;
        input.AddContourPoint(x, y);
    }
    input.EndContour(_invert);
    return true;
}

// A polyline: each point after the first makes a vector from the one before.
bool M2DSliceIO_clf::_ReadChain(ILayerInput& input, ByteCursor& coordinates, std::uint64_t count)
{
    const double c = _GetConversionFactor();
    if (!coordinates.HasItems(count, 8))
        return false;
    const unsigned char* p = coordinates.View(static_cast<std::size_t>(count) * 8);
    _OpenVectorBlock(input, static_cast<std::size_t>(count - 1));
    int x, y;
    if (!GetPoint(p, c, x, y))
        return false;
    _vectors.clear();
    M2DSliceXYArea box;
    box.Extend(x, y);
    for (std::uint64_t i = 1; i < count; ++i)
    {
        p += 8;
        int nx, ny;
        if (!GetPoint(p, c, nx, ny))
            return false;
        box.Extend(nx, ny);
        _vectors.emplace_back(x, y, nx, ny);
        x = nx;
        y = ny;
    }
    input.AddMeasuredVectors(_vectors.data(), _vectors.size(), box);
    input.EndVectorBlock(false);
    return true;
}

// Start and end of each vector; a pair whose ends are equal is a single point.
bool M2DSliceIO_clf::_ReadPairs(ILayerInput& input, ByteCursor& coordinates, std::uint64_t count)
{
    const double c = _GetConversionFactor();
    if (!coordinates.HasItems(count, 8))
        return false;
    const unsigned char* p = coordinates.View(static_cast<std::size_t>(count) * 8);
    const std::uint64_t n = count / 2;
    _OpenVectorBlock(input, static_cast<std::size_t>(n));
    const bool measureOnly = input.MeasuresOnly();
    constexpr std::size_t kChunk = 4096;
    if (!measureOnly)
        _vectors.resize(std::min<std::uint64_t>(n, kChunk));
    for (std::uint64_t done = 0; done < n;)
    {
        const std::size_t m = static_cast<std::size_t>(std::min<std::uint64_t>(n - done, kChunk));
        M2DSliceXYArea box;
        std::size_t kept = 0;
        for (std::size_t i = 0; i < m; ++i, p += 16)
        {
            int x1, y1, x2, y2;
            if (!GetPoint(p, c, x1, y1) || !GetPoint(p + 8, c, x2, y2))
                return false;
            if (x1 == x2 && y1 == y2)
            {
                input.AddPoint(x1, y1);
                continue;
            }
            box.Extend(x1, y1);
            box.Extend(x2, y2);
            if (!measureOnly)
                _vectors[kept] = M2DSliceVector(x1, y1, x2, y2);
            ++kept;
        }
        if (measureOnly)
        {
            if (kept > 0)
                input.AddVectorsArea(box, kept);
        }
        else
            input.AddMeasuredVectors(_vectors.data(), kept, box);
        done += m;
    }
    // An odd last point has no partner and is passed over.
    input.EndVectorBlock(false);
    return true;
}
