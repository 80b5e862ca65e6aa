// Runs the benchmarks, shows the usual per-run lines on stderr and ends with one table on stdout:
// format, operation, time per operation, MB/s, vectors/s and the throughput relative to the
// fastest plain read of a file's bytes (the Raw rows). Benchmarks are named Format/Operation.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace {

class SummaryReporter : public benchmark::ConsoleReporter
{
public:
    SummaryReporter() : ConsoleReporter(isatty(STDERR_FILENO) ? OO_ColorTabular : OO_Tabular)
    {
        SetOutputStream(&std::cerr);
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            if (run.error_occurred)
                continue;
            const std::string& name = run.run_name.function_name;
            // With repetitions, the median stands for the benchmark.
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")
                continue;
            if (!_runs.count(name))
                _order.push_back(name);
            if (run.run_type == Run::RT_Aggregate || !_runs.count(name))
                _runs[name] = run;
        }
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        double raw = 0.0;
        for (const auto& [name, run] : _runs)
            if (name.rfind("Raw/", 0) == 0)
                raw = std::max(raw, Counter(run, "bytes_per_second"));

        std::printf("%-10s %-16s %12s %10s %12s %7s %7s  %s\n", "format", "operation", "time/op", "MB/s", "vectors/s",
                    "x raw", "x CLI", "other");
        for (const std::string& name : _order)
        {
            const Run& run = _runs[name];
            const std::size_t slash = name.find('/');
            const std::string format = slash == std::string::npos ? name : name.substr(0, slash);
            const std::string operation = slash == std::string::npos ? "" : name.substr(slash + 1);
            const double bytes = Counter(run, "bytes_per_second");
            const double vectors = Counter(run, "vectors");
            std::string other;
            for (const auto& [key, counter] : run.counters)
                if (key != "bytes_per_second" && key != "vectors")
                    other += key + "=" + Format("%.3g", counter.value) + " ";
            // The same operation of CLI in this run, by vectors/s: how a format compares with it.
            const auto cli = _runs.find("CLI/" + operation);
            const double cliVectors = cli == _runs.end() ? 0.0 : Counter(cli->second, "vectors");
            std::printf("%-10s %-16s %9.4g %-2s %10s %12s %7s %7s  %s\n", format.c_str(), operation.c_str(),
                        run.GetAdjustedRealTime(), benchmark::GetTimeUnitString(run.time_unit),
                        bytes > 0 ? Format("%.1f", bytes / 1e6).c_str() : "-",
                        vectors > 0 ? Format("%.4g", vectors).c_str() : "-",
                        bytes > 0 && raw > 0 ? Format("%.3f", bytes / raw).c_str() : "-",
                        vectors > 0 && cliVectors > 0 ? Format("%.3f", vectors / cliVectors).c_str() : "-",
                        other.c_str());
        }
    }

private:
    static double Counter(const Run& run, const char* key)
    {
        const auto it = run.counters.find(key);
        return it == run.counters.end() ? 0.0 : it->second.value;
    }
    static std::string Format(const char* format, double value)
    {
        char text[64];
        std::snprintf(text, sizeof(text), format, value);
        return text;
    }

    std::vector<std::string> _order;
    std::map<std::string, Run> _runs;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
