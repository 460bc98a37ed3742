// Host implementation of the platform services that libqvnlib uses on a
// phone: a system-property table and the location of the power-supply files.
#include "platform/host/host_platform.h"

#include <stdlib.h>
#include <string.h>

#include "platform/platform.h"

namespace {

constexpr int kMaxProperties = 32;
constexpr int kMaxKey = 64;

struct Property {
  char key[kMaxKey];
  char value[QVN_PROPERTY_VALUE_MAX];
  bool used;
};

Property g_properties[kMaxProperties];

constexpr const char *kRelativePaths[] = {
    "/sys/class/power_supply/battery/current_now",
    "/sys/class/power_supply/usb/charge_type",
    "/sys/class/power_supply/usb/online",
    "/sys/class/power_supply/ac/online",
};
constexpr int kPathCount = 4;
constexpr int kMaxPath = 512;

char g_paths[kPathCount][kMaxPath];
bool g_paths_ready = false;
bool g_unreadable = false;

Property *Find(const char *key) {
  for (Property &p : g_properties) {
    if (p.used && strcmp(p.key, key) == 0) return &p;
  }
  return nullptr;
}

// Cuts a value the way the platform does: at most VALUE_MAX - 1 characters.
void CopyValue(char *dst, const char *src) {
  size_t n = strlen(src);
  if (n > QVN_PROPERTY_VALUE_MAX - 1) n = QVN_PROPERTY_VALUE_MAX - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
}

void ComposePaths(const char *root) {
  if (root == nullptr) root = "";
  for (int i = 0; i < kPathCount; ++i) {
    size_t r = strlen(root);
    size_t p = strlen(kRelativePaths[i]);
    if (r + p + 1 > sizeof(g_paths[i])) r = sizeof(g_paths[i]) - p - 1;
    memcpy(g_paths[i], root, r);
    memcpy(g_paths[i] + r, kRelativePaths[i], p + 1);
  }
  g_paths_ready = true;
}

}  // namespace

extern "C" int property_get(const char *key, char *value, const char *default_value) {
  if (g_unreadable) return -1;
  const Property *p = (key != nullptr) ? Find(key) : nullptr;
  // As on the platform, an empty value falls back to the default.
  if (p != nullptr && p->value[0] != '\0') {
    CopyValue(value, p->value);
  } else if (default_value != nullptr) {
    CopyValue(value, default_value);
  } else {
    value[0] = '\0';
  }
  return static_cast<int>(strlen(value));
}

extern "C" int qvn_host_property_set(const char *key, const char *value) {
  if (key == nullptr || strlen(key) >= static_cast<size_t>(kMaxKey)) return -1;
  Property *p = Find(key);
  if (value == nullptr) {
    if (p != nullptr) p->used = false;
    return 0;
  }
  if (p == nullptr) {
    for (Property &q : g_properties) {
      if (!q.used) {
        p = &q;
        break;
      }
    }
    if (p == nullptr) return -1;
    strcpy(p->key, key);
    p->used = true;
  }
  CopyValue(p->value, value);
  return 0;
}

extern "C" void qvn_host_property_clear(void) {
  for (Property &p : g_properties) p.used = false;
}

extern "C" void qvn_host_set_sysfs_root(const char *root) { ComposePaths(root); }

extern "C" const char *qvn_host_power_supply_path(int which) {
  if (!g_paths_ready) ComposePaths(getenv("QVN_SYSFS_ROOT"));
  if (which < 0 || which >= kPathCount) which = 0;
  return g_paths[which];
}

extern "C" void qvn_host_property_set_unreadable(int unreadable) { g_unreadable = unreadable != 0; }
