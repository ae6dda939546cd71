// mme-bench: runs every benchmark interleaved with its memcpy baseline
// (random interleaving, 15 repetitions unless the command line says
// otherwise), then prints each one's median beside the baseline's median.
#include "Bench.h"

#include <cstdio>
#include <map>
#include <vector>

namespace mmebench {
namespace {

struct Baseline {
    const char* side;
    size_t bytes;
    double target;
};
std::map<std::string, Baseline>& baselines() {
    static std::map<std::string, Baseline> all;
    return all;
}

} // namespace

void registerBaseline(const std::string& name, size_t bytes, const char* side, double target) {
    baselines()[name] = Baseline{side, bytes, target};
    benchmark::RegisterBenchmark((name + "/memcpy").c_str(), [bytes](benchmark::State& state) {
        AlignedBytes from(bytes, 0x5A), to(bytes);
        for (auto _ : state) {
            std::memcpy(to.data(), from.data(), bytes);
            benchmark::DoNotOptimize(to.data());
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
    });
}

} // namespace mmebench

namespace {

// Console output as usual, plus the benchmark/memcpy table of medians.
class PairingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            // The median of the repetitions where there are some, else the run.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && run.run_type != Run::RT_Iteration)
                continue;
            std::string name = run.run_name.function_name;
            if (!median && mTimes.count(name))
                continue;
            mTimes[name] = run.GetAdjustedCPUTime();
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-40s %9s %9s %7s %-12s %7s\n", "work per 256-frame period (median)", "ns",
                    "memcpy", "ratio", "against", "target");
        for (const auto& [name, base] : mmebench::baselines()) {
            auto kernel = mTimes.find(name);
            auto copy = mTimes.find(name + "/memcpy");
            if (kernel == mTimes.end() || copy == mTimes.end() || copy->second <= 0)
                continue;
            const double ratio = kernel->second / copy->second;
            if (base.target <= 0) {
                std::printf("%-40s %9.1f %9.1f %7.2f %-4s %5zu B   (floor)\n", name.c_str(),
                            kernel->second, copy->second, ratio, base.side, base.bytes);
                continue;
            }
            std::printf("%-40s %9.1f %9.1f %7.2f %-4s %5zu B %5.1f %s\n", name.c_str(),
                        kernel->second, copy->second, ratio, base.side, base.bytes, base.target,
                        ratio <= base.target ? "met" : "MISSED");
        }
    }

private:
    std::map<std::string, double> mTimes;
};

} // namespace

int main(int argc, char** argv) {
    mmebench::registerConversionBenchmarks();
    mmebench::registerExchangeBenchmarks();
    // Defaults first, so that the same flags on the command line win.
    std::vector<char*> args{argv[0]};
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    char repetitions[] = "--benchmark_repetitions=15";
    char aggregates[] = "--benchmark_report_aggregates_only=true";
    char minTime[] = "--benchmark_min_time=0.02";
    args.insert(args.end(), {interleave, repetitions, aggregates, minTime});
    args.insert(args.end(), argv + 1, argv + argc);
    int count = int(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
        return 1;
    PairingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
