// Reads arbitrary bytes as a Common Layer Interface file along every path a caller takes.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(0, false)
