#pragma once
// Conversion of signed 16-bit vectors (x1, y1, x2, y2 little-endian, as SLI stores them) to
// internal units: each value v becomes Round(v * f), rounded half away from zero. The shared
// conversion kernels take floats and unsigned 16-bit values only; this is their signed kind.
// Only for a factor whose products all stay inside the int range (|f| * 32768 below 2^31).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "../../contracts/ByteOrder.h"
#include "../../contracts/M2DSlice.h"
#include "../../framework/ConvertKernels.h"

#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#include <emmintrin.h>
#endif

namespace legacy {

inline void ConvertInt16Vectors(const unsigned char* raw, std::size_t n, double f, M2DSliceVector* out)
{
#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const __m128d factor = _mm_set1_pd(f);
    const __m128d signBit = _mm_set1_pd(-0.0);
    // x + (one half less 2^-54, with the sign of x), truncated: half away from zero, exactly,
    // for products below 2^31.
    const __m128d justUnderHalf = _mm_set1_pd(0.49999999999999994);
    const auto round = [&](__m128d x) {
        return _mm_cvttpd_epi32(_mm_add_pd(x, _mm_or_pd(justUnderHalf, _mm_and_pd(x, signBit))));
    };
    for (std::size_t k = 0; k < n; ++k, raw += 8)
    {
        const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(raw));
        const __m128i values = _mm_srai_epi32(_mm_unpacklo_epi16(words, words), 16); // x1, y1, x2, y2
        const __m128d first = _mm_mul_pd(_mm_cvtepi32_pd(values), factor);
        const __m128d second = _mm_mul_pd(_mm_cvtepi32_pd(_mm_shuffle_epi32(values, _MM_SHUFFLE(3, 2, 3, 2))), factor);
        const __m128i fileOrder = _mm_unpacklo_epi64(round(first), round(second));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k), _mm_shuffle_epi32(fileOrder, _MM_SHUFFLE(3, 1, 2, 0)));
    }
#else
    using ConvertKernels::Round;
    for (std::size_t k = 0; k < n; ++k, raw += 8)
        out[k] = M2DSliceVector(Round(ByteOrder::LoadLE<std::int16_t>(raw) * f),
                                Round(ByteOrder::LoadLE<std::int16_t>(raw + 2) * f),
                                Round(ByteOrder::LoadLE<std::int16_t>(raw + 4) * f),
                                Round(ByteOrder::LoadLE<std::int16_t>(raw + 6) * f));
#endif
}

// Float vectors (x1, y1, x2, y2, 16 bytes) gathered as the file has them, from records too
// small to convert one by one, and handed to the input converted a run at a time. The owner
// flushes before it ends the block they belong to.
class PendingFloatVectors
{
public:
    static constexpr std::size_t kRun = ConvertKernels::kVectorChunk;

    PendingFloatVectors(I2DSliceIO::ILayerInput& input, double c, std::vector<unsigned char>& storage)
        : _input(input), _c(c), _raw(storage)
    {
        _raw.resize(16 * kRun);
    }
    PendingFloatVectors(const PendingFloatVectors&) = delete;
    PendingFloatVectors& operator=(const PendingFloatVectors&) = delete;

    void Add(const unsigned char* vector16)
    {
        std::memcpy(_raw.data() + 16 * _count, vector16, 16);
        if (++_count == kRun)
            Flush();
    }
    void Flush()
    {
        if (_count > 0)
            ConvertKernels::AddVectorRun(_input, _raw.data(), _count, ConvertKernels::RawKind::FloatLE, _c);
        _count = 0;
    }

private:
    I2DSliceIO::ILayerInput& _input;
    const double _c;
    std::vector<unsigned char>& _raw;
    std::size_t _count = 0;
};

} // namespace legacy
