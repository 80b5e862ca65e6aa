// JM job files as the rest of the library and the tool see them.
#include <cstring>

#include "../../framework/FormatDescriptor.h"

namespace {

// "JEOLBPOUTPUT" at offset 4, behind "ID".
bool SniffJm(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    static const char kMagic[] = "JEOLBPOUTPUT";
    if (size < 4 + sizeof kMagic - 1 || std::memcmp(head, "ID\0\0", 4) != 0 ||
        std::memcmp(head + 4, kMagic, sizeof kMagic - 1) != 0)
        return false;
    code = 55;
    at = 0;
    return true;
}

const FormatDescriptor kJm = {
    "jm",
    "JM job file",
    {{55, "JM job file", ".jm", false, true}},
    SniffJm,
    nullptr,
    // Written only; contours and point blocks are not written, coordinates are micrometres.
    FormatLoss_Contours | FormatLoss_Points | FormatLoss_Rounding | FormatLoss_Scale,
};

const FormatRegistration registration(kJm);

} // namespace
