/*
 * Host layer of libqvnlib: what a careful sensor service does around the
 * bare entry table, in one small library.
 *
 * The layer loads the core with dlopen (as the service does), keeps a copy of
 * the core's writable data taken right after loading, and then stands between
 * the service and the entry table:
 *
 *  - input hygiene: a sample with a non-finite value, with a component beyond
 *    the limit set for its sensor, or whose timestamp goes back in time for
 *    its sensor is not passed on; it is counted by reason;
 *  - order and clock: with hwGyro = 1, gyroscope samples are held back until
 *    a magnetometer sample has been taken by the core (it has established the
 *    sample rate, so the start-up ramp has a length). A clock that starts at 0,
 *    whose first magnetometer sample the core drops as a repeated timestamp,
 *    only holds the gyroscope one sample longer;
 *  - recovery: after every step the layer looks at the outputs and at the
 *    filter states; when one is not finite it returns the core to its
 *    load-time state (every writable byte, restored from the copy), runs
 *    QVN_CaliInitLib, re-applies the host's tunable set and the last good
 *    calibration, and repeats the step. A core that breaks again within ten
 *    steps of a recovery is recovered without the host's tunable set, which
 *    stays out until the host changes it. Recoveries are counted and logged
 *    at most once per log interval of sample time;
 *  - calibration kept across reboots: the last good offset, its accuracy and
 *    the host's tunable set are written to a file (temporary file, fsync,
 *    rename) and read back at start; a truncated, corrupt or foreign file is
 *    refused with a reason and the core starts from its defaults.
 *
 * One calling thread, as for the core itself; nothing is allocated per sample.
 * The layer drives one core per process (the core's state is process-wide).
 * Usable from C99 and C++.
 */
#ifndef QVNLIB_HOST_LAYER_H
#define QVNLIB_HOST_LAYER_H

#include <stddef.h>
#include <stdint.h>

#include "qvnlib/qvnlib.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QVN_LAYER_API __attribute__((visibility("default")))
#else
#define QVN_LAYER_API
#endif

/* Sensors, as indices of the counters. */
enum { QVN_LAYER_ACC = 0, QVN_LAYER_GYRO = 1, QVN_LAYER_MAG = 2, QVN_LAYER_SENSORS = 3 };

/* What a per-sample call did with the sample. */
enum {
  QVN_LAYER_PASSED = 0,      /* handed to the core */
  QVN_LAYER_NON_FINITE = 1,  /* dropped: NaN or infinity in x, y or z */
  QVN_LAYER_OUT_OF_RANGE = 2,/* dropped: |x|, |y| or |z| above the sensor's limit */
  QVN_LAYER_CLOCK = 3,       /* dropped: earlier than this sensor's previous sample */
  QVN_LAYER_HELD = 4,        /* gyroscope held back: no magnetometer sample taken yet */
  QVN_LAYER_RECOVERED = 5,   /* handed to the core, and the core was recovered after it */
  QVN_LAYER_NOT_OPEN = -1
};

/* The fusion outputs, in the order of the entry table. */
typedef enum QvnLayerOutput {
  QVN_LAYER_GRAVITY = 0,
  QVN_LAYER_ROTATION_VECTOR,
  QVN_LAYER_ORIENTATION,
  QVN_LAYER_LINEAR_ACCEL,
  QVN_LAYER_GAME_ROTATION_VECTOR,
  QVN_LAYER_GEOMAGNETIC,
  QVN_LAYER_VIRTUAL_GYRO,
  QVN_LAYER_OUTPUTS
} QvnLayerOutput;

typedef struct QvnLayerConfig {
  const char *library_path; /* the core to dlopen; NULL: "libqvnlib.so" */
  ChipInfo chip;            /* handed to QVN_CaliInitLib */
  /* Physical limits per sensor (|component| above it is dropped); 0 keeps the
   * default: 160 m/s^2, 35 rad/s, 3000 uT. */
  float limit[QVN_LAYER_SENSORS];
  /* Calibration file; NULL or "": nothing is read or written. */
  const char *state_path;
  /* Seconds of sample time between two automatic saves of a changed
   * calibration; 0 keeps the default of 60, a negative value saves only on
   * qvn_layer_save and qvn_layer_close. */
  double save_interval_s;
  /* Seconds of sample time between two log lines about recoveries; 0 keeps
   * the default of 10. */
  double log_interval_s;
} QvnLayerConfig;

/* Fills *config with the defaults (every field 0 or NULL but the chip's
 * hwGyro, which is set to 1). */
QVN_LAYER_API void qvn_layer_default_config(QvnLayerConfig *config);

/* Loads the core, takes the copy of its writable data, reads the calibration
 * file and initialises the core. Returns 0, or -1 with the reason in error
 * (the core could not be loaded, or the layer is open already). A refused
 * calibration file is not an error: the core starts from its defaults and
 * qvn_layer_counters says why. The core must not have been called before:
 * the copy is what the layer restores. */
QVN_LAYER_API int qvn_layer_open(const QvnLayerConfig *config, char *error, size_t error_size);

/* Saves the calibration (if a file is configured and it changed), restores
 * the core's load-time state and releases the core. */
QVN_LAYER_API void qvn_layer_close(void);

/* Per-sample calls. They return one of the QVN_LAYER_* codes above. */
QVN_LAYER_API int qvn_layer_set_accel(const SensorEvent *event);
QVN_LAYER_API int qvn_layer_set_gyro(const SensorEvent *event);
/* QVN_CaliApiSetMagData and QVN_DoCaliAPI with the same sample. out is
 * written only when the sample was passed (codes 0 and 5). */
QVN_LAYER_API int qvn_layer_set_mag(const SensorEvent *event, CaliResult *out);

/* One fusion output through its QVN_FusionGet* entry. Returns 0, or -1 when
 * the layer is not open or which is out of range. */
QVN_LAYER_API int qvn_layer_get(QvnLayerOutput which, FusionEvent *out);

/* The offset in use (QVN_CaliApiGetOffset). */
QVN_LAYER_API int qvn_layer_get_offset(float out[3]);
/* Hands an offset to the core, as QVN_CaliApiSetOffset, unless a value is
 * not finite or beyond the magnetometer's limit: then returns
 * QVN_LAYER_NON_FINITE or QVN_LAYER_OUT_OF_RANGE and changes nothing. */
QVN_LAYER_API int qvn_layer_set_offset(const float in[3]);

/* Adds to the host's tunable set: size bytes written at byte_offset into the
 * exported variable name, now (before and after a re-initialisation) and
 * after every recovery; kept in the calibration file. A later write of the
 * same bytes replaces an earlier one. Returns 0, or -1 when the name is not
 * exported, the bytes do not fit inside the variable, or the set is full
 * (64 writes of at most 8 bytes). */
QVN_LAYER_API int qvn_layer_set_tunable(const char *name, size_t byte_offset, const void *value,
                                        size_t size);
/* Empties the host's tunable set (the values in the core stay until the next
 * recovery). */
QVN_LAYER_API void qvn_layer_clear_tunables(void);

/* Does now what a recovery does: load-time state, initialisation, the host's
 * tunable set, the last good calibration; for a host that has changed its
 * tunable set (values that initialisation copies need it). Not counted as a
 * recovery. Returns 0, or -1 when the layer is not open. */
QVN_LAYER_API int qvn_layer_recover(void);

/* Returns every writable byte of the core (all variables, exported or not)
 * to its value right after loading, as if the library had just been loaded,
 * and forgets the layer's own per-run state (clock, held gyroscope). Nothing
 * is re-initialised or re-applied: call QVN_CaliInitLib (or
 * qvn_layer_recover) before driving the core again. For replaying several
 * recordings in one process from the same start. Returns 0, or -1 when the
 * layer is not open. */
QVN_LAYER_API int qvn_layer_reset_to_load_state(void);

/* Writes the calibration file now. Returns 0, or -1 with the reason. */
QVN_LAYER_API int qvn_layer_save(char *error, size_t error_size);

/* Forgets the last good calibration (recoveries then start from offset 0,
 * accuracy 0) without touching the file. */
QVN_LAYER_API void qvn_layer_forget_calibration(void);

/* The last good calibration that a recovery re-applies: returns 1 and fills
 * offset and accuracy, or 0 when there is none (0 and 0 are written). */
QVN_LAYER_API int qvn_layer_get_kept_calibration(float offset[3], int16_t *accuracy);
/* Replaces it (for a host that keeps the calibration elsewhere); it takes
 * effect at the next recovery. Refused (-1) when an offset value is not
 * finite or beyond the magnetometer's limit, or accuracy is outside 0..3. */
QVN_LAYER_API int qvn_layer_set_kept_calibration(const float offset[3], int16_t accuracy);

/* How the calibration file was met at qvn_layer_open. */
enum {
  QVN_LAYER_FILE_LOADED = 0,
  QVN_LAYER_FILE_NONE = 1,     /* no file configured, or none there yet */
  QVN_LAYER_FILE_REFUSED = 2   /* see load_message */
};

typedef struct QvnLayerCounters {
  uint64_t passed[QVN_LAYER_SENSORS];
  uint64_t non_finite[QVN_LAYER_SENSORS];
  uint64_t out_of_range[QVN_LAYER_SENSORS];
  uint64_t clock[QVN_LAYER_SENSORS];
  uint64_t held_gyro;
  uint64_t offsets_refused;
  uint64_t recoveries;
  /* Times the host's tunable set was left out: the core broke again within
   * ten steps of a recovery that had re-applied it. It stays out until
   * qvn_layer_set_tunable, qvn_layer_clear_tunables or qvn_layer_recover. */
  uint64_t tunables_suspended;
  int64_t first_recovery_ns; /* sample time of the first recovery, 0 if none */
  int64_t last_recovery_ns;
  uint64_t saves;
  uint64_t save_failures;
  int32_t load_status;       /* QVN_LAYER_FILE_* */
  char load_message[160];    /* why a file was refused, or what was loaded */
} QvnLayerCounters;

/* Copies the counters. Returns 0, or -1 when the layer is not open. */
QVN_LAYER_API int qvn_layer_counters(QvnLayerCounters *out);

/* The core's handle (from dlopen), for dlsym by name; NULL when not open. */
QVN_LAYER_API void *qvn_layer_library_handle(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QVNLIB_HOST_LAYER_H */
