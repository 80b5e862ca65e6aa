// The Common Layer Interface family as the rest of the library and the tool see it.
#include <algorithm>
#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "../../contracts/ByteOrder.h"
#include "../../framework/FormatDescriptor.h"

namespace {

std::size_t Find(const unsigned char* head, std::size_t size, const char* text, std::size_t from = 0)
{
    const std::size_t n = std::strlen(text);
    for (std::size_t i = from; i + n <= size; ++i)
        if (std::memcmp(head + i, text, n) == 0)
            return i;
    return SIZE_MAX;
}

// "$$HEADERSTART" tells the family. A text header with every keyword the ASCII reader asks
// for ("$$VERSION/", "$$DIMENSION/", "$$LAYERS/" besides the usual) is ASCII CLI (56); a looser
// text header is left to the reader of code 0, which reads both forms. In a binary file the
// first layer command tells the short form (128) from the long one.
bool SniffCli(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    at = Find(head, size, "$$HEADERSTART");
    if (at == SIZE_MAX)
        return false;
    const std::size_t end = Find(head, size, "$$HEADEREND", at);
    const std::size_t ascii = Find(head, std::min(size, end), "$$ASCII", at);
    code = 0;
    const std::size_t headerEnd = std::min(size, end);
    if (ascii != SIZE_MAX && Find(head, headerEnd, "$$VERSION/", at) != SIZE_MAX &&
        Find(head, headerEnd, "$$DIMENSION/", at) != SIZE_MAX && Find(head, headerEnd, "$$LAYERS/", at) != SIZE_MAX &&
        Find(head, headerEnd, "$$UNITS/", at) != SIZE_MAX)
        code = 56;
    if (ascii == SIZE_MAX && end != SIZE_MAX)
    {
        const std::size_t data = end + std::strlen("$$HEADEREND");
        if (data + 2 <= size && ByteOrder::LoadLE<std::uint16_t>(head + data) == 128)
            code = 35;
    }
    return true;
}

// The short form holds coordinates and heights as unsigned 16-bit steps and would wrap
// silently outside that range.
std::string CheckCliRange(short code, const ISource2DSlices& source, std::int32_t unitConversion,
                          std::int32_t inverseResolution)
{
    if (code != 35 || inverseResolution <= 0)
        return {};
    const double factor = static_cast<double>(unitConversion) / inverseResolution;
    const M2DSliceXYArea area = source.GetXYArea();
    double low = area.IsEmpty() ? 0.0 : std::min(area.XMin, area.YMin) / factor;
    double high = area.IsEmpty() ? 0.0 : std::max(area.XMax, area.YMax) / factor;
    for (std::uint64_t i = 0; i < source.GetNumSlices(); ++i)
    {
        low = std::min(low, source.GetSliceZPosition(i) / factor);
        high = std::max(high, source.GetSliceZPosition(i) / factor);
    }
    if (low < 0 || high + 0.5 >= 65536)
        return fmt::format("the short CLI form holds 0 to 65535 steps, and at {} steps per unit the build spans "
                           "{:.1f} to {:.1f}; lower the resolution or write the long form",
                           inverseResolution, low, high);
    return {};
}

const FormatDescriptor kCli = {
    "cli",
    "Common Layer Interface",
    {
        {0, "CLI (binary, long)", ".cli", true, true},
        {8, "CLI (binary, long)", ".cli", true, true},
        {9, "CLI (binary, long)", ".cli", true, true},
        {35, "CLI (binary, short)", ".cli", true, true},
        {36, "CLI (binary, long)", ".cli", true, true},
    },
    SniffCli,
    CheckCliRange,
    FormatLoss_Rounding | FormatLoss_Points | FormatLoss_Labels,
};

// The text form writes one "$$LABEL/1,part1" line whatever the parts, so names do not travel
// (ids do, by the slice's place). Its files are told by the family's content test above.
const FormatDescriptor kCliAscii = {
    "cli",
    "ASCII Common Layer Interface",
    {{56, "CLI (ASCII)", ".cli", true, true}},
    nullptr,
    nullptr,
    FormatLoss_Rounding | FormatLoss_Points | FormatLoss_Labels | FormatLoss_Parts,
};

const FormatRegistration registration(kCli);
const FormatRegistration asciiRegistration(kCliAscii);

} // namespace
