#include "host_layer/host_driver.h"

#include <dlfcn.h>

#include <cmath>
#include <cstring>

namespace qvn_test {

bool Outputs::AllFinite() const {
  if (!std::isfinite(cal.x) || !std::isfinite(cal.y) || !std::isfinite(cal.z) ||
      !std::isfinite(cal.bias_x) || !std::isfinite(cal.bias_y) || !std::isfinite(cal.bias_z))
    return false;
  for (const FusionEvent &f : fusion) {
    for (float v : f.values) {
      if (!std::isfinite(v)) return false;
    }
  }
  return true;
}

HostDriver::HostDriver(Path path, int8_t hw_gyro, const std::string &hwname,
                       const std::string &state_path)
    : path_(path) {
  std::memset(&chip_, 0, sizeof chip_);
  chip_.hwGyro = hw_gyro;
  // Loaded here first, without calling anything, so that the property store
  // and the power-supply folder can be set; the layer's own dlopen then finds
  // this same, untouched instance.
  handle_ = dlopen(QVN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    error_ = dlerror();
    return;
  }
  auto property_set =
      reinterpret_cast<int (*)(const char *, const char *)>(dlsym(handle_, "qvn_host_property_set"));
  auto sysfs_root = reinterpret_cast<void (*)(const char *)>(dlsym(handle_, "qvn_host_set_sysfs_root"));
  if (property_set == nullptr || sysfs_root == nullptr) {
    error_ = "no host platform hooks";
    return;
  }
  sysfs_root("/nonexistent-power-supply");
  if (!hwname.empty()) property_set("ro.boot.hwname", hwname.c_str());
  api_ = static_cast<const QvnLibApiTable *>(dlsym(handle_, QVNLIB_TABLE_SYMBOL));
  if (path_ == Path::kBare) {
    api_->QVN_CaliInitLib(&chip_);
    api_->QVN_FusionEnableLib(1);
  } else {
    QvnLayerConfig config;
    qvn_layer_default_config(&config);
    config.library_path = QVN_LIB_PATH;
    config.chip = chip_;
    config.state_path = state_path.c_str();
    char why[256];
    if (qvn_layer_open(&config, why, sizeof why) != 0) {
      error_ = why;
      return;
    }
  }
  ok_ = true;
}

HostDriver::~HostDriver() {
  if (path_ == Path::kLayer) qvn_layer_close();
  if (handle_ != nullptr) dlclose(handle_);
}

void *HostDriver::Symbol(const char *name) const { return dlsym(handle_, name); }

int HostDriver::Acc(int64_t t, float x, float y, float z) {
  SensorEvent e = {t, x, y, z, 3};
  if (path_ == Path::kLayer) return qvn_layer_set_accel(&e);
  return api_->QVN_CaliApiSetAccelData(&e);
}

int HostDriver::Gyro(int64_t t, float x, float y, float z) {
  SensorEvent e = {t, x, y, z, 3};
  if (path_ == Path::kLayer) return qvn_layer_set_gyro(&e);
  if (skip_early_gyro && !seen_mag_) return 0;
  return api_->QVN_CaliApiSetGyroData(&e);
}

Outputs HostDriver::Mag(int64_t t, float x, float y, float z) {
  SensorEvent e = {t, x, y, z, 3};
  Outputs o;
  std::memset(static_cast<void *>(&o), 0, sizeof o);
  o.t_ns = t;
  seen_mag_ = true;
  if (path_ == Path::kLayer) {
    if (qvn_layer_set_mag(&e, &o.cal) > QVN_LAYER_PASSED && o.cal.timestamp == 0) {
      // Dropped: the host keeps what the getters say and an offset read back.
      qvn_layer_get_offset(&o.cal.bias_x);
    }
    for (int k = 0; k < QVN_LAYER_OUTPUTS; ++k)
      qvn_layer_get(static_cast<QvnLayerOutput>(k), &o.fusion[k]);
    return o;
  }
  api_->QVN_CaliApiSetMagData(&e);
  api_->QVN_DoCaliAPI(&e, &o.cal);
  const QvnFusionGetFn getters[QVN_LAYER_OUTPUTS] = {
      api_->QVN_FusionGetGravity,          api_->QVN_FusionGetRotationVector,
      api_->QVN_FusionGetOrientation,      api_->QVN_FusionGetLinearaccel,
      api_->QVN_FusionGetGameRotationVector, api_->QVN_FusionGetGeoMagnetic,
      api_->QVN_FusionGetVirtualGyro};
  for (int k = 0; k < QVN_LAYER_OUTPUTS; ++k) getters[k](&o.fusion[k]);
  return o;
}

void HostDriver::SetOffset(const float o[3]) {
  if (path_ == Path::kLayer)
    qvn_layer_set_offset(o);
  else
    api_->QVN_CaliApiSetOffset(o);
}

void HostDriver::Reinitialise() {
  if (path_ == Path::kBare) {
    api_->QVN_CaliInitLib(&chip_);
    seen_mag_ = false;
  }
  // The layer re-initialises by itself when it needs to.
}

std::vector<Outputs> HostDriver::Run(const std::vector<SimEvent> &events,
                                     std::vector<Hook> hooks) {
  std::vector<Outputs> out;
  out.reserve(events.size() / 4);
  size_t next = 0;
  for (const SimEvent &e : events) {
    while (next < hooks.size() && hooks[next].t_ns <= e.t_ns) hooks[next++].run(*this);
    switch (e.sensor) {
      case Sensor::kAcc:
        if (e.t_ns > acc_lost_until) Acc(e.t_ns, e.x, e.y, e.z);
        break;
      case Sensor::kGyr: Gyro(e.t_ns, e.x, e.y, e.z); break;
      case Sensor::kMag: out.push_back(Mag(e.t_ns, e.x, e.y, e.z)); break;
    }
  }
  return out;
}

std::vector<SimEvent> Scene(double seconds, double start_ns) {
  MotionPlan plan;
  plan.seconds = seconds;
  plan.start_ns = start_ns;
  return SimulateMotion(plan);
}

}  // namespace qvn_test
