// Host stand-in for the phone's platform services (libqvnhost.so).
//
// property_get behaves as the platform's: it copies the value of key (or the
// default when the key is unset) into value, cut at QVN_PROPERTY_VALUE_MAX - 1
// characters, and returns its length. Values are held in a small in-process
// table that tests and tools fill with qvn_host_property_set.
//
// The power-supply files are read from "<root>/sys/class/power_supply/...";
// the root is empty (the real paths) unless QVN_SYSFS_ROOT is set in the
// environment or qvn_host_set_sysfs_root is called.
#ifndef QVNLIB_PLATFORM_HOST_HOST_PLATFORM_H
#define QVNLIB_PLATFORM_HOST_HOST_PLATFORM_H

#ifdef __cplusplus
extern "C" {
#endif

#define QVN_HOST_API __attribute__((visibility("default")))

QVN_HOST_API int property_get(const char *key, char *value, const char *default_value);

// Sets key to value (NULL removes the key). Returns 0, or -1 when the table is
// full or the key is too long.
QVN_HOST_API int qvn_host_property_set(const char *key, const char *value);
QVN_HOST_API void qvn_host_property_clear(void);
// Makes every property_get fail with -1 (an unreadable property store).
QVN_HOST_API void qvn_host_property_set_unreadable(int unreadable);

// Root folder prepended to the power-supply paths; NULL or "" for the real ones.
QVN_HOST_API void qvn_host_set_sysfs_root(const char *root);
QVN_HOST_API const char *qvn_host_power_supply_path(int which);

#ifdef __cplusplus
}
#endif

#endif  // QVNLIB_PLATFORM_HOST_HOST_PLATFORM_H
