// MTT: write, read and scan of the shared build next to CLI's.
#include <benchmark/benchmark.h>

#include <memory>

#include "FormatBench.h"
#include "contracts/MUnit.h"
#include "formats/sectioned/M2DSliceIO_mtt.h"

namespace {

std::shared_ptr<I2DSliceIO> MakeMtt()
{
    auto io = std::make_shared<M2DSliceIO_mtt>(false);
    io->SetFileType(51);
    return io;
}

// What a source of the shared build lacks for an MTT writer: its model and build styles, one
// for each parameter index the build uses.
void PrepareMtt(I2DSliceIO& io)
{
    std::vector<M2DSliceIO_sectioned::BuildStyle> styles(4);
    for (std::size_t id = 0; id < styles.size(); ++id)
    {
        M2DSliceIO_sectioned::BuildStyle& style = styles[id];
        style.BuildStyleId = static_cast<std::int64_t>(id);
        style.PointDistance = 70;
        style.ExposureTime = 80;
        style.LaserPower = 200.0f;
        style.LaserSpeed = 1000.0f;
        style.LaserPowerFactor = 1.0f;
        style.LaserSpeedFactor = 1.0f;
    }
    static_cast<M2DSliceIO_mtt&>(io).SetDefaultBuildStyles(styles);
}

const bool registered = [] {
    FormatBenchSpec spec;
    spec.Name = "MTT";
    spec.Code = 51;
    spec.UnitConversion = MUnit::GetIE();
    spec.InverseResolution = 1; // millimetres: the only scale an MTT file reads back at
    spec.Make = MakeMtt;
    spec.PrepareWriter = PrepareMtt;
    return RegisterFormatBench(spec);
}();

} // namespace
