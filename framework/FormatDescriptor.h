#pragma once
// What the library knows of each format family, declared once in the family's own folder:
// its name, its file-type codes with their usual extensions, whether each is read and
// written, how its files are recognised from their first bytes, which writes it refuses for
// range, and what a round trip through it loses. The tool's format table, its recognition
// of input files, the conversion test matrix and the README's table all come from here.
// The factory (M2DSliceIOFactory) stays the one place where codes map to classes.
//
// A family registers itself with one line in its descriptor file:
//     static const FormatRegistration registration(kDescriptor);
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../contracts/M2DSliceSource.h"
#include "Export.h"

// What a write and read back through a format may lose; the round-trip comparisons and the
// tool's closing line loosen or explain exactly these.
enum FormatLoss : unsigned
{
    FormatLoss_None = 0,
    FormatLoss_ContoursAsVectors = 1u << 0, // contours come back as vector blocks (or are not written)
    FormatLoss_Parts = 1u << 1,             // part ids and names are merged or renumbered
    FormatLoss_Scale = 1u << 2,             // read back at a fixed unit or resolution only
    FormatLoss_Rounding = 1u << 3,          // coordinates rounded to the file's step
    FormatLoss_Points = 1u << 4,            // point blocks are not written
    FormatLoss_Labels = 1u << 5,            // vector types and build parameters are not kept
    FormatLoss_OpenContours = 1u << 6,      // open contours are closed, or become vectors
    FormatLoss_EmptyLayers = 1u << 7,       // layers without content are not written
    FormatLoss_Hatches = 1u << 8,           // vector blocks are not written
    FormatLoss_Contours = 1u << 9,          // contours are not written at all
    FormatLoss_Heights = 1u << 10,          // a read gives the layers no height (a scan does)
};

// One file-type code of a family.
struct FormatCodeRow
{
    short Code;
    const char* Name;       // as the tool shows it: "CLI (binary, long)"
    const char* Extensions; // blank-separated, with dots: ".cli"
    bool Reads;
    bool Writes;
};

struct SLICEIO_API FormatDescriptor
{
    const char* Family;      // the folder under formats/: "cli"
    const char* DisplayName; // "Common Layer Interface"
    std::vector<FormatCodeRow> Codes;

    // Recognises a file from its first bytes (at most kSniffBytes): true with the code of the
    // format found and the offset of the text or structure that told it. Null: the family's
    // files cannot be told by content.
    bool (*Sniff)(const unsigned char* head, std::size_t size, short& code, std::size_t& at) = nullptr;

    // Empty when the source can be written with code at this scale, else why not, in one
    // line. Null: every scale is fine.
    std::string (*CheckWriteRange)(short code, const ISource2DSlices& source, std::int32_t unitConversion,
                                   std::int32_t inverseResolution) = nullptr;

    unsigned Losses = FormatLoss_None; // FormatLoss bits of a write and read back

    const FormatCodeRow* Row(short code) const;
};

// How many leading bytes of a file recognition looks at.
constexpr std::size_t kSniffBytes = 4096;

namespace FormatRegistry {

// Every registered family, in registration order.
SLICEIO_API const std::vector<const FormatDescriptor*>& Families();
// Every code row of every family, sorted by code.
SLICEIO_API std::vector<FormatCodeRow> Codes();
SLICEIO_API const FormatDescriptor* ForCode(short code);
SLICEIO_API const FormatCodeRow* RowFor(short code);
// The format whose recognition text stands earliest in head; false when none knows it.
SLICEIO_API bool Sniff(const unsigned char* head, std::size_t size, short& code);
// The family whose extensions list the one of path (lower-cased, with its dot); the first
// row listing it. Null when none does.
SLICEIO_API const FormatCodeRow* ForExtension(const std::string& extension);

SLICEIO_API void Register(const FormatDescriptor* descriptor);

} // namespace FormatRegistry

struct FormatRegistration
{
    explicit FormatRegistration(const FormatDescriptor& descriptor) { FormatRegistry::Register(&descriptor); }
};
