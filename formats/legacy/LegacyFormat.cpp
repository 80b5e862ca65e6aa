// The stereolithography and sintering formats as the rest of the library and the tool see
// them: SLI (3), SLC (4), SSL (5) and F&S (6), one descriptor each, since each loses
// something else on the way through a file.
#include <cstring>

#include "../../framework/FormatDescriptor.h"

namespace {

bool StartsWith(const unsigned char* head, std::size_t size, std::size_t at, const char* text)
{
    const std::size_t n = std::strlen(text);
    return at + n <= size && std::memcmp(head + at, text, n) == 0;
}

bool SniffSli(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    if (!StartsWith(head, size, 0, "!SLICE="))
        return false;
    code = 3;
    at = 0;
    return true;
}

bool SniffSlc(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    if (!StartsWith(head, size, 0, "-SLCVER"))
        return false;
    code = 4;
    at = 0;
    return true;
}

bool SniffSsl(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    if (!StartsWith(head, size, 0, "Slice V0"))
        return false;
    code = 5;
    at = 0;
    return true;
}

// Every layer starts with the length byte 6 and "F&S2.1".
bool SniffFs(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    if (size < 1 || head[0] != 6 || !StartsWith(head, size, 1, "F&S2.1"))
        return false;
    code = 6;
    at = 1;
    return true;
}

// Common to all four: coordinates rounded to the file's step, no point blocks, vector kinds,
// build parameters and part ids not kept, and no record for a layer without content.
constexpr unsigned kCommonLosses =
    FormatLoss_Rounding | FormatLoss_Points | FormatLoss_Labels | FormatLoss_Parts | FormatLoss_EmptyLayers;

// Two-point contours come back as vectors and chained vectors as contours; open contours
// come back reversed.
const FormatDescriptor kSlc = {
    "legacy", "SLC contours", {{4, "SLC", ".slc", true, true}}, SniffSlc, nullptr,
    kCommonLosses | FormatLoss_OpenContours,
};

// Vector kinds without a section code come back as contour data; "-MM" is not read, so an
// inch file reads back as millimetres.
const FormatDescriptor kSli = {
    "legacy", "SLI (3D Systems)", {{3, "SLI (3D Systems)", ".sli", true, true}}, SniffSli, nullptr,
    kCommonLosses | FormatLoss_OpenContours | FormatLoss_Scale,
};

// Only the first slice of a layer is written, contours are all closed, and signs are lost
// on reading.
const FormatDescriptor kSsl = {
    "legacy", "SSL slices", {{5, "SSL", ".ssl", true, true}}, SniffSsl, nullptr,
    kCommonLosses | FormatLoss_OpenContours,
};

// Only the first slice of a layer is written, a contour keeps its repeated closing point,
// and coordinates read back at their true size only at 40 steps per unit.
const FormatDescriptor kFs = {
    "legacy", "F&S", {{6, "F&S", ".fs", true, true}}, SniffFs, nullptr,
    kCommonLosses | FormatLoss_OpenContours | FormatLoss_Scale,
};

const FormatRegistration registerSli(kSli);
const FormatRegistration registerSlc(kSlc);
const FormatRegistration registerSsl(kSsl);
const FormatRegistration registerFs(kFs);

} // namespace
