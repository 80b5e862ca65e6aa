// Reads arbitrary bytes as an SLI file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(3, false)
