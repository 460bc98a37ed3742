// Loading the trap-compensation profiles into the working table.
#include <string.h>

#include <gtest/gtest.h>

#include "optimal/optimal.h"

namespace {

TEST(ConfigOptimalMode, LoadsProfilesAndIgnoresUnknownModes) {
  EXPECT_EQ(trap_compensation_table[8], 0.235f);  // the load-time profile
  config_optimal_mode(6);
  config_optimal_mode(65535);
  EXPECT_EQ(trap_compensation_table[8], 0.235f);

  const float zeros[QVN_TRAP_TABLE_LEN] = {};
  const float *expected[] = {zeros,
                             trap_compensation_table_7_12,
                             trap_compensation_table_8_13,
                             trap_compensation_table_8_16,
                             trap_compensation_table_10_16,
                             trap_compensation_table_12_17};
  for (int mode = 5; mode >= 0; --mode) {  // each load replaces the last
    config_optimal_mode(static_cast<uint16_t>(mode));
    config_optimal_mode(9);
    EXPECT_EQ(0, memcmp(trap_compensation_table, expected[mode], sizeof trap_compensation_table))
        << mode;
  }
  config_optimal_mode(4);
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(trap_compensation_table[i], 0.5f) << i;
  EXPECT_EQ(trap_compensation_table[22], 0.039f);
}

}  // namespace
