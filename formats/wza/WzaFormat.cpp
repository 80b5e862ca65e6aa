// WZA job files as the rest of the library and the tool see them.
#include <cstring>

#include "../../framework/FormatDescriptor.h"

namespace {

// "SiAMODeL" at the start.
bool SniffWza(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    if (size < 8 || std::memcmp(head, "SiAMODeL", 8) != 0)
        return false;
    code = 54;
    at = 0;
    return true;
}

const FormatDescriptor kWza = {
    "wza",
    "WZA job file",
    {{54, "WZA job file", ".wza", true, true}},
    SniffWza,
    nullptr,
    // Only vector blocks are written; their labels come back from the scan parameter table's
    // type codes, coordinates as millimetres in single precision, truncated.
    FormatLoss_Contours | FormatLoss_Points | FormatLoss_Labels | FormatLoss_Rounding | FormatLoss_Heights,
};

const FormatRegistration registration(kWza);

} // namespace
