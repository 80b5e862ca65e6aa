// The compressed build file (code 48) against general-purpose compressors: the plain SLM file
// of the shared build is compressed and decompressed by the library's coder, and by `xz -9`
// and `zstd -19` where those commands exist. Counters, all per byte or per second of the
// plain file, speeds in MB/s of processor time (user + system; the machine is shared, so
// wall time says little):
//   ratio, c_MBps, d_MBps            the library's coder
//   xz_ratio, xz_c_MBps, xz_d_MBps   xz -9 (one thread)
//   zstd_ratio, ...                  zstd -19
// A compressor whose command is missing has no counters.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

#include "BuildGenerator.h"
#include "SlmBenchDefaults.h"
#include "contracts/MFile.h"
#include "contracts/MUnit.h"
#include "formats/sectioned/M2DSliceIOCompressor.h"
#include "formats/sectioned/M2DSliceIO_slm.h"
#include "framework/M2DSliceContainerIO.h"

namespace {

std::uint64_t FileSize(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

double ProcessSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Processor time of the finished child processes.
double ChildSeconds()
{
    rusage use{};
    getrusage(RUSAGE_CHILDREN, &use);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec); };
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

// Runs a shell command; its processor time, or a negative value when it failed.
double RunTimed(const std::string& command)
{
    const double before = ChildSeconds();
    if (std::system(command.c_str()) != 0)
        return -1;
    return ChildSeconds() - before;
}

std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }

void SlmCodec(benchmark::State& state)
{
    // A twentieth of the bench's layers: xz -9 takes about a second per megabyte.
    BuildShape shape;
    shape.NumLayers = BenchLayers(1000) / 50 + 1;
    const BuildGenerator build(shape);
    auto slm = std::make_shared<M2DSliceIO_slm>(false);
    slm->SetFileType(47);
    slm->SetSourceDefaults(SlmDefaults());
    std::shared_ptr<I2DSliceIO> io = slm;
    M2DSliceContainerIO out(io);
    const std::wstring plain = BenchTempPath("codec.slm"), coded = BenchTempPath("codec.slm48"),
                       back = BenchTempPath("codec_back.slm");
    if (!out.WriteContainer(build, plain, MUnit::GetIE(), 1, nullptr))
    {
        state.SkipWithError("the plain file could not be written");
        return;
    }
    const double bytes = static_cast<double>(FileSize(Narrow(plain)));
    double compress = 0, decompress = 0;
    for (auto _ : state)
    {
        {
            MFile in, target;
            in.OPEN_READ(plain.c_str());
            target.OPEN_WRITE(coded.c_str());
            const double start = ProcessSeconds();
            Sectioned::M2DSliceIOCompressor compressor(in, target);
            const bool ok = compressor.Compress() && target.CLOSE();
            compress += ProcessSeconds() - start;
            if (!ok)
            {
                state.SkipWithError("compression failed");
                return;
            }
        }
        {
            MFile in, target;
            in.OPEN_READ(coded.c_str());
            target.OPEN_WRITE(back.c_str());
            const double start = ProcessSeconds();
            Sectioned::M2DSliceIODecompressor decompressor(in, target);
            decompressor.SetRepair(true);
            const bool ok = decompressor.Decompress() && target.CLOSE();
            decompress += ProcessSeconds() - start;
            if (!ok)
            {
                state.SkipWithError("decompression failed");
                return;
            }
        }
    }
    const double runs = static_cast<double>(state.iterations());
    state.counters["plain_MB"] = bytes / 1e6;
    state.counters["ratio"] = static_cast<double>(FileSize(Narrow(coded))) / bytes;
    state.counters["c_MBps"] = bytes * runs / compress / 1e6;
    state.counters["d_MBps"] = bytes * runs / decompress / 1e6;

    const std::string source = Narrow(plain);
    for (const auto& [name, pack, unpack] :
         {std::tuple<std::string, std::string, std::string>{"xz", "xz -9 -T1 -c", "xz -d -T1 -c"},
          std::tuple<std::string, std::string, std::string>{"zstd", "zstd -19 -q -c", "zstd -d -q -c"}})
    {
        if (std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) != 0)
            continue;
        const std::string packed = source + "." + name, unpacked = source + "." + name + ".back";
        const double c = RunTimed(pack + " '" + source + "' > '" + packed + "'");
        const double d = c < 0 ? -1 : RunTimed(unpack + " '" + packed + "' > '" + unpacked + "'");
        if (c > 0 && d > 0 && FileSize(unpacked) == FileSize(source))
        {
            state.counters[name + "_ratio"] = static_cast<double>(FileSize(packed)) / bytes;
            state.counters[name + "_c_MBps"] = bytes / c / 1e6;
            state.counters[name + "_d_MBps"] = bytes / d / 1e6;
        }
        std::remove(packed.c_str());
        std::remove(unpacked.c_str());
    }
    std::remove(Narrow(back).c_str());
}

} // namespace

BENCHMARK(SlmCodec)->Name("SLM48/Codec")->Unit(benchmark::kMillisecond)->Iterations(3);
