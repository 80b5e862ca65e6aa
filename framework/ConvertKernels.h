#pragma once
// Conversion of file coordinates to internal units, shared by every format with float or
// 16-bit coordinates: each value v becomes Round(v * c), rounded half away from zero like
// lround, exactly, by batched SSE2/AVX code with a scalar fallback (one CPU-feature check).
// A run of vectors is converted and measured in the same pass, so the reader hands its box
// to the layer input without a second pass.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "I2DSliceIO.h"

namespace ConvertKernels {

// How the raw values lie in the file.
enum class RawKind
{
    FloatLE, // 32-bit IEEE floats, little-endian
    U16LE,   // unsigned 16-bit integers, little-endian
};

// Vectors converted and handed on at a time: small enough for the raw values, the
// coordinates and the vectors to stay in the first-level cache together.
constexpr std::size_t kVectorChunk = 1024;

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

// n raw values to out[i] = Round(value * c).
void ConvertValues(const unsigned char* raw, std::size_t n, RawKind kind, double c, int* out);

// m vectors stored x1, y1, x2, y2 to out, with their box; false (out and box unfinished)
// when a product may be out of the int range: then use ConvertValues.
bool ConvertVectorsFast(const unsigned char* raw, std::size_t m, RawKind kind, double c, M2DSliceVector* out,
                        M2DSliceXYArea& box);

// The box of n float vectors (x1, y1, x2, y2) in internal units from the extreme raw values
// alone; false when that shortcut does not hold (not a number, out of range, c <= 0).
bool FloatVectorsBox(const unsigned char* raw, std::size_t n, double c, M2DSliceXYArea& box);

// Converts m whole vectors (x1, y1, x2, y2) and hands them to input, with their box when the
// fast path measured it. coords has room for 4 m ints, out for m vectors.
void AddConverted(I2DSliceIO::ILayerInput& input, const unsigned char* raw, std::size_t m, RawKind kind, double c,
                  int* coords, M2DSliceVector* out);

// A whole run of n vectors (x1, y1, x2, y2) to input, kVectorChunk at a time; a scanning
// input gets only the box of float runs. Returns the last vector converted (zeros for n 0).
M2DSliceVector AddVectorRun(I2DSliceIO::ILayerInput& input, const unsigned char* raw, std::size_t n, RawKind kind,
                            double c);

} // namespace ConvertKernels
