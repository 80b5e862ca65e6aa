#include "M2DSliceIO_sli_3ds.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "../../framework/ByteCursor.h"
#include "../../framework/ConvertKernels.h"
#include "LegacyBuffer.h"
#include "LegacyLayerLoop.h"
#include "LegacyConvert.h"

namespace {

using ConvertKernels::Round;

// The last seven bytes of the header, by which a reader finds its end.
const char kMark[] = "\x01\x02\x01\x02\x03\x04\x7f";
const char kHeaderEnd[] = "\r\n\x1a\x01\x02\x01\x02\x03\x04\x7f";
constexpr std::int32_t kNoPoint = 2147483647;

// The 16-bit truncation of value / f + 0.5: negative values get the half too.
inline std::int16_t Step(std::int32_t value, double f)
{
    const double scaled = static_cast<double>(value) / f + 0.5;
    const std::int64_t steps = std::fabs(scaled) < 9.0e18 ? static_cast<std::int64_t>(scaled) : 0;
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(steps));
}

// Round for a product inside the int range, without a branch on the value.
inline int RoundInRange(double x)
{
    const int whole = static_cast<int>(x);
    const double fraction = x - static_cast<double>(whole);
    return whole + (fraction >= 0.5) - (fraction <= -0.5);
}

// The box of n vectors of 16-bit values in internal units, from the extreme values: for a
// factor f whose products all stay inside the int range, where rounding keeps their order.
M2DSliceXYArea RawBox(const unsigned char* raw, std::size_t n, double f)
{
    std::int32_t loX = INT32_MAX, loY = INT32_MAX, hiX = INT32_MIN, hiY = INT32_MIN;
    for (std::size_t k = 0; k < n; ++k, raw += 8)
    {
        const std::int32_t x0 = ByteOrder::LoadLE<std::int16_t>(raw);
        const std::int32_t y0 = ByteOrder::LoadLE<std::int16_t>(raw + 2);
        const std::int32_t x1 = ByteOrder::LoadLE<std::int16_t>(raw + 4);
        const std::int32_t y1 = ByteOrder::LoadLE<std::int16_t>(raw + 6);
        loX = std::min(loX, std::min(x0, x1));
        hiX = std::max(hiX, std::max(x0, x1));
        loY = std::min(loY, std::min(y0, y1));
        hiY = std::max(hiY, std::max(y0, y1));
    }
    M2DSliceXYArea box;
    box.Extend(RoundInRange(loX * f), RoundInRange(loY * f));
    box.Extend(RoundInRange(hiX * f), RoundInRange(hiY * f));
    return box;
}

// A section holds all r vectors that are left if 4 r is below 65535, else 3.
inline std::size_t SectionVectors(std::size_t left) { return 4 * left < 65535 ? left : 3; }

// Writes n items (vectors or contour segments) in sections of the given code; item(k, out)
// stores the four values of item k.
template <class Item>
bool PutSections(legacy::OutBuffer& out, std::uint8_t code, std::size_t n, double f, Item item)
{
    for (std::size_t done = 0; done < n;)
    {
        const std::size_t m = SectionVectors(n - done);
        char* p = out.Grow(3 + 8 * m);
        p[0] = static_cast<char>(code);
        ByteOrder::StoreLE<std::uint16_t>(p + 1, static_cast<std::uint16_t>(4 * m));
        p += 3;
        for (std::size_t k = 0; k < m; ++k, p += 8)
        {
            std::int32_t v[4];
            item(done + k, v);
            for (int i = 0; i < 4; ++i)
                ByteOrder::StoreLE<std::int16_t>(p + 2 * i, Step(v[i], f));
        }
        done += m;
        if (!out.MaybeFlush())
            return false;
    }
    return true;
}

// Each contour with at least two points as its own run of code-1 sections: one segment per
// side, the closing side too when it is closed.
bool PutContours(legacy::OutBuffer& out, const M2DSliceContourLayer& border, double f)
{
    for (const M2DSliceContour& contour : border)
    {
        const M2DSliceContourPoint* point = contour.GetFirstPoint();
        if (!point || contour.GetNumPoints() < 2)
            continue;
        const std::size_t n = contour.GetNumPoints() - (contour.GetIsClosed() ? 0 : 1);
        const bool ok = PutSections(out, 1, n, f, [&](std::size_t, std::int32_t* v) {
            const M2DSliceContourPoint* next = point->GetNextPoint();
            v[0] = point->x;
            v[1] = point->y;
            v[2] = next->x;
            v[3] = next->y;
            point = next;
        });
        if (!ok)
            return false;
    }
    return true;
}

bool PutBlocks(legacy::OutBuffer& out, const M2DSliceVectorLayer& vectors, double f)
{
    for (const M2DSliceVectorBlock* block = vectors.GetFirstVectorBlock(); block; block = block->GetNextVectorBlock())
    {
        const std::vector<M2DSliceVector>& v = block->Vectors;
        if (v.empty())
            continue;
        const std::uint8_t code =
            M2DSliceIO_sli_3ds::SectionCode(M2DSliceVectorTypes::ConvertToSliType(block->GetTypeInfo()));
        const bool ok = PutSections(out, code, v.size(), f, [&](std::size_t k, std::int32_t* q) {
            q[0] = v[k].x1;
            q[1] = v[k].y1;
            q[2] = v[k].x2;
            q[3] = v[k].y2;
        });
        if (!ok)
            return false;
    }
    return true;
}

} // namespace

std::uint8_t M2DSliceIO_sli_3ds::SectionCode(unsigned short sliType)
{
    switch (sliType)
    {
    case 2: return 2;
    case 7: return 3;
    case 8: return 5;
    case 9: return 6;
    case 10: return 7;
    case 11: return 8;
    case 5: return 9;
    case 6: return 11;
    case 3: return 12;
    case 4: return 14;
    default: return 1;
    }
}

bool M2DSliceIO_sli_3ds::SectionKind(std::uint8_t code, e2DSliceVectorType& kind)
{
    static const int kinds[15] = {-1, 1, 2, 7, -1, 8, 9, 10, 11, 5, -1, 6, 3, -1, 4};
    if (code >= 15 || kinds[code] < 0)
        return false;
    kind = static_cast<e2DSliceVectorType>(kinds[code]);
    return true;
}

M2DSliceIO_sli_3ds::M2DSliceIO_sli_3ds() = default;

M2DSliceIO_sli_3ds::~M2DSliceIO_sli_3ds() = default;

bool M2DSliceIO_sli_3ds::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/) { return true; }

bool M2DSliceIO_sli_3ds::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    const M2DSliceIOParameters* first = sources.empty() || !sources[0] ? nullptr : sources[0]->GetSliceIOParameters();
    if (!first || first->HatchDistanceX == 0 || first->HatchDistanceY == 0)
        return _Fail("SLI files need both hatch distances, and the first source has none");
    for (const ISource2DSlices* source : sources)
    {
        const M2DSliceIOParameters* p = source ? source->GetSliceIOParameters() : nullptr;
        if (!p || p->HatchDistanceX != first->HatchDistanceX || p->HatchDistanceY != first->HatchDistanceY)
            return _Fail("the sources have different hatch distances; an SLI file holds one pair");
    }
    const double f = _GetConversionFactor();
    const auto hx = static_cast<unsigned short>(first->HatchDistanceX / f + 0.5);
    const auto hy = static_cast<unsigned short>(first->HatchDistanceY / f + 0.5);

    std::string header = "!SLICE= -VER 3.822 -TF dummy.stl -B -SF dummy.sli -MF dummy.msg ";
    char field[64];
    std::snprintf(field, sizeof field, "-RES %ld ", static_cast<long>(_properties.InverseResolution));
    header += field;
    header += "-SCL 1.000000 -Z -ZS 000000 -MSA 40 -CURE 0.100000 -DELTA 0.05 ";
    std::snprintf(field, sizeof field, "-HX %hu -HY %hu ", hx, hy);
    header += field;
    header += "-HA 0 -HFX 20 -HFY 0 -RSH 0 -REH 76 -SHX 28 -ALT 1 ";
    if (_properties.UnitConversionFactor == MUnit::GetIE())
        header += "-MM ";
    header += "-SLA 250";
    header += kHeaderEnd;
    return _file.WRITE_STRING(header) || _Fail("the header could not be written");
}

bool M2DSliceIO_sli_3ds::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                                     const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    const double f = _GetConversionFactor();
    legacy::OutBuffer out(_file, _out);
    out.LE<std::uint8_t>(0);
    // The height is truncated, without the half the coordinates get.
    const double scaledZ = static_cast<double>(z) / f;
    const std::int64_t zSteps = std::fabs(scaledZ) < 9.0e18 ? static_cast<std::int64_t>(scaledZ) : 0;
    out.LE<std::int16_t>(static_cast<std::int16_t>(static_cast<std::uint16_t>(zSteps)));
    legacy::PutSlices(
        sources, slices, [&](const M2DSliceContourLayer& border) { return PutContours(out, border, f); },
        [&](const M2DSliceVectorLayer& vectors) { return PutBlocks(out, vectors, f); });
    out.Flush(); // a failed write shows when the file is closed
    return true;
}

bool M2DSliceIO_sli_3ds::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/) { return true; }

bool M2DSliceIO_sli_3ds::_CloseFile()
{
    if (_mode == Read)
        return true;
    if (!_file.OPEN_UPDATE(_path.c_str()))
        return _Fail("the file could not be opened again to fill in the layer thickness");
    _file.REWIND();
    if (!_file.SEARCH_STRING("-ZS ", -1, true))
    {
        _file.CLOSE();
        return _Fail("no \"-ZS \" in the header");
    }
    const auto t = static_cast<unsigned short>(_properties.LayerThickness / _GetConversionFactor() + 0.5);
    // Exactly the seven characters of "000000 ".
    std::snprintf(_text, sizeof _text, "%-7hu", t);
    _file.WRITE_STRING(_text);
    _file.CLOSE();
    return true;
}

bool M2DSliceIO_sli_3ds::_ReadHeaderValue(const char* key, std::int64_t limit, unsigned short& value)
{
    _file.REWIND();
    return _file.SEARCH_STRING(key, limit, true) && _ReadTextValue(value);
}

bool M2DSliceIO_sli_3ds::_ReadHeader(ITarget2DSlices* /*target*/)
{
    _file.REWIND();
    if (!_file.SEARCH_STRING(kMark, -1, true))
        return _Fail("not an SLI file of the \"!SLICE= -VER 3.822\" kind");
    const std::int64_t h = _file.TELL();
    unsigned short resolution = 0, hx = 0, hy = 0, zs = 0;
    if (!_ReadHeaderValue("-RES", h, resolution))
        return _Fail("no \"-RES\" in the header");
    if (resolution == 0)
        return _Fail("\"-RES\" is 0");
    _properties.InverseResolution = resolution;
    const double f = _GetConversionFactor();
    if (!_ReadHeaderValue("-HX", h, hx) || !_ReadHeaderValue("-HY", h, hy) || !_ReadHeaderValue("-ZS", h, zs))
        return _Fail("no \"-HX\", \"-HY\" or \"-ZS\" in the header");
    _properties.HatchDistanceX = Round(hx * f);
    _properties.HatchDistanceY = Round(hy * f);
    _properties.LayerThickness = Round(zs * f);
    return _file.SEEK(h, 0) || _Fail("the layers cannot be reached");
}

bool M2DSliceIO_sli_3ds::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool readVectors)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input, readVectors); });
}

bool M2DSliceIO_sli_3ds::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool readVectors)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, readVectors);
}

bool M2DSliceIO_sli_3ds::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

bool M2DSliceIO_sli_3ds::_FetchLayer(ILayerInput& input, bool vectors)
{
    const std::int64_t fileSize = _file.GET_SIZE();
    const std::int64_t start = _file.TELL();
    const char* head = _file.ReadView(1);
    if (!head)
        return start < fileSize ? _FailAt("layer start unreadable", start) : false;
    if (*head != 0)
        return _FailAt("a layer does not start with a zero byte", start);
    const char* zBytes = _file.ReadView(2);
    if (!zBytes)
        return _FailAt("layer height cut short", start + 1);
    const double f = _GetConversionFactor();
    input.SetZ(Round(ByteOrder::LoadLE<std::int16_t>(zBytes) * f));
    // Whether every 16-bit value converts inside the int range, where rounding keeps order.
    const bool measureBox = f > 0 && 32768.0 * f < 2147483647.0;

    std::int32_t endX = kNoPoint, endY = kNoPoint;     // end of the contour under way
    std::int32_t firstX = kNoPoint, firstY = kNoPoint; // its first point
    std::vector<unsigned char> storage;
    const char* codeByte = _file.ReadView(1);
    std::uint8_t code = codeByte ? static_cast<std::uint8_t>(*codeByte) : 0;
    bool ended = false;
    while (code != 0)
    {
        const std::int64_t at = _file.TELL() - 1;
        const char* sizeBytes = _file.ReadView(2);
        if (!sizeBytes)
            return true; // the file ends here
        const std::uint16_t size = ByteOrder::LoadLE<std::uint16_t>(sizeBytes);
        const std::size_t n = size / 4;
        e2DSliceVectorType kind;
        if (!SectionKind(code, kind))
        {
            input.EndContour(false);
            return _FailAt("invalid section code " + std::to_string(code), at);
        }
        // The size counts the section's 16-bit words, and the section takes all of them on
        // every path: n whole vectors are read from it and a rest of fewer than four words is
        // passed over, so that reading and scanning meet the next code at the same byte.
        const std::int64_t sectionBytes = 2 * std::int64_t{size};
        if (fileSize - _file.TELL() < sectionBytes)
        {
            input.EndContour(false);
            return _FailAt("section larger than the rest of the file", at);
        }
        const bool contours = code == 1;
        if ((!contours && !vectors) || n == 0)
            _file.SEEK(sectionBytes, 1);
        else
        {
            ByteCursor values;
            if (!ReadRecord(_file, 8 * n, storage, values))
            {
                input.EndContour(false);
                return _FailAt("section unreadable", at);
            }
            const unsigned char* raw = values.Data();
            if (contours && !_readOptions.ReadBordersAsVectors)
            {
                // Contours come back from their sides: a side that starts where the last one
                // ended carries the contour on, and one that ends at its first point closes it.
                for (std::size_t k = 0; k < n; ++k, raw += 8)
                {
                    const std::int32_t x0 = ByteOrder::LoadLE<std::int16_t>(raw);
                    const std::int32_t y0 = ByteOrder::LoadLE<std::int16_t>(raw + 2);
                    const std::int32_t x1 = ByteOrder::LoadLE<std::int16_t>(raw + 4);
                    const std::int32_t y1 = ByteOrder::LoadLE<std::int16_t>(raw + 6);
                    if (x0 == x1 && y0 == y1)
                        continue;
                    if (x0 != endX || y0 != endY)
                    {
                        input.StartContour(e2DSliceVectorType_Border);
                        input.SetContourOuter(false);
                        input.SetContourClosed(false);
                        input.AddContourPoint(Round(x0 * f), Round(y0 * f));
                        input.AddContourPoint(Round(x1 * f), Round(y1 * f));
                        firstX = x0;
                        firstY = y0;
                        endX = x1;
                        endY = y1;
                    }
                    else if (x1 != firstX || y1 != firstY)
                    {
                        input.AddContourPoint(Round(x1 * f), Round(y1 * f));
                        endX = x1;
                        endY = y1;
                    }
                    else
                    {
                        input.SetContourClosed(true);
                        endX = endY = kNoPoint;
                    }
                }
            }
            else
            {
                input.StartVectorBlock(M2DSliceVectorTypeInfo(kind), n);
                if (measureBox)
                {
                    // Rounding keeps the order of the products, so the box of the vectors is
                    // the box of the extreme values, converted; a scanner needs no more.
                    const M2DSliceXYArea box = RawBox(raw, n, f);
                    if (input.MeasuresOnly())
                        input.AddVectorsArea(box, n);
                    else
                    {
                        _vectors.resize(n);
                        legacy::ConvertInt16Vectors(raw, n, f, _vectors.data());
                        input.AddMeasuredVectors(_vectors.data(), n, box);
                    }
                }
                else
                {
                    _vectors.resize(n);
                    for (std::size_t k = 0; k < n; ++k, raw += 8)
                        _vectors[k] = M2DSliceVector(Round(ByteOrder::LoadLE<std::int16_t>(raw) * f),
                                                     Round(ByteOrder::LoadLE<std::int16_t>(raw + 2) * f),
                                                     Round(ByteOrder::LoadLE<std::int16_t>(raw + 4) * f),
                                                     Round(ByteOrder::LoadLE<std::int16_t>(raw + 6) * f));
                    input.AddVectors(_vectors.data(), n);
                }
                input.EndVectorBlock(true);
            }
            // The view into the file's buffer is done with: the rest of the section is passed.
            if (sectionBytes > static_cast<std::int64_t>(8 * n))
                _file.SEEK(sectionBytes - static_cast<std::int64_t>(8 * n), 1);
        }
        codeByte = _file.ReadView(1);
        if (!codeByte)
        {
            ended = true;
            break;
        }
        code = static_cast<std::uint8_t>(*codeByte);
    }
    if (!ended && codeByte)
        _file.SEEK(-1, 1); // the zero that starts the next layer
    input.EndContour(false);
    return true;
}
