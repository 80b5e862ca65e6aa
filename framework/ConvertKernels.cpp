#include "ConvertKernels.h"

#include <algorithm>
#include <cstring>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "../contracts/ByteOrder.h"

namespace ConvertKernels {

namespace {

inline float LoadFloat(const unsigned char* p) { return ByteOrder::LoadLE<float>(p); }
inline unsigned LoadU16(const unsigned char* p) { return ByteOrder::LoadLE<std::uint16_t>(p); }


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

} // namespace

void ConvertValues(const unsigned char* raw, std::size_t n, RawKind kind, double c, int* out)
{
    if (kind == RawKind::FloatLE)
        ConvertValues<true>(raw, n, c, out);
    else
        ConvertValues<false>(raw, n, c, out);
}

namespace {
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

#endif
} // namespace

#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// Converts m vectors of the record to out and gives their box; false, with out and box
// unfinished, when a product may be out of range.
bool ConvertVectorsFast(const unsigned char* raw, std::size_t m, RawKind kind, double c, M2DSliceVector* out,
                        M2DSliceXYArea& box)
{
    static_assert(sizeof(M2DSliceVector) == 16, "four ints, x1, x2, y1, y2");
    const bool isLong = kind == RawKind::FloatLE;
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
bool ConvertVectorsFast(const unsigned char*, std::size_t, RawKind, double, M2DSliceVector*, M2DSliceXYArea&)
{
    return false;
}
#endif

// The box of n long-form vectors (x1, y1, x2, y2 floats) in internal units, from the smallest
// and largest raw values: rounding value * c keeps the order of the values for c > 0, so
// rounding only the extremes gives the box that rounding every value would. False when the
// shortcut does not hold (a value not a number, or a product outside int): the caller then
// converts every value.
bool FloatVectorsBox(const unsigned char* raw, std::size_t n, double c, M2DSliceXYArea& box)
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
void AddConverted(I2DSliceIO::ILayerInput& input, const unsigned char* raw, std::size_t m, RawKind kind, double c,
                  int* coords, M2DSliceVector* out)
{
    M2DSliceXYArea box;
    if (ConvertVectorsFast(raw, m, kind, c, out, box))
    {
        input.AddMeasuredVectors(out, m, box);
        return;
    }
    ConvertValues(raw, 4 * m, kind, c, coords);
    for (std::size_t i = 0; i < m; ++i)
        out[i] = M2DSliceVector(coords[4 * i], coords[4 * i + 1], coords[4 * i + 2], coords[4 * i + 3]);
    input.AddVectors(out, m);
}


M2DSliceVector AddVectorRun(I2DSliceIO::ILayerInput& input, const unsigned char* raw, std::size_t n, RawKind kind,
                            double c)
{
    const std::size_t vectorBytes = kind == RawKind::FloatLE ? 16 : 8;
    const bool boxesOnly = kind == RawKind::FloatLE && input.MeasuresOnly();
    int coords[4 * kVectorChunk];
    M2DSliceVector vectors[kVectorChunk];
    M2DSliceVector last(0, 0, 0, 0);
    for (std::size_t start = 0; start < n; start += kVectorChunk)
    {
        const std::size_t m = std::min(kVectorChunk, n - start);
        const unsigned char* run = raw + start * vectorBytes;
        M2DSliceXYArea box;
        if (boxesOnly && FloatVectorsBox(run, m, c, box))
        {
            input.AddVectorsArea(box, m);
            ConvertValues(run + (m - 1) * vectorBytes, 4, kind, c, coords);
            last = M2DSliceVector(coords[0], coords[1], coords[2], coords[3]);
            continue;
        }
        AddConverted(input, run, m, kind, c, coords, vectors);
        last = vectors[m - 1];
    }
    return last;
}

} // namespace ConvertKernels
