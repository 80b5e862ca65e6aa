// ZFF build files: written at one step per millimetre, the scale that reads back.
#include "FormatBench.h"

namespace {

FormatBenchSpec ZffSpec()
{
    FormatBenchSpec spec;
    spec.Name = "ZFF";
    spec.Code = 44;
    spec.UnitConversion = 10000;
    spec.InverseResolution = 1;
    return spec;
}

} // namespace

static const bool registered = RegisterFormatBench(ZffSpec());
