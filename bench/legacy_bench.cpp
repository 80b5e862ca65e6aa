// SLC, SLI, SSL and F&S rows, each written at the scale its reader reads back: SLC in floats
// of the millimetre, SLI at 100 steps per mm (16-bit steps), F&S at 40 steps per mm, SSL in
// inches whatever is asked.
#include <memory>

#include "FormatBench.h"
#include "formats/legacy/LegacySource.h"
#include "formats/legacy/M2DSliceIO_sli_3ds.h"

namespace {

// An SLI writer for a build whose source carries no hatch distances, as a machine setup
// would give them: 0.1 mm both ways.
class BenchSli : public M2DSliceIO_sli_3ds
{
protected:
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override
    {
        M2DSliceIOParameters parameters;
        parameters.HatchDistanceX = parameters.HatchDistanceY = 1000;
        const legacy::JoinedSource source(sources, parameters);
        return M2DSliceIO_sli_3ds::_WriteHeader({&source});
    }
};

FormatBenchSpec Spec(const char* name, short code, std::int32_t resolution)
{
    FormatBenchSpec spec;
    spec.Name = name;
    spec.Code = code;
    spec.InverseResolution = resolution;
    return spec;
}

FormatBenchSpec SliSpec()
{
    FormatBenchSpec spec = Spec("SLI", 3, 100);
    spec.Make = [] { return std::make_shared<BenchSli>(); };
    return spec;
}

const bool registered = RegisterFormatBench(Spec("SLC", 4, 1)) && RegisterFormatBench(SliSpec()) &&
                        RegisterFormatBench(Spec("SSL", 5, 1000)) && RegisterFormatBench(Spec("FS", 6, 40));

} // namespace
