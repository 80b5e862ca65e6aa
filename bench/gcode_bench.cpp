// G-code: written only, with the default profile (0.4 mm nozzle, 1.75 mm filament); the
// shared build's hatch blocks become print moves, its contours are not printed.
#include "FormatBench.h"

namespace {

FormatBenchSpec GCodeSpec()
{
    FormatBenchSpec spec;
    spec.Name = "GCode";
    spec.Code = 50;
    spec.Reads = false;
    spec.Scans = false;
    return spec;
}

const bool registered = RegisterFormatBench(GCodeSpec());

} // namespace
