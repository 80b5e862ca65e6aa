// Reads arbitrary bytes as an SSL text file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(5, false)
