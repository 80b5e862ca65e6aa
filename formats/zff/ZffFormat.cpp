// The ZFF build file family as the rest of the library and the tool see it.
#include <cstring>

#include "../../framework/FormatDescriptor.h"

namespace {

// A ZFF file starts with its header line; the first 32 bytes tell it.
bool SniffZff(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    static const char kStart[] = "<Header type=\"Zanofab Buildfile\"";
    constexpr std::size_t n = sizeof kStart - 1;
    if (size < n || std::memcmp(head, kStart, n) != 0)
        return false;
    code = 44;
    at = 0;
    return true;
}

// Contours come back as chains of vectors without their closing side, labels as part and
// setting index, coordinates as floats of millimetres; point blocks and part names are not
// written (every part is "no_name" in the header, ids are cut to 16 bits), and the file
// reads back at one scale only.
const FormatDescriptor kZff = {
    "zff",
    "ZFF build file",
    {
        {44, "ZFF build file", ".zff", true, true},
        {45, "ZFF build file", ".zff", true, true},
        {46, "ZFF build file", ".zff", true, true},
    },
    SniffZff,
    nullptr,
    FormatLoss_ContoursAsVectors | FormatLoss_OpenContours | FormatLoss_Scale | FormatLoss_Rounding |
        FormatLoss_Points | FormatLoss_Labels | FormatLoss_Parts,
};

const FormatRegistration registration(kZff);

} // namespace
