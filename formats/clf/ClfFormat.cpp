// The CLF family as the rest of the library and the tool see it.
#include <cstring>

#include "../../framework/FormatDescriptor.h"

namespace {

// The file identifier stands in the first item of the header group, a few bytes in.
bool SniffClf(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    static const char kText[] = "Arcam Layer File";
    const std::size_t n = sizeof kText; // with its NUL
    for (std::size_t i = 0; i + n <= size && i < 64; ++i)
        if (std::memcmp(head + i, kText, n) == 0)
        {
            code = 49;
            at = i;
            return true;
        }
    return false;
}

const FormatDescriptor kClf = {
    "clf",
    "CLF (Arcam Layer File)",
    {
        {49, "CLF", ".clf", true, true},
    },
    SniffClf,
    nullptr,
    // Read back at millimetres and one step per millimetre only; coordinates truncated to
    // internal units; labels and part ids not on the slices; empty layers not written; every
    // vector of a layer in one block; open contours with flag 1 come back as vectors.
    FormatLoss_Scale | FormatLoss_Rounding | FormatLoss_Labels | FormatLoss_Parts | FormatLoss_EmptyLayers |
        FormatLoss_OpenContours,
};

const FormatRegistration registration(kClf);

} // namespace
