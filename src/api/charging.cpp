// Charging-current compensation and the charger-state readers.
//
// While the phone charges, the battery current makes a field at the
// magnetometer that grows with it. Before each calibration step the current
// is read afresh from the kernel's power-supply file and a field linear in it
// is subtracted:  m[a] -= (k[a] * I) / 1000   for I >= 100000 (no offset term:
// the full proportional amount applies from the threshold on). A failed read
// yields -1, which is below the threshold and leaves the sample alone.
//
// Each read opens, reads and closes its file; nothing is cached, so a charger
// plugged in between two samples is seen at the next one.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "api/api.h"
#include "common/log.h"
#include "platform/platform.h"

namespace {

constexpr int32_t kCompensationThreshold = 100000;  // current units
constexpr float kCurrentScale = 1000.0f;            // coefficients are per current / 1000
constexpr int kNumberBytes = 32;                    // longest decimal text read

// Reads up to kNumberBytes of a decimal file; -1 when it cannot be opened.
// The buffer has one byte more than is read, so atoi always sees a NUL.
bool ReadNumber(const char *path, int32_t *value) {
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return false;
  char text[kNumberBytes + 1] = {0};
  const ssize_t got = read(fd, text, kNumberBytes);
  (void)got;  // a failed read leaves the text empty, which atoi reads as 0
  close(fd);
  *value = atoi(text);
  return true;
}

// Reads the first byte of a file; false when it cannot be opened.
bool ReadFlag(const char *path, char *flag) {
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return false;
  char c = 0;
  const ssize_t got = read(fd, &c, 1);
  (void)got;
  close(fd);
  *flag = c;
  return true;
}

}  // namespace

extern "C" {

int32_t get_battery_current(void) {
  int32_t current = 0;
  if (!ReadNumber(qvn_power_supply_path(kQvnBatteryCurrentNow), &current)) {
    // Written for every sample of a phone without the file: ask first.
    if (qvn::LogOn(ANDROID_LOG_ERROR)) QVN_LOGE("qvn_cali  SYS_FS_CURRENT_NOW openfailed");
    return -1;
  }
  return current;
}

int32_t get_charge_mode(void) {
  int32_t mode = 0;
  if (!ReadNumber(qvn_power_supply_path(kQvnUsbChargeType), &mode)) {
    QVN_LOGE("qvn_cali Error open SYS_FS_CHARGE_MODE failed");
    return -1;
  }
  return mode;
}

int32_t check_usb_online(void) {
  char usb = 0;
  if (!ReadFlag(qvn_power_supply_path(kQvnUsbOnline), &usb)) {
    QVN_LOGE("qvn_cali Error %d,open SYS_FS_USB_ONLINE failed", errno);
    return -1;
  }
  char ac = 0;
  if (!ReadFlag(qvn_power_supply_path(kQvnAcOnline), &ac)) {
    QVN_LOGE("qvn_cali %d open SYS_FS_AC_ONLINE failed", errno);
    return -1;
  }
  int32_t ret = 0;
  if (ac == '1') {
    ret = 2;
  } else if (usb == '1') {
    ret = 1;
  }
  QVN_LOGE("qvn_cali ret=%d", ret);
  return ret;
}

float *qvn_linearCharging_Comp(float mag[3], int32_t current) {
  if (current < kCompensationThreshold) return mag;
  const float i = static_cast<float>(current);
  // Multiplication, then the float32 division, then the subtraction.
  mag[0] = mag[0] - (comp_charging_x * i) / kCurrentScale;
  mag[1] = mag[1] - (comp_charging_y * i) / kCurrentScale;
  mag[2] = mag[2] - (comp_charging_z * i) / kCurrentScale;
  return mag;
}

}  // extern "C"
