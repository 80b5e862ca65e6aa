#include "M2DSliceIO_ssl.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "../../contracts/StringConversion.h"
#include "../../framework/ConvertKernels.h"
#include "LegacyBuffer.h"
#include "LegacyWindow.h"

namespace {

using ConvertKernels::Round;

constexpr std::size_t kPendingVectors = 1024;
constexpr std::size_t kPathCharacters = 256;

inline bool IsDigit(int c) { return c >= '0' && c <= '9'; }

// Two numbers of a line ("%f %f\n") to the buffer.
void PutPair(legacy::OutBuffer& out, float a, float b)
{
    char* start = out.Grow(2 * 64 + 2);
    char* p = start;
    p += M2DSliceIO_ssl::FormatFixed6(a, p);
    *p++ = ' ';
    p += M2DSliceIO_ssl::FormatFixed6(b, p);
    *p++ = '\n';
    // Give back what the line did not use.
    out.Shrink(static_cast<std::size_t>(2 * 64 + 2 - (p - start)));
}

} // namespace

std::size_t M2DSliceIO_ssl::FormatFixed6(float value, char* out)
{
    // A float times 10^6 is exact in a double (24 + 14 significant bits), so rounding that
    // product to an integer, halves to even, rounds the exact value as printf does.
    const double scaled = static_cast<double>(value) * 1e6;
    if (!(std::fabs(scaled) < 9.0e15))
        return static_cast<std::size_t>(std::snprintf(out, 64, "%f", static_cast<double>(value)));
    // Adding and taking away 2^52 leaves the nearest integer, halves to even, for any
    // magnitude below 2^52 (from there on every double is an integer): the same as
    // nearbyint in the default rounding mode, without the library call.
    constexpr double kTwo52 = 4503599627370496.0;
    const double magnitude = std::fabs(scaled);
    const double rounded = magnitude < kTwo52 ? (magnitude + kTwo52) - kTwo52 : magnitude;
    auto units = static_cast<std::uint64_t>(rounded);
    char digits[32];
    int n = 0;
    std::uint64_t whole = units / 1000000;
    std::uint32_t fraction = static_cast<std::uint32_t>(units % 1000000);
    char* p = out;
    if (std::signbit(value))
        *p++ = '-';
    do
    {
        digits[n++] = static_cast<char>('0' + whole % 10);
        whole /= 10;
    } while (whole > 0);
    while (n > 0)
        *p++ = digits[--n];
    *p++ = '.';
    for (int i = 5; i >= 0; --i)
    {
        p[i] = static_cast<char>('0' + fraction % 10);
        fraction /= 10;
    }
    p += 6;
    return static_cast<std::size_t>(p - out);
}

M2DSliceIO_ssl::M2DSliceIO_ssl() = default;

M2DSliceIO_ssl::~M2DSliceIO_ssl() = default;

bool M2DSliceIO_ssl::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/) { return true; }

bool M2DSliceIO_ssl::_CloseFile() { return true; }

bool M2DSliceIO_ssl::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    // Always inches, whatever was asked for.
    _properties.UnitConversionFactor = static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4));
    std::string path = StringConversion::NativeToLocale(_path);
    if (path.size() > kPathCharacters)
        path.resize(kPathCharacters);
    // The path has no closing parenthesis and no line end: the unit line follows directly.
    std::string header = "Slice V0\nFILE(0," + path;
    header += _properties.UnitConversionFactor == MUnit::GetIE() ? "UNITS(MM)\n" : "UNITS(INCH)\n";
    header += "SLICES()\n";
    return _file.WRITE_STRING(header) || _Fail("the header could not be written");
}

bool M2DSliceIO_ssl::_WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t /*z*/,
                                 const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    const M2DSlice* slice = slices.empty() ? nullptr : slices[0];
    if (!slice)
        return true;
    const auto unit = static_cast<float>(_properties.UnitConversionFactor);
    const MSliceFileParameters* parameters = sources.empty() || !sources[0] ? nullptr : sources[0]->GetSliceParameters();
    const std::int32_t thickness = parameters ? parameters->LayerThickness : 0;

    legacy::OutBuffer out(_file, _out);
    out.Text("Z ");
    PutPair(out, static_cast<float>(slice->GetZ()) / unit, static_cast<float>(thickness) / unit);
    for (const M2DSliceContour& contour : *slice->GetSliceBorder())
    {
        for (const M2DSliceContourPoint& point : contour)
        {
            PutPair(out, static_cast<float>(point.x) / unit, static_cast<float>(point.y) / unit);
            if (!out.MaybeFlush())
                return _Fail("a layer could not be written");
        }
        out.Text("C\n");
    }
    for (const M2DSliceVectorBlock* block = slice->GetVectors()->GetFirstVectorBlock(); block;
         block = block->GetNextVectorBlock())
        for (const M2DSliceVector& v : block->Vectors)
        {
            PutPair(out, static_cast<float>(v.x1) / unit, static_cast<float>(v.y1) / unit);
            PutPair(out, static_cast<float>(v.x2) / unit, static_cast<float>(v.y2) / unit);
            out.Text("O\n");
            if (!out.MaybeFlush())
                return _Fail("a layer could not be written");
        }
    return out.Flush() || _Fail("a layer could not be written");
}

bool M2DSliceIO_ssl::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    return _file.WRITE_STRING("END\n") || _Fail("the end line could not be written");
}

bool M2DSliceIO_ssl::_ReadHeader(ITarget2DSlices* /*target*/)
{
    _chunk = legacy::InWindow::kChunk;
    _file.REWIND();
    if (!_file.SEARCH_STRING("SLICES()", -1, false))
        return _Fail("no \"SLICES()\" line: not an SSL file");
    const std::int64_t h = _file.TELL();

    _file.REWIND();
    _properties.UnitConversionFactor = static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4));
    if (_file.SEARCH_STRING("UNITS(", h, true))
    {
        char unit[32];
        _file.READ_STRING_UNTIL(unit, ")", sizeof unit);
        if (std::strcmp(unit, "INCH") != 0)
            _properties.UnitConversionFactor = MUnit::GetIE();
    }
    // The last ")" that follows within 64 KiB of the one before, then the first "Z" behind it.
    _file.SEEK(h, 0);
    std::int64_t last = h;
    while (_file.SEARCH_STRING(")", _file.TELL() + 65536, true))
        last = _file.TELL();
    _file.SEEK(last, 0);
    if (_file.SEARCH_STRING("Z", -1, true))
        _file.SEEK(-1, 1);
    return true;
}

bool M2DSliceIO_ssl::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool readVectors)
{
    return _ReadLayerWith(slice, [&](ILayerInput& input) { return _FetchLayer(input, readVectors); });
}

bool M2DSliceIO_ssl::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* /*target*/, bool readVectors)
{
    MLayerScanner scanner(info);
    return _FetchLayer(scanner, readVectors);
}

bool M2DSliceIO_ssl::_ReadFooter(ITarget2DSlices* /*target*/)
{
    const std::int64_t at = _file.TELL();
    if (_file.SEARCH_STRING("END\n", -1, true))
        return true;
    _file.SEEK(at, 0);
    return _file.SEARCH_STRING("END\r\n", -1, true) || _Fail("no \"END\" line");
}

bool M2DSliceIO_ssl::_ReadStringWithSkipDelimitersOnBegin(char* out, const char* delimiters, std::uint64_t size)
{
    int c;
    do
        c = _file.GETC();
    while (c > 0 && std::strchr(delimiters, c));
    if (c < 0)
    {
        if (size > 0)
            out[0] = '\0';
        return false;
    }
    std::uint64_t n = 0;
    for (; c >= 0 && !(c > 0 && std::strchr(delimiters, c)); c = _file.GETC())
        if (n + 1 < size)
            out[n++] = static_cast<char>(c);
    if (size > 0)
        out[n] = '\0';
    return true;
}

namespace {

// What a token of a layer is: its text up to a zero byte and at most 15 bytes, compared
// with the four words of the format.
enum class Word
{
    Number, // anything else
    Z,
    End,
    Closed,
    Open,
};

inline bool IsDelimiter(int c) { return c == ' ' || c == '\r' || c == '\n'; }

// The fraction places 10^-k as repeated division gives them, in float and in double: the
// values the digit loops would compute, taken from a table.
constexpr int kPlaces = 40;
struct Places
{
    Places()
    {
        float f = 1.0f;
        double d = 1.0;
        for (int k = 0; k < kPlaces; ++k)
        {
            f /= 10.0f;
            d /= 10.0;
            Float[k] = f;
            Double[k] = d;
        }
    }
    float Float[kPlaces];
    double Double[kPlaces];
};
const Places kPlace;

// A number token as the point reader takes it, when it takes it whole: any bytes that are not
// digits, digits, and at most a '.' or ',' with digits behind it, nothing else. Then the
// point reader's two passes come to the same values as reading the token by itself: an x in
// double, a y in float, each digit as the reader adds it.
struct TokenValue
{
    bool Whole = false; // the token has that form
    double X = 0.0;
    float Y = 0.0f;
};

// Which word the token [p, end) is, and with value, its coordinate values.
void Classify(const unsigned char* p, const unsigned char* end, Word& word, TokenValue* value)
{
    // The text is the token up to a zero byte.
    const unsigned char* zero = std::find(p, end, 0);
    const std::size_t n = static_cast<std::size_t>(zero - p);
    if (n == 1 && p[0] == 'Z')
        word = Word::Z;
    else if (n == 1 && p[0] == 'C')
        word = Word::Closed;
    else if (n == 1 && p[0] == 'O')
        word = Word::Open;
    else if (n == 3 && p[0] == 'E' && p[1] == 'N' && p[2] == 'D')
        word = Word::End;
    else
        word = Word::Number;
    if (!value)
        return;
    // The digits are gathered as integers and turned into the two values at the end: while
    // the whole part stays below 2^24, adding digit by digit in float (and in double) is
    // exact, so it is the integer itself; the fraction digits are then added as the reader
    // adds them.
    value->Whole = false;
    while (p < end && !IsDigit(*p))
        ++p;
    if (p == end)
        return;
    std::uint32_t wholePart = 0;
    for (; p < end && IsDigit(*p); ++p)
    {
        wholePart = wholePart * 10 + static_cast<std::uint32_t>(*p - '0');
        if (wholePart >= (1u << 24))
            return;
    }
    const unsigned char* fraction = p;
    if (p < end && (*p == '.' || *p == ','))
        for (fraction = ++p; p < end && IsDigit(*p); ++p)
        {
        }
    const auto places = static_cast<int>(p - fraction);
    if (p != end || places > kPlaces)
        return; // something behind the number, or digits beyond the table: left to the point reader
    double x = static_cast<double>(wholePart);
    float y = static_cast<float>(wholePart);
    for (int k = 0; k < places; ++k)
    {
        const int digit = fraction[k] - '0';
        x += digit * kPlace.Double[k];
        y += static_cast<float>(digit) * kPlace.Float[k];
    }
    value->Whole = true;
    value->X = x;
    value->Y = y;
}

// Reads the next token that is not empty, as _ReadStringWithSkipDelimitersOnBegin does, and
// tells which word it is; false at the end of the file. With value, a number token is read
// as a coordinate too. A token that the window holds whole, with its delimiter, is taken in
// place; any other is gathered in scratch.
bool NextWord(legacy::InWindow& in, Word& word, std::string& scratch, TokenValue* value = nullptr)
{
    int c;
    do
        c = in.Get();
    while (c > 0 && IsDelimiter(c));
    if (c < 0)
        return false;
    const unsigned char* first = in.Data() - 1; // c, in the window
    const unsigned char* end = in.End();
    const unsigned char* q = in.Data();
    while (q < end && !(*q > 0 && IsDelimiter(*q)))
        ++q;
    if (q < end)
    {
        Classify(first, q, word, value);
        in.Skip(static_cast<std::size_t>(q + 1 - in.Data())); // the delimiter too
        return true;
    }
    scratch.clear();
    for (; c >= 0 && !(c > 0 && IsDelimiter(c)); c = in.Get())
        scratch += static_cast<char>(c);
    const auto* text = reinterpret_cast<const unsigned char*>(scratch.data());
    Classify(text, text + scratch.size(), word, value);
    return true;
}

// A float as I2DSliceIO::_ReadTextValue reads it: the first digit onwards, a fraction after
// '.' or ',', one byte behind the number consumed.
bool ReadFloat(legacy::InWindow& in, float& value)
{
    value = 0.0f;
    int c;
    do
        c = in.Get();
    while (c >= 0 && !IsDigit(c));
    if (c < 0)
        return false;
    for (; IsDigit(c); c = in.Get())
        value = value * 10.0f + static_cast<float>(c - '0');
    if (c == ',' || c == '.')
    {
        float place = 1.0f;
        int k = 0;
        for (c = in.Get(); IsDigit(c); c = in.Get(), ++k)
        {
            place = k < kPlaces ? kPlace.Float[k] : place / 10.0f;
            value += static_cast<float>(c - '0') * place;
        }
    }
    return true;
}

} // namespace

// X by hand in double, digit by digit, Y as a float text value.
bool M2DSliceIO_ssl::_ReadPoint(legacy::InWindow& in, int& x, int& y)
{
    int c;
    do
        c = in.Get();
    while (c >= 0 && !IsDigit(c));
    if (c < 0)
        return false;
    double value = 0.0;
    for (; IsDigit(c); c = in.Get())
        value = value * 10.0 + (c - '0');
    if (c == '.' || c == ',')
    {
        double place = 1.0;
        int k = 0;
        for (c = in.Get(); IsDigit(c); c = in.Get(), ++k)
        {
            place = k < kPlaces ? kPlace.Double[k] : place / 10.0;
            value += (c - '0') * place;
        }
    }
    float yValue;
    if (!ReadFloat(in, yValue))
        return false;
    const double unit = _properties.UnitConversionFactor;
    x = Round(value * unit);
    y = Round(static_cast<double>(yValue) * unit);
    return true;
}

bool M2DSliceIO_ssl::_FetchLayer(ILayerInput& input, bool /*flag*/)
{
    legacy::InWindow in(_file, _chunk);
    const std::int64_t start = in.Tell();
    const int first = in.Get();
    if (first != 'Z')
    {
        in.Seek(start);
        // "END" or the end of the file close the layers; anything else is damage.
        return first < 0 || first == 'E' ? false : _FailAt("a layer does not start with \"Z\"", start);
    }
    float z, thickness;
    if (!ReadFloat(in, z) || !ReadFloat(in, thickness))
        return _FailAt("the \"Z\" line is cut short", start);
    const double unit = _properties.UnitConversionFactor;
    input.SetZ(Round(static_cast<double>(z) * unit));

    // Every "O" line is a vector block of its own. A reader whose blocks of one label are
    // merged afterwards gets them in one block straight away, which is what the merge would
    // make of them; a scanner counts every block.
    const bool measures = input.MeasuresOnly();
    const bool oneBlock = !measures && _readOptions.VectorBlocks.MergeBlocks;
    bool blockOpen = false;
    _vectors.clear();
    const auto addVectors = [&] {
        if (!_vectors.empty())
            input.AddVectors(_vectors.data(), _vectors.size());
        _vectors.clear();
    };
    const auto addVector = [&](int x1, int y1, int x2, int y2) {
        _vectors.emplace_back(x1, y1, x2, y2);
        if (_vectors.size() >= kPendingVectors)
            addVectors();
    };
    const auto startLine = [&] {
        if (!oneBlock || !blockOpen)
            input.StartVectorBlock(M2DSliceVectorTypeInfo(e2DSliceVectorType_None), 0);
        blockOpen = true;
    };
    const auto endLine = [&] {
        if (oneBlock)
            return;
        // A scanner only widens the layer's box by the vectors: they may reach it in runs that
        // cross the blocks it counts.
        if (!measures)
            addVectors();
        input.EndVectorBlock(true);
    };

    Word word;
    std::int64_t mark = in.Tell();
    std::uint64_t n = 0; // number tokens since the last "C" or "O"
    // The coordinates of the run's tokens while all of them are whole numbers: then the run
    // needs no second pass. The point reader's second pass takes the same values when the
    // tokens pair up into points exactly, which an even count of two or more gives ("C" also
    // with none).
    bool whole = true;
    _coords.clear();
    TokenValue value;
    for (;;)
    {
        if (!NextWord(in, word, _token, whole ? &value : nullptr))
        {
            input.EndContour(false);
            return _FailAt("a layer is not closed by \"Z\" or \"END\"", start);
        }
        if (word == Word::Z)
        {
            in.Seek(in.Tell() - 2);
            break;
        }
        if (word == Word::End)
        {
            in.Seek(in.Tell() - 4);
            break;
        }
        if (word == Word::Number)
        {
            if (whole && value.Whole)
                _coords.push_back(n % 2 == 0 ? Round(value.X * unit) : Round(static_cast<double>(value.Y) * unit));
            else
                whole = false;
            ++n;
            continue;
        }
        if (whole && n % 2 == 0 && (word == Word::Closed || n >= 2))
        {
            const int* p = _coords.data();
            if (word == Word::Closed)
            {
                input.StartContour(e2DSliceVectorType_None);
                input.SetContourClosed(true);
                for (std::uint64_t i = 0; i < n; i += 2)
                    input.AddContourPoint(p[i], p[i + 1]);
            }
            else
            {
                startLine();
                for (std::uint64_t i = 2; i < n; i += 2)
                    addVector(p[i - 2], p[i - 1], p[i], p[i + 1]);
                endLine();
            }
            mark = in.Tell();
            n = 0;
            _coords.clear();
            continue;
        }
        in.Seek(mark);
        int x, y;
        if (word == Word::Closed)
        {
            input.StartContour(e2DSliceVectorType_None);
            input.SetContourClosed(true);
            for (std::uint64_t i = 0; i < n / 2; ++i)
            {
                if (!_ReadPoint(in, x, y))
                    return _FailAt("a point of a contour is cut short", mark);
                input.AddContourPoint(x, y);
            }
        }
        else
        {
            if (n > 4)
                n = 2 * n - 4;
            startLine();
            if (!_ReadPoint(in, x, y))
                return _FailAt("a point of a line is cut short", mark);
            for (std::uint64_t i = 0; i < n / 4; ++i)
            {
                int nx, ny;
                if (!_ReadPoint(in, nx, ny))
                    return _FailAt("a point of a line is cut short", mark);
                addVector(x, y, nx, ny);
                x = nx;
                y = ny;
            }
            endLine();
        }
        // Past the closing letter, and on to the next run.
        NextWord(in, word, _token);
        mark = in.Tell();
        n = 0;
        whole = true;
        _coords.clear();
    }
    addVectors();
    if (oneBlock && blockOpen)
        input.EndVectorBlock(true);
    input.EndContour(false);
    return true;
}
