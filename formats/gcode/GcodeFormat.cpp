// The G-code family as the rest of the library and the tool see it: written only, so its
// files are never recognised by content.
#include "../../framework/FormatDescriptor.h"

namespace {

const FormatDescriptor kGcode = {
    "gcode",
    "G-code",
    {
        {50, "G-code (filament)", ".gcode .gco .g", false, true},
    },
    nullptr,
    nullptr,
    // Only vector blocks become moves; nothing is read back.
    FormatLoss_Contours | FormatLoss_Points | FormatLoss_Labels | FormatLoss_Parts | FormatLoss_Rounding |
        FormatLoss_EmptyLayers,
};

const FormatRegistration registration(kGcode);

} // namespace
