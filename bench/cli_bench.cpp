// Binary CLI, long form: writing, reading with and without vectors, scanning, next to reading the
// same file's bytes and nothing else. Every row checks what it got, so that a reader that stops
// early cannot show up as a fast one.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "BuildGenerator.h"
#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceContainerIO.h"

namespace {

constexpr std::size_t kChunk = 256 * 1024;

BuildShape CliShape()
{
    BuildShape shape;
    shape.NumLayers = BenchLayers(1000);
    return shape;
}

const BenchFile& CliFile()
{
    static const BenchFile file = WriteBenchFile(CliShape(), "cli_long.cli");
    return file;
}

bool Usable(benchmark::State& state, const BenchFile& file)
{
    if (file.Written && file.Bytes > 0)
        return true;
    state.SkipWithError("the benchmark file could not be written");
    return false;
}

void Account(benchmark::State& state, const BenchFile& file, bool vectors = true)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.Bytes));
    if (vectors)
        state.counters["vectors"] =
            benchmark::Counter(static_cast<double>(state.iterations() * file.Vectors), benchmark::Counter::kIsRate);
}

void CliWrite(benchmark::State& state)
{
    const BenchFile& reference = CliFile();
    if (!Usable(state, reference))
        return;
    const BuildGenerator build(CliShape());
    build.GetTotalNumVectors(); // builds the repeating layers before the clock runs
    const std::wstring path = BenchTempPath("cli_write.cli");
    std::shared_ptr<I2DSliceIO> io = std::make_shared<M2DSliceIO_cli>();
    M2DSliceContainerIO driver(io);
    for (auto _ : state)
        if (!driver.WriteContainer(build, path, MUnit::GetIE(), 1000, nullptr))
        {
            state.SkipWithError("WriteContainer failed");
            return;
        }
    Account(state, reference);
}

// Reads every layer with ReadLayer or ScanLayer and checks the count of layers (and of vectors,
// where they are read).
template <bool Scan, bool ReadVectors>
void CliRead(benchmark::State& state)
{
    const BenchFile& file = CliFile();
    if (!Usable(state, file))
        return;
    M2DSlice slice;
    for (auto _ : state)
    {
        M2DSliceIO_cli io;
        std::uint64_t layers = 0;
        std::uint64_t vectors = 0;
        if (!io.OpenFile(file.Path, I2DSliceIO::Read) || !io.ReadHeader(nullptr))
        {
            state.SkipWithError("the file does not open");
            return;
        }
        if (Scan)
        {
            M2DSliceContainerScanInfo info;
            while (io.ScanLayer(info, nullptr, ReadVectors))
                ++layers;
        }
        else
            while (io.ReadLayer(slice, nullptr, ReadVectors))
            {
                ++layers;
                vectors += slice.GetVectors()->GetTotalNumVectors();
            }
        io.ReadFooter(nullptr);
        io.CloseFile();
        if (layers != file.Layers || (!Scan && ReadVectors && vectors != file.Vectors))
        {
            state.SkipWithError("the reader did not get the whole file");
            return;
        }
    }
    Account(state, file);
}

void RawMFileRead(benchmark::State& state)
{
    const BenchFile& file = CliFile();
    if (!Usable(state, file))
        return;
    std::vector<char> buffer(kChunk);
    for (auto _ : state)
    {
        MFile in;
        if (!in.OPEN_READ(file.Path.c_str()))
        {
            state.SkipWithError("the file does not open");
            return;
        }
        std::uint64_t total = 0;
        while (const std::size_t n = in.ReadBytes(buffer.data(), buffer.size()))
            total += n;
        in.CLOSE();
        benchmark::DoNotOptimize(buffer.data());
        if (total != file.Bytes)
            state.SkipWithError("short read");
    }
    Account(state, file, false);
}

void RawPosixRead(benchmark::State& state)
{
    const BenchFile& file = CliFile();
    if (!Usable(state, file))
        return;
    std::vector<char> buffer(kChunk);
    for (auto _ : state)
    {
        const int fd = open(file.NarrowPath.c_str(), O_RDONLY);
        std::uint64_t total = 0;
        ssize_t n;
        while ((n = read(fd, buffer.data(), buffer.size())) > 0)
            total += static_cast<std::uint64_t>(n);
        close(fd);
        benchmark::DoNotOptimize(buffer.data());
        if (total != file.Bytes)
            state.SkipWithError("short read");
    }
    Account(state, file, false);
}

// The cost of handing out one generated layer, which CLI/Write includes.
void GeneratorSlice(benchmark::State& state)
{
    const BuildGenerator build(CliShape());
    build.GetTotalNumVectors();
    M2DSlice slice;
    std::uint64_t i = 0;
    for (auto _ : state)
    {
        build.GetSlice(slice, i++ % build.GetNumSlices());
        benchmark::DoNotOptimize(slice.GetZ());
    }
}

} // namespace

BENCHMARK(CliWrite)->Name("CLI/Write")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CliRead<false, true>)->Name("CLI/Read")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CliRead<false, false>)->Name("CLI/ReadNoVectors")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CliRead<true, true>)->Name("CLI/Scan")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CliRead<true, false>)->Name("CLI/ScanNoVectors")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RawMFileRead)->Name("Raw/MFileRead")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RawPosixRead)->Name("Raw/PosixRead")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(GeneratorSlice)->Name("Generator/Slice")->Unit(benchmark::kMicrosecond);
