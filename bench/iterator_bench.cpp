// Random access through M2DSliceContainerIterator on a file of many small layers, and the memory a
// whole-file load takes compared with the slices' own size.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "BuildGenerator.h"
#include "contracts/M2DSliceStack.h"
#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"

namespace {

BuildShape IteratorShape()
{
    BuildShape shape;
    shape.NumLayers = BenchLayers(10000);
    shape.VectorsPerLayer = 2000;
    shape.Parts = 4;
    shape.PointsPerOuter = 48;
    shape.PointsPerHole = 24;
    shape.BlocksPerPart = 2;
    return shape;
}

const BenchFile& IteratorFile()
{
    static const BenchFile file = WriteBenchFile(IteratorShape(), "iterator.cli");
    return file;
}

std::unique_ptr<M2DSliceContainerIterator> MakeIterator(const BenchFile& file)
{
    return std::make_unique<M2DSliceContainerIterator>(file.Path, std::make_shared<M2DSliceIO_cli>(), true, 0, true);
}

bool Usable(benchmark::State& state, const BenchFile& file)
{
    if (file.Written && file.Bytes > 0)
        return true;
    state.SkipWithError("the benchmark file could not be written");
    return false;
}

// The first pass over the file that builds the layer table.
void IteratorScan(benchmark::State& state)
{
    const BenchFile& file = IteratorFile();
    if (!Usable(state, file))
        return;
    for (auto _ : state)
    {
        const auto it = MakeIterator(file);
        if (!it->IsValid() || it->GetNumSlices() != file.Layers)
        {
            state.SkipWithError("the scan did not find every layer");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.Bytes));
}

// Reads layers from a window of the file: in random order at the start (argument 0), the middle
// (1) or the end (2), where the window spans many file buffers so that nearly every read seeks;
// or one after the other through the middle, upward (3) or downward (4). A downward walk is
// what the iterator's read-ahead serves: with it, it costs about what an upward one does.
void IteratorRead(benchmark::State& state)
{
    const BenchFile& file = IteratorFile();
    if (!Usable(state, file))
        return;
    static const auto it = MakeIterator(file);
    const std::uint64_t n = it->GetNumSlices();
    if (!it->IsValid() || n != file.Layers)
    {
        state.SkipWithError("the scan did not find every layer");
        return;
    }
    const auto& table = it->GetLayerTable();
    const std::uint64_t window = std::max<std::uint64_t>(1, std::min<std::uint64_t>(1000, n / 3));
    const std::int64_t mode = state.range(0);
    const std::uint64_t first = mode == 0 ? 0 : mode == 2 ? n - window : (n - window) / 2;
    const std::int32_t thickness = IteratorShape().LayerThickness;

    M2DSlice slice;
    std::uint64_t seed = 12345;
    std::uint64_t bytes = 0;
    std::uint64_t vectors = 0;
    std::uint64_t step = 0;
    for (auto _ : state)
    {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        const std::uint64_t offset = mode == 3 ? step % window : mode == 4 ? window - 1 - step % window : (seed >> 33) % window;
        ++step;
        const std::uint64_t i = first + offset;
        it->GetSlice(slice, i);
        if (slice.GetZ() != static_cast<std::int32_t>(i + 1) * thickness)
        {
            state.SkipWithError("the iterator handed out the wrong layer");
            return;
        }
        const std::int64_t end = i + 1 < n ? table[i + 1].Position : static_cast<std::int64_t>(file.Bytes);
        bytes += static_cast<std::uint64_t>(end - table[i].Position);
        vectors += slice.GetVectors()->GetTotalNumVectors();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.counters["vectors"] = benchmark::Counter(static_cast<double>(vectors), benchmark::Counter::kIsRate);
}

std::uint64_t HeapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

std::uint64_t ResidentBytes()
{
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r"))
    {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(statm);
    }
    return static_cast<std::uint64_t>(resident) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Loads the whole file into a stack. heap_ratio is the growth of the heap in use over the sum of
// the slices' GetMemorySize(), rss_ratio the same for the resident set.
void IteratorLoadWhole(benchmark::State& state)
{
    const BenchFile& file = IteratorFile();
    if (!Usable(state, file))
        return;
    double heapRatio = 0.0, rssRatio = 0.0, sliceBytes = 0.0;
    for (auto _ : state)
    {
        const std::uint64_t heapBefore = HeapInUse();
        const std::uint64_t rssBefore = ResidentBytes();
        auto stack = std::make_unique<M2DSliceStack>();
        std::shared_ptr<I2DSliceIO> io = std::make_shared<M2DSliceIO_cli>();
        if (!M2DSliceContainerIO(io).ReadContainer(*stack, file.Path, true) || stack->GetNumSlices() != file.Layers)
        {
            state.SkipWithError("the load did not get every layer");
            return;
        }
        state.PauseTiming();
        const std::uint64_t heap = HeapInUse() - heapBefore;
        const std::uint64_t rss = ResidentBytes() - rssBefore;
        std::uint64_t own = 0;
        for (std::uint64_t i = 0; i < stack->GetNumSlices(); ++i)
            own += stack->GetSlice(i)->GetMemorySize();
        sliceBytes = static_cast<double>(own);
        heapRatio = static_cast<double>(heap) / sliceBytes;
        rssRatio = static_cast<double>(rss) / sliceBytes;
        stack.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.Bytes));
    state.counters["vectors"] = benchmark::Counter(static_cast<double>(state.iterations() * file.Vectors),
                                                   benchmark::Counter::kIsRate);
    state.counters["slice_MB"] = sliceBytes / 1e6;
    state.counters["heap_ratio"] = heapRatio;
    state.counters["rss_ratio"] = rssRatio;
}

} // namespace

BENCHMARK(IteratorScan)->Name("Iterator/Scan")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(IteratorRead)->Name("Iterator/ReadStart")->Arg(0)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(IteratorRead)->Name("Iterator/ReadMiddle")->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(IteratorRead)->Name("Iterator/ReadEnd")->Arg(2)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(IteratorRead)->Name("Iterator/WalkUp")->Arg(3)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(IteratorRead)->Name("Iterator/WalkDown")->Arg(4)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(IteratorLoadWhole)->Name("Iterator/LoadWhole")->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
