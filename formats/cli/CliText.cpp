#include "CliText.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "../../framework/ConvertKernels.h"

namespace CliText {

namespace {

using ConvertKernels::Round;

const char* FindOr(const char* from, const char* end, char c)
{
    if (from == end) // an empty text may have no storage at all, and memchr takes none
        return end;
    const void* at = std::memchr(from, c, static_cast<std::size_t>(end - from));
    return at ? static_cast<const char*>(at) : end;
}

// The comma-separated pieces of one line, taken in order, each number read in place. A piece
// that is not a plain number filling it goes through Stoi / Stod as a string, which gives the
// same value or the same exception.
class LinePieces
{
public:
    LinePieces(const char* begin, const char* end) : _next(begin), _end(end) {}

    // Skips the piece's first characters (a keyword such as "$$HATCHES/") and reads the rest.
    int Int(std::size_t skip = 0)
    {
        const char* begin = _Take() + skip;
        int value = 0;
        const auto parsed = std::from_chars(begin, _end, value);
        if (parsed.ec == std::errc() && parsed.ptr != begin && _EndsAt(parsed.ptr))
            return value;
        return Stoi(std::string(begin, _PieceEnd(begin)));
    }

    double Double()
    {
        const char* begin = _Take();
        // Plain decimals of up to 15 digits: the digits as an integer and one division by a
        // power of ten, both exact, give the correctly rounded value that std::from_chars
        // gives.
        static constexpr double kPow10[16] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                              1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
        const char* at = begin;
        const bool negative = at != _end && *at == '-';
        at += negative ? 1 : 0;
        std::uint64_t digits = 0;
        const char* first = at;
        for (; at != _end && static_cast<unsigned>(*at - '0') < 10; ++at)
            digits = digits * 10 + static_cast<unsigned>(*at - '0');
        std::ptrdiff_t count = at - first, decimals = 0;
        if (at != _end && *at == '.' && count <= 15)
        {
            const char* fraction = ++at;
            for (; at != _end && static_cast<unsigned>(*at - '0') < 10 && at - fraction + count < 16; ++at)
                digits = digits * 10 + static_cast<unsigned>(*at - '0');
            decimals = at - fraction;
            count += decimals;
        }
        if (count > 0 && count <= 15 && _EndsAt(at))
        {
            const double value = static_cast<double>(digits) / kPow10[decimals];
            return negative ? -value : value;
        }
        double value = 0.0;
        const auto parsed = std::from_chars(begin, _end, value);
        if (parsed.ec == std::errc() && parsed.ptr != begin && _EndsAt(parsed.ptr))
            return value;
        return Stod(std::string(begin, _PieceEnd(begin)));
    }

private:
    // The start of the next piece; "invalid vector subscript" when the line has no more.
    const char* _Take()
    {
        if (!_next)
            throw std::out_of_range("invalid vector subscript");
        _current = _next;
        _next = nullptr;
        return _current;
    }

    // True when the piece ends at at, which then moves the line on behind it.
    bool _EndsAt(const char* at)
    {
        if (at == _end)
            return true;
        if (*at != ',')
            return false;
        _next = at + 1;
        return true;
    }

    const char* _PieceEnd(const char* from)
    {
        const char* end = FindOr(from, _end, ',');
        if (end != _end)
            _next = end + 1;
        return end;
    }

    const char* _next;
    const char* _current = nullptr;
    const char* _end;
};

M2DSliceVectorTypeInfo HatchLabel(std::int32_t id)
{
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    return label;
}

// A whole line as one number, as Stod reads it.
double LineValue(const char* begin, const char* end)
{
    double value = 0.0;
    const auto parsed = std::from_chars(begin, end, value);
    if (parsed.ec == std::errc() && parsed.ptr == end && begin != end)
        return value;
    return Stod(std::string(begin, end));
}

} // namespace

void ReadLayerText(std::string_view text, double c, I2DSliceIO::ILayerInput& input)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    const char* lineEnd = FindOr(at, end, '\n');
    input.SetZ(Round(LineValue(at, lineEnd) * c));
    while (lineEnd != end)
    {
        at = lineEnd + 1;
        lineEnd = FindOr(at, end, '\n');
        const std::size_t size = static_cast<std::size_t>(lineEnd - at);
        if (size > 10 && std::memcmp(at, "$$POLYLINE/", 11) == 0)
        {
            LinePieces pieces(at, lineEnd);
            const int id = pieces.Int(11);
            const int dir = pieces.Int();
            const int n = pieces.Int();
            input.StartContour(e2DSliceVectorType_Border);
            input.SetContourClosed(dir != 2);
            input.SetContourOuter(dir == 1);
            for (int i = 0; i < n; ++i)
            {
                const double x = pieces.Double();
                const double y = pieces.Double();
                input.AddContourPoint(Round(x * c), Round(y * c));
            }
            input.EndContour(true);
            if (M2DSliceVectorTypeInfo* label = input.GetContourTypeInfo())
                label->SetIndex(e2DSliceVectorTypeIndex_Part, id);
        }
        else if (size > 9 && std::memcmp(at, "$$HATCHES/", 10) == 0)
        {
            LinePieces pieces(at, lineEnd);
            const int id = pieces.Int(10);
            const int n = pieces.Int();
            input.StartVectorBlock(HatchLabel(id), 0);
            for (int i = 0; i < n; ++i)
            {
                int v[4];
                for (int& value : v)
                    value = Round(pieces.Double() * c);
                input.AddVector(M2DSliceVector(v[0], v[1], v[2], v[3]));
            }
        }
    }
}

} // namespace CliText
