#include "M2DSliceIO_cli.h"
#include "../../framework/LocalClock.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace {

// The record buffer goes to the file whenever it grows past this, so that a huge record
// never needs a buffer of its own size.
constexpr std::size_t kFlushBytes = 1 << 18;

void Store16(char* p, std::uint16_t v)
{
    p[0] = static_cast<char>(v & 0xff);
    p[1] = static_cast<char>(v >> 8);
}

void Store32(char* p, std::uint32_t v)
{
    p[0] = static_cast<char>(v & 0xff);
    p[1] = static_cast<char>((v >> 8) & 0xff);
    p[2] = static_cast<char>((v >> 16) & 0xff);
    p[3] = static_cast<char>(v >> 24);
}

// Long form: counts and ids as 32-bit integers, coordinates as floats of value / c.
struct LongForm
{
    static constexpr std::size_t kWidth = 4;
    static constexpr std::uint16_t kLayer = M2DSliceIO_cli::LayerLong;
    static constexpr std::uint16_t kPolyline = M2DSliceIO_cli::PolylineLong;
    static constexpr std::uint16_t kHatches = M2DSliceIO_cli::HatchesLong;
    static constexpr std::size_t kMaxHatches = 2147483647;

    static void StoreField(char* p, std::uint64_t v) { Store32(p, static_cast<std::uint32_t>(v)); }
    static void StoreCoordinate(char* p, std::int32_t v, double c)
    {
        const float f = static_cast<float>(static_cast<double>(v) / c);
        std::uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        Store32(p, bits);
    }
};

// Short form: everything unsigned 16-bit. A coordinate is value / c + 0.5 truncated and cut
// to 16 bits, the 0.5 being added to negative values too: only positive coordinates below
// 65,536 steps survive.
struct ShortForm
{
    static constexpr std::size_t kWidth = 2;
    static constexpr std::uint16_t kLayer = M2DSliceIO_cli::LayerShort;
    static constexpr std::uint16_t kPolyline = M2DSliceIO_cli::PolylineShort;
    static constexpr std::uint16_t kHatches = M2DSliceIO_cli::HatchesShort;
    static constexpr std::size_t kMaxHatches = 65535;

    static void StoreField(char* p, std::uint64_t v) { Store16(p, static_cast<std::uint16_t>(v)); }
    static void StoreCoordinate(char* p, std::int32_t v, double c)
    {
        const double scaled = static_cast<double>(v) / c + 0.5;
        // |scaled| stays far below 2^63 for the factors WriteHeader accepts; the guard keeps
        // factors set directly through SetIoProperties away from an undefined conversion.
        const std::int64_t steps = std::fabs(scaled) < 9.0e18 ? static_cast<std::int64_t>(scaled) : 0;
        Store16(p, static_cast<std::uint16_t>(steps));
    }
};

bool Flush(MFile& file, std::vector<char>& buffer)
{
    const bool ok = buffer.empty() || file.WriteBytes(buffer.data(), buffer.size()) == buffer.size();
    buffer.clear();
    return ok;
}

// Appends a record command and its integer fields.
template <class Form>
void PutRecordHead(std::vector<char>& buffer, std::uint16_t command, std::initializer_list<std::uint64_t> fields)
{
    const std::size_t at = buffer.size();
    buffer.resize(at + 2 + fields.size() * Form::kWidth);
    char* p = buffer.data() + at;
    Store16(p, command);
    p += 2;
    for (std::uint64_t field : fields)
    {
        Form::StoreField(p, field);
        p += Form::kWidth;
    }
}

// Appends count items of itemBytes each, filled in order by fill(p), writing the buffer out
// in between whenever it has grown past the flush size.
template <class Fill>
bool PutItems(MFile& file, std::vector<char>& buffer, std::size_t count, std::size_t itemBytes, Fill fill)
{
    const std::size_t chunk = kFlushBytes / itemBytes;
    while (count > 0)
    {
        const std::size_t n = std::min(count, chunk);
        const std::size_t at = buffer.size();
        buffer.resize(at + n * itemBytes);
        char* p = buffer.data() + at;
        for (std::size_t i = 0; i < n; ++i, p += itemBytes)
            fill(p);
        count -= n;
        if (buffer.size() >= kFlushBytes && !Flush(file, buffer))
            return false;
    }
    return true;
}

// One polyline record per contour with points. The file holds the points in reverse order,
// from the last point on, and a closed contour repeats that last point at the end.
template <class Form>
bool PutContours(MFile& file, std::vector<char>& buffer, double c, std::uint32_t id, const M2DSliceContourLayer& border)
{
    constexpr std::size_t w = Form::kWidth;
    for (const M2DSliceContour& contour : border)
    {
        if (contour.GetNumPoints() == 0)
            continue;
        const bool closed = contour.GetIsClosed();
        const std::uint64_t n = std::uint64_t{contour.GetNumPoints()} + (closed ? 1 : 0);
        const std::uint64_t dir = closed ? (contour.GetIsOuterContour() ? 1 : 0) : 2;
        PutRecordHead<Form>(buffer, Form::kPolyline, {id, dir, n});
        const M2DSliceContourPoint* point = contour.GetFirstPoint()->GetPreviousPoint();
        const bool ok = PutItems(file, buffer, n, 2 * w, [&](char* p) {
            Form::StoreCoordinate(p, point->x, c);
            Form::StoreCoordinate(p + w, point->y, c);
            point = point->GetPreviousPoint();
        });
        if (!ok)
            return false;
    }
    return true;
}

// One or more hatch records per vector block with vectors, each holding at most the form's
// largest count.
template <class Form>
bool PutHatches(MFile& file, std::vector<char>& buffer, double c, std::uint32_t id, const M2DSliceVectorLayer& vectors)
{
    constexpr std::size_t w = Form::kWidth;
    for (const M2DSliceVectorBlock* block = vectors.GetFirstVectorBlock(); block; block = block->GetNextVectorBlock())
    {
        const M2DSliceVector* v = block->Vectors.data();
        for (std::size_t left = block->Vectors.size(); left > 0;)
        {
            const std::size_t n = std::min(left, Form::kMaxHatches);
            PutRecordHead<Form>(buffer, Form::kHatches, {id, n});
            const bool ok = PutItems(file, buffer, n, 4 * w, [&](char* p) {
                Form::StoreCoordinate(p, v->x1, c);
                Form::StoreCoordinate(p + w, v->y1, c);
                Form::StoreCoordinate(p + 2 * w, v->x2, c);
                Form::StoreCoordinate(p + 3 * w, v->y2, c);
                ++v;
            });
            if (!ok)
                return false;
            left -= n;
        }
    }
    return true;
}

// The layer record, then each slice's polylines and hatches, in the order its source asks
// for. The id is the slice's place in the layer. When there are fewer sources than slices
// the last source speaks for the rest.
template <class Form>
bool PutLayer(MFile& file, std::vector<char>& buffer, double c, std::int32_t z,
              const std::vector<const M2DSlice*>& slices, const std::vector<const ISource2DSlices*>& sources)
{
    const std::size_t at = buffer.size();
    buffer.resize(at + 2 + Form::kWidth);
    Store16(buffer.data() + at, Form::kLayer);
    Form::StoreCoordinate(buffer.data() + at + 2, z, c);
    for (std::size_t i = 0; i < slices.size(); ++i)
    {
        if (!slices[i])
            continue;
        const ISource2DSlices* source = sources.empty() ? nullptr : sources[std::min(i, sources.size() - 1)];
        const M2DSliceIOParameters* parameters = source ? source->GetSliceIOParameters() : nullptr;
        const auto id = static_cast<std::uint32_t>(i);
        const M2DSliceContourLayer& border = *slices[i]->GetSliceBorder();
        const M2DSliceVectorLayer& vectors = *slices[i]->GetVectors();
        const bool ok = !parameters || parameters->BordersFirst
                            ? PutContours<Form>(file, buffer, c, id, border) && PutHatches<Form>(file, buffer, c, id, vectors)
                            : PutHatches<Form>(file, buffer, c, id, vectors) && PutContours<Form>(file, buffer, c, id, border);
        if (!ok)
        {
            buffer.clear();
            return false;
        }
    }
    return Flush(file, buffer);
}

} // namespace

M2DSliceIO_cli::M2DSliceIO_cli() = default;

M2DSliceIO_cli::~M2DSliceIO_cli() = default;

bool M2DSliceIO_cli::_OpenFile(const std::wstring& /*path*/, MOpenMode mode)
{
    // The ASCII layer texts belong to the file last read; a new read starts without them.
    if (mode == Read)
    {
        _layerTexts.clear();
        _layerTextIndex = 0;
    }
    return true;
}

bool M2DSliceIO_cli::_WriteShortLine(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vsnprintf(_text, 20, format, args);
    va_end(args);
    return _file.WRITE_STRING(_text);
}

bool M2DSliceIO_cli::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    _properties.NumLayers = 0;
    bool ok = _file.WRITE_STRING("$$HEADERSTART\n") && _file.WRITE_STRING("$$BINARY\n");
    _ConvertDoubleToTextValue(_text, 1.0 / _properties.InverseResolution, 17, "\n");
    ok = ok && _file.WRITE_STRING("$$UNITS/") && _file.WRITE_STRING(_text) && _file.WRITE_STRING("$$VERSION/200\n");

    if (_hatched)
        ok = ok && _WriteShortLine("$$LABEL/1,Hatchings\n") && _WriteShortLine("$$LABEL/2,DownSkinFills\n") &&
             _WriteShortLine("$$LABEL/3,UpSkinFills\n");
    else if (sources.empty())
        ok = ok && _WriteShortLine("$$LABEL/0,part1\n");
    else
    {
        const unsigned first = static_cast<unsigned>(_modelStartIndex);
        for (unsigned n = first; n < first + sources.size(); ++n)
            ok = ok && _WriteShortLine("$$LABEL/%u,part%u\n", n, n + 1);
    }

    std::tm clock{};
    const std::tm* local = LocalNow(clock) ? &clock : nullptr;
    const unsigned short day = local ? static_cast<unsigned short>(local->tm_mday) : 0;
    const unsigned short month = local ? static_cast<unsigned short>(local->tm_mon + 1) : 0;
    const unsigned short year = local ? static_cast<unsigned short>(local->tm_year % 100) : 0;
    if (year < 10)
        ok = ok && _WriteShortLine("$$DATE/%02hu%02hu0%hu\n", day, month, year);
    else
        ok = ok && _WriteShortLine("$$DATE/%02hu%02hu%hu\n", day, month, year);

    // Placeholders of fixed width, filled in by _CloseFile.
    ok = ok && _file.WRITE_STRING("$$DIMENSION/");
    for (int i = 0; i < 6; ++i)
    {
        _ConvertDoubleToTextValue(_text, 0.0, 17, i < 5 ? "," : "\n");
        ok = ok && _file.WRITE_STRING(_text);
    }
    ok = ok && _WriteShortLine("$$LAYERS/%06d\n", 0);
    return ok && _file.WRITE_STRING("$$HEADEREND");
}

bool M2DSliceIO_cli::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                 const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    const double c = _GetConversionFactor();
    switch (_coordinatesType)
    {
    case Long:
        return PutLayer<LongForm>(_file, _buffer, c, z, slices, sources);
    case Short:
        return PutLayer<ShortForm>(_file, _buffer, c, z, slices, sources);
    }
    return false;
}

bool M2DSliceIO_cli::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/) { return true; }

bool M2DSliceIO_cli::_CloseFile()
{
    if (_mode == Read)
        return true;
    if (!_file.OPEN_UPDATE(_path.c_str()))
        return false;
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$DIMENSION/", -1, true))
    {
        _file.CLOSE();
        return false;
    }
    // In millimetres or inches, not in file steps.
    const M2DSliceContainerIODimensions& d = _properties.Dimensions;
    const double unit = static_cast<double>(_properties.UnitConversionFactor);
    const int values[6] = {d.XMin, d.YMin, d.ZMin, d.XMax, d.YMax, d.ZMax};
    for (int i = 0; i < 6; ++i)
    {
        _ConvertDoubleToTextValue(_text, values[i] / unit, 17, i < 5 ? "," : "\n");
        _file.WRITE_STRING(_text);
    }
    // From a million layers on, this line grows by a byte over the start of "$$HEADEREND".
    _WriteShortLine("$$LAYERS/%06zu\n", static_cast<std::size_t>(_properties.NumLayers));
    _file.CLOSE();
    return true;
}

void M2DSliceIO_cli::_EstimateFileSizes(const ISource2DSlices& source, EstimatedRange& header,
                                        std::vector<EstimatedRange>& layers)
{
    header.Size = 240; // the text header, taken as fixed
    const std::uint64_t c = _coordinatesType == Short ? 2 : 4;
    std::vector<std::shared_ptr<const M2DSlice>> slices;
    const std::uint64_t count = source.GetNumSlices();
    for (std::uint64_t i = 0; i < count; ++i)
    {
        EstimatedRange layer;
        layer.NumLayers = 1;
        layer.ZMin = layer.ZMax = source.GetSliceZPosition(i);
        layer.Size = c + 2;
        slices.clear();
        source.GetSlices(slices, i);
        for (const auto& slice : slices)
        {
            if (!slice)
                continue;
            const M2DSliceComponentContours& contours = *slice->GetSliceBorder();
            for (std::size_t k = 0; k < contours.GetNumContours(); ++k)
                layer.Size += (contours.GetNumPoints(k) + (contours.GetIsClosed(k) ? 1 : 0)) * c * 2 + 2 + c * 3;
            const M2DSliceComponentVectors& vectors = *slice->GetVectors();
            for (std::size_t k = 0; k < vectors.GetNumVectorBlocks(); ++k)
                layer.Size += 2 + (vectors.GetNumVectors(k) * 4 + 2) * c;
        }
        layers.push_back(layer);
    }
}
