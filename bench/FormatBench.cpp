#include "FormatBench.h"

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <map>

#include "BuildGenerator.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceIOFactory.h"

namespace {

struct WrittenFile
{
    std::wstring Path;
    std::uint64_t Bytes = 0;
    std::uint64_t Layers = 0;
    std::uint64_t Vectors = 0; // of the build written
    bool Written = false;
    std::string Reason;
};

BuildShape BenchShape()
{
    BuildShape shape;
    shape.NumLayers = BenchLayers(1000);
    return shape;
}

std::shared_ptr<I2DSliceIO> Make(const FormatBenchSpec& spec)
{
    return spec.Make ? spec.Make() : M2DSliceIOFactory::GetSliceIO(spec.Code);
}

bool Write(const FormatBenchSpec& spec, const BuildGenerator& build, const std::wstring& path, std::string& reason)
{
    std::shared_ptr<I2DSliceIO> io = Make(spec);
    if (!io)
    {
        reason = "no format object";
        return false;
    }
    if (spec.PrepareWriter)
        spec.PrepareWriter(*io);
    M2DSliceContainerIO driver(io);
    const bool ok = driver.WriteContainer(build, path, spec.UnitConversion, spec.InverseResolution, nullptr);
    if (!ok)
        reason = io->GetFailureReason();
    return ok;
}

std::uint64_t SizeOf(const std::wstring& path)
{
    const std::string narrow(path.begin(), path.end());
    struct stat info;
    return stat(narrow.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

const WrittenFile& FileOf(const FormatBenchSpec& spec)
{
    static std::map<std::string, WrittenFile> files;
    WrittenFile& file = files[spec.Name];
    if (!file.Path.empty())
        return file;
    file.Path = BenchTempPath("format_" + std::to_string(spec.Code) + "_" + std::to_string(files.size()));
    const BuildGenerator build(BenchShape());
    file.Layers = build.GetNumSlices();
    file.Vectors = build.GetTotalNumVectors();
    file.Written = Write(spec, build, file.Path, file.Reason);
    file.Bytes = SizeOf(file.Path);
    return file;
}

void Account(benchmark::State& state, const WrittenFile& file, bool vectors)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.Bytes));
    if (vectors)
        state.counters["vectors"] =
            benchmark::Counter(static_cast<double>(state.iterations() * file.Vectors), benchmark::Counter::kIsRate);
}

void WriteRow(benchmark::State& state, const FormatBenchSpec& spec)
{
    const WrittenFile& reference = FileOf(spec);
    if (!reference.Written)
    {
        state.SkipWithError(("the file could not be written: " + reference.Reason).c_str());
        return;
    }
    const BuildGenerator build(BenchShape());
    build.GetTotalNumVectors(); // builds the repeating layers before the clock runs
    const std::wstring path = BenchTempPath("format_write_" + std::to_string(spec.Code));
    std::string reason;
    for (auto _ : state)
        if (!Write(spec, build, path, reason))
        {
            state.SkipWithError(("the write failed: " + reason).c_str());
            return;
        }
    Account(state, reference, true);
}

void ReadRow(benchmark::State& state, const FormatBenchSpec& spec, bool scan)
{
    const WrittenFile& file = FileOf(spec);
    if (!file.Written)
    {
        state.SkipWithError(("the file could not be written: " + file.Reason).c_str());
        return;
    }
    M2DSlice slice;
    M2DSliceContainerScanInfo info;
    for (auto _ : state)
    {
        std::shared_ptr<I2DSliceIO> io = Make(spec);
        if (!io->OpenFile(file.Path, I2DSliceIO::Read) || !io->ReadHeader(nullptr))
        {
            state.SkipWithError(("the file does not open: " + io->GetFailureReason()).c_str());
            return;
        }
        std::uint64_t layers = 0;
        if (scan)
            while (io->ScanLayer(info, nullptr, true))
            {
                info.Clear();
                ++layers;
            }
        else
            while (io->ReadLayer(slice, nullptr, true))
                ++layers;
        const std::string reason = io->GetFailureReason();
        io->ReadFooter(nullptr);
        io->CloseFile();
        if (!reason.empty() || layers == 0)
        {
            state.SkipWithError(("the reader did not get the whole file: " + reason).c_str());
            return;
        }
    }
    Account(state, file, true);
}

} // namespace

bool RegisterFormatBench(const FormatBenchSpec& spec)
{
    benchmark::RegisterBenchmark((spec.Name + "/Write").c_str(), [spec](benchmark::State& s) { WriteRow(s, spec); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    if (spec.Reads)
        benchmark::RegisterBenchmark((spec.Name + "/Read").c_str(),
                                     [spec](benchmark::State& s) { ReadRow(s, spec, false); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    if (spec.Reads && spec.Scans)
        benchmark::RegisterBenchmark((spec.Name + "/Scan").c_str(),
                                     [spec](benchmark::State& s) { ReadRow(s, spec, true); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    return true;
}
