// Reads arbitrary bytes as an SLC file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(4, false)
