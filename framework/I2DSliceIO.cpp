#include "I2DSliceIO.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "../contracts/M2DSliceUtilities.h"

namespace {

// Differences of heights in the 32-bit arithmetic of the stored values: wraps instead of
// overflowing.
std::int32_t Difference(std::int32_t a, std::int32_t b)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

// Euclid on the signed values, the larger one first; a zero smaller one keeps the larger.
std::int32_t LayerDistanceGcd(std::int32_t x, std::int32_t y)
{
    std::int64_t a = std::max(x, y);
    std::int64_t b = std::min(x, y);
    while (b != 0)
    {
        const std::int64_t rest = a % b;
        a = b;
        b = rest;
    }
    return static_cast<std::int32_t>(a);
}

class EqualTypeInfoPredicate : public IVectorBlockMergePredicate
{
public:
    bool CanMerge(const M2DSliceVectorBlock& a, const M2DSliceVectorBlock& b) const override
    {
        return a.GetTypeInfo() == b.GetTypeInfo();
    }
};

// Length of (a, b), scaled so that the square cannot overflow or lose everything to
// underflow.
double ScaledLength(double a, double b)
{
    const double absA = std::fabs(a);
    const double absB = std::fabs(b);
    const double big = std::max(absA, absB);
    const double ratio = std::min(absA, absB) / std::max(big, std::numeric_limits<double>::min());
    return big * std::sqrt(1.0 + ratio * ratio);
}

constexpr double kTwoTo64 = 18446744073709551616.0;

unsigned DecimalDigits(std::uint64_t value)
{
    unsigned digits = 0;
    for (; value != 0; value /= 10)
        ++digits;
    return digits;
}

} // namespace

I2DSliceIO::I2DSliceIO() : _file(0x40000) {}

I2DSliceIO::~I2DSliceIO() = default;

// ---------------------------------------------------------------- file

bool I2DSliceIO::OpenFile(const std::wstring& path, MOpenMode mode)
{
    _path = path;
    _mode = mode;
    bool opened;
    switch (mode)
    {
    case Read:
        opened = _file.OPEN_READ(path.c_str());
        break;
    case Write:
        opened = _file.OPEN_WRITE(path.c_str());
        break;
    case Append:
        opened = _file.OPEN_APPEND(path.c_str());
        break;
    default:
        return _Fail("unknown open mode");
    }
    if (!opened)
        return _Fail(std::string("cannot open the file") + (_file.GET_ERROR() ? std::string(": ") + std::strerror(_file.GET_ERROR()) : std::string()));
    return _OpenFile(path, mode) || _FailStep("the format could not start on the file");
}

bool I2DSliceIO::CloseFile()
{
    _step = Step::Closing;
    _file.CLOSE();
    if (_file.GET_ERROR() != 0)
        return _Fail(std::string("the file could not be written or closed: ") + std::strerror(_file.GET_ERROR()));
    return _CloseFile() || _FailStep("finishing the file failed");
}

bool I2DSliceIO::FlushFile()
{
    _file.FLUSH();
    return _file.GET_ERROR() == 0 || _Fail(std::string("the file could not be written: ") + std::strerror(_file.GET_ERROR()));
}

void I2DSliceIO::SetFileBufferSize(std::uint64_t size)
{
    if (size != 0)
        _file.SET_BUFFER_SIZE(size);
}

// ---------------------------------------------------------------- writing

bool I2DSliceIO::WriteHeader(const std::vector<const ISource2DSlices*>& sources, std::int32_t unitConversion,
                             std::int32_t inverseResolution)
{
    _failureReason.clear();
    _step = Step::Header;
    return _CheckWriteHeader(sources, unitConversion, inverseResolution);
}

bool I2DSliceIO::_CheckWriteHeader(const std::vector<const ISource2DSlices*>& sources, std::int32_t unitConversion,
                                   std::int32_t inverseResolution)
{
    if (!_IsOpenFor(Write))
        return _Fail("the file is not open for writing");
    if (sources.empty() && !IsAppendModeSupported())
        return _Fail("no slice source to write");
    const int perMillimetre = MUnit::GetIE();
    const long perInch = std::lround(perMillimetre * 25.4);
    if (unitConversion != perMillimetre && unitConversion != perInch)
        return _Fail("the unit conversion is neither millimetres nor inches");
    _properties.UnitConversionFactor = unitConversion;
    _properties.InverseResolution = inverseResolution;
    return _WriteHeader(sources) || _FailStep("writing the header failed");
}

bool I2DSliceIO::WriteHeaderPerSliceContainer(std::uint64_t index)
{
    _failureReason.clear();
    return _WriteHeaderPerSliceContainer(index) || _FailStep("writing the header of a slice container failed");
}

bool I2DSliceIO::WriteLayer(const std::vector<const ISource2DSlices*>& sources, const M2DSliceConstDataItems& items)
{
    _failureReason.clear();
    _EnterLayer();
    std::int32_t z = 0;
    bool callHook = false;
    if (!_AccountLayer(sources, items, z, callHook))
        return false;
    return callHook ? _WriteLayer(sources, z, items) || _FailStep("writing a layer failed") : true;
}

bool I2DSliceIO::_AccountLayer(const std::vector<const ISource2DSlices*>& sources,
                               const M2DSliceConstDataItems& items, std::int32_t& z, bool& callHook)
{
    callHook = false;
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    if (!_IsOpenFor(Write))
        return _Fail("the file is not open for writing");
    if (slices.empty())
        return _Fail("no slice to write");
    if (slices.size() != sources.size() && sources.size() != 1)
        return _Fail("the slices do not match the sources");
    if (std::find(slices.begin(), slices.end(), nullptr) != slices.end())
        return _Fail("a slice is missing");

    M2DSliceContainerIODimensions& dims = _properties.Dimensions;
    z = slices.back()->Z;
    if (z > dims.ZMin)
        IsAppendModeSupported(); // asked and ignored; a format may watch for the call

    const bool writeEmpty = _writeOptions.WriteEmptyLayers;
    bool content = false;
    for (const M2DSlice* slice : slices)
    {
        if (!writeEmpty && slice->IsEmpty())
            continue;
        content = true;
        if (slice->Z != z)
            return _Fail("the slices of one layer have different heights");
        const M2DSliceXYArea& area = slice->GetXYArea(true);
        dims.XMin = std::min(dims.XMin, area.XMin);
        dims.XMax = std::max(dims.XMax, area.XMax);
        dims.YMin = std::min(dims.YMin, area.YMin);
        dims.YMax = std::max(dims.YMax, area.YMax);
    }

    const std::uint64_t count = ++_properties.NumLayers;
    if (count == 1)
        dims.ZMin = z;
    else if (count == 2)
        _properties.LayerThickness = Difference(z, dims.ZMin);
    else
    {
        const std::int32_t step = Difference(z, dims.ZMax);
        if (step != _properties.LayerThickness)
            _properties.LayerThickness = LayerDistanceGcd(step, _properties.LayerThickness);
    }
    dims.ZMax = z;

    // An empty layer stays counted (in the layer count and the thickness) without a hook.
    callHook = writeEmpty || content;
    return true;
}

bool I2DSliceIO::WriteFooter(const std::vector<const ISource2DSlices*>& sources)
{
    _step = Step::Footer;
    if (!_IsOpenFor(Write))
        return _Fail("the file is not open for writing");
    return _WriteFooter(sources) || _FailStep("writing the footer failed");
}

void I2DSliceIO::_GetSlicesFromItems(const M2DSliceConstDataItems& items, std::vector<const M2DSlice*>& slices)
{
    slices.clear();
    slices.reserve(items.Slices.size());
    for (const auto& slice : items.Slices)
        slices.push_back(slice.get());
}

// ---------------------------------------------------------------- reading

bool I2DSliceIO::ReadHeader(ITarget2DSlices* target)
{
    _failureReason.clear();
    _step = Step::Header;
    _layerIndex = 0;
    if (!_IsOpenFor(Read))
        return _Fail("the file is not open for reading");
    _properties.UnitConversionFactor = MUnit::GetIE();
    _properties.InverseResolution = 1;
    return _ReadHeader(target) || _FailStep("the header was refused");
}

bool I2DSliceIO::ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors)
{
    _failureReason.clear();
    _EnterLayer();
    if (!_IsOpenFor(Read))
        return _Fail("the file is not open for reading");
    slice.Clear();
    if (!_ReadLayer(slice, target, readVectors))
        return false; // the end of the layers, or damage with its reason

    M2DSliceContourLayer* border = slice.GetSliceBorderUpdate();
    M2DSliceVectorLayer* vectors = slice.GetVectorsUpdate();
    // One open contour turns the whole contour layer, closed contours included, into vectors.
    if (_readOptions.OpenBordersToVectors && !border->GetIsClosed())
    {
        M2DSliceUtilities::AddContoursToVectorLayer(*border, *vectors);
        border->MakeEmpty();
    }
    if (_readOptions.VectorBlocks.MergeBlocks)
        M2DSliceUtilities::MergeVectorBlocks(*vectors, EqualTypeInfoPredicate());
    if (_readOptions.Borders.RemoveRedundantPoints)
    {
        border->RemoveContoursIf([](M2DSliceContour& contour) {
            SimplifyContour(contour, 5.0, DBL_MAX);
            return contour.GetNumPoints() < 3 && contour.GetIsClosed();
        });
    }
    if (_readOptions.Borders.OrientBorders)
        M2DSliceUtilities::OrientBorder(*border);
    slice.DataKnown = true;
    return true;
}

bool I2DSliceIO::ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors)
{
    _failureReason.clear();
    _EnterLayer();
    if (!_IsOpenFor(Read))
        return _Fail("the file is not open for reading");
    return _ScanLayer(info, target, readVectors);
}

bool I2DSliceIO::ReadFooter(ITarget2DSlices* target)
{
    _step = Step::Footer;
    if (!_IsOpenFor(Read))
        return _Fail("the file is not open for reading");
    return _ReadFooter(target) || _FailStep("the end of the file was refused");
}

// ---------------------------------------------------------------- failure reasons

bool I2DSliceIO::_Fail(const std::string& reason)
{
    if (_failureReason.empty())
        _failureReason = DescribeStep() + ": " + reason;
    return false;
}

void I2DSliceIO::_EnterLayer()
{
    if (_step == Step::Layer)
        ++_layerIndex;
    else
    {
        _step = Step::Layer;
        _layerIndex = 0;
    }
}

std::string I2DSliceIO::DescribeStep() const
{
    switch (_step)
    {
    case Step::Opening:
        return "opening";
    case Step::Header:
        return "header";
    case Step::Layer:
        return "layer " + std::to_string(_layerIndex);
    case Step::Footer:
        return "footer";
    case Step::Closing:
        return "closing";
    }
    return "opening";
}

bool I2DSliceIO::_FailAt(const std::string& reason, std::int64_t offset)
{
    return _Fail(reason + " at offset " + std::to_string(offset));
}

bool I2DSliceIO::_FailStep(const char* what) { return _Fail(what); }

// ---------------------------------------------------------------- contour thinning

void I2DSliceIO::SimplifyContour(M2DSliceContour& contour, double maxError, double maxLength)
{
    const std::uint32_t n = contour.GetNumPoints();
    if (n == 0)
        return;

    // A circular list of running errors walking beside the points. For open contours the
    // error cursor does not move over the two end points, so it lags behind the point
    // cursor from then on; the thinning of open contours has always worked that way.
    struct Error
    {
        double value;
        std::uint32_t prev;
        std::uint32_t next;
    };
    std::vector<Error> errors(n);
    for (std::uint32_t i = 0; i < n; ++i)
        errors[i] = {0.0, i == 0 ? n - 1 : i - 1, i + 1 == n ? 0 : i + 1};

    std::uint32_t e = 0;
    auto removeCurrent = [&](M2DSliceContourPoint*& p) {
        M2DSliceContourPoint* next = p->GetNextPoint();
        contour.RemovePoint(p);
        p = next;
        const Error gone = errors[e];
        errors[gone.prev].next = gone.next;
        errors[gone.next].prev = gone.prev;
        e = gone.next;
    };

    const bool closed = contour.GetIsClosed();
    M2DSliceContourPoint* p = contour.GetFirstPoint();
    for (std::uint32_t round = 0; round < n; ++round)
    {
        if (contour.GetNumPoints() < 3)
            return;
        if (!closed && (p == contour.GetFirstPoint() || p == contour.GetLastPoint()))
        {
            p = p->GetNextPoint();
            continue;
        }
        const M2DSliceContourPoint* a = p->GetPreviousPoint();
        const M2DSliceContourPoint* b = p->GetNextPoint();
        const double dx = static_cast<double>(b->x) - static_cast<double>(a->x);
        const double dy = static_cast<double>(b->y) - static_cast<double>(a->y);
        const double vx = static_cast<double>(p->x) - static_cast<double>(a->x);
        const double vy = static_cast<double>(p->y) - static_cast<double>(a->y);
        if (vx == dx && vy == dy)
        {
            removeCurrent(p); // coincides with the next point
            continue;
        }

        bool keep = true;
        double distance = 0.0;
        const double chord = ScaledLength(dx, dy);
        if (chord > 0.0 && chord < maxLength && ScaledLength(vx, vy) < maxLength)
        {
            const double ux = dx / chord;
            const double uy = dy / chord;
            const double along = vx * ux + vy * uy;
            if (along > 0.0 && along < chord)
            {
                distance = std::fabs(ux * vy - uy * vx);
                const double carried = std::max(errors[e].value, errors[errors[e].prev].value);
                keep = !(carried + distance < maxError);
            }
        }
        if (keep)
        {
            p = p->GetNextPoint();
            e = errors[e].next;
            continue;
        }
        removeCurrent(p);
        errors[errors[e].prev].value += distance;
    }
}

// ---------------------------------------------------------------- text values

namespace {

// Skips to the first digit of the file and returns it; -1 when the file ends first.
int SkipToDigit(MFile& file)
{
    int c;
    do
        c = file.GETC();
    while (c >= 0 && (c < '0' || c > '9'));
    return c;
}

} // namespace

bool I2DSliceIO::_ReadTextValue(unsigned short& value)
{
    value = 0;
    int c = SkipToDigit(_file);
    if (c < 0)
        return false;
    for (; c >= '0' && c <= '9'; c = _file.GETC())
        value = static_cast<unsigned short>(value * 10 + (c - '0'));
    return true;
}

bool I2DSliceIO::_ReadTextValue(float& value)
{
    value = 0.0f;
    int c = SkipToDigit(_file);
    if (c < 0)
        return false;
    for (; c >= '0' && c <= '9'; c = _file.GETC())
        value = value * 10.0f + static_cast<float>(c - '0');
    if (c == ',' || c == '.')
    {
        float place = 1.0f;
        for (c = _file.GETC(); c >= '0' && c <= '9'; c = _file.GETC())
        {
            place /= 10.0f;
            value += static_cast<float>(c - '0') * place;
        }
    }
    return true;
}

void I2DSliceIO::_ConvertDoubleToTextValue(char* out, double value, std::size_t width, const char* suffix) const
{
    const auto end = static_cast<std::ptrdiff_t>(width);
    std::ptrdiff_t neg = 0;
    if (value < 0)
    {
        out[0] = '-';
        neg = 1;
        value = -value;
    }
    auto fillNines = [&] {
        for (std::ptrdiff_t i = neg; i < end; ++i)
            out[i] = '9';
    };

    // A value that no unsigned 64-bit integer holds (NaN and infinity too) cannot be
    // written digit by digit and is shown as overflowing.
    if (!(value < kTwoTo64))
        fillNines();
    else
    {
        const auto integer = static_cast<std::uint64_t>(value);
        const auto digits = static_cast<std::ptrdiff_t>(DecimalDigits(integer));
        const std::ptrdiff_t used = digits + neg;
        if (used + 1 < end)
        {
            // Room for a fraction: the digits of value scaled to the width, rounded half up.
            const std::ptrdiff_t whole = digits == 0 ? 1 : digits;
            const std::ptrdiff_t fraction = end - whole - 1 - neg;
            const double scaled = std::pow(10.0, static_cast<double>(fraction)) * value;
            if (!(scaled * 10.0 < kTwoTo64))
                fillNines(); // wider than the 19 digits that can be rounded this way
            else
            {
                std::uint64_t r = static_cast<std::uint64_t>(scaled);
                if (static_cast<std::uint64_t>(scaled * 10.0) % 10 >= 5)
                    ++r;
                std::ptrdiff_t pos = end - 1;
                for (; pos > whole + neg; --pos, r /= 10)
                    out[pos] = static_cast<char>('0' + r % 10);
                out[pos--] = '.';
                for (; pos >= neg; --pos, r /= 10)
                    out[pos] = static_cast<char>('0' + r % 10);
            }
        }
        else if (used > end)
            fillNines(); // an overflowing value shows as all nines, never cut
        else
        {
            // The integer part just fits. It rounds up from 6, not from 5 as above.
            // Beyond 2^53 a double holds whole numbers only, whose tenths digit is 0.
            std::uint64_t r = integer;
            const double tenths = value * 10.0;
            if (tenths < kTwoTo64 && static_cast<std::uint64_t>(tenths) % 10 >= 6)
                ++r;
            std::ptrdiff_t pos = end - 1;
            for (; r != 0 && pos >= neg; --pos, r /= 10)
                out[pos] = static_cast<char>('0' + r % 10);
            if (pos - neg == 0)
            {
                out[pos] = ' ';
                if (neg)
                {
                    out[0] = ' ';
                    out[pos] = '-';
                }
            }
        }
    }
    const std::size_t suffixLength = suffix ? std::strlen(suffix) : 0;
    std::memcpy(out + width, suffix ? suffix : "", suffixLength);
    out[width + suffixLength] = '\0';
}

// ---------------------------------------------------------------- slice boxes

void I2DSliceIO::_UpdateSliceArea(M2DSlice& slice, std::int32_t x, std::int32_t y)
{
    slice.GetXYAreaUpdate().Extend(x, y);
}

void I2DSliceIO::_ExtendSliceArea(M2DSlice& slice, const M2DSliceXYArea& area)
{
    slice.GetXYAreaUpdate().Extend(area);
}
