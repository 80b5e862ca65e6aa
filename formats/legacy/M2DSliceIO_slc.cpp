#include "M2DSliceIO_slc.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "../../framework/ByteCursor.h"
#include "../../framework/ConvertKernels.h"
#include "LegacyBuffer.h"
#include "LegacyConvert.h"
#include "LegacyLayerLoop.h"
#include "LegacyWindow.h"

namespace {

using ConvertKernels::Round;

const char kTerminator[] = "\r\n\x1a";
constexpr std::int64_t kHeaderSearch = 2048; // the terminator stands within these bytes
constexpr std::int64_t kReserved = 256;       // zero bytes behind the terminator
constexpr std::uint32_t kEndOfLayers = 0xFFFFFFFFu;

bool SameEnd(const M2DSliceVector& before, const M2DSliceVector& next)
{
    return next.x1 == before.x2 && next.y1 == before.y2;
}

// The end of the chain that starts at index i: the first vector that does not start where
// the one before it ended.
std::size_t ChainEnd(const std::vector<M2DSliceVector>& v, std::size_t i)
{
    std::size_t j = i + 1;
    while (j < v.size() && SameEnd(v[j - 1], v[j]))
        ++j;
    return j;
}

std::uint64_t CountChains(const std::vector<M2DSliceVector>& v)
{
    std::uint64_t chains = 0;
    for (std::size_t i = 0; i < v.size(); i = ChainEnd(v, i))
        ++chains;
    return chains;
}

void PutPoint(legacy::OutBuffer& out, std::int32_t x, std::int32_t y, float f)
{
    char* p = out.Grow(8);
    ByteOrder::StoreLE<float>(p, static_cast<float>(x) / f);
    ByteOrder::StoreLE<float>(p + 4, static_cast<float>(y) / f);
}

// Each contour as a boundary: its points backwards from the point before the first, and a
// closed contour repeats that starting point at the end.
bool PutContours(legacy::OutBuffer& out, const M2DSliceContourLayer& border, float f)
{
    for (const M2DSliceContour& contour : border)
    {
        const M2DSliceContourPoint* first = contour.GetFirstPoint();
        const std::uint32_t points = first ? contour.GetNumPoints() : 0;
        const bool closed = contour.GetIsClosed() && points > 0;
        out.LE<std::uint32_t>(points + (closed ? 1 : 0));
        out.LE<std::uint32_t>(0);
        if (points == 0)
            continue;
        const M2DSliceContourPoint* start = first->GetPreviousPoint();
        const M2DSliceContourPoint* p = start;
        for (std::uint32_t i = 0; i < points; ++i, p = p->GetPreviousPoint())
        {
            PutPoint(out, p->x, p->y, f);
            if ((i & 1023) == 1023 && !out.MaybeFlush())
                return false;
        }
        if (closed)
            PutPoint(out, start->x, start->y, f);
        if (!out.MaybeFlush())
            return false;
    }
    return true;
}

// Each chain of each block as a boundary: the start of its first vector and the end of each.
bool PutChains(legacy::OutBuffer& out, const M2DSliceVectorLayer& vectors, float f)
{
    for (const M2DSliceVectorBlock* block = vectors.GetFirstVectorBlock(); block; block = block->GetNextVectorBlock())
    {
        const std::vector<M2DSliceVector>& v = block->Vectors;
        for (std::size_t i = 0, end; i < v.size(); i = end)
        {
            end = ChainEnd(v, i);
            out.LE<std::uint32_t>(static_cast<std::uint32_t>(end - i + 1));
            out.LE<std::uint32_t>(0);
            PutPoint(out, v[i].x1, v[i].y1, f);
            for (std::size_t k = i; k < end; ++k)
                PutPoint(out, v[k].x2, v[k].y2, f);
            if (!out.MaybeFlush())
                return false;
        }
    }
    return true;
}

} // namespace

M2DSliceIO_slc::M2DSliceIO_slc() = default;

M2DSliceIO_slc::~M2DSliceIO_slc() = default;

bool M2DSliceIO_slc::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/) { return true; }

bool M2DSliceIO_slc::_WriteExtents(const double values[6])
{
    bool ok = true;
    for (int i = 0; i < 6; ++i)
    {
        _ConvertDoubleToTextValue(_text, values[i], 16, i % 2 == 0 ? ", " : " ");
        ok = _file.WRITE_STRING(_text) && ok;
    }
    return ok;
}

bool M2DSliceIO_slc::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    if (!_file.WRITE_STRING("-SLCVER 2.0 "))
        return _Fail("the header could not be written");
    const std::int32_t unit = _properties.UnitConversionFactor;
    if (unit == MUnit::GetIE())
        _file.WRITE_STRING("-UNIT MM ");
    else if (unit == std::lround(MUnit::GetIE() * 25.4))
        _file.WRITE_STRING("-UNIT INCH ");
    else
        return _Fail("the unit is neither millimetres nor inches");
    _file.WRITE_STRING("-TYPE ");
    _file.WRITE_STRING(_type == Part ? "PART" : _type == Support ? "SUPPORT" : "WEB");
    _file.WRITE_STRING(" -PACKAGE ZANDERVOLLE -EXTENTS ");
    const double zeros[6] = {};
    _WriteExtents(zeros);
    _file.WRITE_STRING(kTerminator);
    // The reserved bytes, the sampling table size (1 once closed) and one entry of four floats.
    const char blank[kReserved + 1 + 16] = {};
    if (_file.WriteBytes(blank, sizeof blank) != sizeof blank)
        return _Fail("the header could not be written");
    return true;
}

bool M2DSliceIO_slc::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                 const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    const auto f = static_cast<float>(_GetConversionFactor());
    legacy::OutBuffer out(_file, _out);
    out.LE<float>(static_cast<float>(z) / f);

    std::uint64_t boundaries = 0;
    for (const M2DSlice* slice : slices)
    {
        if (!slice)
            continue;
        boundaries += slice->GetSliceBorder()->GetNumContours();
        for (const M2DSliceVectorBlock* b = slice->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
            boundaries += CountChains(b->Vectors);
    }
    out.LE<std::uint32_t>(static_cast<std::uint32_t>(boundaries));

    legacy::PutSlices(
        sources, slices, [&](const M2DSliceContourLayer& border) { return PutContours(out, border, f); },
        [&](const M2DSliceVectorLayer& vectors) { return PutChains(out, vectors, f); });
    // A failed write shows when the file is closed.
    out.Flush();
    return true;
}

bool M2DSliceIO_slc::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    const auto f = static_cast<float>(_GetConversionFactor());
    const std::int64_t top = std::int64_t{_properties.Dimensions.ZMax} + _properties.LayerThickness;
    legacy::OutBuffer out(_file, _out);
    out.LE<float>(static_cast<float>(top) / f);
    out.LE<std::uint32_t>(kEndOfLayers);
    return out.Flush() || _Fail("the end record could not be written");
}

bool M2DSliceIO_slc::_CloseFile()
{
    if (_mode == Read)
        return true;
    if (!_file.OPEN_UPDATE(_path.c_str()))
        return _Fail("the file could not be opened again to fill in the extents");
    _file.REWIND();
    if (!_file.SEARCH_STRING("-EXTENTS ", -1, true))
    {
        _file.CLOSE();
        return _Fail("no \"-EXTENTS \" in the header");
    }
    const M2DSliceContainerIODimensions& d = _properties.Dimensions;
    const double c = _GetConversionFactor();
    const double extents[6] = {d.XMin / c, d.XMax / c, d.YMin / c, d.YMax / c, d.ZMin / c, d.ZMax / c};
    _WriteExtents(extents);

    _file.REWIND();
    if (!_file.SEARCH_STRING(kTerminator, -1, true))
    {
        _file.CLOSE();
        return _Fail("no header terminator");
    }
    const auto f = static_cast<float>(c);
    unsigned char entry[9];
    entry[0] = 1;
    ByteOrder::StoreLE<float>(entry + 1, static_cast<float>(d.ZMin) / f);
    ByteOrder::StoreLE<float>(entry + 5, static_cast<float>(_properties.LayerThickness) / f);
    _file.SEEK(kReserved, 1);
    _file.WriteBytes(entry, sizeof entry);
    _file.CLOSE();
    return true;
}

bool M2DSliceIO_slc::_CheckHeaderIsASCII(std::uint64_t length)
{
    unsigned char buffer[kHeaderSearch] = {};
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(length, sizeof buffer));
    _file.REWIND();
    _file.ReadBytes(buffer, n);
    return std::all_of(buffer, buffer + sizeof buffer, [](unsigned char b) { return b < 128; });
}

bool M2DSliceIO_slc::_ReadHeader(ITarget2DSlices* /*target*/)
{
    _chunk = legacy::InWindow::kChunk;
    _file.REWIND();
    if (!_file.SEARCH_STRING(kTerminator, kHeaderSearch, true))
        return _Fail("no header end (0D 0A 1A) within the first 2048 bytes: not an SLC file");
    const std::int64_t h = _file.TELL();
    if (!_CheckHeaderIsASCII(static_cast<std::uint64_t>(h)))
        return _Fail("the text header holds a byte above 127");

    _file.REWIND();
    if (_file.SEARCH_STRING("-TYPE ", h, true))
    {
        char word[101];
        _file.READ_STRING_UNTIL(word, " ", sizeof word);
        _type = std::strcmp(word, "PART") == 0 ? Part : std::strcmp(word, "SUPPORT") == 0 ? Support : Web;
    }
    // Only "INCH" is looked for: anywhere in the header it decides.
    _file.REWIND();
    _properties.UnitConversionFactor = _file.SEARCH_STRING("INCH", h, true)
                                           ? static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4))
                                           : MUnit::GetIE();

    _file.SEEK(h + kReserved, 0);
    std::uint8_t entries = 0;
    _file.ReadBytes(&entries, 1);
    _file.SEEK(16 * std::int64_t{entries}, 1);
    return true;
}

bool M2DSliceIO_slc::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input); });
}

bool M2DSliceIO_slc::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner);
}

bool M2DSliceIO_slc::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

bool M2DSliceIO_slc::_FetchLayer(ILayerInput& input)
{
    legacy::InWindow in(_file, _chunk);
    const std::int64_t fileSize = in.FileSize();
    const std::int64_t start = in.Tell();
    if (!in.Ensure(4))
        return start >= fileSize ? false : _FailAt("layer height cut short", start);
    const double c = _GetConversionFactor();
    input.SetZ(Round(static_cast<double>(ByteOrder::LoadLE<float>(in.Data())) * c));
    in.Skip(4);
    if (!in.Ensure(4))
        return _FailAt("boundary count cut short", in.Tell());
    const std::uint32_t boundaries = ByteOrder::LoadLE<std::uint32_t>(in.Data());
    in.Skip(4);
    if (boundaries == kEndOfLayers)
        return false; // the end record

    // Two-point boundaries, and every boundary when borders are read as vectors, gather as
    // runs of vectors in the file's own float form and go to the input converted a run at a
    // time.
    // Room for a vector per boundary, as far as the rest of the file can hold them.
    input.StartVectorBlock(M2DSliceVectorTypeInfo(e2DSliceVectorType_Border),
                           static_cast<std::size_t>(std::min<std::int64_t>(boundaries, in.Left() / 24)));
    legacy::PendingFloatVectors pending(input, c, _raw);
    const bool asVectors = _readOptions.ReadBordersAsVectors;
    bool ok = true;
    for (std::uint32_t b = 0; b < boundaries && ok; ++b)
    {
        // Runs of two-point boundaries, the bulk of a hatched layer, go straight to the
        // gatherer; any other boundary, or one the window cannot show whole, is left to the
        // general path below.
        for (; b < boundaries && in.Ensure(8 + 16); ++b, in.Skip(8 + 16))
        {
            if (ByteOrder::LoadLE<std::uint32_t>(in.Data()) != 2)
                break;
            pending.Add(in.Data() + 8);
        }
        if (b == boundaries)
            break;
        const std::int64_t at = in.Tell();
        if (!in.Ensure(8))
        {
            ok = _FailAt("boundary " + std::to_string(b) + " cut short", at);
            break;
        }
        const std::uint32_t n = ByteOrder::LoadLE<std::uint32_t>(in.Data()); // the gap count behind it is not used
        in.Skip(8);
        if (n < 2)
            continue; // no vertices are read, even for a count of 1
        const std::uint64_t bytes = std::uint64_t{n} * 8;
        const unsigned char* points =
            static_cast<std::uint64_t>(fileSize - at - 8) < bytes ? nullptr : in.Record(bytes, _storage);
        if (!points)
        {
            ok = _FailAt("boundary of " + std::to_string(n) + " vertices larger than the rest of the file", at);
            break;
        }
        if (n == 2 || asVectors)
        {
            // Vector i runs from point i to point i + 1: the 16 bytes at 8 i.
            for (std::uint32_t i = 0; i + 1 < n; ++i)
            {
                pending.Add(points + 8 * std::size_t{i});
            }
            continue;
        }
        pending.Flush();
        _coords.resize(std::size_t{n} * 2);
        ConvertKernels::ConvertValues(points, std::size_t{n} * 2, ConvertKernels::RawKind::FloatLE, c, _coords.data());
        const int* p = _coords.data();
        input.StartContour(e2DSliceVectorType_Border);
        input.SetContourOuter(false);
        for (std::uint32_t i = 0; i + 1 < n; ++i)
            input.AddContourPoint(p[2 * i], p[2 * i + 1]);
        const int lastX = p[2 * (n - 1)], lastY = p[2 * (n - 1) + 1];
        if (lastX == p[0] && lastY == p[1])
        {
            // Stored backwards with the start repeated: turned round again, without the repeat.
            input.SetContourClosed(true);
            input.EndContour(true);
        }
        else
        {
            input.SetContourClosed(false);
            input.AddContourPoint(lastX, lastY);
        }
    }
    pending.Flush();
    input.EndVectorBlock(true);
    input.EndContour(false);
    return ok;
}

void M2DSliceIO_slc::_EstimateFileSizes(const ISource2DSlices& source, EstimatedRange& header,
                                        std::vector<EstimatedRange>& layers)
{
    _EstimateFileSizesIndividualSlices(source, header, layers);
}

void M2DSliceIO_slc::_EstimateFileSizesIndividualSlices(const ISource2DSlices& source, EstimatedRange& total,
                                                        std::vector<EstimatedRange>& layers)
{
    total.Size = 450; // the header, taken as fixed
    M2DSliceConstDataItems items;
    const std::uint64_t count = source.GetNumSlices();
    for (std::uint64_t i = 0; i < count; ++i)
    {
        EstimatedRange layer;
        layer.NumLayers = 1;
        layer.ZMin = layer.ZMax = source.GetSliceZPosition(i);
        layer.Size = 4;
        items.Clear();
        source.GetSliceItems(items, i);
        for (const M2DSliceConstDataItem& item : items.Items)
        {
            layer.Size += 4;
            if (const M2DSliceContour* contour = item.GetContour())
                layer.Size += 8 + 8 * (std::uint64_t{contour->GetNumPoints()} + (contour->GetIsClosed() ? 1 : 0));
            else if (const M2DSliceVectorBlock* block = item.GetVectorBlock())
                layer.Size += 24 * std::uint64_t{block->Vectors.size()};
        }
        layers.push_back(layer);
    }
}
