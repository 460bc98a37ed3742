// Decoding calibration attempts from the library's exported state (see the
// header for what is read and why).
#include "core/cali_attempts.h"
#include "core/checked.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace qvn_tools {

namespace {

constexpr int kBatchCapacity = 300;  // planes of dsc_data_mag
constexpr double kNsPerS = 1e9;
// Stage codes of the methods and the validation.
constexpr int16_t kStageSphereDone = 222;   // oval: sphere fitted
constexpr int16_t kStageRadiusOk = 333;     // oval: sphere radius in range; gyro: fit started
constexpr int16_t kStageEllipseDone = 444;  // oval: ellipsoid fitted; gyro: fit done
constexpr double kMatrixLogScale = 1000.0;  // qvn_cali_log[4..9] hold 1000 x the element
const char *const kElementNames[6] = {"xx", "yy", "zz", "yx", "zx", "zy"};

std::string Format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

// A value the library logged truncated to whole uT, refined by the value
// refitted here when both agree on the whole part.
double Refine(int logged, double refitted) {
  if (logged < 0) return refitted;
  if (std::isfinite(refitted) && static_cast<int>(refitted) == logged) return refitted;
  return logged + 0.5;
}

const char *BoundWords(CaliBound b) {
  switch (b) {
    case CaliBound::kNone: return "passed";
    case CaliBound::kSphereFit: return "sphere fit failed";
    case CaliBound::kSphereRadius: return "first sphere's radius out of range";
    case CaliBound::kEllipsoidFit: return "ellipsoid fit failed";
    case CaliBound::kEmptyBatch: return "empty batch";
    case CaliBound::kOffsetRange: return "offset beyond the sensor range";
    case CaliBound::kMatrix: return "soft-iron matrix out of bounds";
    case CaliBound::kRadiusAboveMax: return "fitted radius above the maximum";
    case CaliBound::kMeanOutside: return "mean distance out of range";
    case CaliBound::kRadiusBelowMin: return "fitted radius below the minimum";
    case CaliBound::kOutliers: return "too many samples off the sphere";
    case CaliBound::kNoRotation: return "too little rotation";
    case CaliBound::kGyroFit: return "rotation fit failed";
    case CaliBound::kGyroCheck: return "rotation fit's offset refused";
  }
  return "?";
}

}  // namespace

const char *MethodName(CaliMethod m) {
  switch (m) {
    case CaliMethod::kOval: return "oval";
    case CaliMethod::kGyro: return "gyro";
    case CaliMethod::kBall: return "ball";
    case CaliMethod::kUnknown: break;
  }
  return "unknown";
}

const char *BoundKey(CaliBound b) {
  switch (b) {
    case CaliBound::kNone: return "";
    case CaliBound::kSphereFit: return "sphere_fit";
    case CaliBound::kSphereRadius: return "sphere_radius";
    case CaliBound::kEllipsoidFit: return "ellipsoid_fit";
    case CaliBound::kEmptyBatch: return "empty_batch";
    case CaliBound::kOffsetRange: return "offset_range";
    case CaliBound::kMatrix: return "matrix";
    case CaliBound::kRadiusAboveMax: return "radius_above_max";
    case CaliBound::kMeanOutside: return "mean_distance";
    case CaliBound::kRadiusBelowMin: return "radius_below_min";
    case CaliBound::kOutliers: return "outliers";
    case CaliBound::kNoRotation: return "no_rotation";
    case CaliBound::kGyroFit: return "gyro_fit";
    case CaliBound::kGyroCheck: return "gyro_check";
  }
  return "?";
}

struct AttemptDecoder::Vars {
  const int16_t *debug_log, *cali_log, *check_count, *check_verdict, *attempt_level;
  const int16_t *batch_count, *batch_size, *reject_run, *reject_limit, *mode, *accuracy;
  const int16_t *interference, *rate;
  const uint16_t *hold, *logging;
  const float *offset, *rad_ratio, *batch, *field_range, *radius_max, *radius_min, *radius_wide;
  const float *out_rate, *spacing, *interference_threshold;
  const float *sfi_max[6], *sfi_min[6];
};

AttemptDecoder::AttemptDecoder(const SymbolLookup &lookup) {
  auto v = std::make_shared<Vars>();
  auto get = [&](const char *name) -> const void * {
    const void *p = lookup(name);
    if (p == nullptr) missing_ += (missing_.empty() ? "" : ", ") + std::string(name);
    return p;
  };
  auto i16 = [&](const char *n) { return static_cast<const int16_t *>(get(n)); };
  auto u16 = [&](const char *n) { return static_cast<const uint16_t *>(get(n)); };
  auto f32 = [&](const char *n) { return static_cast<const float *>(get(n)); };
  v->debug_log = i16("qvn_debug_log");
  v->cali_log = i16("qvn_cali_log");
  v->check_count = i16("mag_cali_check_ctn");
  v->check_verdict = i16("mag_cali_check_err");
  v->attempt_level = i16("mag_quad_accuracy");
  v->batch_count = i16("dsc_data_num");
  v->batch_size = i16("dsc_data_size");
  v->reject_run = i16("dsc_reset_count");
  v->reject_limit = i16("dsc_reset_threshold");
  v->mode = i16("mag_cali_mode");
  v->accuracy = i16("qvn_accuracy");
  v->interference = i16("interf_cnt_cnt");
  v->rate = i16("qvn_algo_odr");
  v->hold = u16("mag_interf_countdown");
  v->logging = u16("g_en_mtkScpLog");
  v->offset = f32("hdi_array");
  v->rad_ratio = f32("rad_ratio");
  v->batch = f32("dsc_data_mag");
  v->field_range = f32("mag_field_range");
  v->radius_max = f32("mag_radius_max");
  v->radius_min = f32("mag_radius_min");
  v->radius_wide = f32("mag_radius_wide");
  v->out_rate = f32("mag_radius_out_rate");
  v->spacing = f32("dsc_mag_distance");
  v->interference_threshold = f32("k7q_interference_threshold");
  for (int e = 0; e < 6; ++e) {
    v->sfi_max[e] = f32(("sfi_" + std::string(kElementNames[e]) + "_threshold_max").c_str());
    v->sfi_min[e] = f32(("sfi_" + std::string(kElementNames[e]) + "_threshold_min").c_str());
  }
  vars_ = v;
}

CaliSnapshot AttemptDecoder::Read() const {
  CaliSnapshot s;
  if (!ok()) return s;
  const Vars &v = *vars_;
  std::memcpy(s.debug_log, v.debug_log, sizeof s.debug_log);
  std::memcpy(s.cali_log, v.cali_log, sizeof s.cali_log);
  s.check_count = *v.check_count;
  s.check_verdict = *v.check_verdict;
  s.attempt_level = *v.attempt_level;
  s.batch_count = *v.batch_count;
  s.batch_size = *v.batch_size;
  s.reject_run = *v.reject_run;
  s.reject_limit = *v.reject_limit;
  s.mode = *v.mode;
  s.accuracy = *v.accuracy;
  s.interference = *v.interference;
  s.rate = *v.rate;
  s.hold = *v.hold;
  s.logging = *v.logging;
  std::memcpy(s.offset, v.offset, sizeof s.offset);
  s.rad_ratio = *v.rad_ratio;
  // The size is a host-writable variable: read only inside the planes.
  int last = std::min(std::max(s.batch_size - 1, 0), kBatchCapacity - 1);
  for (int k = 0; k < 3; ++k) s.last_slot[k] = v.batch[k * kBatchCapacity + last];
  CaliLimits &l = s.limits;
  l.field_range = *v.field_range;
  l.radius_max = *v.radius_max;
  l.radius_min = *v.radius_min;
  l.radius_wide = *v.radius_wide;
  l.out_rate = *v.out_rate;
  l.spacing = *v.spacing;
  l.interference_threshold = *v.interference_threshold;
  for (int e = 0; e < 6; ++e) l.sfi_max[e] = *v.sfi_max[e], l.sfi_min[e] = *v.sfi_min[e];
  return s;
}

void AttemptDecoder::BeforeStep() {
  before_ = Read();
  batch_.clear();
  // The step after which the batch may be full: keep the samples now, since
  // the method thins the batch (halves or trims it) right after its attempt.
  int n = before_.batch_count;
  if (ok() && n >= 0 && n < kBatchCapacity && n == before_.batch_size - 1) {
    const float *p = vars_->batch;
    for (int i = 0; i < n; ++i)
      batch_.push_back({p[i], p[kBatchCapacity + i], p[2 * kBatchCapacity + i]});
  }
}

void AttemptDecoder::AfterStep(int64_t t_ns) {
  if (!ok()) return;
  CaliSnapshot after = Read();
  stats_.steps++;
  bool repeated = have_last_t_ && t_ns == last_t_;
  if (repeated) {
    stats_.repeated_time++;
  } else {
    Decode(before_, after, t_ns);
  }
  stats_.batch_size = after.batch_size;
  stats_.spacing = after.limits.spacing;
  stats_.interference_threshold = after.limits.interference_threshold;
  fills_.push_back(after.batch_count);
  last_t_ = t_ns;
  have_last_t_ = true;
  step_++;
}

void AttemptDecoder::Decode(const CaliSnapshot &b, const CaliSnapshot &a, int64_t t_ns) {
  if (a.interference > b.interference) stats_.interference_periods++;
  if (a.hold != 0) {  // a hold is being waited out: the methods did not run
    // A hold (re)starts at its full length; a rate change starts a
    // two-second one too, which is no disturbance.
    if (b.hold == 0 || a.hold > b.hold) hold_from_disturbance_ = a.rate == b.rate && step_ > 0;
    stats_.hold_steps++;
    if (have_last_t_ && t_ns > last_t_) {
      // Clocks anywhere in int64: the step and the totals saturate.
      const int64_t dt = SaturatingInt64(SpanNs(last_t_, t_ns));
      stats_.hold_ns = SaturatingAdd(stats_.hold_ns, dt);
      if (hold_from_disturbance_)
        stats_.disturbance_hold_ns = SaturatingAdd(stats_.disturbance_hold_ns, dt);
    }
    return;
  }
  if (b.interference > 0) {
    stats_.interference_steps++;
    if (have_last_t_ && t_ns > last_t_)
      stats_.interference_ns =
          SaturatingAdd(stats_.interference_ns, SaturatingInt64(SpanNs(last_t_, t_ns)));
  }
  CaliMethod method = a.mode == 0 ? CaliMethod::kOval
                                  : (a.mode == 1 ? CaliMethod::kGyro
                                                 : (a.mode == 2 ? CaliMethod::kBall
                                                                : CaliMethod::kUnknown));
  int size = a.batch_size;
  bool written = std::memcmp(a.last_slot, b.last_slot, sizeof a.last_slot) != 0;
  bool validated = a.check_count != b.check_count;
  bool filled = b.batch_count == size - 1 && a.batch_size == b.batch_size &&
                (method == CaliMethod::kGyro || written);
  if (!validated && !filled) {
    if (a.batch_count == b.batch_count + 1) {
      stats_.admitted++;
    } else if (a.batch_count == b.batch_count) {
      stats_.too_close++;
    } else if (a.batch_count == 0 && b.batch_count > 0) {
      int limit = b.reject_limit != 0 ? b.reject_limit : b.batch_size;
      if (b.reject_run > limit) {
        stats_.too_close++;
        stats_.emptied++;
      } else {
        stats_.level_clears++;
      }
    }
    stats_.most_filled = std::max<int>(stats_.most_filled, a.batch_count);
    return;
  }
  stats_.admitted++;
  stats_.most_filled = std::max(stats_.most_filled, size);

  CaliAttempt at;
  at.t_ns = t_ns;
  at.step = step_;
  at.method = method;
  at.samples = size;
  std::vector<V3> pts = batch_;
  if (static_cast<int>(pts.size()) == size - 1)
    pts.push_back({a.last_slot[0], a.last_slot[1], a.last_slot[2]});
  double mean_d = NAN, k_d = NAN;
  if (static_cast<int>(pts.size()) == size) {
    SphereFit fit = FitSphere(pts);
    at.fitted = fit.ok;
    if (fit.ok) {
      at.centre = fit.centre;
      at.radius = fit.radius;
      // The ball method's radius test over this centre, as the library runs it.
      double sum = 0;
      std::vector<double> r(pts.size());
      for (size_t i = 0; i < pts.size(); ++i) sum += r[i] = Norm(pts[i] - fit.centre);
      mean_d = sum / static_cast<double>(pts.size());
      k_d = 0;
      for (double ri : r) k_d += std::fabs(ri - mean_d) > a.limits.radius_wide;
    }
    // Without a reference and without a sphere there is no centre to look from.
    at.coverage = has_reference_ ? Coverage(pts, reference_)
                                 : (at.fitted ? Coverage(pts, at.centre) : NAN);
  }
  at.level = a.attempt_level;
  at.accuracy_before = b.accuracy;
  at.accuracy_after = a.accuracy;
  std::memcpy(at.offset_after, a.offset, sizeof at.offset_after);
  const CaliLimits &l = a.limits;
  bool logged = a.logging != 0;

  // The method's result code, from the stage it reached.
  int code = 0;
  int16_t stage = a.debug_log[2];
  if (method == CaliMethod::kGyro) {
    if (a.attempt_level != 0) {
      code = 0;
    } else if (stage == kStageRadiusOk) {
      code = 3, at.bound = CaliBound::kGyroFit;
    } else if (stage == kStageEllipseDone) {
      code = 3, at.bound = CaliBound::kGyroCheck;
    } else {
      code = 2, at.bound = CaliBound::kNoRotation;
    }
  } else if (validated) {
    code = a.check_verdict == 0 ? 0 : 6;
    switch (a.check_verdict) {
      case 0: break;
      case 1: at.bound = CaliBound::kEmptyBatch; break;
      case 2: at.bound = CaliBound::kOffsetRange; break;
      case 3: at.bound = CaliBound::kMatrix; break;
      default: at.bound = CaliBound::kOutliers; break;  // refined below
    }
  } else if (method == CaliMethod::kOval && stage == kStageRadiusOk) {
    // Below 11 Hz the oval method stops after its sphere, unvalidated.
    code = a.attempt_level == 3 ? 0 : 5;
    if (code != 0) at.bound = CaliBound::kEllipsoidFit;
  } else if (method == CaliMethod::kOval && stage == kStageSphereDone) {
    code = 4, at.bound = CaliBound::kSphereRadius;
  } else {
    code = 4, at.bound = CaliBound::kSphereFit;
  }
  at.passed = code == 0;
  // The values the validation logs (radius test reached or passed).
  if (validated && logged && (a.check_verdict == 0 || a.check_verdict >= 4)) {
    at.logged_radius = a.cali_log[1];
    at.logged_mean = a.cali_log[2];
    at.logged_off_shell = a.cali_log[3];
  }

  // The words.
  int n = size;
  double allowed = static_cast<double>(l.out_rate) * n;
  if (at.bound == CaliBound::kOutliers) {
    // The radius verdict covers four tests run in order; name the first that
    // fails with the library's own logged values (refined by the refit).
    double radius = method == CaliMethod::kBall ? at.radius : NAN;
    double rr = Refine(at.logged_radius, at.fitted ? radius : NAN);
    double mm = Refine(at.logged_mean, method == CaliMethod::kBall ? mean_d : NAN);
    double kk = at.logged_off_shell >= 0 ? at.logged_off_shell : k_d;
    if (rr > l.radius_max) {
      at.bound = CaliBound::kRadiusAboveMax;
      at.why = Format("fitted radius %.1f uT above the maximum %.0f uT", rr, double{l.radius_max});
    } else if (mm < l.radius_min || mm > l.radius_max) {
      at.bound = CaliBound::kMeanOutside;
      at.why = Format("mean distance of the samples %.1f uT outside %.0f..%.0f uT", mm,
                      double{l.radius_min}, double{l.radius_max});
    } else if (rr < l.radius_min) {
      at.bound = CaliBound::kRadiusBelowMin;
      at.why = Format("fitted radius %.1f uT below the minimum %.0f uT", rr, double{l.radius_min});
    } else {
      at.why = Format("%.0f of %d samples (%.0f%%) lie more than %.0f uT off the sphere; at most "
                      "%.0f (%.0f%%) may",
                      kk, n, 100.0 * kk / n, double{l.radius_wide}, std::floor(allowed),
                      100.0 * double{l.out_rate});
    }
  } else if (at.bound == CaliBound::kMatrix) {
    at.why = "soft-iron matrix outside its bounds";
    if (logged) {
      for (int e = 0; e < 6; ++e) {
        double v = a.cali_log[4 + e] / kMatrixLogScale;
        if (v > l.sfi_max[e] + 1e-3 || v < l.sfi_min[e] - 1e-3) {
          at.why = Format("soft-iron element %s = %.3f outside %.3f..%.3f", kElementNames[e], v,
                          double{l.sfi_min[e]}, double{l.sfi_max[e]});
          break;
        }
      }
    }
  } else if (at.bound == CaliBound::kOffsetRange) {
    at.why = Format("an offset component beyond the sensor range of +-%.0f uT",
                    double{l.field_range});
    if (at.fitted)
      at.why += Format(" (sphere centre %.0f, %.0f, %.0f uT)", at.centre.x, at.centre.y,
                       at.centre.z);
  } else if (at.bound == CaliBound::kSphereRadius) {
    at.why = Format("the sphere's radius %.1f uT is outside %.0f..%.0f uT", at.radius,
                    double{l.radius_min}, double{l.radius_max});
  } else if (at.bound == CaliBound::kSphereFit) {
    at.why = "the library's sphere fit failed (its single-precision normal equations were "
             "singular or gave no real radius)";
    if (at.fitted) at.why += Format("; in double precision this batch gives r %.1f uT", at.radius);
  } else if (at.bound == CaliBound::kEllipsoidFit) {
    at.why = "the ellipsoid fit failed: the samples do not pin down an ellipsoid";
  } else if (at.bound == CaliBound::kEmptyBatch) {
    at.why = "the batch was empty";
  } else if (at.bound == CaliBound::kNoRotation) {
    at.why = "the gyroscope saw too little rotation on some axis, or the field spread was off";
  } else if (at.bound == CaliBound::kGyroFit) {
    at.why = "the rotation fit failed (rotation about one axis only)";
  } else if (at.bound == CaliBound::kGyroCheck) {
    at.why = "the rotation fit's offset failed its range, mean-distance or outlier check";
  }

  // The driver's adoption rule.
  if (at.passed) {
    at.adopted = !(at.level < b.accuracy || (at.level == 1 && b.accuracy == 1));
    if (at.adopted) {
      at.why = Format("passed: offset (%.2f, %.2f, %.2f) uT adopted at level %d", a.offset[0],
                      a.offset[1], a.offset[2], at.level);
    } else {
      at.why = Format("passed, not adopted: its level %d does not improve on the level %d in force",
                      at.level, b.accuracy);
    }
  } else if (code >= 5 && method == CaliMethod::kOval && b.accuracy <= 0) {
    at.adopted = at.first_offset = true;
    at.why += Format("; its first sphere's centre (%.2f, %.2f, %.2f) uT was taken as a first "
                     "offset at level 1",
                     a.offset[0], a.offset[1], a.offset[2]);
  }
  attempts_.push_back(at);
}

std::string RefusalCounts(const std::vector<CaliAttempt> &attempts) {
  std::map<CaliBound, int> count;
  for (const CaliAttempt &a : attempts)
    if (!a.passed) count[a.bound]++;
  std::vector<std::pair<int, CaliBound>> order;
  for (const auto &c : count) order.push_back({c.second, c.first});
  std::stable_sort(order.begin(), order.end(),
                   [](const auto &x, const auto &y) { return x.first > y.first; });
  std::string s;
  for (const auto &o : order) {
    s += Format("%s%s %d", s.empty() ? "" : ", ", BoundWords(o.second), o.first);
  }
  return s;
}

std::string CalibrationVerdict(const std::vector<CaliAttempt> &attempts,
                               const CollectionStats &stats, int64_t t0_ns) {
  auto secs = [&](int64_t t) { return SpanNs(t0_ns, t) / kNsPerS; };
  size_t refused = 0;
  const CaliAttempt *first = nullptr, *first_offset = nullptr;
  for (const CaliAttempt &a : attempts) {
    if (!a.passed) refused++;
    if (a.adopted && a.first_offset && first_offset == nullptr) first_offset = &a;
    if (a.adopted && !a.first_offset && first == nullptr) first = &a;
  }
  std::string interference;
  if (stats.interference_periods > 0) {
    interference = Format(" A raw axis above %.0f uT during a hold started %zu interference "
                          "period%s: %.0f s fitted by the interference method.",
                          double{stats.interference_threshold}, stats.interference_periods,
                          stats.interference_periods == 1 ? "" : "s",
                          static_cast<double>(stats.interference_ns) / kNsPerS);
  }
  if (first != nullptr) {
    size_t before = 0;
    for (const CaliAttempt &a : attempts) before += (&a < first && !a.passed);
    std::string s = Format("calibrated at +%.1f s by the %s method at level %d", secs(first->t_ns),
                           MethodName(first->method), first->level);
    if (before > 0) s += Format(", after %zu refused attempt%s", before, before == 1 ? "" : "s");
    if (refused > before) {
      s += Format("; %zu later attempt%s refused", refused - before,
                  refused - before == 1 ? "" : "s");
    }
    if (refused > 0) s += " (" + RefusalCounts(attempts) + ")";
    return s + "." + interference;
  }
  std::string s = "never calibrated: ";
  if (attempts.empty()) {
    size_t tested = stats.admitted + stats.too_close;
    s += Format("no batch of %d samples was ever complete (at most %d collected)", stats.batch_size,
                stats.most_filled);
    if (stats.too_close > 0) {
      s += Format("; %zu of %zu samples were refused as closer than %.2f uT to one already "
                  "collected: the field direction hardly changed, the phone did not turn",
                  stats.too_close, tested, double{stats.spacing});
    }
    if (stats.emptied > 0)
      s += Format("; the batch was emptied %zu time%s after too many refusals in a row",
                  stats.emptied, stats.emptied == 1 ? "" : "s");
    if (stats.disturbance_hold_ns > 0)
      s += Format("; %.1f s were spent waiting out magnetic disturbances",
                  static_cast<double>(stats.disturbance_hold_ns) / kNsPerS);
    return s + ".";
  }
  s += Format("%zu fits attempted, none passed (%s)", attempts.size(),
              RefusalCounts(attempts).c_str());
  if (first_offset != nullptr) {
    s += Format("; a first offset was taken from a sphere at +%.1f s (level 1 only)",
                secs(first_offset->t_ns));
  }
  return s + "." + interference;
}

}  // namespace qvn_tools
