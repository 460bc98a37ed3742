// Exhaustive comparison of the log formatter with the C library: for every
// one of the 2^32 bit patterns, the float's "%f" text (FormatFixed6) against
// snprintf("%f", (double)f), and the int's "%d" text (FormatInt) against
// snprintf("%d", i). Prints the mismatches (at most 20 of each) and the
// totals; exit status 0 only when nothing differs. Not part of CI: it takes
// about half an hour of CPU time, split over the threads given (default 2).
// The patterns go in 256 blocks of 2^24 (block b starts at b << 24); a range
// of blocks can be checked on its own, to split the work over several runs:
//
//   nice build-bench-release/bench/qvn_float_format_check [threads [first last]]
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/log_format.h"

namespace {

std::atomic<uint64_t> g_float_bad{0};
std::atomic<uint64_t> g_int_bad{0};
std::atomic<uint64_t> g_done{0};

void Report(const char *what, uint32_t bits, const char *want, const char *got,
            std::atomic<uint64_t> &bad) {
  if (bad.fetch_add(1) < 20) {
    fprintf(stderr, "%s mismatch at 0x%08" PRIx32 ": libc \"%s\", ours \"%s\"\n", what, bits, want,
            got);
  }
}

void Check(uint64_t first, uint64_t last) {
  char want[400];
  char got[400];
  for (uint64_t b = first; b < last; ++b) {
    const uint32_t bits = static_cast<uint32_t>(b);
    float f;
    memcpy(&f, &bits, sizeof f);
    snprintf(want, sizeof want, "%f", static_cast<double>(f));
    *qvn::FormatFixed6(f, got) = '\0';
    if (strcmp(want, got) != 0) Report("%f", bits, want, got, g_float_bad);

    int32_t i;
    memcpy(&i, &bits, sizeof i);
    snprintf(want, sizeof want, "%d", i);
    *qvn::FormatInt(i, got) = '\0';
    if (strcmp(want, got) != 0) Report("%d", bits, want, got, g_int_bad);

    if ((b & 0xffffffu) == 0xffffffu) {
      const uint64_t n = g_done.fetch_add(1) + 1;
      fprintf(stderr, "block %" PRIu64 " done (%" PRIu64 " so far)\n", b >> 24, n);
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  const int threads = argc > 1 ? atoi(argv[1]) : 2;
  const int first = argc > 3 ? atoi(argv[2]) : 0;
  const int last = argc > 3 ? atoi(argv[3]) : 255;
  if (threads < 1 || threads > 64 || argc == 3 || argc > 4 || first < 0 || last > 255 ||
      first > last) {
    fprintf(stderr, "usage: %s [threads 1-64 [first_block last_block, 0-255]]\n", argv[0]);
    return 2;
  }
  const uint64_t block = uint64_t{1} << 24;
  const uint64_t begin = static_cast<uint64_t>(first) * block;
  const uint64_t total = static_cast<uint64_t>(last + 1) * block;
  // Interleaved blocks of 2^24 patterns, so that every thread gets its share
  // of the slow large exponents.
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([t, threads, begin, total, block] {
      for (uint64_t start = begin + static_cast<uint64_t>(t) * block; start < total;
           start += static_cast<uint64_t>(threads) * block) {
        Check(start, start + block);
      }
    });
  }
  for (std::thread &th : pool) th.join();
  printf("blocks %d-%d: checked %" PRIu64 " float and as many int bit patterns: %" PRIu64
         " float mismatches, %" PRIu64 " int mismatches\n",
         first, last, total - begin, g_float_bad.load(), g_int_bad.load());
  return (g_float_bad.load() == 0 && g_int_bad.load() == 0) ? 0 : 1;
}
