#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "../../contracts/StringConversion.h"
#include "M2DSliceIO_cli.h"

namespace {

// lround(x) narrowed to 32 bits, without a library call in the common case: x - trunc(x)
// is exact, so comparing it with one half rounds halves away from zero exactly as lround.
inline int Round(double x)
{
    if (!(std::fabs(x) < 4.0e18))
        return static_cast<int>(std::lround(x));
    std::int64_t i = static_cast<std::int64_t>(x);
    const double fraction = x - static_cast<double>(i);
    i += (fraction >= 0.5) - (fraction <= -0.5);
    return static_cast<int>(i);
}

inline std::uint32_t Load32(const unsigned char* p)
{
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}

inline float LoadFloat(const unsigned char* p)
{
    const std::uint32_t bits = Load32(p);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

inline unsigned LoadU16(const unsigned char* p) { return p[0] | unsigned{p[1]} << 8; }

// Vectors converted and handed on at a time: small enough for the raw values, the
// coordinates and the vectors to stay in the first-level cache together.
constexpr std::size_t kVectorChunk = 1024;

template <bool IsLong>
inline double RawValue(const unsigned char* raw, std::size_t i)
{
    if (IsLong)
        return LoadFloat(raw + 4 * i);
    return LoadU16(raw + 2 * i);
}

// Converts n raw values to internal units, each Round(value * c). The loop rounds without
// a branch on the value and without a library call; it is exact only for products inside
// int, so anything else (huge, infinite, not a number) is replaced by zero there and the
// whole run is done again the slow way.
template <bool IsLong>
void ConvertValues(const unsigned char* raw, std::size_t n, double c, int* out)
{
    constexpr double kLimit = 2147483647.0;
    unsigned outside = 0;
    for (std::size_t i = 0; i < n; ++i)
    {
        const double x = RawValue<IsLong>(raw, i) * c;
        const bool inside = std::fabs(x) < kLimit;
        outside |= !inside;
        const double safe = inside ? x : 0.0;
        const int whole = static_cast<int>(safe);
        const double fraction = safe - static_cast<double>(whole);
        out[i] = whole + (fraction >= 0.5) - (fraction <= -0.5);
    }
    if (outside)
        for (std::size_t i = 0; i < n; ++i)
            out[i] = Round(RawValue<IsLong>(raw, i) * c);
}

void ConvertValues(const unsigned char* raw, std::size_t n, bool isLong, double c, int* out)
{
    if (isLong)
        ConvertValues<true>(raw, n, c, out);
    else
        ConvertValues<false>(raw, n, c, out);
}

#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// Two products rounded half away from zero: x + (one half less 2^-54, with the sign of x),
// truncated. For |x| below 2^31 this is exact: with f the fraction of x and k its whole
// part, the sum reaches k + 1 (rounding to it at worst) when f >= 1/2 and stays below the
// greatest double under k + 1 when f < 1/2, which is then at most one half less a step of x.
// The truncation gives INT_MIN for anything out of range or not a number.
inline __m128i RoundPair(__m128d x)
{
    const __m128d sign = _mm_and_pd(x, _mm_set1_pd(-0.0));
    const __m128d half = _mm_or_pd(_mm_set1_pd(0.49999999999999994), sign);
    return _mm_cvttpd_epi32(_mm_add_pd(x, half));
}

// Products x1, y1 and x2, y2 to one vector; a coordinate of INT_MIN (which stands for any
// product out of range) is noted in suspect.
inline void StoreVector(__m128d first, __m128d second, __m128i& suspect, M2DSliceVector* out)
{
    const __m128i fileOrder = _mm_unpacklo_epi64(RoundPair(first), RoundPair(second));
    suspect = _mm_or_si128(suspect, _mm_cmpeq_epi32(fileOrder, _mm_set1_epi32(INT32_MIN)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi32(fileOrder, _MM_SHUFFLE(3, 1, 2, 0)));
}

// The box of the vectors from the smallest and largest products of x and y: rounding keeps
// their order, so rounding the extremes gives the box of the rounded coordinates.
inline void BoxOfProducts(const double lo[2], const double hi[2], M2DSliceXYArea& box)
{
    box.Clear();
    box.Extend(Round(lo[0]), Round(lo[1]));
    box.Extend(Round(hi[0]), Round(hi[1]));
}

#if defined(__x86_64__) && defined(__GNUC__)
// Four coordinates at a time, for processors with AVX.
__attribute__((target("avx"))) bool ConvertLongVectorsAvx(const unsigned char* raw, std::size_t m, double c,
                                                           M2DSliceVector* out, M2DSliceXYArea& box)
{
    const __m256d factor = _mm256_set1_pd(c);
    const __m256d signBit = _mm256_set1_pd(-0.0);
    const __m256d almostHalf = _mm256_set1_pd(0.49999999999999994);
    __m256d lo = _mm256_set1_pd(HUGE_VAL);
    __m256d hi = _mm256_set1_pd(-HUGE_VAL);
    __m128i suspect = _mm_setzero_si128();
    for (std::size_t i = 0; i < m; ++i)
    {
        const __m256d x = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(reinterpret_cast<const float*>(raw + 16 * i))), factor);
        lo = _mm256_min_pd(lo, x);
        hi = _mm256_max_pd(hi, x);
        const __m256d half = _mm256_or_pd(_mm256_and_pd(x, signBit), almostHalf);
        const __m128i fileOrder = _mm256_cvttpd_epi32(_mm256_add_pd(x, half));
        suspect = _mm_or_si128(suspect, _mm_cmpeq_epi32(fileOrder, _mm_set1_epi32(INT32_MIN)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_shuffle_epi32(fileOrder, _MM_SHUFFLE(3, 1, 2, 0)));
    }
    if (_mm_movemask_epi8(suspect) != 0)
        return false;
    double l[2], h[2];
    _mm_storeu_pd(l, _mm_min_pd(_mm256_castpd256_pd128(lo), _mm256_extractf128_pd(lo, 1)));
    _mm_storeu_pd(h, _mm_max_pd(_mm256_castpd256_pd128(hi), _mm256_extractf128_pd(hi, 1)));
    BoxOfProducts(l, h, box);
    return true;
}

bool HasAvx()
{
    static const bool has = (__builtin_cpu_init(), __builtin_cpu_supports("avx"));
    return has;
}
#endif

// Converts m vectors of the record to out and gives their box; false, with out and box
// unfinished, when a product may be out of range.
bool ConvertVectorsFast(const unsigned char* raw, std::size_t m, bool isLong, double c, M2DSliceVector* out,
                        M2DSliceXYArea& box)
{
    static_assert(sizeof(M2DSliceVector) == 16, "four ints, x1, x2, y1, y2");
#if defined(__x86_64__) && defined(__GNUC__)
    if (isLong && HasAvx())
        return ConvertLongVectorsAvx(raw, m, c, out, box);
#endif
    const __m128d factor = _mm_set1_pd(c);
    __m128d lo = _mm_set1_pd(HUGE_VAL);
    __m128d hi = _mm_set1_pd(-HUGE_VAL);
    __m128i suspect = _mm_setzero_si128();
    for (std::size_t i = 0; i < m; ++i)
    {
        __m128d first, second;
        if (isLong)
        {
            const __m128 values = _mm_loadu_ps(reinterpret_cast<const float*>(raw + 16 * i));
            first = _mm_cvtps_pd(values);
            second = _mm_cvtps_pd(_mm_movehl_ps(values, values));
        }
        else
        {
            const __m128i values = _mm_unpacklo_epi16(
                _mm_loadl_epi64(reinterpret_cast<const __m128i*>(raw + 8 * i)), _mm_setzero_si128());
            first = _mm_cvtepi32_pd(values);
            second = _mm_cvtepi32_pd(_mm_shuffle_epi32(values, _MM_SHUFFLE(1, 0, 3, 2)));
        }
        first = _mm_mul_pd(first, factor);
        second = _mm_mul_pd(second, factor);
        lo = _mm_min_pd(lo, _mm_min_pd(first, second));
        hi = _mm_max_pd(hi, _mm_max_pd(first, second));
        StoreVector(first, second, suspect, out + i);
    }
    if (_mm_movemask_epi8(suspect) != 0)
        return false;
    double l[2], h[2];
    _mm_storeu_pd(l, lo);
    _mm_storeu_pd(h, hi);
    BoxOfProducts(l, h, box);
    return true;
}
#else
bool ConvertVectorsFast(const unsigned char*, std::size_t, bool, double, M2DSliceVector*, M2DSliceXYArea&)
{
    return false;
}
#endif

// The box of n long-form vectors (x1, y1, x2, y2 floats) in internal units, from the smallest
// and largest raw values: rounding value * c keeps the order of the values for c > 0, so
// rounding only the extremes gives the box that rounding every value would. False when the
// shortcut does not hold (a value not a number, or a product outside int): the caller then
// converts every value.
bool LongHatchBox(const unsigned char* raw, std::size_t n, double c, M2DSliceXYArea& box)
{
    if (n == 0 || !(c > 0.0) || !std::isfinite(c))
        return false;
    float lo[4], hi[4];
    bool unordered = false;
#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    __m128 vlo = _mm_loadu_ps(reinterpret_cast<const float*>(raw));
    __m128 vhi = vlo;
    __m128 nan = _mm_cmpunord_ps(vlo, vlo);
    for (std::size_t i = 1; i < n; ++i)
    {
        const __m128 v = _mm_loadu_ps(reinterpret_cast<const float*>(raw + 16 * i));
        vlo = _mm_min_ps(vlo, v);
        vhi = _mm_max_ps(vhi, v);
        nan = _mm_or_ps(nan, _mm_cmpunord_ps(v, v));
    }
    _mm_storeu_ps(lo, vlo);
    _mm_storeu_ps(hi, vhi);
    unordered = _mm_movemask_ps(nan) != 0;
#else
    for (int k = 0; k < 4; ++k)
        lo[k] = hi[k] = LoadFloat(raw + 4 * k);
    for (std::size_t i = 0; i < n; ++i)
        for (int k = 0; k < 4; ++k)
        {
            const float v = LoadFloat(raw + 16 * i + 4 * k);
            unordered |= std::isnan(v);
            lo[k] = v < lo[k] ? v : lo[k];
            hi[k] = v > hi[k] ? v : hi[k];
        }
#endif
    if (unordered)
        return false;
    const double ends[4] = {std::min(lo[0], lo[2]) * c, std::min(lo[1], lo[3]) * c, std::max(hi[0], hi[2]) * c,
                            std::max(hi[1], hi[3]) * c};
    for (double e : ends)
        if (!(std::fabs(e) < 2147483647.0))
            return false;
    box.Clear();
    box.Extend(Round(ends[0]), Round(ends[1]));
    box.Extend(Round(ends[2]), Round(ends[3]));
    return true;
}

// Converts m whole vectors of the record, in the file's order x1, y1, x2, y2, to out and
// hands them to input. coords is room for 4 m coordinates.
void AddConverted(I2DSliceIO::ILayerInput& input, const unsigned char* raw, std::size_t m, bool isLong, double c,
                  int* coords, M2DSliceVector* out)
{
    M2DSliceXYArea box;
    if (ConvertVectorsFast(raw, m, isLong, c, out, box))
    {
        input.AddMeasuredVectors(out, m, box);
        return;
    }
    ConvertValues(raw, 4 * m, isLong, c, coords);
    for (std::size_t i = 0; i < m; ++i)
        out[i] = M2DSliceVector(coords[4 * i], coords[4 * i + 1], coords[4 * i + 2], coords[4 * i + 3]);
    input.AddVectors(out, m);
}

// A hatch block's label: the hatch type and the part the record names.
M2DSliceVectorTypeInfo HatchLabel(std::int32_t id)
{
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    return label;
}

// The pieces of text between the separators; an empty text gives one empty piece.
void Split(const std::string& text, char separator, std::vector<std::string>& pieces)
{
    pieces.clear();
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
        pieces.emplace_back(text, start, end - start);
    pieces.emplace_back(text, start);
}

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// The number behind the "/" of a piece such as "$$POLYLINE/3".
int IdOf(const std::string& piece) { return std::stoi(piece.substr(piece.find('/') + 1)); }

} // namespace

bool M2DSliceIO_cli::_ReadHeader(ITarget2DSlices* /*target*/)
{
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$HEADEREND", -1, true))
        return false;
    const std::int64_t h = _file.TELL();

    _file.REWIND();
    if (!_file.SEARCH_STRING("$$HEADERSTART", h, true))
        return false;

    _file.REWIND();
    _isAscii = _file.SEARCH_STRING("$$ASCII", h, true);
    if (!_isAscii)
    {
        _file.REWIND();
        if (!_file.SEARCH_STRING("$$BINARY", h, true))
            return false;
    }

    float units = 0.0f;
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$UNITS/", h, true) || !_ReadTextValue(units))
        return false;
    _properties.InverseResolution = static_cast<std::int32_t>(std::lroundf(1.0f / units));

    unsigned short version = 0; // required, neither kept nor checked
    _file.REWIND();
    if (!_file.SEARCH_STRING("$$VERSION/", h, true) || !_ReadTextValue(version))
        return false;

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
    M2DSliceContainerScanInfo info;
    {
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, readVectors))
            return false;
    }
    _ExtendSliceArea(slice, info.Area);
    slice.SetZ(info.Z);
    return true;
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
    if (_file.ReadInt16(&command, 1) != 2)
        return false;
    double z;
    if (command == LayerLong)
    {
        float value;
        if (_file.ReadFloat(&value, 1) != 4)
            return false;
        _coordinatesType = Long;
        z = value;
    }
    else if (command == LayerShort)
    {
        unsigned short value;
        if (_file.ReadInt16(&value, 1) != 2)
            return false;
        _coordinatesType = Short;
        z = value;
    }
    else
        return false;
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
        if (command < PolylineShort || command > HatchesLong || !_ReadField(isLong, id))
            return false;
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

bool M2DSliceIO_cli::_FitsInFile(std::uint64_t bytes, std::int64_t fileSize) const
{
    const std::int64_t left = fileSize - _file.TELL();
    return left >= 0 && bytes <= static_cast<std::uint64_t>(left);
}

// Reads the raw bytes of count values of a record into _buffer, after checking that the file
// holds them; raw points at them and got is the number of whole values read. False when the
// file is too short. (An empty record is fine: then got is 0 and raw may be null.)
bool M2DSliceIO_cli::_ReadRawValues(std::size_t count, bool isLong, std::int64_t fileSize,
                                    const unsigned char*& raw, std::size_t& got)
{
    const std::size_t width = isLong ? 4 : 2;
    const std::size_t bytes = count * width;
    if (!_FitsInFile(bytes, fileSize))
        return false;
    if (_buffer.size() < bytes)
        _buffer.resize(bytes);
    got = _file.ReadBytes(_buffer.data(), bytes) / width;
    raw = reinterpret_cast<const unsigned char*>(_buffer.data());
    return true;
}

// Reads count coordinates of the record into _coords, in internal units, after checking
// that the file holds them. Should a read still come up short, each missing coordinate
// keeps the value of the same coordinate stride places before it (0 for the first ones).
bool M2DSliceIO_cli::_ReadCoordinates(std::size_t count, bool isLong, std::size_t stride, std::int64_t fileSize)
{
    std::size_t got;
    const unsigned char* raw;
    if (!_ReadRawValues(count, isLong, fileSize, raw, got))
        return false;
    if (_coords.size() < count)
        _coords.resize(count);
    int* out = _coords.data();
    ConvertValues(raw, got, isLong, _GetConversionFactor(), out);
    for (std::size_t i = got; i < count; ++i)
        out[i] = i >= stride ? out[i - stride] : 0;
    return true;
}

bool M2DSliceIO_cli::_ReadPolyline(ILayerInput& input, bool isLong, std::int64_t fileSize)
{
    std::uint32_t dir, n;
    if (!_ReadField(isLong, dir) || !_ReadField(isLong, n) || dir > 2 ||
        !_ReadCoordinates(std::size_t{n} * 2, isLong, 2, fileSize))
        return false;
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
        return false;
    const std::size_t width = isLong ? 4 : 2;
    const std::size_t vectorBytes = 4 * width;
    const std::uint64_t bytes = std::uint64_t{n} * vectorBytes;
    if (!_FitsInFile(bytes, fileSize))
        return false;
    if (!readVectors)
        return _file.SEEK(static_cast<std::int64_t>(bytes), 1);

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
        if (boxesOnly && LongHatchBox(raw, m, c, box))
        {
            input.AddVectorsArea(box, m);
            ConvertValues(raw + (m - 1) * vectorBytes, 4, isLong, c, coords);
            last = M2DSliceVector(coords[0], coords[1], coords[2], coords[3]);
            return;
        }
        AddConverted(input, raw, m, isLong, c, coords, vectors);
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
        return true;

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
        return true;

    // A read that came up short: each missing coordinate keeps the value of the same
    // coordinate of the vector before it (0 in the first vector), and so every vector after
    // the cut repeats the one it cuts.
    int tail[4] = {last.x1, last.y1, last.x2, last.y2};
    ConvertValues(raw + vectorBytes * whole, got - 4 * whole, isLong, c, tail);
    const M2DSliceVector repeated(tail[0], tail[1], tail[2], tail[3]);
    for (std::size_t i = whole; i < rest; ++i)
        input.AddVector(repeated);
    return true;
}

bool M2DSliceIO_cli::_FetchAsciiLayer(ILayerInput& input)
{
    if (_layerTextIndex >= _layerTexts.size())
        return false;
    const double c = _GetConversionFactor();
    std::vector<std::string> lines, pieces;
    Split(_layerTexts[_layerTextIndex], '\n', lines);
    input.SetZ(Round(std::stod(lines[0]) * c));
    for (std::size_t l = 1; l < lines.size(); ++l)
    {
        const std::string& line = lines[l];
        if (line.size() > 10 && StartsWith(line, "$$POLYLINE/"))
        {
            Split(line, ',', pieces);
            const int id = IdOf(pieces.at(0));
            const int dir = std::stoi(pieces.at(1));
            const int n = std::stoi(pieces.at(2));
            input.StartContour(e2DSliceVectorType_Border);
            input.SetContourClosed(dir != 2);
            input.SetContourOuter(dir == 1);
            for (int i = 0; i < n; ++i)
            {
                const double x = std::stod(pieces.at(3 + 2 * std::size_t(i)));
                const double y = std::stod(pieces.at(4 + 2 * std::size_t(i)));
                input.AddContourPoint(Round(x * c), Round(y * c));
            }
            input.EndContour(true);
            if (M2DSliceVectorTypeInfo* label = input.GetContourTypeInfo())
                label->SetIndex(e2DSliceVectorTypeIndex_Part, id);
        }
        else if (line.size() > 9 && StartsWith(line, "$$HATCHES/"))
        {
            Split(line, ',', pieces);
            const int id = IdOf(pieces.at(0));
            const int n = std::stoi(pieces.at(1));
            input.StartVectorBlock(HatchLabel(id), 0);
            for (int i = 0; i < n; ++i)
            {
                int v[4];
                for (std::size_t k = 0; k < 4; ++k)
                    v[k] = Round(std::stod(pieces.at(2 + 4 * std::size_t(i) + k)) * c);
                input.AddVector(M2DSliceVector(v[0], v[1], v[2], v[3]));
            }
        }
    }
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
