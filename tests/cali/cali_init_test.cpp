// Calibration start-up: field range per chip, the kept offset, and what a
// re-initialisation keeps.
#include <gtest/gtest.h>

#include "api/api.h"
#include "cali/cali.h"
#include "platform/host/host_platform.h"

namespace {

TEST(CaliInit, FieldRangePerChip) {
  const int16_t ids[] = {0, 7, 8, 9, 10, -1};
  const float ranges[] = {1200, 1600, 2200, 3000, 3000, 1200};  // a negative id: the first chip
  for (int i = 0; i < 6; ++i) {
    qvn_chip_initial(ids[i]);
    EXPECT_EQ(mag_field_range, ranges[i]) << "id " << ids[i];
  }
}

TEST(CaliInit, ReinitialisationKeepsLearnedStateAndRestoresOffset) {
  qvn_host_set_sysfs_root("/nonexistent-qvn-sysfs");
  const ChipInfo chip = {0, 0, 1};
  QVN_CaliInitLib(&chip);
  cali_radius = 47.5f;  // as a calibration run leaves things
  qvn_algo_odr = 50;
  dsc_data_size = 100;
  sfi_array[3] = 0.05f;
  qvn_caliParameter[0] = 1234;
  qvn_caliParameter[1] = -50;
  g_accuracy = 3;
  cali_first = 1;
  QVN_CaliInitLib(&chip);
  EXPECT_EQ(cali_radius, 47.5f);
  EXPECT_EQ(qvn_algo_odr, 50);
  EXPECT_EQ(dsc_data_size, 100);
  EXPECT_EQ(cali_first, 0);  // the next sample applies the measured rate again
  EXPECT_EQ(sfi_array[3], 0.0f);
  EXPECT_FLOAT_EQ(hdi_array[0], 12.34f);  // kept in hundredths of a uT
  EXPECT_FLOAT_EQ(hdi_array[1], -0.5f);
  EXPECT_EQ(qvn_accuracy, 3);
  EXPECT_EQ(mag_cali_mode, 2);  // the profile's ball method
  EXPECT_EQ(mag_radius_min, 25.0f);
}

}  // namespace
