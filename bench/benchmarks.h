// The families of benchmarks; each registers itself with the library.
#pragma once

namespace bench {

void RegisterHookBenchmarks();
void RegisterLookupBenchmarks();
void RegisterStepBenchmarks();
void RegisterWriterBenchmarks();

}  // namespace bench
