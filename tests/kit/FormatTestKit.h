#pragma once
// What every format's tests need and no format owns: byte strings in either byte order,
// byte-exact comparison that names the first difference, truncation and corruption sweeps
// through the public read paths, and a round trip through M2DSliceContainerIO with a
// comparison that a format loosens by the losses its descriptor declares.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "contracts/ByteOrder.h"
#include "contracts/M2DSliceStack.h"
#include "framework/FormatDescriptor.h"
#include "framework/I2DSliceIO.h"

namespace kit {

// A byte string built field by field, for expected records and hand-made files.
struct Bytes
{
    std::string s;
    template <class T>
    Bytes& le(T v)
    {
        char b[sizeof(T)];
        ByteOrder::StoreLE<T>(b, v);
        s.append(b, sizeof b);
        return *this;
    }
    template <class T>
    Bytes& be(T v)
    {
        char b[sizeof(T)];
        ByteOrder::StoreBE<T>(b, v);
        s.append(b, sizeof b);
        return *this;
    }
    Bytes& u8(unsigned v) { return le(static_cast<std::uint8_t>(v)); }
    Bytes& u16(unsigned v) { return le(static_cast<std::uint16_t>(v)); }
    Bytes& u32(std::uint32_t v) { return le(v); }
    Bytes& i32(std::int32_t v) { return le(v); }
    Bytes& u64(std::uint64_t v) { return le(v); }
    Bytes& f32(float v) { return le(v); }
    Bytes& f64(double v) { return le(v); }
    Bytes& text(const std::string& t)
    {
        s += t;
        return *this;
    }
    Bytes& zeros(std::size_t n)
    {
        s.append(n, '\0');
        return *this;
    }
    operator const std::string&() const { return s; }
};

// Equal, or the offset of the first difference with a few bytes of both around it in hex.
::testing::AssertionResult SameBytes(const std::string& expected, const std::string& actual);

// How a sweep reads each damaged file.
struct SweepOptions
{
    // At most this many cases: a longer file is swept at evenly spread positions, always
    // including the first and last 64.
    std::size_t MaxCases = 3000;
    // Exceptions a format documents for bad input; anything else fails the sweep.
    std::function<bool(const std::exception&)> Documented = [](const std::exception&) { return false; };
    // The object that reads; default the factory's for the code.
    std::function<std::shared_ptr<I2DSliceIO>()> Make;
};

// Reads every prefix of bytes (the whole file down to nothing) through the whole-file driver,
// a scan and the lazy iterator: each must end, without a crash, with true, false or a
// documented exception. Failures are reported through gtest.
void SweepTruncations(short code, const std::string& bytes, const SweepOptions& options = SweepOptions());
// The same for the file with each byte changed (to its complement, then to 0x00 and 0xFF).
void SweepCorruptions(short code, const std::string& bytes, const SweepOptions& options = SweepOptions());

// Writes the sources with code at the given scale through M2DSliceContainerIO and reads the
// file back into a stack. Null (with reason) when either way fails.
std::unique_ptr<M2DSliceStack> RoundTrip(short code, const std::vector<const ISource2DSlices*>& sources,
                                         const std::string& path, std::int32_t unitConversion,
                                         std::int32_t inverseResolution, std::string* reason = nullptr,
                                         const std::function<void(I2DSliceIO&)>& prepare = nullptr);

// Compares what was written (the sources, joined by height) with what was read back, allowing
// for the FormatLoss bits in losses and for coordinates tolerance internal units off: layer
// count and heights always; contours (count, points, closed) unless the format loses them;
// vectors (count, ends) with contours counted as their segments where they come back as
// vectors; point counts unless lost; the number of distinct part ids unless lost (a format may
// renumber them).
void ExpectSameBuild(const std::vector<const ISource2DSlices*>& written, const ISource2DSlices& read, unsigned losses,
                     int tolerance);

} // namespace kit
