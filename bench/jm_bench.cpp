// JM job files (code 55), written only: the shared build as patterns.
#include "FormatBench.h"

static const bool registered = [] {
    FormatBenchSpec spec;
    spec.Name = "JM";
    spec.Code = 55;
    spec.Reads = false;
    return RegisterFormatBench(spec);
}();
