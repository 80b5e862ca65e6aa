#include "GCodeText.h"

#include <cmath>
#include <ctime>
#include <iterator>

#include <fmt/format.h>

#include "../../contracts/MFile.h"
#include "../../contracts/PersistentProperties.h"
#include "../../contracts/StringConversion.h"

namespace {

constexpr std::uint64_t kPow10[] = {1,          10,          100,          1000,          10000,
                                    100000,     1000000,     10000000,     100000000,     1000000000,
                                    10000000000};

// Writes the decimal digits of v ending at end; returns where they start.
char* DigitsBefore(char* end, std::uint64_t v)
{
    do
    {
        *--end = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    return end;
}

// Writes whole, and with decimals > 0 a point and part zero-filled to that many digits.
void AppendNumber(std::string& out, bool negative, std::uint64_t whole, std::uint64_t part, int decimals)
{
    char buffer[48];
    char* end = buffer + sizeof buffer;
    char* p = end;
    if (decimals > 0)
    {
        for (int i = 0; i < decimals; ++i)
        {
            *--p = static_cast<char>('0' + part % 10);
            part /= 10;
        }
        *--p = '.';
    }
    p = DigitsBefore(p, whole);
    if (negative)
        *--p = '-';
    out.append(p, static_cast<std::size_t>(end - p));
}

// The general form of a value that is a whole number of 1/10000 (every coordinate in internal
// units is) below 999999 in magnitude, rounded to six significant digits as printf does. False
// when the value is not of that kind or the rounding is a tie, whose direction depends on the
// binary value: the caller then formats it in full.
bool AppendGeneralFast(std::string& out, double value)
{
    if (!(std::fabs(value) < 999999.0))
        return false;
    const double scaled = value * 10000.0;
    const auto n = static_cast<std::int64_t>(scaled + (scaled < 0 ? -0.5 : 0.5));
    if (static_cast<double>(n) / 10000.0 != value)
        return false;
    if (n == 0)
    {
        if (std::signbit(value))
            return false;
        out += '0';
        return true;
    }
    std::uint64_t m = static_cast<std::uint64_t>(n < 0 ? -n : n);
    int digits = 1;
    while (digits < 11 && m >= kPow10[digits])
        ++digits;
    int decimals = 4;
    if (digits > 6)
    {
        const int drop = digits - 6;
        const std::uint64_t rest = m % kPow10[drop];
        const std::uint64_t half = 5 * kPow10[drop - 1];
        if (rest == half)
            return false;
        m /= kPow10[drop];
        if (rest > half)
            ++m;
        if (m >= kPow10[6])
            return false;
        decimals -= drop;
    }
    while (decimals > 0 && m % 10 == 0)
    {
        m /= 10;
        --decimals;
    }
    AppendNumber(out, n < 0, m / kPow10[decimals], m % kPow10[decimals], decimals);
    return true;
}

// Fixed notation with up to 10 decimals, rounded from the exact binary value to nearest, ties
// to even, as printf does. False for values it does not cover (not finite, too large).
bool AppendFixedFast(std::string& out, double value, int decimals)
{
    if (decimals < 0 || decimals > 9 || !(std::fabs(value) < 1e9))
        return false;
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &exponent); // value = fraction * 2^exponent
    const auto mantissa = static_cast<std::uint64_t>(std::ldexp(fraction, 53)); // exact
    const int shift = 53 - exponent; // value = mantissa / 2^shift, shift > 0 below 2^53
    std::uint64_t q = 0;
    if (mantissa != 0)
    {
        if (shift <= 0)
            return false;
        if (shift < 120)
        {
            const unsigned __int128 product = static_cast<unsigned __int128>(mantissa) * kPow10[decimals];
            const unsigned __int128 whole = product >> shift;
            const unsigned __int128 rest = product - (whole << shift);
            const unsigned __int128 half = static_cast<unsigned __int128>(1) << (shift - 1);
            q = static_cast<std::uint64_t>(whole); // below 1e9 * 1e9
            if (rest > half || (rest == half && (q & 1) != 0))
                ++q;
        }
    }
    AppendNumber(out, std::signbit(value), q / kPow10[decimals], q % kPow10[decimals], decimals);
    return true;
}

} // namespace

GCodeText& GCodeText::General(double value)
{
    if (!AppendGeneralFast(_line, value))
        fmt::format_to(std::back_inserter(_line), "{:g}", value);
    return *this;
}

GCodeText& GCodeText::Fixed(double value, int decimals)
{
    if (!AppendFixedFast(_line, value, decimals))
        fmt::format_to(std::back_inserter(_line), "{:.{}f}", value, decimals);
    return *this;
}

GCodeText& GCodeText::Integer(std::int64_t value)
{
    fmt::format_to(std::back_inserter(_line), "{}", value);
    return *this;
}

GCodeText& GCodeText::Unsigned(std::uint64_t value)
{
    fmt::format_to(std::back_inserter(_line), "{}", value);
    return *this;
}

namespace {

std::string ExpandKey(const std::string& key, const PersistentProperties& properties, const std::tm& now)
{
    if (const IPersistentProperty* property = properties.GetProperty(StringConversion::LocaleToNative(key)))
        if (property->GetType() == EPropertyType::String && property->IsDefined())
            if (auto* text = dynamic_cast<const PersistentProperty<std::wstring>*>(property))
                return StringConversion::NativeToLocale(text->GetValue());
    const int year = now.tm_year + 1900;
    if (key == "YYYY")
        return fmt::format("{:04}", year);
    if (key == "YY")
        return fmt::format("{:02}", ((year % 100) + 100) % 100);
    if (key == "MM")
        return fmt::format("{:02}", now.tm_mon + 1);
    if (key == "DD")
        return fmt::format("{:02}", now.tm_mday);
    return "%%" + key + "%%";
}

} // namespace

std::string GCodeExpandTemplate(const std::string& text, const PersistentProperties& properties)
{
    // Cut into tokens at each "%%"; a lone '%' belongs to its token, unless it ends the text.
    std::string out;
    std::string token;
    bool key = false;
    bool timeKnown = false;
    std::tm now{};
    const auto flush = [&]() {
        if (!key)
            out += token;
        else
        {
            if (!timeKnown)
            {
                const std::time_t t = std::time(nullptr);
                localtime_r(&t, &now);
                timeKnown = true;
            }
            out += ExpandKey(token, properties, now);
        }
        token.clear();
        key = !key;
    };
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%')
        {
            flush();
            ++i;
        }
        else if (text[i] == '%' && i + 1 == text.size())
            break;
        else
            token += text[i];
    }
    flush();
    return out;
}

bool GCodeWriteText(MFile& file, const std::string& text)
{
    if (text.empty())
        return true;
    bool complete = file.WriteBytes(text.data(), text.size()) == text.size();
    if (text.back() != '\n')
        complete = file.WriteBytes("\n", 1) == 1 && complete;
    return complete;
}

double GCodeSafeDistance(double x0, double y0, double x1, double y1)
{
    double a = std::fabs(x1 - x0);
    double b = std::fabs(y1 - y0);
    if (a < b)
        std::swap(a, b);
    const double m = std::max(a, 5e-324);
    const double r = b / m;
    return a * std::sqrt(1.0 + r * r);
}
