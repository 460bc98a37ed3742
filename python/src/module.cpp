// qvnlib._core: the tools' readers, replay loop and scoring for Python.
//
// Everything that decides a result is the tools' own code (tools/core,
// tools/replay); this file converts between it and numpy, and turns its
// error messages into Python exceptions. The pure-Python layer (qvnlib/
// __init__.py) builds the pandas frames.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <cstring>
#include <mutex>
#include <optional>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/set_file.h"
#include "core/tunables.h"
#include "replay/accuracy.h"
#include "replay/replay_loop.h"
#include "replay_run.h"

namespace py = pybind11;
using namespace qvn_tools;
using qvn_python::LogMode;
using qvn_python::ReplayOutcome;
using qvn_python::ReplayRequest;
using qvn_python::Session;

namespace {

// The library's state is the process's: one replay or tunable access at a time.
std::mutex g_library_mutex;

template <typename T>
py::array_t<T> NewArray(size_t n) {
  return py::array_t<T>(static_cast<py::ssize_t>(n));
}

// ------------------------------------------------------------------ events

struct EventList {
  std::vector<Event> events;
  std::string label;
};

EventList ReadEvents(const std::string &path) {
  EventList list;
  std::string error;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = ReadEventCsv(path, &list.events, &error);
  }
  if (!ok) throw py::value_error(error);
  list.label = path;
  return list;
}

EventList EventsFromArrays(py::array_t<int64_t, py::array::c_style | py::array::forcecast> t,
                           py::array_t<int8_t, py::array::c_style | py::array::forcecast> sensor,
                           py::array_t<double, py::array::c_style | py::array::forcecast> x,
                           py::array_t<double, py::array::c_style | py::array::forcecast> y,
                           py::array_t<double, py::array::c_style | py::array::forcecast> z,
                           const std::string &label) {
  size_t n = static_cast<size_t>(t.size());
  for (const py::array *a : {static_cast<py::array *>(&sensor), static_cast<py::array *>(&x),
                             static_cast<py::array *>(&y), static_cast<py::array *>(&z)}) {
    if (a->ndim() != 1 || static_cast<size_t>(a->size()) != n)
      throw py::value_error("events: every column needs the same length, one value per event");
  }
  if (t.ndim() != 1) throw py::value_error("events: columns must be one-dimensional");
  EventList list;
  list.label = label;
  list.events.resize(n);
  auto tt = t.unchecked<1>();
  auto ss = sensor.unchecked<1>();
  auto xx = x.unchecked<1>(), yy = y.unchecked<1>(), zz = z.unchecked<1>();
  for (size_t i = 0; i < n; ++i) {
    py::ssize_t k = static_cast<py::ssize_t>(i);
    if (ss(k) < 0 || ss(k) > 3)
      throw py::value_error(label + ": row " + std::to_string(i) + ": unknown sensor code " +
                            std::to_string(ss(k)));
    list.events[i] = {tt(k), static_cast<Sensor>(ss(k)),
                      xx(k), yy(k),
                      zz(k), static_cast<int>(std::min<size_t>(i + 1, INT32_MAX))};
  }
  return list;
}

py::dict EventArrays(const EventList &list) {
  size_t n = list.events.size();
  auto t = NewArray<int64_t>(n);
  auto s = NewArray<int8_t>(n);
  auto x = NewArray<double>(n), y = NewArray<double>(n), z = NewArray<double>(n);
  auto line = NewArray<int32_t>(n);
  auto tw = t.mutable_unchecked<1>();
  auto sw = s.mutable_unchecked<1>();
  auto xw = x.mutable_unchecked<1>(), yw = y.mutable_unchecked<1>(), zw = z.mutable_unchecked<1>();
  auto lw = line.mutable_unchecked<1>();
  for (size_t i = 0; i < n; ++i) {
    const Event &e = list.events[i];
    py::ssize_t k = static_cast<py::ssize_t>(i);
    tw(k) = e.t_ns;
    sw(k) = static_cast<int8_t>(e.sensor);
    xw(k) = e.x, yw(k) = e.y, zw(k) = e.z;
    lw(k) = e.line;
  }
  py::dict d;
  d["t_ns"] = t, d["sensor"] = s, d["x"] = x, d["y"] = y, d["z"] = z, d["line"] = line;
  return d;
}

// ------------------------------------------------------------------- truth

struct Truth {
  OrientationTruth samples;
  std::string label;
};

Truth LoadTruth(const std::string &path) {
  Truth t;
  std::string error;
  if (!t.samples.Load(path, &error)) throw py::value_error(error);
  t.label = path;
  return t;
}

Truth TruthFromArrays(py::array_t<int64_t, py::array::c_style | py::array::forcecast> t,
                      py::array_t<double, py::array::c_style | py::array::forcecast> q,
                      const std::string &label) {
  if (t.ndim() != 1 || q.ndim() != 2 || q.shape(1) != 4 || q.shape(0) != t.shape(0))
    throw py::value_error(label + ": needs N times and an N x 4 array of quaternions (w, x, y, z)");
  std::vector<std::pair<int64_t, Quat>> samples;
  auto tt = t.unchecked<1>();
  auto qq = q.unchecked<2>();
  for (py::ssize_t i = 0; i < t.shape(0); ++i) {
    Quat v{qq(i, 0), qq(i, 1), qq(i, 2), qq(i, 3)};
    double norm = std::sqrt(v.w * v.w + v.x * v.x + v.y * v.y + v.z * v.z);
    if (!std::isfinite(norm) || norm == 0)
      throw py::value_error(label + ": row " + std::to_string(i) +
                            ": the quaternion is zero or not finite");
    if (i > 0 && tt(i) < tt(i - 1))
      throw py::value_error(label + ": row " + std::to_string(i) + ": time goes backwards");
    samples.emplace_back(tt(i), v);
  }
  Truth out;
  out.samples.SetSamples(samples);
  out.label = label;
  return out;
}

py::tuple TruthArrays(const Truth &truth) {
  const auto &t = truth.samples.times();
  const auto &q = truth.samples.quats();
  auto ta = NewArray<int64_t>(t.size());
  py::array_t<double> qa({static_cast<py::ssize_t>(q.size()), py::ssize_t{4}});
  auto tw = ta.mutable_unchecked<1>();
  auto qw = qa.mutable_unchecked<2>();
  for (size_t i = 0; i < t.size(); ++i) {
    py::ssize_t k = static_cast<py::ssize_t>(i);
    tw(k) = t[i];
    qw(k, 0) = q[i].w, qw(k, 1) = q[i].x, qw(k, 2) = q[i].y, qw(k, 3) = q[i].z;
  }
  return py::make_tuple(ta, qa);
}

struct CalTruth {
  CalibrationTruth values;
  std::string label;
};

CalTruth LoadCalTruth(const std::string &path) {
  CalTruth c;
  std::string error;
  if (!c.values.Load(path, &error)) throw py::value_error(error);
  c.label = path;
  return c;
}

// ---------------------------------------------------------------- tunables

const char *NumpyFormat(ScalarType t) {
  switch (t) {
    case ScalarType::kF32:
      return "<f4";
    case ScalarType::kI8:
      return "|i1";
    case ScalarType::kU8:
      return "|u1";
    case ScalarType::kI16:
      return "<i2";
    case ScalarType::kU16:
      return "<u2";
    case ScalarType::kI32:
      return "<i4";
    case ScalarType::kU32:
      return "<u4";
    case ScalarType::kI64:
      return "<i8";
    case ScalarType::kU64:
      return "<u8";
  }
  return "";
}

std::vector<py::ssize_t> ShapeOf(const TunableInfo &t) {
  if (t.count() == 1) return {};
  if (t.rows > 1 && !t.is_vec3)
    return {static_cast<py::ssize_t>(t.rows), static_cast<py::ssize_t>(t.cols)};
  return {static_cast<py::ssize_t>(t.count())};
}

const TunableInfo &Known(const std::string &name) {
  const TunableInfo *info = FindTunable(name);
  if (info == nullptr) throw py::key_error("unknown tunable '" + name + "'");
  return *info;
}

// ------------------------------------------------------------------ replay

struct Run {
  ReplayOutcome outcome;
  int hw_gyro = 0;
};

// Column arrays in the order and with the names of qvn_replay --out.
py::dict StepColumns(const std::vector<StepRow> &rows) {
  static const int kValues[kFusionOutputCount] = {3, 4, 4, 3, 3, 3, 3};
  std::vector<std::string> names = SplitCsvLine(kStepCsvHeader);
  size_t n = rows.size();
  py::dict d;
  size_t c = 0;
  auto int64_column = [&](auto get) {
    auto a = NewArray<int64_t>(n);
    auto w = a.mutable_unchecked<1>();
    for (size_t i = 0; i < n; ++i) w(static_cast<py::ssize_t>(i)) = get(rows[i]);
    d[py::str(names.at(c++))] = a;
  };
  auto float_column = [&](auto get) {
    auto a = NewArray<float>(n);
    auto w = a.mutable_unchecked<1>();
    for (size_t i = 0; i < n; ++i) w(static_cast<py::ssize_t>(i)) = get(rows[i]);
    d[py::str(names.at(c++))] = a;
  };
  int64_column([](const StepRow &r) { return r.t_ns; });
  for (int k = 0; k < 3; ++k) float_column([k](const StepRow &r) { return r.raw[k]; });
  float_column([](const StepRow &r) { return r.cal.x; });
  float_column([](const StepRow &r) { return r.cal.y; });
  float_column([](const StepRow &r) { return r.cal.z; });
  float_column([](const StepRow &r) { return r.cal.bias_x; });
  float_column([](const StepRow &r) { return r.cal.bias_y; });
  float_column([](const StepRow &r) { return r.cal.bias_z; });
  {
    auto a = NewArray<int8_t>(n);
    auto w = a.mutable_unchecked<1>();
    for (size_t i = 0; i < n; ++i) w(static_cast<py::ssize_t>(i)) = rows[i].cal.accuracy;
    d[py::str(names.at(c++))] = a;
  }
  for (int f = 0; f < kFusionOutputCount; ++f) {
    for (int v = 0; v < kValues[f]; ++v)
      float_column([f, v](const StepRow &r) { return r.fusion[f].values[v]; });
  }
  int64_column([](const StepRow &r) { return r.fusion[kOrientation].timestamp; });
  if (c != names.size()) throw std::logic_error("step columns do not match the CSV header");
  return d;
}

py::array_t<float> Qfusion(const std::vector<StepRow> &rows) {
  py::array_t<float> a({static_cast<py::ssize_t>(rows.size()), py::ssize_t{4}});
  auto w = a.mutable_unchecked<2>();
  for (size_t i = 0; i < rows.size(); ++i) {
    for (int k = 0; k < 4; ++k) w(static_cast<py::ssize_t>(i), k) = rows[i].qfusion[k];
  }
  return a;
}

py::list AccuracyRows(const AccuracyReport &rep) {
  py::list out;
  static const char *const kLabels[kScoredCount] = {"Orientation", "RotationVector",
                                                    "GameRotationVector", "GeoMagnetic", "Qfusion"};
  for (int k = 0; k < kScoredCount; ++k) {
    const OutputScore &s = rep.out[k];
    const ErrorStats &e = s.stats;
    py::dict d;
    d["output"] = ScoredOutputName(k);
    d["label"] = kLabels[k];
    d["constant"] = s.constant;
    d["steps"] = e.scored;
    d["not_finite"] = e.invalid;
    d["offset_deg"] = e.offset_deg;
    d["heading_rms"] = e.heading_rms, d["heading_median"] = e.heading_median;
    d["heading_p95"] = e.heading_p95, d["heading_max"] = e.heading_max;
    d["tilt_rms"] = e.tilt_rms, d["tilt_median"] = e.tilt_median;
    d["tilt_p95"] = e.tilt_p95, d["tilt_max"] = e.tilt_max;
    d["lag_ms"] = s.lag.found ? s.lag.lag_ms : NAN;
    out.append(d);
  }
  return out;
}

// The per-step errors with the columns of qvn_replay --errors-out (NaN where
// a step was not scored).
py::dict ErrorColumns(const std::vector<StepRow> &rows, const AccuracyReport &rep, int64_t t0) {
  size_t n = rows.size();
  py::dict d;
  auto ts = NewArray<double>(n);
  auto acc = NewArray<int8_t>(n);
  for (size_t i = 0; i < n; ++i) {
    ts.mutable_at(i) = static_cast<double>(rows[i].t_ns - t0) / 1e9;
    acc.mutable_at(i) = rows[i].cal.accuracy;
  }
  d["t_s"] = ts, d["accuracy"] = acc;
  for (int k = 0; k < kScoredCount; ++k) {
    const ErrorSeries &s = rep.out[k].series;
    auto h = NewArray<double>(n), t = NewArray<double>(n);
    for (size_t i = 0; i < n; ++i) {
      bool have = i < s.heading_deg.size();
      h.mutable_at(i) = have ? s.heading_deg[i] : NAN;
      t.mutable_at(i) = have && i < s.tilt_deg.size() ? s.tilt_deg[i] : NAN;
    }
    d[py::str(std::string(ScoredOutputName(k)) + "_heading")] = h;
    d[py::str(std::string(ScoredOutputName(k)) + "_tilt")] = t;
  }
  return d;
}

// The calibration attempts as columns, named as qvn_replay --attempts-out
// names them.
py::dict AttemptColumns(const ReplayOutcome &o) {
  std::vector<int64_t> t_ns;
  std::vector<double> t_s, cx, cy, cz, r, sx, sy, sz, cov, ox, oy, oz, osx, osy, osz;
  std::vector<int> samples, lr, lm, lk, passed, adopted, first, level, before, after;
  std::vector<std::string> method, bound, why;
  for (const qvn_tools::CaliAttempt &a : o.attempts) {
    qvn_tools::V3 cs = o.frame.ToSensor(a.centre);
    qvn_tools::V3 os = o.frame.ToSensor({a.offset_after[0], a.offset_after[1], a.offset_after[2]});
    t_ns.push_back(a.t_ns);
    t_s.push_back(static_cast<double>(a.t_ns - o.t0_ns) / 1e9);
    method.push_back(qvn_tools::MethodName(a.method));
    samples.push_back(a.samples);
    cx.push_back(a.fitted ? a.centre.x : NAN), cy.push_back(a.fitted ? a.centre.y : NAN);
    cz.push_back(a.fitted ? a.centre.z : NAN), r.push_back(a.fitted ? a.radius : NAN);
    sx.push_back(a.fitted ? cs.x : NAN), sy.push_back(a.fitted ? cs.y : NAN);
    sz.push_back(a.fitted ? cs.z : NAN);
    lr.push_back(a.logged_radius), lm.push_back(a.logged_mean), lk.push_back(a.logged_off_shell);
    cov.push_back(a.coverage), passed.push_back(a.passed), adopted.push_back(a.adopted);
    first.push_back(a.first_offset), level.push_back(a.level);
    before.push_back(a.accuracy_before), after.push_back(a.accuracy_after);
    ox.push_back(a.offset_after[0]), oy.push_back(a.offset_after[1]);
    oz.push_back(a.offset_after[2]);
    osx.push_back(os.x), osy.push_back(os.y), osz.push_back(os.z);
    bound.push_back(qvn_tools::BoundKey(a.bound)), why.push_back(a.why);
  }
  py::dict d;
  d["t_ns"] = t_ns, d["t_s"] = t_s, d["method"] = method, d["samples"] = samples;
  d["centre_x"] = cx, d["centre_y"] = cy, d["centre_z"] = cz, d["radius"] = r;
  d["centre_sensor_x"] = sx, d["centre_sensor_y"] = sy, d["centre_sensor_z"] = sz;
  d["logged_radius"] = lr, d["logged_mean"] = lm, d["logged_off_shell"] = lk;
  d["coverage"] = cov, d["passed"] = passed, d["adopted"] = adopted, d["first_offset"] = first;
  d["level"] = level, d["accuracy_before"] = before, d["accuracy_after"] = after;
  d["offset_x"] = ox, d["offset_y"] = oy, d["offset_z"] = oz;
  d["offset_sensor_x"] = osx, d["offset_sensor_y"] = osy, d["offset_sensor_z"] = osz;
  d["bound"] = bound, d["why"] = why;
  return d;
}

py::dict CountsOf(const ReplayCounts &c) {
  py::dict d;
  for (int s = 0; s < 4; ++s) d[SensorName(static_cast<Sensor>(s))] = c.per_sensor[s];
  d["skipped_gyro"] = c.skipped_gyro;
  d["reinits"] = c.reinits;
  d["first_reinit_ns"] = c.first_reinit_ns;
  return d;
}

// ----------------------------------------------------------------- library

class PyLibrary {
 public:
  explicit PyLibrary(const std::string &path) {
    std::string error;
    std::lock_guard<std::mutex> lock(g_library_mutex);
    if (!session_.Load(path, &error)) {
      PyErr_SetString(PyExc_OSError, error.c_str());
      throw py::error_already_set();
    }
  }

  const std::string &path() const { return session_.lib().path(); }
  size_t state_bytes() const { return session_.state_bytes(); }

  void *Address(const TunableInfo &info) const {
    void *p = session_.lib().Symbol(info.name);
    if (p == nullptr)
      throw py::key_error("the library '" + path() + "' does not export '" + info.name + "'");
    return p;
  }

  // (name, numpy type, shape, exported) of every variable.
  py::list Info() const {
    py::list out;
    for (const TunableInfo &t : AllTunables()) {
      py::tuple shape = py::cast(ShapeOf(t));
      out.append(py::make_tuple(t.name, TypeName(t.type), shape,
                                session_.lib().Symbol(t.name) != nullptr));
    }
    return out;
  }

  // A numpy array over the variable's own memory.
  py::array View(py::object self, const std::string &name) const {
    const TunableInfo &info = Known(name);
    void *p = Address(info);
    std::vector<py::ssize_t> shape = ShapeOf(info);
    std::vector<py::ssize_t> strides;
    py::ssize_t step = static_cast<py::ssize_t>(info.element_size);
    for (size_t i = shape.size(); i-- > 0;) {
      strides.insert(strides.begin(), step);
      step *= shape[i];
    }
    return py::array(py::dtype(NumpyFormat(info.type)), shape, strides, p, self);
  }

  // Writes "NAME=VALUE" / "NAME[i]=VALUE" texts with the tools' parser; all
  // are checked before any is written.
  void Assign(const std::vector<std::string> &texts) const {
    std::vector<Assignment> parsed = ParseSets(texts);
    std::lock_guard<std::mutex> lock(g_library_mutex);
    for (const Assignment &a : parsed) Apply(a, Address(*a.info));
  }

  static std::vector<Assignment> ParseSets(const std::vector<std::string> &texts) {
    std::vector<Assignment> parsed;
    for (const std::string &text : texts) {
      Assignment a;
      std::string error;
      if (!ParseAssignment(text, &a, &error)) {
        if (error.rfind("unknown tunable", 0) == 0) throw py::key_error(error);
        throw py::value_error(error);
      }
      parsed.push_back(a);
    }
    return parsed;
  }

  void Reset() const {
    std::lock_guard<std::mutex> lock(g_library_mutex);
    session_.StartFromLoadTime(nullptr);
  }

  Run Replay(const EventList &events, int hw_gyro, const std::vector<std::string> &sets,
             std::optional<std::string> hwname, bool skip_early_gyro, bool reinit_on_nan,
             bool host_layer, int64_t current, double from_s, double to_s, const Truth *truth,
             double gt_shift_ms, double warmup_s, double score_from_s, double score_to_s, bool lag,
             const CalTruth *calibration, int log_mode, int log_priority) const {
    ReplayRequest rq;
    rq.events = &events.events;
    rq.events_label = events.label;
    rq.hw_gyro = hw_gyro;
    rq.sets = ParseSets(sets);
    rq.hwname_set = hwname.has_value();
    rq.hwname = hwname.value_or("");
    rq.skip_early_gyro = skip_early_gyro;
    rq.reinit_on_nan = reinit_on_nan;
    rq.host_layer = host_layer;
    rq.current = current;
    rq.from_s = from_s;
    rq.to_s = to_s;
    if (truth != nullptr) rq.truth = &truth->samples, rq.truth_label = truth->label;
    rq.gt_shift_ms = gt_shift_ms;
    rq.warmup_s = warmup_s;
    rq.score_from_s = score_from_s;
    rq.score_to_s = score_to_s;
    rq.lag = lag;
    if (calibration != nullptr)
      rq.calibration = &calibration->values, rq.calibration_label = calibration->label;
    rq.log_mode = static_cast<LogMode>(log_mode);
    rq.log_priority = log_priority;
    Run run;
    run.hw_gyro = hw_gyro;
    std::string error;
    bool ok;
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(g_library_mutex);
      ok = session_.Replay(rq, &run.outcome, &error);
    }
    if (!ok) throw py::value_error(error);
    return run;
  }

 private:
  Session session_;
};

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Bindings of the workstation tools' readers, replay loop and scoring";
  m.attr("BUILD_TREE_LIBRARY") = QVN_BUILD_TREE_LIBRARY;
  m.attr("BUILD_TREE_SIMULATE") = QVN_BUILD_TREE_SIMULATE;
  m.attr("LIBRARY_FROM_PACKAGE") = QVN_LIBRARY_FROM_PACKAGE;
  m.attr("SIMULATE_FROM_PACKAGE") = QVN_SIMULATE_FROM_PACKAGE;
  m.attr("STEP_COLUMNS") = SplitCsvLine(kStepCsvHeader);
  {
    py::list sensors;
    for (int s = 0; s < 4; ++s) sensors.append(SensorName(static_cast<Sensor>(s)));
    m.attr("SENSORS") = sensors;
  }

  py::class_<EventList>(m, "EventList")
      .def_static("read", &ReadEvents, py::arg("path"))
      .def_static("from_arrays", &EventsFromArrays, py::arg("t_ns"), py::arg("sensor"),
                  py::arg("x"), py::arg("y"), py::arg("z"), py::arg("label"))
      .def("arrays", &EventArrays)
      .def("__len__", [](const EventList &l) { return l.events.size(); })
      .def_readonly("label", &EventList::label);

  py::class_<Truth>(m, "Truth")
      .def_static("load", &LoadTruth, py::arg("path"))
      .def_static("from_arrays", &TruthFromArrays, py::arg("t_ns"), py::arg("q"), py::arg("label"))
      .def("arrays", &TruthArrays)
      .def(
          "shifted",
          [](const Truth &t, int64_t delta_ns, const std::string &label) {
            Truth c = t;  // sigma and the untrusted samples come along
            c.samples.Shift(delta_ns);
            c.label = label;
            return c;
          },
          py::arg("delta_ns"), py::arg("label"))
      .def(
          "set_max_sigma",
          [](Truth &t, double max_deg) {
            if (!(max_deg >= 0)) throw py::value_error("max sigma: needs degrees >= 0");
            return t.samples.SetMaxSigma(max_deg);
          },
          py::arg("max_deg"))
      .def_property_readonly("has_sigma", [](const Truth &t) { return t.samples.has_sigma(); })
      .def("__len__", [](const Truth &t) { return t.samples.size(); })
      .def_readonly("label", &Truth::label);

  py::class_<CalTruth>(m, "CalibrationTruth")
      .def_static("load", &LoadCalTruth, py::arg("path"))
      .def("values", [](const CalTruth &c) { return c.values.values(); })
      .def_readonly("label", &CalTruth::label);

  py::class_<Run>(m, "Run")
      .def("columns", [](const Run &r) { return StepColumns(r.outcome.rows); })
      .def("qfusion", [](const Run &r) { return Qfusion(r.outcome.rows); })
      .def_property_readonly("summary", [](const Run &r) { return r.outcome.summary; })
      .def_property_readonly("warnings", [](const Run &r) { return r.outcome.warnings; })
      .def_property_readonly("log", [](const Run &r) { return r.outcome.log; })
      .def_property_readonly("counts", [](const Run &r) { return CountsOf(r.outcome.counts); })
      .def_property_readonly("t0_ns", [](const Run &r) { return r.outcome.t0_ns; })
      .def_property_readonly("file_t0_ns", [](const Run &r) { return r.outcome.file_t0_ns; })
      .def_property_readonly("hw_gyro", [](const Run &r) { return r.hw_gyro; })
      .def_property_readonly("initial_offset",
                             [](const Run &r) {
                               return std::vector<float>(r.outcome.initial_offset,
                                                         r.outcome.initial_offset + 3);
                             })
      .def_property_readonly("scored", [](const Run &r) { return r.outcome.scored; })
      .def("attempts", [](const Run &r) { return AttemptColumns(r.outcome); })
      .def("accuracy", [](const Run &r) { return AccuracyRows(r.outcome.accuracy); })
      .def("errors",
           [](const Run &r) {
             return ErrorColumns(r.outcome.rows, r.outcome.accuracy, r.outcome.t0_ns);
           })
      .def(
          "score",
          [](const Run &r, const Truth &truth, double gt_shift_ms, double warmup_s,
             double score_from_s, double score_to_s, bool lag) {
            OrientationTruth gt = truth.samples;
            if (gt_shift_ms != 0) gt.Shift(static_cast<int64_t>(gt_shift_ms * 1e6));
            AccuracyOptions ao;
            ao.hw_gyro = r.hw_gyro;
            ScoringWindow(r.outcome.file_t0_ns, r.outcome.t0_ns, warmup_s, score_from_s, score_to_s,
                          &ao.from_ns, &ao.to_ns);
            ao.with_lag = lag;
            ao.with_series = true;
            std::string table;
            AccuracyReport rep;
            {
              py::gil_scoped_release release;
              rep = qvn_python::ScoreRows(r.outcome.rows, gt, ao, r.outcome.t0_ns, &table);
            }
            return py::make_tuple(AccuracyRows(rep),
                                  ErrorColumns(r.outcome.rows, rep, r.outcome.t0_ns), table);
          },
          py::arg("truth"), py::arg("gt_shift_ms"), py::arg("warmup_s"), py::arg("score_from_s"),
          py::arg("score_to_s"), py::arg("lag"))
      .def("write_csv", [](const Run &r, const std::string &path) {
        std::string error;
        if (!WriteStepCsv(path, r.outcome.rows, &error)) throw py::value_error(error);
      });

  py::class_<PyLibrary>(m, "Library")
      .def(py::init<const std::string &>(), py::arg("path"))
      .def_property_readonly("path", &PyLibrary::path)
      .def_property_readonly("state_bytes", &PyLibrary::state_bytes)
      .def("info", &PyLibrary::Info)
      .def("view",
           [](py::object self, const std::string &name) {
             return self.cast<const PyLibrary &>().View(self, name);
           })
      .def("assign", &PyLibrary::Assign, py::arg("texts"))
      .def_static("check_sets",
                  [](const std::vector<std::string> &texts) { PyLibrary::ParseSets(texts); })
      .def("reset", &PyLibrary::Reset)
      .def("replay", &PyLibrary::Replay, py::arg("events"), py::arg("hw_gyro"), py::arg("sets"),
           py::arg("hwname"), py::arg("skip_early_gyro"), py::arg("reinit_on_nan"),
           py::arg("host_layer"), py::arg("current"), py::arg("from_s"), py::arg("to_s"),
           py::arg("truth"), py::arg("gt_shift_ms"), py::arg("warmup_s"),
           py::arg("score_from_s"), py::arg("score_to_s"), py::arg("lag"),
           py::arg("calibration"), py::arg("log_mode"), py::arg("log_priority"));

  m.def("read_set_file", [](const std::string &path) {
    std::vector<Assignment> sets;
    std::string error;
    if (!ReadSetFile(path, &sets, &error)) throw py::value_error(error);
    std::vector<std::string> texts;
    for (const Assignment &a : sets) texts.push_back(FormatAssignment(a));
    return texts;
  });

  // A tuned set as qvn_replay --set-file reads it, and as the host's C function.
  m.def("set_file_text",
        [](const std::vector<std::string> &texts, const std::vector<std::string> &comment) {
          return SetFileText(PyLibrary::ParseSets(texts), comment);
        });
  m.def("c_snippet_text",
        [](const std::vector<std::string> &texts, const std::vector<std::string> &comment) {
          return CSnippetText(PyLibrary::ParseSets(texts), comment);
        });

  m.def("log_priority", [](const std::string &name) {
    int p = 0;
    if (!ParseLogLevel(name, &p))
      throw py::value_error("unknown log level '" + name +
                            "' (verbose, debug, info, warn, error, silent)");
    return p;
  });
}
