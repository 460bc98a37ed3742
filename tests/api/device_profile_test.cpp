// Device profile: the variant is chosen from "ro.boot.hwname" at every
// initialisation and the profile's tunables win over a host's earlier writes.
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "api/api.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "platform/host/host_platform.h"
#include <android/log.h>

#include "support/log_capture.h"

namespace {

const float kNfcMatrix[9] = {1.0144f, -0.0366f, 0.0109f, -0.0249f, 0.9187f,
                             0.00795f, 0.00625f, -0.0198f, 1.0741f};
const float kNonNfcMatrix[9] = {0.9356f, -0.0447f, 0.0172f, -0.0327f, 1.0337f,
                                0.0091f, 0.0611f, 0.0738f, 1.0374f};

struct HwNameCase {
  const char *hwname;  // nullptr: the property store cannot be read
  int32_t nfc;
  const char *variant_line;  // nullptr: no variant line
  int variant_priority;
  const char *read_line;
};

class HwName : public ::testing::TestWithParam<HwNameCase> {};

TEST_P(HwName, SelectsTheVariantWithItsLines) {
  const HwNameCase c = GetParam();
  if (c.hwname != nullptr) {
    qvn_host_property_set("ro.boot.hwname", c.hwname);
  } else {
    qvn_host_property_set_unreadable(1);
  }
  qvn_test::LogCapture log;
  EXPECT_EQ(qvn_hasNFC(), c.nfc);
  EXPECT_EQ(hashasNFC, c.nfc);
  EXPECT_EQ(log.Count("QVN_K7Q_nfc_flag"), c.variant_line != nullptr ? 1 : 0);
  if (c.variant_line != nullptr) {
    const qvn_test::LogLine *l = log.Find("QVN_K7Q_nfc_flag");
    EXPECT_EQ(l->text, c.variant_line);
    EXPECT_EQ(l->priority, c.variant_priority);
    EXPECT_EQ(log.CountExact(c.read_line), 1);
  }
  EXPECT_EQ(log.CountExact(std::string("qvn_cali has NFC:") + (c.nfc ? "1" : "0") + "\n"), 1);
  EXPECT_EQ(log.CountExact("QVN_property read failed 1, len -1\n: "), c.hwname == nullptr ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Variants, HwName,
    ::testing::Values(
        HwNameCase{"vask", 1, "QVN_K7Q_nfc_flag nfc has_NFC 1\n:", ANDROID_LOG_ERROR,
                   "QVN_k7q_nfc_read  vask\n:"},
        HwNameCase{"vask_global", 1, "QVN_K7Q_nfc_flag nfc has_NFC 1\n:", ANDROID_LOG_ERROR,
                   "QVN_k7q_nfc_read  vask_global\n:"},
        HwNameCase{"trel", 0, "QVN_K7Q_nfc_flag nonfc has_NFC 0\n:", ANDROID_LOG_DEBUG,
                   "QVN_k7q_nfc_read trel\n:"},
        HwNameCase{"vas", 0, nullptr, 0, nullptr}, HwNameCase{"other", 0, nullptr, 0, nullptr},
        HwNameCase{nullptr, 0, nullptr, 0, nullptr}));

TEST(DeviceProfile, OverlongPropertyIsCutAndStillRecognised) {
  std::string longname = "vask" + std::string(200, 'x');
  qvn_host_property_set("ro.boot.hwname", longname.c_str());
  qvn_test::LogCapture log;
  EXPECT_EQ(qvn_hasNFC(), 1);
  const qvn_test::LogLine *l = log.Find("QVN_k7q_nfc_read");
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->text.size(), strlen("QVN_k7q_nfc_read  ") + 91 + strlen("\n:"));
}

struct VariantCase {
  const char *hwname;
  const float *matrix;
  float charging[3];
};

class VariantInit : public ::testing::TestWithParam<VariantCase> {};

TEST_P(VariantInit, InitInstallsTheVariantsMatrixAndProfile) {
  const VariantCase c = GetParam();
  qvn_host_property_set("ro.boot.hwname", c.hwname);
  // A host's write before initialisation is overwritten by the profile.
  g_lpf_acc_ratio = 0.123f;
  g_mag_id = 2;
  g_qvn_caliMethod = 0;
  qvn_test::LogCapture log;
  ChipInfo info = {0, 0, 0};
  QVN_CaliInitLib(&info);
  EXPECT_EQ(g_lpf_acc_ratio, 0.84f);
  EXPECT_EQ(g_mag_id, 8);
  EXPECT_EQ(mag_field_range, 2200.0f);
  EXPECT_EQ(g_qvn_caliMethod, 2);
  EXPECT_EQ(g_slect_swgyro_mode, 2);
  EXPECT_EQ(k7q_interference_threshold, 450.0f);
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(g_default_sfi_array[i], c.matrix[i]) << i;
    EXPECT_EQ(static_sfi[i], c.matrix[i]) << i;
  }
  EXPECT_TRUE(comp_charging_x == c.charging[0] && comp_charging_y == c.charging[1] &&
              comp_charging_z == c.charging[2]);
  char first[64];
  snprintf(first, sizeof first, "qvn_cali g_default_sfi_array [0-2] ,%f,%f,%f",
           static_cast<double>(c.matrix[0]), static_cast<double>(c.matrix[1]),
           static_cast<double>(c.matrix[2]));
  EXPECT_EQ(log.CountExact(first), 1);
  EXPECT_EQ(log.Count("qvn_cali g_default_sfi_array [6-8] ,"), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Variants, VariantInit,
    ::testing::Values(VariantCase{"vask", kNfcMatrix, {0.0004917f, 0.0014395f, 0.00197f}},
                      VariantCase{"trel", kNonNfcMatrix, {0.0004415f, 0.0009354f, 0.00195f}},
                      VariantCase{"", kNonNfcMatrix, {0.0004415f, 0.0009354f, 0.00195f}}));

}  // namespace
