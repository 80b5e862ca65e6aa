#include "M2DSliceIO_fs.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "../../framework/ByteCursor.h"
#include "../../framework/ConvertKernels.h"
#include "LegacyBuffer.h"
#include "LegacyConvert.h"
#include "LegacyWindow.h"

namespace {

using ConvertKernels::Round;

constexpr std::size_t kHeadBytes = 128;
constexpr std::size_t kTypes = 11;
const char kMagic[] = "F&S2.1";
const char kEndMark[] = "F&S_EndOfFile";
constexpr std::size_t kPendingVectors = 1024;

// Coordinates are read at 40 steps per unit, whatever the file was written with.
constexpr double kReadSteps = 40.0;

struct Table
{
    std::uint16_t Segments[kTypes] = {};
    std::uint32_t Points[kTypes] = {};
};

void PutPoint(legacy::OutBuffer& out, std::int32_t x, std::int32_t y, double f)
{
    char* p = out.Grow(8);
    ByteOrder::StoreLE<float>(p, static_cast<float>(x / f));
    ByteOrder::StoreLE<float>(p + 4, static_cast<float>(y / f));
}

void PutSegmentHead(legacy::OutBuffer& out, std::uint8_t type, std::uint32_t points)
{
    char* p = out.Grow(7);
    p[0] = 'X';
    p[1] = 'X';
    p[2] = static_cast<char>(type);
    // Sixteen bits each: a contour of more than 8191 points wraps the size, of more than
    // 65535 the count.
    ByteOrder::StoreLE<std::uint16_t>(p + 3, static_cast<std::uint16_t>(8 * points));
    ByteOrder::StoreLE<std::uint16_t>(p + 5, static_cast<std::uint16_t>(points));
}

} // namespace

M2DSliceIO_fs::M2DSliceIO_fs() = default;

M2DSliceIO_fs::~M2DSliceIO_fs() = default;

bool M2DSliceIO_fs::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/) { return true; }
bool M2DSliceIO_fs::_CloseFile() { return true; }
bool M2DSliceIO_fs::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/) { return true; }
bool M2DSliceIO_fs::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/) { return true; }
bool M2DSliceIO_fs::_ReadHeader(ITarget2DSlices* /*target*/)
{
    _chunk = legacy::InWindow::kChunk;
    return true;
}
bool M2DSliceIO_fs::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

bool M2DSliceIO_fs::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t z,
                                const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    const M2DSlice* slice = slices.empty() ? nullptr : slices[0];
    if (!slice)
        return true;
    const double f = _GetConversionFactor();
    const double unit = _properties.UnitConversionFactor;

    // The table of segment and point counts by type, which stands in the head before the
    // segments it counts.
    Table table;
    for (const M2DSliceContour& contour : *slice->GetSliceBorder())
    {
        const std::uint8_t type = _partType == PartTypePolylines ? 2 : contour.GetIsOuterContour() ? 1 : 0;
        const std::uint32_t points = contour.GetNumPoints() + (contour.GetIsClosed() && contour.GetFirstPoint() ? 1 : 0);
        ++table.Segments[type];
        table.Points[type] += points;
    }
    const std::uint64_t vectors = slice->GetVectors()->GetTotalNumVectors();
    table.Segments[2] = static_cast<std::uint16_t>(table.Segments[2] + vectors);
    table.Points[2] = static_cast<std::uint32_t>(table.Points[2] + 2 * vectors);
    std::uint16_t total = 0;
    for (std::uint16_t count : table.Segments)
        total = static_cast<std::uint16_t>(total + count);

    legacy::OutBuffer out(_file, _out);
    char* head = out.Grow(kHeadBytes);
    std::memset(head, 0, kHeadBytes);
    head[0] = 6;
    std::memcpy(head + 1, kMagic, 6);
    ByteOrder::StoreLE<std::uint16_t>(head + 7, total);
    for (std::size_t t = 0; t < kTypes; ++t)
    {
        ByteOrder::StoreLE<std::uint16_t>(head + 9 + 2 * t, table.Segments[t]);
        ByteOrder::StoreLE<std::uint32_t>(head + 31 + 4 * t, table.Points[t]);
    }
    // The area and the height in the unit, without the resolution.
    const M2DSliceXYArea& area = slice->GetXYArea(true);
    const std::int32_t box[4] = {area.XMin, area.YMin, area.XMax, area.YMax};
    for (int i = 0; i < 4; ++i)
        ByteOrder::StoreLE<float>(head + 75 + 4 * i, static_cast<float>(box[i] / unit));
    ByteOrder::StoreLE<float>(head + 91, static_cast<float>(z / unit));

    for (const M2DSliceContour& contour : *slice->GetSliceBorder())
    {
        const std::uint8_t type = _partType == PartTypePolylines ? 2 : contour.GetIsOuterContour() ? 1 : 0;
        const M2DSliceContourPoint* first = contour.GetFirstPoint();
        const bool closed = contour.GetIsClosed() && first;
        PutSegmentHead(out, type, contour.GetNumPoints() + (closed ? 1 : 0));
        for (const M2DSliceContourPoint& point : contour)
        {
            PutPoint(out, point.x, point.y, f);
            if (!out.MaybeFlush())
                return _Fail("a layer could not be written");
        }
        if (closed)
            PutPoint(out, first->x, first->y, f);
    }
    for (const M2DSliceVectorBlock* block = slice->GetVectors()->GetFirstVectorBlock(); block;
         block = block->GetNextVectorBlock())
        for (const M2DSliceVector& v : block->Vectors)
        {
            PutSegmentHead(out, 2, 2);
            PutPoint(out, v.x1, v.y1, f);
            PutPoint(out, v.x2, v.y2, f);
            if (!out.MaybeFlush())
                return _Fail("a layer could not be written");
        }
    out.LE<std::uint8_t>(13);
    out.Text(kEndMark);
    return out.Flush() || _Fail("a layer could not be written");
}

bool M2DSliceIO_fs::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool readVectors)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input, readVectors); });
}

bool M2DSliceIO_fs::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool readVectors)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, readVectors);
}

bool M2DSliceIO_fs::_FetchLayer(ILayerInput& input, bool /*flag*/)
{
    legacy::InWindow in(_file, _chunk);
    const std::int64_t fileSize = in.FileSize();
    const std::int64_t start = in.Tell();
    if (!in.Ensure(kHeadBytes))
        return start < fileSize ? _FailAt("layer head cut short", start) : false;
    const unsigned char* head = in.Data();
    const std::uint16_t segments = ByteOrder::LoadLE<std::uint16_t>(head + 7);
    input.SetZ(Round(static_cast<double>(ByteOrder::LoadLE<float>(head + 91)) * _GetConversionFactor()));
    in.Skip(kHeadBytes);
    const double g = _properties.UnitConversionFactor / kReadSteps;
    const M2DSliceVectorTypeInfo lineLabel(e2DSliceVectorType_None);

    // Each line segment is a vector block of its own. A reader whose blocks of one label are
    // merged afterwards gets them in one block straight away, which is what the merge would
    // make of them; a scanner counts every block.
    const bool measures = input.MeasuresOnly();
    const bool oneBlock = !measures && _readOptions.VectorBlocks.MergeBlocks;
    bool blockOpen = false;
    // The one block's room, from the head's table as far as the rest of the file can hold
    // it: the vectors of the lines (a vector fewer than points per line) and of the rows.
    std::uint64_t tableVectors = 0;
    for (std::size_t t = 2; t < kTypes; ++t)
    {
        const std::uint32_t points = ByteOrder::LoadLE<std::uint32_t>(head + 31 + 4 * t);
        const std::uint16_t lines = ByteOrder::LoadLE<std::uint16_t>(head + 9 + 2 * t);
        if (t <= 3)
            tableVectors += points > lines ? points - lines : 0;
        else if (t >= 5)
            tableVectors += points;
    }
    const std::size_t oneBlockVectors =
        static_cast<std::size_t>(std::min<std::uint64_t>(tableVectors, static_cast<std::uint64_t>(in.Left()) / 6));
    // Vectors wait in one of two forms, floats as the file has them (converted a run at a
    // time) or already converted; switching form hands on what waits, so the order stays.
    _vectors.clear();
    legacy::PendingFloatVectors pendingRaw(input, g, _raw);
    const auto addRaw = [&] { pendingRaw.Flush(); };
    const auto addConverted = [&] {
        if (!_vectors.empty())
            input.AddVectors(_vectors.data(), _vectors.size());
        _vectors.clear();
    };
    const auto addVectors = [&] {
        addRaw();
        addConverted();
    };
    const auto startBlock = [&](std::size_t reserve) {
        if (!oneBlock)
        {
            input.StartVectorBlock(lineLabel, reserve);
            return;
        }
        if (!blockOpen)
            input.StartVectorBlock(lineLabel, oneBlockVectors);
        blockOpen = true;
    };
    const auto endBlock = [&] {
        if (!oneBlock)
        {
            // A scanner only widens the layer's box by the vectors: they may reach it in
            // runs that cross the blocks it counts.
            if (!measures)
                addVectors();
            input.EndVectorBlock(true);
        }
        if (_vectors.size() >= kPendingVectors)
            addConverted();
    };

    for (std::uint32_t s = 0; s < segments; ++s)
    {
        if (oneBlock)
        {
            // Runs of two-point lines, the bulk of a hatched layer, go straight to the
            // gatherer; any other segment, or one the window cannot show whole, is left to
            // the general path below.
            for (; s < segments && in.Ensure(7 + 16); ++s, in.Skip(7 + 16))
            {
                const unsigned char* line = in.Data();
                if (line[0] != 'X' || line[1] != 'X' || (line[2] != 2 && line[2] != 3) ||
                    ByteOrder::LoadLE<std::uint16_t>(line + 5) != 2)
                    break;
                startBlock(2);
                addConverted();
                pendingRaw.Add(line + 7);
            }
            if (s == segments)
                break;
        }
        const std::int64_t at = in.Tell();
        if (!in.Ensure(7))
            return _FailAt("segment " + std::to_string(s) + " cut short", at);
        const unsigned char* sh = in.Data();
        if (sh[0] != 'X' || sh[1] != 'X')
            return _FailAt("segment " + std::to_string(s) + " does not start with \"XX\"", at);
        const std::uint8_t type = sh[2];
        const std::uint16_t n = ByteOrder::LoadLE<std::uint16_t>(sh + 5); // the size before it is not used
        in.Skip(7);
        if (n == 0)
            continue;
        if (type > 10)
            return _FailAt("segment of unknown type " + std::to_string(type), at);
        const std::size_t itemBytes = type == 4 ? 4 : type >= 5 ? 6 : 8;
        const std::size_t bytes = itemBytes * n;
        if (fileSize - at - 7 < static_cast<std::int64_t>(bytes))
            return _FailAt("segment larger than the rest of the file", at);
        if (type == 4)
        {
            in.Seek(in.Tell() + static_cast<std::int64_t>(bytes));
            continue;
        }
        const unsigned char* raw = in.Record(bytes, _storage);
        if (!raw)
            return _FailAt("segment unreadable", at);
        if (type >= 5)
        {
            startBlock(n);
            addRaw();
            for (std::size_t k = 0; k < n; ++k, raw += 6)
            {
                const int a = Round(ByteOrder::LoadLE<std::int16_t>(raw) * g);
                const int b = Round(ByteOrder::LoadLE<std::int16_t>(raw + 2) * g);
                const int c = Round(ByteOrder::LoadLE<std::int16_t>(raw + 4) * g);
                if (type <= 7)
                    _vectors.emplace_back(a, b, a, c);
                else
                    _vectors.emplace_back(a, b, c, b);
            }
            endBlock();
            continue;
        }
        if (type <= 1)
        {
            _coords.resize(2 * std::size_t{n});
            ConvertKernels::ConvertValues(raw, 2 * std::size_t{n}, ConvertKernels::RawKind::FloatLE, g,
                                          _coords.data());
            const int* p = _coords.data();
            // The closing point stays as the file has it.
            input.StartContour(e2DSliceVectorType_None);
            for (std::size_t k = 0; k < n; ++k)
                input.AddContourPoint(p[2 * k], p[2 * k + 1]);
            input.SetContourOuter(type != 0);
            input.SetContourClosed(true);
            input.EndContour(false);
            continue;
        }
        // A polyline: vector k runs from point k to point k + 1, the 16 bytes at 8 k.
        startBlock(n);
        addConverted();
        for (std::size_t k = 0; k + 1 < n; ++k)
        {
            pendingRaw.Add(raw + 8 * k);
        }
        endBlock();
    }
    addVectors();
    if (oneBlock && blockOpen)
        input.EndVectorBlock(true);
    if (in.Tell() + 14 > fileSize)
        return _FailAt("no end mark behind the segments", in.Tell());
    in.Seek(in.Tell() + 14);
    return true;
}
