// Reads arbitrary bytes as a ZFF build file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(44, false)
