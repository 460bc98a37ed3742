// What the library takes from the platform beyond the log: the system
// property reader and the power-supply files of sysfs.
//
// On Android, property_get comes from libcutils and the power-supply paths are
// the kernel's. Host builds link libqvnhost (src/platform/host), which supplies
// property_get with the same semantics over an in-process table and lets tests
// and tools point the power-supply files at a folder of their own.
#ifndef QVNLIB_PLATFORM_PLATFORM_H
#define QVNLIB_PLATFORM_PLATFORM_H

// Longest property value including its terminating NUL.
#define QVN_PROPERTY_VALUE_MAX 92

enum QvnPowerSupplyFile {
  kQvnBatteryCurrentNow = 0,
  kQvnUsbChargeType = 1,
  kQvnUsbOnline = 2,
  kQvnAcOnline = 3,
};

#if defined(__ANDROID__)
#include <cutils/properties.h>

static inline const char *qvn_power_supply_path(int which) {
  static const char *const kPaths[] = {
      "/sys/class/power_supply/battery/current_now",
      "/sys/class/power_supply/usb/charge_type",
      "/sys/class/power_supply/usb/online",
      "/sys/class/power_supply/ac/online",
  };
  return kPaths[which];
}
#else
#include "platform/host/host_platform.h"

static inline const char *qvn_power_supply_path(int which) {
  return qvn_host_power_supply_path(which);
}
#endif

#endif  // QVNLIB_PLATFORM_PLATFORM_H
