// Reads arbitrary bytes as an MTT file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(51, false)
