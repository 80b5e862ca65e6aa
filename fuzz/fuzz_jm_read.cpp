// Reads arbitrary bytes as a JM job file (code 55): the read fragment must end cleanly or
// throw the documented std::logic_error at a block start.
#include "ReadPath.h"

SLICEIO_FUZZ_READ_TARGET(55, true)
