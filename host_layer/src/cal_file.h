// The calibration file: the last good offset, its accuracy and the host's
// tunable set, kept across reboots.
//
// A small text file, so that an integrator can read it:
//
//   qvnlib-calibration 1
//   offset 12.3400002 -5 40.25
//   accuracy 3
//   tunable g_kmf_q 0 0ad7233c
//   checksum 1a2b3c4d
//
// The checksum is the CRC-32 of every byte before its line. It is written to
// a temporary file in the same folder, flushed to the disk and renamed over
// the old one, so a reader sees the old file or the new one, never a mix.
#ifndef QVNLIB_HOST_LAYER_CAL_FILE_H
#define QVNLIB_HOST_LAYER_CAL_FILE_H

#include <cstddef>
#include <cstdint>

namespace qvn_layer {

constexpr size_t kMaxTunables = 64;
constexpr size_t kMaxTunableBytes = 8;
constexpr size_t kMaxNameLength = 63;

struct TunableWrite {
  char name[kMaxNameLength + 1];
  uint32_t offset;
  uint32_t size;
  unsigned char bytes[kMaxTunableBytes];
};

struct Calibration {
  bool has_offset = false;
  float offset[3] = {0, 0, 0};
  int16_t accuracy = 0;
  TunableWrite tunables[kMaxTunables];
  size_t tunable_count = 0;
};

// Checks that a name is exported and that size bytes at offset fit inside it.
using TunableCheck = bool (*)(const char *name, uint32_t offset, uint32_t size, void *context);

// Reads path into *cal. Returns 1 when loaded, 0 when there is no file, -1
// when it is refused; the reason (or what was loaded) goes to message. A
// refused file leaves *cal empty.
int ReadCalibration(const char *path, float offset_limit, TunableCheck check, void *context,
                    Calibration *cal, char *message, size_t message_size);

// Formats a message into a caller's buffer; nothing when there is none (a
// null or empty one). The layer's entry points and the file code share it.
void Say(char *message, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Writes cal to path atomically. Returns true, or false with the reason.
// Allocates nothing.
bool WriteCalibration(const char *path, const Calibration &cal, char *message,
                      size_t message_size);

}  // namespace qvn_layer

#endif  // QVNLIB_HOST_LAYER_CAL_FILE_H
