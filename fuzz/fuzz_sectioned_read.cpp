// Reads arbitrary bytes as an SLM file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(47, false)
