// Runs one operation of bench_support.h a fixed number of times for
// valgrind --tool=callgrind --collect-atstart=no: collection is switched on
// only around the timed runs, so the collected total divided by the count is
// the instructions of one operation. Usage:
//   qvn_bench_count --list
//   qvn_bench_count <operation> <count>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <valgrind/callgrind.h>

#include "bench_support.h"

namespace {

constexpr int kWarmupRuns = 50;

const qvn_bench::Operation *Find(const char *name) {
  for (const qvn_bench::Operation &op : qvn_bench::AllOperations()) {
    if (strcmp(op.name, name) == 0) return &op;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && strcmp(argv[1], "--list") == 0) {
    for (const qvn_bench::Operation &op : qvn_bench::AllOperations()) {
      printf("%s\t%s\n", op.name, op.target);
    }
    return 0;
  }
  const qvn_bench::Operation *op = argc == 3 ? Find(argv[1]) : nullptr;
  const int count = argc == 3 ? atoi(argv[2]) : 0;
  if (op == nullptr || count < 1) {
    fprintf(stderr, "usage: %s --list | <operation> <count>\n", argv[0]);
    return 2;
  }
  op->setup();
  for (int i = 0; i < kWarmupRuns; ++i) {
    if (op->prepare != nullptr) op->prepare();
    op->run();
  }
  if (op->prepare == nullptr) {
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < count; ++i) op->run();
    CALLGRIND_TOGGLE_COLLECT;
  } else {
    for (int i = 0; i < count; ++i) {
      op->prepare();
      CALLGRIND_TOGGLE_COLLECT;
      op->run();
      CALLGRIND_TOGGLE_COLLECT;
    }
  }
  return 0;
}
