// Reads arbitrary bytes as an ASCII CLI file (code 56) along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(56, false)
