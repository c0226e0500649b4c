// The main of the benchmarks that need checkpoints and nothing else.
#include <benchmark/benchmark.h>

#include "diagnostics/KZCheckpoints.h"

int main(int argc, char** argv) {
  guardian::KZCP::Init();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  guardian::KZCP::Fini();
}
