// WZA job files (code 54): the shared build with a slice height of its layer thickness (the
// writer's default of 0 would put one record per internal unit of height), digest included.
#include "FormatBench.h"
#include "formats/wza/M2DSliceIO_wza.h"

static const bool registered = [] {
    FormatBenchSpec spec("WZA", 54);
    spec.PrepareWriter = [](I2DSliceIO& io) {
        if (auto* wza = dynamic_cast<M2DSliceIO_wza*>(&io))
            wza->SetSliceHeight(300);
    };
    return RegisterFormatBench(spec);
}();
