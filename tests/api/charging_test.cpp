// Charging-current compensation and the power-supply readers, with the sysfs
// files redirected into a folder of the test's own.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "api/api.h"
#include "platform/host/host_platform.h"
#include <android/log.h>

#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

// A private power-supply tree; the readers are pointed at it.
class SysfsFolder {
 public:
  SysfsFolder() {
    char tmpl[] = "/tmp/qvn_sysfs_XXXXXX";
    root_ = mkdtemp(tmpl);
    for (const char *d : {"battery", "usb", "ac"}) fs::create_directories(Dir() / d);
    qvn_host_set_sysfs_root(root_.c_str());
  }
  ~SysfsFolder() { fs::remove_all(root_); }
  void Write(const char *rel, const std::string &text) { std::ofstream(Dir() / rel) << text; }

 private:
  fs::path Dir() const { return root_ / "sys/class/power_supply"; }
  fs::path root_;
};

TEST(ChargingComp, ThresholdAndProportionalStep) {
  const float k[3] = {0.0004415f, 0.0009354f, 0.00195f};  // the non-NFC coefficients
  comp_charging_x = k[0], comp_charging_y = k[1], comp_charging_z = k[2];
  for (int32_t current : {-1, -500000, 99999, 100000, 2500000}) {
    float m[3] = {10.0f, 20.0f, 30.0f};
    EXPECT_EQ(qvn_linearCharging_Comp(m, current), m);
    for (int a = 0; a < 3; ++a) {
      const float start = 10.0f * static_cast<float>(a + 1);
      const float comp = start - (k[a] * static_cast<float>(current)) / 1000.0f;
      EXPECT_EQ(m[a], current < 100000 ? start : comp) << current;
    }
  }
  float m[3] = {0.0f, 0.0f, 0.0f};
  qvn_linearCharging_Comp(m, 100000);
  EXPECT_NEAR(m[0], -0.04415f, 1e-7f);
  EXPECT_NEAR(m[1], -0.09354f, 1e-7f);
  EXPECT_NEAR(m[2], -0.195f, 1e-7f);
}

// Missing files: -1 and one ERROR line per read (the current is read once
// per sample), nothing compensated.
TEST(PowerSupplyReaders, MissingFilesLogOncePerRead) {
  SysfsFolder sysfs;
  qvn_test::LogCapture log;
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(get_battery_current(), -1);
    EXPECT_EQ(log.CountExact("qvn_cali  SYS_FS_CURRENT_NOW openfailed"), i);
  }
  EXPECT_EQ(log.Find("SYS_FS_CURRENT_NOW")->priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(get_charge_mode(), -1);
  EXPECT_EQ(log.CountExact("qvn_cali Error open SYS_FS_CHARGE_MODE failed"), 1);
}

TEST(PowerSupplyReaders, NumbersAreReadWithAtoi) {
  SysfsFolder sysfs;
  struct Case {
    const char *text;
    int32_t value;
  } cases[] = {{"123\n", 123}, {"-4500", -4500}, {"abc", 0}, {"", 0}, {"77 trailing", 77},
               // Only the first 32 characters are read: the 33rd digit is not.
               {"0000000000000000000000000000001234", 12}};
  for (const Case &c : cases) {
    sysfs.Write("battery/current_now", c.text);
    sysfs.Write("usb/charge_type", c.text);
    EXPECT_EQ(get_battery_current(), c.value) << c.text;
    EXPECT_EQ(get_charge_mode(), c.value) << c.text;
  }
}

TEST(PowerSupplyReaders, UsbOnlineCombinesBothFiles) {
  struct Case {
    const char *usb;  // nullptr: file missing
    const char *ac;
    int32_t result;
    const char *line;
  } cases[] = {
      {"1", "1", 2, "qvn_cali ret=2"},
      {"0", "1", 2, "qvn_cali ret=2"},
      {"1", "0", 1, "qvn_cali ret=1"},
      {"0\n", "0\n", 0, "qvn_cali ret=0"},
      {nullptr, "1", -1, "qvn_cali Error 2,open SYS_FS_USB_ONLINE failed"},
      {"1", nullptr, -1, "qvn_cali 2 open SYS_FS_AC_ONLINE failed"},
  };
  for (const Case &c : cases) {
    SysfsFolder sysfs;
    if (c.usb != nullptr) sysfs.Write("usb/online", c.usb);
    if (c.ac != nullptr) sysfs.Write("ac/online", c.ac);
    qvn_test::LogCapture log;
    EXPECT_EQ(check_usb_online(), c.result);
    EXPECT_EQ(log.CountExact(c.line), 1) << c.line;  // errno 2 is ENOENT
  }
}

}  // namespace
