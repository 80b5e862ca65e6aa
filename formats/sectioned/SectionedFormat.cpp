// The sectioned layer files (SLM and MTT) as the rest of the library and the tool see them.
#include <cstring>
#include <string>

#include "../../framework/FormatDescriptor.h"
#include "SectionCodec.h"

namespace {

// Section 1 at offset 0 and section 2 right inside it, holding the file id.
bool SniffSectioned(const unsigned char* head, std::size_t size, short& code, std::size_t& at)
{
    ByteCursor in(head, size);
    Sectioned::SectionHeader section;
    if (!Sectioned::ReadHead(in, section) || section.Id != Sectioned::Id_Header)
        return false;
    at = in.Offset();
    ByteCursor text;
    if (!Sectioned::ReadSection(in, section, text) || section.Id != Sectioned::Id_FileId || section.Size >= 512)
        return false;
    const std::string id = Sectioned::LoadNarrow(text);
    // The SLM reader reads files that call themselves MTT as well, but these are read as MTT
    // files, whose coordinates come back truncated.
    if (id == "SLM-Layerfile")
        code = 47;
    else if (id == "MTT-Layerfile")
        code = 51;
    else if (id == "[Compressed SLM Buildfile]")
        code = 48;
    else
        return false;
    return true;
}

const FormatDescriptor kSectioned = {
    "sectioned",
    "SLM layer file",
    {
        {47, "SLM", ".slm", true, true},
        {48, "SLM (compressed build file)", ".slm", true, true},
        {51, "MTT", ".mtt", true, true},
    },
    SniffSectioned,
    nullptr,
    // Only vector blocks are written (contours and point blocks are not), as floats in
    // millimetres, which read back at that scale only; labels come back from the build styles
    // the file names, so a block whose style is not among them loses its parameter index. MTT
    // files also drop the laser index and style names, and truncate coordinates on reading.
    FormatLoss_Contours | FormatLoss_Points | FormatLoss_Scale | FormatLoss_Rounding | FormatLoss_Labels |
        FormatLoss_EmptyLayers,
};

const FormatRegistration registration(kSectioned);

} // namespace
