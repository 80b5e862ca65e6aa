#pragma once
// Numbers to text as a default C++ stream or printf's "%g" prints them: general form, six
// significant digits, trailing zeros dropped, a true tie rounded to the even digit. The common
// case (a finite value from 0.0001 to below a million) is worked out with one multiplication
// and integer digits; everything else, and every value whose sixth digit sits too near a
// rounding tie to decide cheaply, goes through {fmt}, which gives the same text.
#include <cmath>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

namespace NumberText {

// Room that FormatGeneral needs at out: the longest text is "-1.23457e-308" (13 characters);
// the fast path may write up to 16 bytes.
constexpr std::size_t kGeneralMax = 24;

namespace detail {

inline char* FormatGeneralSlow(char* out, double value) { return fmt::format_to(out, "{:g}", value); }

} // namespace detail

// Writes value at out and returns the end of the text (no terminating zero).
inline char* FormatGeneral(char* out, double value)
{
    static constexpr double kPow10[10] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
    // The decimal exponent of the first significant digit, from the thresholds 10^e.
    static constexpr double kLow[10] = {1e-4, 1e-3, 1e-2, 1e-1, 1e0, 1e1, 1e2, 1e3, 1e4, 1e5};
    if (value == 0.0)
    {
        if (std::signbit(value))
            *out++ = '-';
        *out++ = '0';
        return out;
    }
    const double a = std::fabs(value);
    if (!(a >= 1e-4 && a < 999999.0))
        return detail::FormatGeneralSlow(out, value);
    int e = 9; // index into kLow: exponent e - 4
    while (a < kLow[e])
        --e;
    const int exponent = e - 4;
    // Six digits: a * 10^(5 - exponent), at most 1e6 and so exact to about 1e-10.
    // At exponent 5 that is the value itself, and a half is a true tie, which goes to the even
    // digit; otherwise a fraction too near a half is left to the exact conversion.
    const double scaled = a * kPow10[5 - exponent];
    const double whole = std::floor(scaled);
    const double fraction = scaled - whole;
    if (whole < 100000.0 || (exponent != 5 && std::fabs(fraction - 0.5) < 1e-6))
        return detail::FormatGeneralSlow(out, value);
    std::uint32_t digits = static_cast<std::uint32_t>(whole);
    if (fraction > 0.5 || (fraction == 0.5 && digits % 2 == 1))
        ++digits;
    if (digits >= 1000000u)
        return detail::FormatGeneralSlow(out, value);

    // The text is put together with stores of fixed size, which may write scratch bytes
    // behind its end (within kGeneralMax).
    static constexpr char kPairs[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                                     "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                                     "8081828384858687888990919293949596979899";
    char d[16] = {};
    std::memcpy(d, kPairs + 2 * (digits / 10000), 2);
    std::memcpy(d + 2, kPairs + 2 * (digits / 100 % 100), 2);
    std::memcpy(d + 4, kPairs + 2 * (digits % 100), 2);
    int last = 5; // the last digit that is kept: trailing zeros of the fraction go
    const int integerDigits = exponent >= 0 ? exponent + 1 : 0;
    while (last >= integerDigits && d[last] == '0')
        --last;
    *out = '-';
    out += value < 0 ? 1 : 0;
    if (exponent >= 0)
    {
        std::memcpy(out, d, 8);
        if (last < integerDigits)
            return out + integerDigits;
        out[integerDigits] = '.';
        std::memcpy(out + integerDigits + 1, d + integerDigits, 8);
        return out + last + 2;
    }
    const int zeros = -exponent - 1;
    std::memcpy(out, "0.000000", 8);
    std::memcpy(out + 2 + zeros, d, 8);
    return out + 2 + zeros + last + 1;
}

} // namespace NumberText
