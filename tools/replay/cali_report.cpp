// Calibration attempts, coverage and offset quality in the replay summary and
// in two CSV files.
#include "replay/cali_report.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/checked.h"
#include "reference/mag_calibration.h"

namespace qvn_tools {
namespace {

constexpr double kNsPerS = 1e9;
constexpr size_t kAttemptLinesHead = 10;  // attempts listed in full at the start ...
constexpr size_t kAttemptLinesTail = 3;   // ... and at the end of the summary
// Below this share of directions a sphere fit leaves the offset along the
// unseen directions free: the reference is reported as poorly determined.
constexpr double kReferenceMinCoverage = 0.3;
const double kCoverageMarks[] = {10, 30, 60};  // seconds after the start
// A reference centre less certain than this along some axis (1 sigma) is
// reported as poorly determined along it.
constexpr double kReferenceMaxSe = 1.0;

double Seconds(int64_t t, int64_t t0) { return SpanNs(t0, t) / kNsPerS; }

V3 Offset(const CaliStep &r) { return {r.offset[0], r.offset[1], r.offset[2]}; }

// Writes text to path through a temporary file renamed into place.
bool WriteFile(const std::string &path, const std::string &text, std::string *error) {
  std::string tmp = path + ".partial.XXXXXX";
  int fd = mkstemp(&tmp[0]);
  if (fd < 0) {
    *error = "cannot create " + tmp + ": " + std::strerror(errno);
    return false;
  }
  fchmod(fd, 0644);
  FILE *f = fdopen(fd, "w");
  if (f == nullptr) {
    close(fd);
    unlink(tmp.c_str());
    *error = "cannot write " + tmp;
    return false;
  }
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = (std::fclose(f) == 0) && ok;
  if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

void Append(std::string *s, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Append(std::string *s, const char *fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  *s += buf;
}

void PrintAttempt(const CaliAttempt &a, int64_t t0, FILE *out) {
  std::fprintf(out, "  %+8.2f s  %-4s %3d samples", Seconds(a.t_ns, t0), MethodName(a.method),
               a.samples);
  if (a.fitted) {
    std::fprintf(out, "  centre (%7.2f %7.2f %7.2f) r %5.1f", a.centre.x, a.centre.y, a.centre.z,
                 a.radius);
  }
  if (a.logged_radius >= 0) std::fprintf(out, " (library %d)", a.logged_radius);
  std::fprintf(out, "  cover %3.0f%%  %s%s\n", 100 * a.coverage,
               a.passed ? "" : "refused: ", a.why.c_str());
}

// Time at accuracy 3 and the part of it with the offset far from the reference.
struct Level3Quality {
  double at3 = 0, far3 = 0, median = NAN, largest = NAN;
};

Level3Quality QualityAtLevel3(const std::vector<CaliStep> &rows,
                             const std::vector<StepQuality> &q) {
  Level3Quality r;
  std::vector<double> d3;
  for (size_t i = 0; i + 1 < rows.size(); ++i) {
    if (rows[i].accuracy != 3) continue;
    double dt = Seconds(rows[i + 1].t_ns, rows[i].t_ns);
    r.at3 += dt;
    d3.push_back(q[i].distance);
    if (q[i].distance > kOffsetTolerance) r.far3 += dt;
  }
  if (!d3.empty()) {
    std::sort(d3.begin(), d3.end());
    r.median = d3[d3.size() / 2];
    r.largest = d3.back();
  }
  return r;
}

const char *Plural(size_t n) { return n == 1 ? "" : "s"; }

}  // namespace

void LibraryFrame::Read(const Library &lib) {
  if (const float *s = static_cast<const float *>(lib.Symbol("static_sfi"))) {
    for (int i = 0; i < 9; ++i) sfi[i] = s[i];
  }
  if (!Invert3(sfi, sfi_inv)) {
    for (int i = 0; i < 9; ++i) sfi_inv[i] = (i % 4 == 0) ? 1 : 0;
  }
  if (const int16_t *a = static_cast<const int16_t *>(lib.Symbol("mag_axis"))) {
    for (int i = 0; i < 3; ++i) axis[i] = a[i];
  }
}

V3 LibraryFrame::FromSensor(V3 raw) const {
  V3 m = MatVec(sfi, raw);
  double in[3] = {m.x, m.y, m.z}, o[3];
  for (int i = 0; i < 3; ++i) {
    int k = std::abs(axis[i]);
    if (k < 1 || k > 3) return m;  // the library leaves such a vector as it is
    o[i] = (axis[i] < 0 ? -1 : 1) * in[k - 1];
  }
  return {o[0], o[1], o[2]};
}

V3 LibraryFrame::ToSensor(V3 lib) const {
  double in[3] = {lib.x, lib.y, lib.z}, o[3] = {lib.x, lib.y, lib.z};
  bool valid = true;
  for (int i = 0; i < 3; ++i) valid = valid && std::abs(axis[i]) >= 1 && std::abs(axis[i]) <= 3;
  if (valid) {
    for (int i = 0; i < 3; ++i) o[std::abs(axis[i]) - 1] = (axis[i] < 0 ? -1 : 1) * in[i];
  }
  return MatVec(sfi_inv, {o[0], o[1], o[2]});
}

OffsetReference FitReference(const std::vector<Event> &events, const LibraryFrame &frame,
                             const std::string &source) {
  OffsetReference ref;
  ref.source = source;
  std::vector<qvn_reference::MagSample> raw;
  std::vector<V3> pts;
  for (const Event &e : events) {
    if (e.sensor != Sensor::kMag) continue;
    // Fitted in the library's frame (after its fixed device matrix), where its
    // own model is a sphere: the reference then measures what the library
    // estimates, whatever the device matrix does to the raw cloud.
    V3 m = frame.FromSensor({e.x, e.y, e.z});
    raw.push_back({e.t_ns, m.x, m.y, m.z});
    pts.push_back(m);
  }
  ref.samples = raw.size();
  if (raw.empty()) {
    ref.error = "no magnetometer samples";
    return ref;
  }
  qvn_reference::MagCalResult fit = qvn_reference::CalibrateMagnetometer(raw);
  ref.ok = fit.ok;
  ref.error = fit.error;
  if (!fit.ok) return ref;
  ref.centre = {fit.offset[0], fit.offset[1], fit.offset[2]};
  ref.centre_sensor = frame.ToSensor(ref.centre);
  ref.sigma = {fit.offset_sigma[0], fit.offset_sigma[1], fit.offset_sigma[2]};
  ref.radius = fit.radius;
  ref.residual_rms = fit.residual_rms;
  ref.soft_iron = fit.soft_iron_fitted;
  ref.inliers = fit.inliers;
  ref.coverage = Coverage(pts, ref.centre);
  return ref;
}

std::vector<StepQuality> StepQualities(const CaliReportInput &in) {
  const std::vector<CaliStep> &rows = *in.rows;
  std::vector<StepQuality> q(rows.size());
  bool ref = in.reference != nullptr && in.reference->ok;
  DirectionCells cells;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!ref) continue;
    V3 c = in.reference->centre;
    cells.Add(in.frame->FromSensor({rows[i].raw[0], rows[i].raw[1], rows[i].raw[2]}), c);
    q[i].coverage = cells.Share();
    q[i].distance = Norm(Offset(rows[i]) - c);
  }
  return q;
}

void PrintCaliReport(const CaliReportInput &in, FILE *out) {
  const std::vector<CaliStep> &rows = *in.rows;
  const std::vector<CaliAttempt> &att = in.decoder->attempts();
  int64_t t0 = in.t0_ns;
  size_t adopted = 0, passed = 0, by_method[4] = {0, 0, 0, 0};
  for (const CaliAttempt &a : att) {
    adopted += a.adopted;
    passed += a.passed;
    by_method[static_cast<int>(a.method)]++;
  }
  std::string methods;
  for (int m = 0; m < 4; ++m) {
    if (by_method[m] == 0) continue;
    Append(&methods, "%s%s %zu", methods.empty() ? "" : ", ",
           MethodName(static_cast<CaliMethod>(m)), by_method[m]);
  }
  std::fprintf(out, "%-20s%zu", "fit attempts", att.size());
  if (!att.empty()) {
    std::fprintf(out, " (%s): %zu passed, %zu adopted, %zu refused", methods.c_str(), passed,
                 adopted, att.size() - passed);
    if (att.size() > passed) std::fprintf(out, " (%s)", RefusalCounts(att).c_str());
  }
  std::fprintf(out, "\n");
  for (size_t i = 0; i < att.size(); ++i) {
    if (i == kAttemptLinesHead && att.size() > kAttemptLinesHead + kAttemptLinesTail) {
      std::fprintf(out, "  ... %zu more (all in --attempts-out)\n",
                   att.size() - kAttemptLinesHead - kAttemptLinesTail);
      i = att.size() - kAttemptLinesTail;
    }
    PrintAttempt(att[i], t0, out);
  }
  const CollectionStats &st = in.decoder->stats();
  std::fprintf(out,
               "%-20s%zu stored, %zu refused as too close to stored ones; batch of %d, "
               "emptied %zu time%s after refusals in a row, %zu by level changes\n",
               "samples", st.admitted, st.too_close, st.batch_size, st.emptied, Plural(st.emptied),
               st.level_clears);
  if (st.hold_steps > 0 || st.interference_periods > 0) {
    double hold = static_cast<double>(st.hold_ns) / kNsPerS;
    double disturbed = static_cast<double>(st.disturbance_hold_ns) / kNsPerS;
    std::fprintf(out,
                 "%-20s%.1f s without fitting (%.1f s after rate changes, %.1f s waiting out "
                 "disturbances); %zu interference period%s (%zu samples fitted by the "
                 "interference method)\n",
                 "holds", hold, hold - disturbed, disturbed, st.interference_periods,
                 Plural(st.interference_periods), st.interference_steps);
  }
  const OffsetReference *ref = in.reference;
  std::vector<StepQuality> q = StepQualities(in);
  if (ref != nullptr && ref->ok) {
    std::fprintf(out,
                 "%-20s%s: whole-recording %s fit, offset (%.2f, %.2f, %.2f) +- (%.2f, %.2f, "
                 "%.2f) uT (library frame), field %.2f uT, residual %.2f uT, %zu of %zu samples, "
                 "%.0f%% of directions\n",
                 "offset reference", ref->source.c_str(), ref->soft_iron ? "ellipsoid" : "sphere",
                 ref->centre.x, ref->centre.y, ref->centre.z, ref->sigma.x, ref->sigma.y,
                 ref->sigma.z, ref->radius, ref->residual_rms, ref->inliers, ref->samples,
                 100 * ref->coverage);
    double se[3] = {ref->sigma.x, ref->sigma.y, ref->sigma.z};
    std::string weak;
    for (int k = 0; k < 3; ++k) {
      if (se[k] > kReferenceMaxSe) weak += std::string(weak.empty() ? "" : ", ") + "xyz"[k];
    }
    if (ref->coverage < kReferenceMinCoverage || !weak.empty()) {
      std::fprintf(out, "%-20spoorly determined%s%s: the samples cover %.0f%% of directions, so "
                        "distances below are only as good as the reference\n",
                   "  caution", weak.empty() ? "" : " along ", weak.c_str(),
                   100 * ref->coverage);
    }
    if (in.true_offset != nullptr) {
      V3 t = in.frame->FromSensor({in.true_offset[0], in.true_offset[1], in.true_offset[2]});
      std::fprintf(out, "%-20s%.2f uT from the true offset\n", "  reference error",
                   Norm(ref->centre - t));
    }
    if (!rows.empty()) {
      std::string marks;
      for (double m : kCoverageMarks) {
        for (size_t i = 0; i < rows.size(); ++i) {
          if (Seconds(rows[i].t_ns, t0) < m) continue;
          Append(&marks, "%.0f%% at +%.0f s, ", 100 * q[i].coverage, m);
          break;
        }
      }
      std::fprintf(out, "%-20s%s%.0f%% at the end (%d equal-area cells about the reference)\n",
                   "coverage", marks.c_str(), 100 * q.back().coverage, kCoverageCells);
      Level3Quality l3 = QualityAtLevel3(rows, q);
      std::string dist;
      for (double m : kCoverageMarks) {
        for (size_t i = 0; i < rows.size(); ++i) {
          if (Seconds(rows[i].t_ns, t0) < m) continue;
          Append(&dist, "%.2f uT at +%.0f s, ", q[i].distance, m);
          break;
        }
      }
      std::fprintf(out, "%-20s%s%.2f uT at the end from the reference", "offset in force",
                   dist.c_str(), q.back().distance);
      if (l3.at3 > 0) {
        std::fprintf(out, "; median %.2f uT, largest %.2f uT over the time at accuracy 3",
                     l3.median, l3.largest);
      }
      std::fprintf(out, "\n");
      std::fprintf(out, "%-20s%.1f s at accuracy 3, %.1f s (%.0f%%) of it with the offset more "
                        "than %.0f uT from the reference%s\n",
                   "offset quality", l3.at3, l3.far3, l3.at3 > 0 ? 100 * l3.far3 / l3.at3 : 0.0,
                   kOffsetTolerance,
                   l3.far3 > 0 ? "  <-- accuracy 3 claimed with a far offset" : "");
    }
  } else if (ref != nullptr) {
    std::fprintf(out, "%-20s%s: none (%s)\n", "offset reference", ref->source.c_str(),
                 ref->error.c_str());
  }
}

void PrintCaliVerdict(const CaliReportInput &in, FILE *out) {
  const std::vector<CaliAttempt> &att = in.decoder->attempts();
  std::string v = CalibrationVerdict(att, in.decoder->stats(), in.t0_ns);
  bool calibrated = v.rfind("calibrated", 0) == 0;
  const OffsetReference *ref = in.reference;
  std::vector<StepQuality> q = StepQualities(in);
  if (ref == nullptr || !ref->ok || q.empty()) {
    if (calibrated) {
      v += " How well cannot be checked: no reference (" +
           (ref != nullptr ? ref->error : std::string("none given")) + ").";
    }
  } else if (!calibrated) {
    char buf[160];
    std::snprintf(buf, sizeof buf, " Its samples covered %.0f%% of directions about the reference.",
                  100 * q.back().coverage);
    v += buf;
  } else {
    Level3Quality l3 = QualityAtLevel3(*in.rows, q);
    char buf[400];
    if (l3.at3 <= 0) {
      std::snprintf(buf, sizeof buf, " It never reached accuracy 3; its offset ended %.1f uT from "
                                     "the reference.", q.back().distance);
    } else if (l3.far3 > 0) {
      std::snprintf(buf, sizeof buf,
                    " At accuracy 3 for %.0f s, %.0f%% of it with the offset more than %.0f uT "
                    "from the reference (median %.1f uT): accuracy 3 was claimed with a wrong "
                    "offset.",
                    l3.at3, 100 * l3.far3 / l3.at3, kOffsetTolerance, l3.median);
    } else {
      std::snprintf(buf, sizeof buf,
                    " At accuracy 3 for %.0f s with the offset within %.0f uT of the reference "
                    "throughout (median %.2f uT).",
                    l3.at3, kOffsetTolerance, l3.median);
    }
    v += buf;
  }
  std::fprintf(out, "%-20s%s\n", "verdict", v.c_str());
}

void CaliTracking::Attach(const Library &lib, const std::vector<Event> &events,
                          const std::vector<Event> *reference_events,
                          const std::string &reference_label, ReplayConfig *config,
                          std::string *warning) {
  frame_.Read(lib);
  // Fitted before the replay, so that each batch's coverage is measured about it.
  reference_ = reference_events != nullptr
                   ? FitReference(*reference_events, frame_, reference_label)
                   : FitReference(events, frame_, "this recording");
  // The lookup runs in the constructor only.
  decoder_ =
      std::make_unique<AttemptDecoder>([&lib](const char *name) { return lib.Symbol(name); });
  if (!decoder_->ok()) {
    *warning = "calibration attempts not decoded: the library does not export " +
               decoder_->missing();
    return;
  }
  if (reference_.ok) decoder_->SetReferenceCentre(reference_.centre);
  AttemptDecoder *d = decoder_.get();
  std::vector<CaliStep> *steps = &steps_;
  config->before_cali = [d]() { d->BeforeStep(); };
  config->after_cali = [d, steps](const StepRow &row) {
    d->AfterStep(row.t_ns);
    steps->push_back({row.t_ns,
                      {row.raw[0], row.raw[1], row.raw[2]},
                      {row.cal.bias_x, row.cal.bias_y, row.cal.bias_z},
                      row.cal.accuracy});
  };
}

const CaliReportInput *CaliTracking::Finish(int64_t t0_ns, const double *true_offset) {
  if (!decoder_ || !decoder_->ok()) return nullptr;
  input_.rows = &steps_;
  input_.decoder = decoder_.get();
  input_.reference = &reference_;
  input_.frame = &frame_;
  input_.t0_ns = t0_ns;
  if (true_offset != nullptr) {
    std::memcpy(true_offset_, true_offset, sizeof true_offset_);
    input_.true_offset = true_offset_;
  }
  return &input_;
}

bool WriteAttemptsCsv(const std::string &path, const CaliReportInput &in, std::string *error) {
  std::string s =
      "t_ns,t_s,method,samples,centre_x,centre_y,centre_z,radius,centre_sensor_x,"
      "centre_sensor_y,centre_sensor_z,logged_radius,logged_mean,logged_off_shell,coverage,"
      "passed,adopted,first_offset,level,accuracy_before,accuracy_after,offset_x,offset_y,"
      "offset_z,offset_sensor_x,offset_sensor_y,offset_sensor_z,bound,why\n";
  for (const CaliAttempt &a : in.decoder->attempts()) {
    V3 cs = in.frame->ToSensor(a.centre);
    std::string why = a.why;
    std::replace(why.begin(), why.end(), '"', '\'');
    Append(&s, "%" PRId64 ",%.6f,%s,%d,", a.t_ns, Seconds(a.t_ns, in.t0_ns), MethodName(a.method),
           a.samples);
    if (a.fitted) {
      Append(&s, "%.4f,%.4f,%.4f,%.4f,%.4f,%.4f,%.4f,", a.centre.x, a.centre.y, a.centre.z,
             a.radius, cs.x, cs.y, cs.z);
    } else {
      s += ",,,,,,,";
    }
    V3 os = in.frame->ToSensor({a.offset_after[0], a.offset_after[1], a.offset_after[2]});
    Append(&s, "%d,%d,%d,%.4f,%d,%d,%d,%d,%d,%d,%.9g,%.9g,%.9g,%.4f,%.4f,%.4f,%s,\"%s\"\n",
           a.logged_radius, a.logged_mean, a.logged_off_shell, a.coverage, a.passed, a.adopted,
           a.first_offset, a.level, a.accuracy_before, a.accuracy_after, double{a.offset_after[0]},
           double{a.offset_after[1]}, double{a.offset_after[2]}, os.x, os.y, os.z,
           BoundKey(a.bound), why.c_str());
  }
  return WriteFile(path, s, error);
}

bool WriteQualityCsv(const std::string &path, const CaliReportInput &in, std::string *error) {
  const std::vector<CaliStep> &rows = *in.rows;
  const std::vector<int16_t> &fill = in.decoder->batch_counts();
  std::vector<StepQuality> q = StepQualities(in);
  bool ref = in.reference != nullptr && in.reference->ok;
  V3 c = ref ? in.reference->centre : V3{NAN, NAN, NAN};
  V3 cs = ref ? in.reference->centre_sensor : c;
  double r = ref ? in.reference->radius : NAN;
  std::string s =
      "t_ns,batch,coverage,offset_distance,ref_x,ref_y,ref_z,ref_radius,ref_sensor_x,"
      "ref_sensor_y,ref_sensor_z\n";
  char refcols[256];
  std::snprintf(refcols, sizeof refcols, "%.4f,%.4f,%.4f,%.4f,%.4f,%.4f,%.4f\n", c.x, c.y, c.z, r,
                cs.x, cs.y, cs.z);
  for (size_t i = 0; i < rows.size(); ++i) {
    Append(&s, "%" PRId64 ",%d,%.4f,%.4f,", rows[i].t_ns, i < fill.size() ? fill[i] : -1,
           q[i].coverage, q[i].distance);
    s += refcols;
  }
  return WriteFile(path, s, error);
}

}  // namespace qvn_tools
