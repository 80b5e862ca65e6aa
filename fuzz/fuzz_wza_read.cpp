// Reads arbitrary bytes as a WZA job file (code 54): every read must end cleanly.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(54, false)
