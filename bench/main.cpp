#include <benchmark/benchmark.h>

#include "benchmarks.h"
#include "running_module.h"

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("lyr_build", LYR_BENCH_BUILD);
    bench::RegisterHookBenchmarks();
    bench::RegisterLookupBenchmarks();
    bench::RegisterStepBenchmarks();
    bench::RegisterWriterBenchmarks();
    benchmark::RunSpecifiedBenchmarks();
    bench::StopModule();
    benchmark::Shutdown();
    return 0;
}
