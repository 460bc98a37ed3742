// Fusion operations: one fusion step on each path, a whole magnetometer
// sample of a phone without a gyroscope, and the seven getters.
//
// With a hardware gyroscope (hwGyro 1) the step is QVN_CaliApiSetGyroData,
// timed as the host calls it. Without one (hwGyro 0) the step runs inside
// QVN_DoCaliAPI after the calibration step, so it is timed by calling the
// exported qvn_SetFusionData on the library's own stores, exactly as that
// entry does; the whole entry is measured beside it. Between steps the
// calibrated field store receives the stream's field minus its known
// offset, which is what the calibration step would hand on.
#include "api/api.h"
#include "bench_support.h"
#include "fusion/fusion.h"

namespace qvn_bench {
namespace {

constexpr double kWarmupSeconds = 10.0;
const QvnLibApiTable &Api() { return MAG_LIB_API_INTERFACE; }

void StoreCalibratedField(const SensorEvent &m) {
  const float *o = StreamOffset();
  g_fusion_mag = Vec3f{m.x - o[0], m.y - o[1], m.z - o[2]};
}

// ---- hwGyro 1: fusion at the gyroscope rate ----
void RunHwGyroStep() {
  for (;;) {
    const Event ev = NextEvent();
    if (ev.sensor == qvn_test::Sensor::kAcc) {
      Api().QVN_CaliApiSetAccelData(&ev.e);
    } else if (ev.sensor == qvn_test::Sensor::kMag) {
      StoreCalibratedField(ev.e);
    } else {
      Api().QVN_CaliApiSetGyroData(&ev.e);
      return;
    }
  }
}

void HwGyro(Log log) {
  ResetLibrary(1, log, CurrentFile::kPresent);
  Replay(kWarmupSeconds);
}
void SetupHwGyro() { HwGyro(Log::kSilent); }
void SetupHwGyroDropped() { HwGyro(Log::kDropped); }
void SetupHwGyroWritten() { HwGyro(Log::kWritten); }

// ---- hwGyro 0: fusion at the magnetometer rate, with a soft gyroscope ----
void RunNoGyroStep() {
  for (;;) {
    const Event ev = NextEvent();
    if (ev.sensor == qvn_test::Sensor::kAcc) {
      Api().QVN_CaliApiSetAccelData(&ev.e);
    } else if (ev.sensor == qvn_test::Sensor::kGyr) {
      Api().QVN_CaliApiSetGyroData(&ev.e);
    } else {
      StoreCalibratedField(ev.e);
      qvn_SetFusionData(&g_acc_data, &g_fusion_mag, &g_gyr_data,
                        static_cast<uint64_t>(ev.e.timestamp));
      return;
    }
  }
}

void NoGyro(uint8_t variant, Log log) {
  ResetLibrary(0, log, CurrentFile::kPresent);
  g_slect_swgyro_mode = variant;  // after the profile, which selects 2
  Replay(kWarmupSeconds);
}
void SetupSoftGyro1() { NoGyro(1, Log::kSilent); }
void SetupSoftGyro2() { NoGyro(2, Log::kSilent); }
void SetupSoftGyro1Dropped() { NoGyro(1, Log::kDropped); }
void SetupSoftGyro2Dropped() { NoGyro(2, Log::kDropped); }
void SetupSoftGyro1Written() { NoGyro(1, Log::kWritten); }
void SetupSoftGyro2Written() { NoGyro(2, Log::kWritten); }

// ---- a whole magnetometer sample without a gyroscope: calibration + fusion ----
CaliResult g_out;
void RunNoGyroMagSample() {
  const SensorEvent m = FeedUntilMag();
  Api().QVN_CaliApiSetMagData(&m);
  Api().QVN_DoCaliAPI(&m, &g_out);
}

// ---- getters ----
FusionEvent g_event;
void SetupGetters() { HwGyro(Log::kSilent); }
void RunGravity() { Api().QVN_FusionGetGravity(&g_event); }
void RunRotationVector() { Api().QVN_FusionGetRotationVector(&g_event); }
void RunOrientation() { Api().QVN_FusionGetOrientation(&g_event); }
void RunLinear() { Api().QVN_FusionGetLinearaccel(&g_event); }
void RunGameRotationVector() { Api().QVN_FusionGetGameRotationVector(&g_event); }
void RunGeoMagnetic() { Api().QVN_FusionGetGeoMagnetic(&g_event); }
void RunVirtualGyro() { Api().QVN_FusionGetVirtualGyro(&g_event); }

}  // namespace

std::vector<Operation> FusionOperations() {
  const char *step_target = "<= 500 ns";
  return {
      {"fusion_step/hw_gyro", step_target, SetupHwGyro, nullptr, RunHwGyroStep},
      {"fusion_step/no_gyro/soft_gyro_1", step_target, SetupSoftGyro1, nullptr, RunNoGyroStep},
      {"fusion_step/no_gyro/soft_gyro_2", step_target, SetupSoftGyro2, nullptr, RunNoGyroStep},
      {"fusion_step/hw_gyro/log_dropped", "-", SetupHwGyroDropped, nullptr, RunHwGyroStep},
      {"fusion_step/hw_gyro/log_written", "<= 3 us", SetupHwGyroWritten, nullptr, RunHwGyroStep},
      {"fusion_step/no_gyro/soft_gyro_1/log_dropped", "-", SetupSoftGyro1Dropped, nullptr,
       RunNoGyroStep},
      {"fusion_step/no_gyro/soft_gyro_1/log_written", "<= 3 us", SetupSoftGyro1Written, nullptr,
       RunNoGyroStep},
      {"fusion_step/no_gyro/soft_gyro_2/log_dropped", "-", SetupSoftGyro2Dropped, nullptr,
       RunNoGyroStep},
      {"fusion_step/no_gyro/soft_gyro_2/log_written", "<= 3 us", SetupSoftGyro2Written, nullptr,
       RunNoGyroStep},
      {"mag_sample/no_gyro/soft_gyro_2", "-", SetupSoftGyro2, nullptr, RunNoGyroMagSample},
      {"getter/gravity", "-", SetupGetters, nullptr, RunGravity},
      {"getter/rotation_vector", "-", SetupGetters, nullptr, RunRotationVector},
      {"getter/orientation", "-", SetupGetters, nullptr, RunOrientation},
      {"getter/linear_acceleration", "-", SetupGetters, nullptr, RunLinear},
      {"getter/game_rotation_vector", "-", SetupGetters, nullptr, RunGameRotationVector},
      {"getter/geomagnetic_rotation_vector", "-", SetupGetters, nullptr, RunGeoMagnetic},
      {"getter/virtual_gyro", "-", SetupGetters, nullptr, RunVirtualGyro},
  };
}

}  // namespace qvn_bench
