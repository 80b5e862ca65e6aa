// Compressed build files written by this library read back only in repair mode, and the tool
// reads every one that way. The tests that read the tool's output through the library (the
// conversion matrix) do as the tool does; the tests of the literal reading ask for it by name.
#include "formats/sectioned/M2DSliceIO_slm.h"

namespace {
const bool repairing = [] {
    M2DSliceIO_slm::SetDecompressRepairByDefault(true);
    return true;
}();
} // namespace
