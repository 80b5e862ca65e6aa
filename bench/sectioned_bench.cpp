// SLM: write, read and scan of the shared build next to CLI's, and random layer access through
// the seek table, whose cost must not grow with the layer's index.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>

#include "BuildGenerator.h"
#include "SlmBenchDefaults.h"
#include "FormatBench.h"
#include "contracts/MUnit.h"
#include "formats/sectioned/M2DSliceIO_slm.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"

namespace {

std::shared_ptr<I2DSliceIO> MakeSlm()
{
    auto io = std::make_shared<M2DSliceIO_slm>(false);
    io->SetFileType(47);
    return io;
}

void PrepareSlm(I2DSliceIO& io) { static_cast<M2DSliceIO_slm&>(io).SetSourceDefaults(SlmDefaults()); }

const bool registered = [] {
    FormatBenchSpec spec;
    spec.Name = "SLM";
    spec.Code = 47;
    spec.UnitConversion = MUnit::GetIE();
    spec.InverseResolution = 1; // millimetres: the only scale an SLM file reads back at
    spec.Make = MakeSlm;
    spec.PrepareWriter = PrepareSlm;
    return RegisterFormatBench(spec);
}();

// A file of many small layers for random access.
const std::wstring& SeekFile()
{
    static const std::wstring path = [] {
        BuildShape shape;
        shape.NumLayers = BenchLayers(10000);
        shape.VectorsPerLayer = 2000;
        shape.Parts = 4;
        const BuildGenerator build(shape);
        std::shared_ptr<I2DSliceIO> io = MakeSlm();
        PrepareSlm(*io);
        M2DSliceContainerIO out(io);
        const std::wstring file = BenchTempPath("slm_seek.slm");
        return out.WriteContainer(build, file, MUnit::GetIE(), 1, nullptr) ? file : std::wstring();
    }();
    return path;
}

// Reads layers spread over one tenth of the file around the given fraction of it: the time per
// layer should be the same near the start and near the end.
void SlmSeek(benchmark::State& state)
{
    if (SeekFile().empty())
    {
        state.SkipWithError("the file could not be written");
        return;
    }
    M2DSliceContainerIterator it(SeekFile(), MakeSlm(), true, 0, true);
    const std::uint64_t n = it.GetNumSlices();
    if (!it.IsValid() || n < 20)
    {
        state.SkipWithError("the file does not scan");
        return;
    }
    const std::uint64_t from = n * static_cast<std::uint64_t>(state.range(0)) / 100;
    const std::uint64_t span = std::max<std::uint64_t>(n / 10, 2);
    M2DSlice slice;
    std::uint64_t k = 0;
    for (auto _ : state)
    {
        // Every other step jumps back, so no read is a sequential one.
        const std::uint64_t i = std::min(n - 1, from + (k * 7919) % span);
        it.GetSlice(slice, i);
        ++k;
        if (slice.GetVectors()->GetTotalNumVectors() == 0)
        {
            state.SkipWithError("empty layer");
            return;
        }
    }
    state.counters["layers"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(SlmSeek)->Name("SLM/SeekLayer")->Arg(0)->Arg(45)->Arg(90)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ------------------------------------------------------------------ compressed build file

#include <chrono>
#include <cstdlib>
#include <sys/stat.h>

#include "formats/sectioned/M2DSliceIOCompressor.h"

namespace {

std::shared_ptr<I2DSliceIO> MakeCompressed()
{
    auto io = std::make_shared<M2DSliceIO_slm>(true);
    io->SetFileType(48);
    io->SetDecompressRepair(true);
    return io;
}

const bool registeredCompressed = [] {
    FormatBenchSpec spec;
    spec.Name = "SLM48";
    spec.Code = 48;
    spec.UnitConversion = MUnit::GetIE();
    spec.InverseResolution = 1;
    spec.Make = MakeCompressed;
    spec.PrepareWriter = PrepareSlm;
    return RegisterFormatBench(spec);
}();

} // namespace

