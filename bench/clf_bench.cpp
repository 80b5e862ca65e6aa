// CLF: the shared build written as one part, read, scanned, and single layers reached through
// the seek table at the start, the middle and the end of the file.
#include <benchmark/benchmark.h>

#include <memory>

#include "BuildGenerator.h"
#include "formats/clf/M2DSliceIO_clf.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"

namespace {

BuildShape ClfShape()
{
    BuildShape shape;
    shape.NumLayers = BenchLayers(1000);
    return shape;
}

// A part needs an id and a name; coordinates are written in millimetres, the scale the reader
// takes.
void Name(BuildGenerator& build)
{
    build.Properties().SetValue(L"PartID", std::int32_t{1});
    build.Properties().SetValue(L"PartName", std::wstring(L"build"));
}

struct ClfFile
{
    std::wstring Path;
    std::uint64_t Bytes = 0;
    std::uint64_t Layers = 0;
    std::uint64_t Vectors = 0;
    bool Written = false;
};

const ClfFile& File()
{
    static const ClfFile file = [] {
        ClfFile f;
        BuildGenerator build(ClfShape());
        Name(build);
        f.Path = BenchTempPath("clf_read.clf");
        f.Layers = build.GetNumSlices();
        f.Vectors = build.GetTotalNumVectors();
        std::shared_ptr<I2DSliceIO> io = std::make_shared<M2DSliceIO_clf>();
        M2DSliceContainerIO out(io);
        f.Written = out.WriteContainer(build, f.Path, 10000, 1, nullptr);
        MFile in;
        if (in.OPEN_READ(f.Path.c_str()))
            f.Bytes = static_cast<std::uint64_t>(in.GET_SIZE());
        return f;
    }();
    return file;
}

void Account(benchmark::State& state, const ClfFile& file, std::uint64_t vectors)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.Bytes));
    state.counters["vectors"] =
        benchmark::Counter(static_cast<double>(state.iterations() * vectors), benchmark::Counter::kIsRate);
}

void ClfWrite(benchmark::State& state)
{
    const ClfFile& reference = File();
    BuildGenerator build(ClfShape());
    Name(build);
    build.GetTotalNumVectors();
    const std::wstring path = BenchTempPath("clf_write.clf");
    std::shared_ptr<I2DSliceIO> io = std::make_shared<M2DSliceIO_clf>();
        M2DSliceContainerIO out(io);
    for (auto _ : state)
        if (!out.WriteContainer(build, path, 10000, 1, nullptr))
        {
            state.SkipWithError(("WriteContainer failed: " + out.GetSliceIO()->GetFailureReason()).c_str());
            return;
        }
    Account(state, reference, reference.Vectors);
}

template <bool Scan>
void ClfRead(benchmark::State& state)
{
    const ClfFile& file = File();
    if (!file.Written)
    {
        state.SkipWithError("the benchmark file could not be written");
        return;
    }
    M2DSlice slice;
    M2DSliceContainerScanInfo info;
    for (auto _ : state)
    {
        M2DSliceIO_clf io;
        std::uint64_t layers = 0, vectors = 0;
        if (!io.OpenFile(file.Path, I2DSliceIO::Read) || !io.ReadHeader(nullptr))
        {
            state.SkipWithError("the file does not open");
            return;
        }
        if (Scan)
            while (io.ScanLayer(info, nullptr, true))
                ++layers;
        else
            while (io.ReadLayer(slice, nullptr, true))
            {
                ++layers;
                vectors += slice.GetVectors()->GetTotalNumVectors();
            }
        const bool clean = io.GetFailureReason().empty() && io.ReadFooter(nullptr);
        io.CloseFile();
        if (!clean || layers != file.Layers || (!Scan && vectors != file.Vectors))
        {
            state.SkipWithError("the reader did not get the whole file");
            return;
        }
    }
    Account(state, file, file.Vectors);
}

// One layer read through the iterator, which seeks to where the seek table put it: the time
// must not depend on where the layer is.
void ClfSeek(benchmark::State& state)
{
    const ClfFile& file = File();
    M2DSliceContainerIterator it(file.Path, std::make_shared<M2DSliceIO_clf>(), true, 0, true);
    if (!it.IsValid() || it.GetNumSlices() == 0)
    {
        state.SkipWithError("the file does not open");
        return;
    }
    const std::uint64_t n = it.GetNumSlices();
    const std::uint64_t index = std::min<std::uint64_t>(n - 1, static_cast<std::uint64_t>(state.range(0)) * (n - 1) / 2);
    const std::uint64_t other = index == 0 ? n - 1 : 0;
    M2DSlice slice;
    std::uint64_t vectors = 0;
    for (auto _ : state)
    {
        // Each reached from the other end of the file, so that no read-ahead helps.
        state.PauseTiming();
        it.GetSlice(slice, other);
        state.ResumeTiming();
        it.GetSlice(slice, index);
        vectors += slice.GetVectors()->GetTotalNumVectors();
    }
    state.counters["layer"] = static_cast<double>(index);
    state.counters["vectors"] = benchmark::Counter(static_cast<double>(vectors), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(ClfWrite)->Name("CLF/Write")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ClfRead<false>)->Name("CLF/Read")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ClfRead<true>)->Name("CLF/Scan")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ClfSeek)->Name("CLF/SeekLayer")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond)->UseRealTime();
