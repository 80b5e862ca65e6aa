// ASCII CLI (code 56): the shared build written as text at 1/1000 mm steps, read and scanned.
#include "FormatBench.h"

static const bool registered = RegisterFormatBench({"CLI-ASCII", 56});
