#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "../../contracts/StringConversion.h"
#include "../../framework/ConvertKernels.h"
#include "CliText.h"
#include "M2DSliceIO_cli.h"

namespace {

using ConvertKernels::Round;
using ConvertKernels::kVectorChunk;

inline ConvertKernels::RawKind Kind(bool isLong)
{
    return isLong ? ConvertKernels::RawKind::FloatLE : ConvertKernels::RawKind::U16LE;
}

// A hatch block's label: the hatch type and the part the record names.
M2DSliceVectorTypeInfo HatchLabel(std::int32_t id)
{
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    return label;
}

} // namespace

bool M2DSliceIO_cli::_ReadHeader(ITarget2DSlices* /*target*/)
{
    // Every search ends at the end of the file as it is now, so a device or a file that grows
    // without end cannot keep the reader searching.
    const std::int64_t size = _file.GET_SIZE();
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$HEADEREND", size, true))
        return _Fail("no \"$$HEADEREND\" in the file");
    const std::int64_t h = _file.TELL();

    _file.REWIND();
    if (!_file.SEARCH_STRING("$$HEADERSTART", h, true))
        return _Fail("no \"$$HEADERSTART\" before \"$$HEADEREND\"");

    _file.REWIND();
    _isAscii = _file.SEARCH_STRING("$$ASCII", h, true);
    if (!_isAscii)
    {
        _file.REWIND();
        if (!_file.SEARCH_STRING("$$BINARY", h, true))
            return _Fail("the header has neither \"$$ASCII\" nor \"$$BINARY\"");
    }

    float units = 0.0f;
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$UNITS/", h, true))
        return _Fail("the header has no \"$$UNITS/\"");
    if (!_ReadTextValue(units))
        return _Fail("\"$$UNITS/\" has no number");
    _properties.InverseResolution = static_cast<std::int32_t>(std::lroundf(1.0f / units));

    unsigned short version = 0; // required, neither kept nor checked
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$VERSION/", h, true))
        return _Fail("the header has no \"$$VERSION/\"");
    if (!_ReadTextValue(version))
        return _Fail("\"$$VERSION/\" has no number");

    _file.SEEK(h, 0);
    if (_isAscii && _layerTexts.empty())
    {
        // Text layers are read from the whole file cut at each layer marker; the first piece
        // is everything before the first layer.
        std::ifstream stream(StringConversion::NativeToUtf8(_file.GET_PATH()), std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        static const std::string marker = "$$LAYER/";
        std::size_t start = 0;
        for (std::size_t end; (end = text.find(marker, start)) != std::string::npos; start = end + marker.size())
            _layerTexts.emplace_back(text, start, end - start);
        _layerTexts.emplace_back(text, start);
        _layerTextIndex = 1;
    }
    return true;
}

bool M2DSliceIO_cli::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool readVectors)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input, readVectors); });
}

bool M2DSliceIO_cli::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool readVectors)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, readVectors);
}

bool M2DSliceIO_cli::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

bool M2DSliceIO_cli::_FetchLayer(ILayerInput& input, bool readVectors)
{
    const bool ok = _isAscii ? _FetchAsciiLayer(input) : _FetchBinaryLayer(input, readVectors);
    // A chain of open polylines may still be under way at the end of the layer.
    input.EndContour(false);
    return ok;
}

bool M2DSliceIO_cli::_FetchBinaryLayer(ILayerInput& input, bool readVectors)
{
    unsigned short command = 0;
    const std::int64_t at = _file.TELL();
    const std::size_t got = _file.ReadInt16(&command, 1);
    if (got == 0)
        return false; // the end of the layers
    if (got != 2)
        return _FailAt("the file ends inside a layer command", at);
    double z;
    if (command == LayerLong)
    {
        float value;
        if (_file.ReadFloat(&value, 1) != 4)
            return _FailAt("the file ends inside a layer's height", at);
        _coordinatesType = Long;
        z = value;
    }
    else if (command == LayerShort)
    {
        unsigned short value;
        if (_file.ReadInt16(&value, 1) != 2)
            return _FailAt("the file ends inside a layer's height", at);
        _coordinatesType = Short;
        z = value;
    }
    else
        return _FailAt("expected a layer command (127 or 128), found " + std::to_string(command), at);
    input.SetZ(Round(z * _GetConversionFactor()));
    _contourStartX = _contourStartY = _lastEndX = _lastEndY = M2DSLICE_UNSET;

    const std::int64_t fileSize = _file.GET_SIZE();
    for (;;)
    {
        if (_file.ReadInt16(&command, 1) != 2)
            return true; // the layer and the file end here
        if (command == LayerLong || command == LayerShort)
            return _file.SEEK(-2, 1); // the next layer begins
        const bool isLong = command == PolylineLong || command == HatchesLong;
        std::uint32_t id;
        if (command < PolylineShort || command > HatchesLong)
            return _FailAt("unknown record command " + std::to_string(command), _file.TELL() - 2);
        if (!_ReadField(isLong, id))
            return true; // the file ends inside a record's head: the layer ends with it
        if (command == PolylineShort || command == PolylineLong)
        {
            if (!_ReadPolyline(input, isLong, fileSize))
                return false;
            if (M2DSliceVectorTypeInfo* label = input.GetContourTypeInfo())
                label->SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int32_t>(id));
        }
        else
        {
            if (!_ReadHatches(input, isLong, static_cast<std::int32_t>(id), readVectors, fileSize))
                return false;
        }
    }
}

bool M2DSliceIO_cli::_ReadField(bool isLong, std::uint32_t& value)
{
    if (isLong)
    {
        unsigned int field;
        if (_file.ReadInt32(&field, 1) != 4)
            return false;
        value = field;
        return true;
    }
    unsigned short field;
    if (_file.ReadInt16(&field, 1) != 2)
        return false;
    value = field;
    return true;
}

std::uint64_t M2DSliceIO_cli::_BytesLeft(std::int64_t fileSize) const
{
    const std::int64_t left = fileSize - _file.TELL();
    return left > 0 ? static_cast<std::uint64_t>(left) : 0;
}

bool M2DSliceIO_cli::_FitsInFile(std::uint64_t bytes, std::int64_t fileSize) const
{
    const std::int64_t left = fileSize - _file.TELL();
    return left >= 0 && bytes <= static_cast<std::uint64_t>(left);
}

// Reads the raw bytes of count values of a record into _buffer, or as many whole values as the
// file still holds; raw points at them and got is the number of whole values read. (An empty
// record is fine: then got is 0 and raw may be null.)
bool M2DSliceIO_cli::_ReadRawValues(std::size_t count, bool isLong, std::int64_t fileSize,
                                    const unsigned char*& raw, std::size_t& got)
{
    const std::size_t width = isLong ? 4 : 2;
    std::size_t bytes = count * width;
    const bool cut = !_FitsInFile(bytes, fileSize);
    if (cut)
        bytes = static_cast<std::size_t>(_BytesLeft(fileSize) / width * width);
    if (_buffer.size() < bytes)
        _buffer.resize(bytes);
    got = _file.ReadBytes(_buffer.data(), bytes) / width;
    if (cut)
        _file.SEEK(fileSize, 0); // the record takes the rest of the file, a part-value included
    raw = reinterpret_cast<const unsigned char*>(_buffer.data());
    return true;
}

// Reads up to count coordinates of the record into _coords, in internal units, and sets
// count to the number there are: the whole record, or when the file ends inside it, the
// groups of stride coordinates it begins. A coordinate missing from the last group keeps the
// value of the same coordinate stride places before it (0 for the first group).
bool M2DSliceIO_cli::_ReadCoordinates(std::size_t& count, bool isLong, std::size_t stride, std::int64_t fileSize)
{
    std::size_t got;
    const unsigned char* raw;
    if (!_ReadRawValues(count, isLong, fileSize, raw, got))
        return false;
    if (got < count)
        count = (got + stride - 1) / stride * stride;
    if (_coords.size() < count)
        _coords.resize(count);
    int* out = _coords.data();
    ConvertKernels::ConvertValues(raw, got, Kind(isLong), _GetConversionFactor(), out);
    for (std::size_t i = got; i < count; ++i)
        out[i] = i >= stride ? out[i - stride] : 0;
    return true;
}

bool M2DSliceIO_cli::_ReadPolyline(ILayerInput& input, bool isLong, std::int64_t fileSize)
{
    std::uint32_t dir, n;
    if (!_ReadField(isLong, dir) || !_ReadField(isLong, n))
        return true; // the file ends inside the record's head
    if (dir > 2)
        return _FailAt("a polyline record has direction " + std::to_string(dir) + " (0, 1 or 2 expected)",
                       _file.TELL() - (isLong ? 8 : 4));
    std::size_t count = std::size_t{n} * 2;
    if (!_ReadCoordinates(count, isLong, 2, fileSize))
        return false;
    n = static_cast<std::uint32_t>(count / 2);
    const int* p = _coords.data();
    if (dir < 2)
    {
        // A closed contour, stored in the opposite sense and with its first point repeated
        // at the end; the repeat stays.
        input.EndContour(true);
        _lastEndX = _lastEndY = M2DSLICE_UNSET;
        input.StartContour(e2DSliceVectorType_Border);
        input.SetContourClosed(true);
        input.SetContourOuter(dir == 1);
        for (std::uint32_t i = 0; i < n; ++i)
            input.AddContourPoint(p[2 * i], p[2 * i + 1]);
        input.EndContour(true);
        return true;
    }

    // Open lines chain: one that starts where the previous one ended carries on its
    // contour, and a chain that comes back to its start closes.
    if (n == 0)
        return true;
    if (p[0] != _lastEndX || p[1] != _lastEndY)
    {
        input.EndContour(true);
        input.StartContour(e2DSliceVectorType_Border);
        input.SetContourClosed(false);
        input.SetContourOuter(false);
        _contourStartX = p[0];
        _contourStartY = p[1];
        input.AddContourPoint(p[0], p[1]);
    }
    if (n == 1)
        return true;
    for (std::uint32_t i = 1; i + 1 < n; ++i)
        input.AddContourPoint(p[2 * i], p[2 * i + 1]);
    _lastEndX = p[2 * (n - 1)];
    _lastEndY = p[2 * (n - 1) + 1];
    if (_lastEndX == _contourStartX && _lastEndY == _contourStartY)
        input.SetContourClosed(true);
    else
        input.AddContourPoint(_lastEndX, _lastEndY);
    return true;
}

bool M2DSliceIO_cli::_ReadHatches(ILayerInput& input, bool isLong, std::int32_t id, bool readVectors,
                                  std::int64_t fileSize)
{
    std::uint32_t n;
    if (!_ReadField(isLong, n))
        return true; // the file ends inside the record's head
    const std::size_t width = isLong ? 4 : 2;
    const std::size_t vectorBytes = 4 * width;
    const std::uint64_t bytes = std::uint64_t{n} * vectorBytes;
    const std::uint64_t left = _BytesLeft(fileSize);
    if (!readVectors)
    {
        // Skipped; a record cut by the end of the file takes the layer to the end with it.
        return _file.SEEK(static_cast<std::int64_t>(std::min(bytes, left)), 1);
    }
    const bool cut = bytes > left;
    if (cut)
    {
        // The file ends inside the record: what is there is read, a vector cut short keeps
        // the previous values of its missing coordinates, and vectors the file does not hold
        // at all are not made up. The record takes the rest of the file, as when it is
        // skipped, a part-value included.
        n = static_cast<std::uint32_t>((left / width + 3) / 4);
    }
    const auto toEnd = [&] { return !cut || _file.SEEK(fileSize, 0); };

    // The file holds the n vectors, so n is a fair reserve.
    input.StartVectorBlock(HatchLabel(id), n);
    const double c = _GetConversionFactor();
    const bool boxesOnly = isLong && input.MeasuresOnly();
    int coords[4 * kVectorChunk];
    M2DSliceVector vectors[kVectorChunk];
    M2DSliceVector last(0, 0, 0, 0);

    // One run of m whole vectors to the input: a scan of the long form takes just the run's
    // box; otherwise the vectors are converted. last keeps the run's last vector.
    const auto addRun = [&](const unsigned char* raw, std::size_t m) {
        M2DSliceXYArea box;
        if (boxesOnly && ConvertKernels::FloatVectorsBox(raw, m, c, box))
        {
            input.AddVectorsArea(box, m);
            ConvertKernels::ConvertValues(raw + (m - 1) * vectorBytes, 4, Kind(isLong), c, coords);
            last = M2DSliceVector(coords[0], coords[1], coords[2], coords[3]);
            return;
        }
        ConvertKernels::AddConverted(input, raw, m, Kind(isLong), c, coords, vectors);
        last = vectors[m - 1];
    };

    // Converted where the file's buffer holds them, a cache-sized run at a time: no copy of
    // the raw values, and they are still in the cache when the vectors are stored.
    std::size_t done = 0;
    while (done < n)
    {
        const std::size_t m = std::min<std::size_t>(kVectorChunk, n - done);
        const auto* raw = reinterpret_cast<const unsigned char*>(_file.ReadView(m * vectorBytes));
        if (!raw)
            break;
        addRun(raw, m);
        done += m;
    }
    if (done == n)
        return toEnd();

    // The rest through a copy: runs larger than the file's buffer, or a read that comes up
    // short.
    const std::size_t rest = n - done;
    std::size_t got;
    const unsigned char* raw;
    if (!_ReadRawValues(4 * rest, isLong, fileSize, raw, got))
        return false;
    const std::size_t whole = got / 4;
    for (std::size_t start = 0; start < whole; start += kVectorChunk)
        addRun(raw + vectorBytes * start, std::min(kVectorChunk, whole - start));
    if (whole == rest)
        return toEnd();

    // A read that came up short: each missing coordinate keeps the value of the same
    // coordinate of the vector before it (0 in the first vector), and so every vector after
    // the cut repeats the one it cuts.
    int tail[4] = {last.x1, last.y1, last.x2, last.y2};
    ConvertKernels::ConvertValues(raw + vectorBytes * whole, got - 4 * whole, Kind(isLong), c, tail);
    const M2DSliceVector repeated(tail[0], tail[1], tail[2], tail[3]);
    for (std::size_t i = whole; i < rest; ++i)
        input.AddVector(repeated);
    return true;
}

bool M2DSliceIO_cli::_FetchAsciiLayer(ILayerInput& input)
{
    if (_layerTextIndex >= _layerTexts.size())
        return false;
    CliText::ReadLayerText(_layerTexts[_layerTextIndex], _GetConversionFactor(), input);
    ++_layerTextIndex;
    return true;
}

std::int64_t M2DSliceIO_cli::_TellFilePos()
{
    return _isAscii ? static_cast<std::int64_t>(_layerTextIndex) : I2DSliceIO::_TellFilePos();
}

bool M2DSliceIO_cli::_SeekFilePos(std::int64_t position)
{
    if (!_isAscii)
        return I2DSliceIO::_SeekFilePos(position);
    if (position < 0 || static_cast<std::uint64_t>(position) > _layerTexts.size())
        return false;
    _layerTextIndex = static_cast<std::uint64_t>(position);
    return true;
}
