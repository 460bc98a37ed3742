// The entry table and the thin entries: where fusion runs, throttled lines,
// the NFC output low-pass, the persisted offset, and the record packing.
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "api/api.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "platform/host/host_platform.h"
#include <android/log.h>

#include "support/log_capture.h"
#include "support/param_name.h"

namespace {

void Init(int8_t hw_gyro) {
  ChipInfo info = {7, 42, hw_gyro};
  MAG_LIB_API_INTERFACE.QVN_CaliInitLib(&info);
}

// A host indexes the table as 16 pointers: slot 0 the name, then the entries.
TEST(EntryTable, SlotsInTheHostsOrder) {
#define QVN_ADDR(f) reinterpret_cast<const void *>(f)
  const void *named[16] = {
      "libqvnlib", QVN_ADDR(QVN_CaliInitLib), QVN_ADDR(QVN_FusionEnableLib),
      QVN_ADDR(QVN_CaliApiGetOffset), QVN_ADDR(QVN_CaliApiSetOffset),
      QVN_ADDR(QVN_CaliApiSetGyroData), QVN_ADDR(QVN_CaliApiSetAccelData),
      QVN_ADDR(QVN_CaliApiSetMagData), QVN_ADDR(QVN_DoCaliAPI), QVN_ADDR(QVN_FusionGetGravity),
      QVN_ADDR(QVN_FusionGetRotationVector), QVN_ADDR(QVN_FusionGetOrientation),
      QVN_ADDR(QVN_FusionGetLinearaccel), QVN_ADDR(QVN_FusionGetGameRotationVector),
      QVN_ADDR(QVN_FusionGetGeoMagnetic), QVN_ADDR(QVN_FusionGetVirtualGyro)};
#undef QVN_ADDR
  static_assert(sizeof(QvnLibApiTable) == sizeof named, "sixteen slots");
  const void *slots[16];
  memcpy(slots, &MAG_LIB_API_INTERFACE, sizeof slots);
  EXPECT_STREQ(static_cast<const char *>(slots[0]), "libqvnlib");
  for (int i = 1; i < 16; ++i) EXPECT_EQ(slots[i], named[i]) << "slot " << i;
}

TEST(Entries, EnableReturnsItsArgumentAndLogsTheVersion) {
  qvn_test::LogCapture log;
  EXPECT_EQ(QVN_FusionEnableLib(7), 7);
  EXPECT_EQ(QVN_FusionEnableLib(-3), -3);
  const qvn_test::LogLine *l = log.Find("qvn_cali enable ver:");
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(l->text, "qvn_cali enable ver:quelbo_k7q_compatible_P2_zq2281d_20240708_v0.37,en:7\n");
}

TEST(Entries, InitLogsTheChipDescription) {
  qvn_test::LogCapture log;
  Init(-1);
  EXPECT_EQ(log.CountExact("qvn_cali init ,chipinfo: layout=7, deviceid=42 , hwGyro =-1 \n"), 1);
}

// Which call runs the fusion step: exactly 1 -> the gyroscope entry, exactly
// 0 -> the calibration entry, anything else -> nowhere.
struct FusionSiteCase {
  const char *name;
  int8_t hw_gyro;
  bool on_gyro;
  bool on_mag;
};

class FusionSite : public ::testing::TestWithParam<FusionSiteCase> {};

TEST_P(FusionSite, RunsFromExactlyOnePlace) {
  const FusionSiteCase c = GetParam();
  Init(c.hw_gyro);
  SensorEvent acc = {5000000000, 0.0f, 0.0f, 9.8f, 0};
  QVN_CaliApiSetAccelData(&acc);
  SensorEvent gyr = {5000000001, 0.0f, 0.0f, 0.0f, 0};
  QVN_CaliApiSetGyroData(&gyr);
  EXPECT_EQ(timestamp_fuison, c.on_gyro ? 5000000001u : 0u);
  SensorEvent mag = {5000000002, 10.0f, 20.0f, -30.0f, 0};
  CaliResult out;
  QVN_CaliApiSetMagData(&mag);
  QVN_DoCaliAPI(&mag, &out);
  EXPECT_EQ(timestamp_fuison, c.on_mag ? 5000000002u : (c.on_gyro ? 5000000001u : 0u));
}

INSTANTIATE_TEST_SUITE_P(HwGyro, FusionSite,
                         ::testing::Values(FusionSiteCase{"one", 1, true, false},
                                           FusionSiteCase{"zero", 0, false, true},
                                           FusionSiteCase{"two", 2, false, false},
                                           FusionSiteCase{"minus_one", -1, false, false}),
                         qvn_test::ByName());

TEST(Entries, SetAccelLogsOnlyWithoutAHardwareGyroscope) {
  qvn_test::LogCapture log;
  Init(1);
  SensorEvent acc = {3000000000, 1.0f, 2.0f, 3.0f, 0};
  QVN_CaliApiSetAccelData(&acc);
  EXPECT_EQ(log.Count("qvn_cali Cali SetAcc:"), 0);
  EXPECT_EQ(acc_timestamp, 3000000000);
  Init(0);
  QVN_CaliApiSetAccelData(&acc);
  EXPECT_EQ(log.CountExact("qvn_cali Cali SetAcc: 1.000000 2.000000 3.000000\n"), 1);
}

TEST(Throttle, AdmitsALineOnlyAfterMoreThanOneSecond) {
  // Timestamps of successive SetMag calls and whether each writes its line.
  struct Step {
    int64_t t;
    bool logged;
  } steps[] = {
      {1000000000, false},  // exactly one second after the initial zero
      {1000000001, true},
      {2000000001, false},
      {2000000002, true},
      {500, false},          // the clock went backwards: silent ...
      {2000000002, false},   // ... until it passes the reference
      {3000000003, true},
  };
  qvn_test::LogCapture log;
  for (const Step &s : steps) {
    log.Clear();
    SensorEvent e = {s.t, 1.5f, -2.0f, 0.25f, 3};
    QVN_CaliApiSetMagData(&e);
    EXPECT_EQ(log.CountExact("qvn_cali Cali SetMag  accur:3,data:1.500000,-2.000000,0.250000\n"),
              s.logged ? 1 : 0)
        << s.t;
  }
}

TEST(Entries, NfcVariantSmoothsOnlyTheHostsCopy) {
  qvn_host_property_set("ro.boot.hwname", "vask");
  Init(2);
  SensorEvent mag = {7000000000, 30.0f, -12.0f, 40.0f, 0};
  CaliResult out;
  memset(&out, 0xAB, sizeof out);
  QVN_DoCaliAPI(&mag, &out);
  EXPECT_EQ(out.x, 0.0f + 0.1f * (g_fusion_mag.x - 0.0f));
  EXPECT_EQ(out.y, 0.0f + 0.1f * (g_fusion_mag.y - 0.0f));
  EXPECT_EQ(out.z, 0.0f + 0.1f * (g_fusion_mag.z - 0.0f));
  EXPECT_NE(g_fusion_mag.x, 0.0f);
  EXPECT_EQ(out.timestamp, 7000000000);
  // Bytes 33..39 are padding that the library never writes.
  const unsigned char *raw = reinterpret_cast<const unsigned char *>(&out);
  for (int i = 33; i < 40; ++i) EXPECT_EQ(raw[i], 0xAB) << i;
}

TEST(Entries, OffsetIsPersistedInHundredths) {
  struct Case {
    float bias;
    int32_t stored;
    float restored;
  } cases[] = {{12.349f, 1234, 12.34f}, {-0.009f, 0, 0.0f}, {-7.5f, -750, -7.5f}};
  Init(2);
  int64_t t = 1000;
  for (const Case &c : cases) {
    const float in[3] = {c.bias, 0.0f, 0.0f};
    QVN_CaliApiSetOffset(in);
    float got[3];
    QVN_CaliApiGetOffset(got);
    EXPECT_EQ(got[0], c.bias);
    SensorEvent mag = {t += 20000000, 30.0f, 0.0f, 40.0f, 0};
    CaliResult out;
    QVN_DoCaliAPI(&mag, &out);
    EXPECT_EQ(out.bias_x, c.bias);
    EXPECT_EQ(qvn_caliParameter[0], c.stored);
  }
}

TEST(Entries, PeriodicSummaryOnThe1002ndCallAndEvery1002After) {
  Init(2);
  qvn_test::LogCapture log;
  int64_t t = 0;
  for (int call = 1; call <= 2004; ++call) {
    SensorEvent mag = {t += 20000000, 30.0f, 0.0f, 40.0f, 0};
    CaliResult out;
    QVN_DoCaliAPI(&mag, &out);
    const int expected = (call >= 2004) ? 2 : (call >= 1002 ? 1 : 0);
    if (call == 1001 || call == 1002 || call == 2003 || call == 2004) {
      EXPECT_EQ(log.Count("qvn_cali comp_charging_x: comp_charging_y: comp_charging_z: "),
                expected)
          << call;
    }
  }
  EXPECT_EQ(log.Count("qvn_cali g_default_sfi_array [0-2] ,"), 2);
  EXPECT_EQ(log.Count("qvn_cali enable ver:quelbo_k7q_compatible_P2_zq2281d_20240708_v0.37,hasNFC0:\n"),
            2);
}

TEST(FusionEntries, PackingTimestampsAndTheGeomagneticTruncation) {
  Init(2);
  qvn_rov[0] = 0.1f;
  qvn_rov[1] = 0.2f;
  qvn_rov[2] = 0.3f;
  qvn_rov[3] = 0.9f;
  qvn_gyr[2] = 0.5f;
  timestamp_fuison = 123456789;
  acc_timestamp = 987654321;
  qvn_accuracy = 3;

  FusionEvent e;
  memset(&e, 0xCD, sizeof e);
  QVN_FusionGetGeoMagnetic(&e);
  EXPECT_EQ(e.values[0], 0.1f);
  EXPECT_EQ(e.values[2], 0.3f);
  EXPECT_EQ(e.values[3], 0.0f);  // the fourth component never reaches the host
  EXPECT_EQ(e.timestamp, 123456789);
  EXPECT_EQ(e.accuracy, 3);
  for (uint8_t b : e.reserved) EXPECT_EQ(b, 0);
  const unsigned char *raw = reinterpret_cast<const unsigned char *>(&e);
  for (int i = 33; i < 40; ++i) EXPECT_EQ(raw[i], 0xCD) << i;

  QVN_FusionGetRotationVector(&e);
  EXPECT_EQ(e.values[3], 0.9f);

  QVN_FusionGetVirtualGyro(&e);
  EXPECT_EQ(e.values[2], 0.5f);
  EXPECT_EQ(e.values[3], 0.0f);
  EXPECT_EQ(e.timestamp, 987654321);  // the accelerometer's time
}

TEST(FusionEntries, EachLineIsThrottledOnItsRecordsTime) {
  Init(2);
  qvn_test::LogCapture log;
  FusionEvent e;
  timestamp_fuison = 1000000000;  // not past the first second: silent
  acc_timestamp = 1000000001;     // the virtual gyroscope's line speaks
  QVN_FusionGetOrientation(&e);
  QVN_FusionGetVirtualGyro(&e);
  EXPECT_EQ(log.Count("qvn_cali Fusion GetOri accuracy:"), 0);
  EXPECT_EQ(log.Count("qvn_cali Fusion GetVirtualGyro accuracy:0 [x,y,z]: "), 1);
  timestamp_fuison = 1000000001;
  QVN_FusionGetOrientation(&e);
  QVN_FusionGetGravity(&e);
  QVN_FusionGetGameRotationVector(&e);
  EXPECT_EQ(log.Count("qvn_cali Fusion GetOri accuracy:0 [x,y,z]: "), 1);
  EXPECT_EQ(log.Count("qvn_cali Fusion GetGravity accuracy:0 [x,y,z]: "), 1);
  EXPECT_EQ(log.Count("qvn_cali Fusion GetGameROV accuracy:0 [0-3]: "), 1);
}

}  // namespace
