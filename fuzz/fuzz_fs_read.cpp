// Reads arbitrary bytes as an F&S file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(6, false)
