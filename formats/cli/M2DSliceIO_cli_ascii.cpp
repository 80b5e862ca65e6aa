#include "M2DSliceIO_cli_ascii.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <sstream>

#include "../../contracts/PersistentProperties.h"
#include "../../framework/LocalClock.h"
#include "CliText.h"
#include "NumberText.h"

#include <fmt/format.h>

namespace {

// A double cut to 32 bits toward zero; a value that does not fit (infinite, not a number, too
// large), as the thickness of a one-layer file is, gives INT32_MIN, as the processor's own
// conversion does.
std::int32_t Truncate(double value)
{
    if (!(std::fabs(value) < 2147483648.0))
        return INT32_MIN;
    return static_cast<std::int32_t>(value);
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// The text behind the first "/" of a header piece such as "UNITS/0.001".
std::string ValueOf(const std::string& piece)
{
    std::vector<std::string> parts;
    CliText::Split(piece, '/', parts);
    return CliText::Piece(parts, 1);
}

} // namespace

bool M2DSliceIO_cli_ascii::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    _markers.clear();
    _textSize = 0;
    _layerTextIndex = 0;
    return true;
}

bool M2DSliceIO_cli_ascii::_SeekFilePos(std::int64_t position)
{
    if (position < 0 || static_cast<std::uint64_t>(position) > _markers.size() + 1)
        return _Fail("no layer text " + std::to_string(position));
    _layerTextIndex = static_cast<std::uint64_t>(position);
    return true;
}

void M2DSliceIO_cli_ascii::_CalculateContainerDimensions(const std::vector<const ISource2DSlices*>& sources)
{
    M2DSliceContainerIODimensions& d = _properties.Dimensions;
    d.XMin = d.YMin = d.ZMin = INT32_MAX;
    d.XMax = d.YMax = d.ZMax = INT32_MIN;
    for (const ISource2DSlices* source : sources)
    {
        if (!source || source->GetNumSlices() == 0)
            continue;
        const M2DSliceXYArea area = source->GetXYArea();
        d.XMin = std::min(d.XMin, area.XMin);
        d.XMax = std::max(d.XMax, area.XMax);
        d.YMin = std::min(d.YMin, area.YMin);
        d.YMax = std::max(d.YMax, area.YMax);
        for (const std::int32_t z : {source->GetSliceZPosition(0), source->GetSliceZPosition(source->GetNumSlices() - 1)})
        {
            d.ZMin = std::min(d.ZMin, z);
            d.ZMax = std::max(d.ZMax, z);
        }
    }
}

bool M2DSliceIO_cli_ascii::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    std::tm local{};
    LocalNow(local);
    char date[16] = {};
    std::strftime(date, sizeof date, "%d%m%y", &local);
    _CalculateContainerDimensions(sources);
    const M2DSliceContainerIODimensions& d = _properties.Dimensions;
    const double f = static_cast<double>(_properties.UnitConversionFactor);

    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << "$$HEADERSTART\n$$ASCII\n$$UNITS/" << 1.0 / _properties.InverseResolution << "\n$$VERSION/200\n"
        << "$$LABEL/1,part1\n$$DATE/" << date << "\n$$DIMENSION/" << d.XMin / f << "," << d.YMin / f << ","
        << d.ZMin / f << "," << d.XMax / f << "," << d.YMax / f << "," << d.ZMax / f << "\n$$LAYERS/"
        << _properties.NumLayers << "\n$$HEADEREND\n$$GEOMETRYSTART\n";
    const std::string text = out.str();
    return _file.WRITE(text.data(), text.size()) == text.size() || _Fail("the header could not be written");
}

bool M2DSliceIO_cli_ascii::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                       const M2DSliceConstDataItems& items)
{
    const double c = _GetConversionFactor();
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    // The layer's text is made in one buffer, with room made once per line, and written in
    // one go. Numbers in general form with six significant digits, as a default stream
    // prints them.
    std::size_t used = 0;
    const auto room = [&](std::size_t n) {
        if (_out.size() - used < n)
            _out.resize(std::max(2 * _out.size(), used + n));
        return _out.data() + used;
    };
    const auto commit = [&](char* end) { used = static_cast<std::size_t>(end - _out.data()); };
    constexpr std::size_t kNumber = NumberText::kGeneralMax + 1; // with its comma
    constexpr std::size_t kHead = 64;                            // a line's keyword and counts

    char* p = room(kHead);
    std::memcpy(p, "$$LAYER/", 8);
    p = NumberText::FormatGeneral(p + 8, z / c);
    *p++ = '\n';
    commit(p);
    int id = _modelStartIndex;
    for (std::size_t i = 0; i < slices.size(); ++i, ++id)
    {
        const M2DSlice* slice = slices[i];
        if (!slice)
            continue;
        const ISource2DSlices* source = sources.empty() ? nullptr : sources[std::min(i, sources.size() - 1)];
        const M2DSliceIOParameters* parameters = source ? source->GetSliceIOParameters() : nullptr;
        const auto polylines = [&] {
            const M2DSliceContourLayer& border = *slice->GetSliceBorder();
            for (std::size_t k = 0; k < border.GetNumContours(); ++k)
            {
                const M2DSliceContour& contour = *border.GetContour(k);
                if (contour.GetNumPoints() == 0)
                    continue;
                const bool closed = contour.GetIsClosed();
                const std::size_t n = closed ? contour.GetNumPoints() + 1 : contour.GetNumPoints();
                char* q = room(kHead + 2 * kNumber * n);
                q = fmt::format_to(q, "$$POLYLINE/{},{},{}", id, closed ? (contour.GetIsOuterContour() ? 1 : 0) : 2, n);
                // The reverse of the contour's order, from the point before the first.
                const auto* point = contour.GetFirstPoint()->GetPreviousPoint();
                for (std::size_t j = 0; j < n; ++j, point = point->GetPreviousPoint())
                {
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, point->x / c);
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, point->y / c);
                }
                *q++ = '\n';
                commit(q);
            }
        };
        const auto hatches = [&] {
            const M2DSliceVectorLayer& vectors = *slice->GetVectors();
            for (std::size_t k = 0; k < vectors.GetNumVectorBlocks(); ++k)
            {
                const M2DSliceVectorBlock& block = *vectors.GetVectorBlock(k);
                if (block.Vectors.empty())
                    continue;
                char* q = room(kHead + 4 * kNumber * block.Vectors.size());
                q = fmt::format_to(q, "$$HATCHES/{},{}", id, block.Vectors.size());
                for (const M2DSliceVector& v : block.Vectors)
                {
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, v.x1 / c);
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, v.y1 / c);
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, v.x2 / c);
                    *q++ = ',';
                    q = NumberText::FormatGeneral(q, v.y2 / c);
                }
                *q++ = '\n';
                commit(q);
            }
        };
        if (!parameters || parameters->BordersFirst)
        {
            polylines();
            hatches();
        }
        else
        {
            hatches();
            polylines();
        }
    }
    return _file.WRITE(_out.data(), used) == used || _Fail("the layer could not be written");
}

bool M2DSliceIO_cli_ascii::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    return _file.WRITE_STRING("$$GEOMETRYEND\n") || _Fail("the footer could not be written");
}

bool M2DSliceIO_cli_ascii::_ReadHeader(ITarget2DSlices* target)
{
    // The file is read once in chunks to find where each "$$LAYER/" stands; a layer's text is
    // read when it is wanted. The last bytes of a chunk that could start a marker go again at
    // the front of the next one.
    static constexpr std::string_view marker = "$$LAYER/";
    static constexpr std::size_t kChunk = 1 << 20;
    _markers.clear();
    const std::size_t chunkSize = static_cast<std::size_t>(std::clamp<std::int64_t>(_file.GET_SIZE(), 1, kChunk));
    std::vector<char> chunk(chunkSize + marker.size());
    std::size_t kept = 0;
    std::int64_t chunkStart = 0; // file offset of chunk[0]
    _file.SEEK(0, 0);
    for (std::size_t got; (got = _file.ReadBytes(chunk.data() + kept, chunkSize)) > 0;)
    {
        const std::string_view text(chunk.data(), kept + got);
        for (std::size_t at = 0; (at = text.find(marker, at)) != std::string_view::npos; at += marker.size())
            _markers.push_back(chunkStart + static_cast<std::int64_t>(at));
        const std::size_t next = text.size() - std::min(text.size(), marker.size() - 1);
        std::memmove(chunk.data(), chunk.data() + next, text.size() - next);
        kept = text.size() - next;
        chunkStart += static_cast<std::int64_t>(next);
    }
    _textSize = chunkStart + static_cast<std::int64_t>(kept);
    _layerTextIndex = 1;
    _properties.NumLayers = _markers.size();

    std::string head(static_cast<std::size_t>(_markers.empty() ? _textSize : _markers[0]), '\0');
    _file.SEEK(0, 0);
    head.resize(_file.ReadBytes(&head[0], head.size()));

    // The first piece cut at every "$$"; the piece before the first "$$" is skipped.
    std::vector<std::string> pieces, values;
    for (std::size_t at = head.find("$$"); at != std::string_view::npos;)
    {
        const std::size_t next = head.find("$$", at + 2);
        pieces.emplace_back(head.substr(at + 2, next == std::string_view::npos ? std::string_view::npos : next - at - 2));
        at = next;
    }
    bool start_ = false, end_ = false, ascii = false, unitsSeen = false, versionSeen = false, dimension = false,
         layers = false;
    double units = 0.0;
    double dims[6] = {};
    for (const std::string& piece : pieces)
    {
        if (StartsWith(piece, "HEADERSTART"))
            start_ = true;
        if (StartsWith(piece, "HEADEREND"))
            end_ = true;
        if (StartsWith(piece, "ASCII"))
            ascii = true;
        if (StartsWith(piece, "UNITS/"))
        {
            unitsSeen = true;
            units = CliText::Stod(ValueOf(piece));
        }
        if (StartsWith(piece, "VERSION/"))
        {
            versionSeen = true;
            const int version = CliText::Stoi(ValueOf(piece));
            if (version < 200)
                return _Fail("\"$$VERSION/\" is " + std::to_string(version) + ", below 200");
        }
        if (StartsWith(piece, "DIMENSION/"))
        {
            dimension = true;
            CliText::Split(ValueOf(piece), ',', values);
            if (values.size() != 6)
                return _Fail("\"$$DIMENSION/\" has " + std::to_string(values.size()) + " values, not 6");
            for (std::size_t k = 0; k < 6; ++k)
                dims[k] = CliText::Stod(values[k]);
        }
        if (StartsWith(piece, "LAYERS/"))
        {
            layers = true;
            const int count = CliText::Stoi(ValueOf(piece));
            if (count < 0 || static_cast<std::uint64_t>(count) != _properties.NumLayers)
                return _Fail("\"$$LAYERS/\" says " + std::to_string(count) + " but the file has " +
                             std::to_string(_properties.NumLayers) + " \"$$LAYER/\" lines");
        }
    }
    const std::pair<bool, const char*> required[] = {
        {start_, "$$HEADERSTART"}, {end_, "$$HEADEREND"},  {ascii, "$$ASCII"},   {unitsSeen, "$$UNITS/"},
        {versionSeen, "$$VERSION/"}, {dimension, "$$DIMENSION/"}, {layers, "$$LAYERS/"}};
    for (const auto& keyword : required)
        if (!keyword.first)
            return _Fail(std::string("the header has no \"") + keyword.second + "\"");

    _properties.InverseResolution = Truncate(1.0 / units);
    const double f = static_cast<double>(_properties.UnitConversionFactor);
    _properties.LayerThickness =
        Truncate((dims[5] * f - dims[2] * f) / (static_cast<double>(_properties.NumLayers) - 1.0));
    if (PersistentProperties* properties = target ? target->GetProperties() : nullptr)
    {
        properties->SetValue(L"SliceThickness", _properties.LayerThickness);
        const wchar_t* names[6] = {L"JobXMin", L"JobYMin", L"JobZMin", L"JobXMax", L"JobYMax", L"JobZMax"};
        for (std::size_t k = 0; k < 6; ++k)
            properties->SetValue(names[k], Truncate(dims[k] * f));
    }
    return true;
}

bool M2DSliceIO_cli_ascii::_FetchLayer(ILayerInput& input)
{
    if (_layerTextIndex > _markers.size())
        return false;
    // The text between the layer's "$$LAYER/" and the next one, or the end of the file.
    const std::int64_t start = _markers[_layerTextIndex - 1] + 8;
    const std::int64_t end = _layerTextIndex < _markers.size() ? _markers[_layerTextIndex] : _textSize;
    const std::size_t size = static_cast<std::size_t>(end - start);
    if (_layerText.size() < size)
        _layerText.resize(size);
    _file.SEEK(start, 0);
    const std::size_t got = size > 0 ? _file.ReadBytes(_layerText.data(), size) : 0;
    CliText::ReadLayerText(std::string_view(_layerText.data(), got), _GetConversionFactor(), input);
    ++_layerTextIndex;
    input.EndContour(false);
    return true;
}

bool M2DSliceIO_cli_ascii::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input); });
}

bool M2DSliceIO_cli_ascii::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/,
                                      bool /*readVectors*/)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner);
}
