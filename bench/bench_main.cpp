// mme-bench: runs every benchmark, then prints each kernel beside the memcpy
// of the same bytes measured in the same run.
#include "Bench.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace mmebench {

void registerMemcpyBaseline(const std::string& name, size_t bytes) {
    benchmark::RegisterBenchmark((name + "/memcpy").c_str(), [bytes](benchmark::State& state) {
        std::vector<unsigned char> from(bytes, 0x5A), to(bytes);
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

// Console output as usual, plus the kernel/memcpy table at the end.
class PairingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            std::string name = run.benchmark_name();
            mTimes[name] = run.GetAdjustedCPUTime();
            if (name.size() < 7 || name.compare(name.size() - 7, 7, "/memcpy") != 0)
                mOrder.push_back(name);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-52s %12s %12s %8s\n", "kernel (same bytes as memcpy)", "kernel", "memcpy",
                    "ratio");
        for (const std::string& name : mOrder) {
            auto base = mTimes.find(name + "/memcpy");
            if (base == mTimes.end() || base->second <= 0)
                continue;
            double kernel = mTimes[name];
            std::printf("%-52s %12.1f %12.1f %8.2f\n", name.c_str(), kernel, base->second,
                        kernel / base->second);
        }
    }

private:
    std::map<std::string, double> mTimes;
    std::vector<std::string> mOrder;
};

} // namespace

int main(int argc, char** argv) {
    mmebench::registerConversionBenchmarks();
    mmebench::registerExchangeBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    PairingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
