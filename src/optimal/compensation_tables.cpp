// Selection of the trap-compensation profile.
//
// The working table trap_compensation_table holds, for each whole degree
// i = 0..22 of distance from the nearest multiple of 45 degrees, the fraction
// of that distance by which the tilt compensation moves the azimuth. Modes 1..5
// copy one of the compiled-in profiles into it; mode 0 fills it with zeros,
// which turns the compensation's effect off; any other mode leaves it alone.
// The profiles themselves are defined with the rest of the conditioning state.
#include <string.h>

#include "optimal/optimal.h"

namespace {

constexpr uint16_t kModeOff = 0;
constexpr uint16_t kModeLast = 5;

// Profile of each mode 1..5; index 0 (mode 0) is handled by zero fill.
const float *const kProfiles[kModeLast + 1] = {
    nullptr,
    trap_compensation_table_7_12,
    trap_compensation_table_8_13,
    trap_compensation_table_8_16,
    trap_compensation_table_10_16,
    trap_compensation_table_12_17,
};

}  // namespace

void config_optimal_mode(uint16_t mode) {
  if (mode == kModeOff) {
    memset(trap_compensation_table, 0, sizeof trap_compensation_table);
    return;
  }
  // Unknown modes (6, 65535, ...) keep whatever table is loaded, including
  // the initial profile that no mode selects again.
  if (mode > kModeLast) return;
  memcpy(trap_compensation_table, kProfiles[mode], sizeof trap_compensation_table);
}
