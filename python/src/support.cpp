// SPDX-License-Identifier: MIT
#include "support.h"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cmath>

#include "notes.h"

namespace velta::python {

namespace {

std::atomic<unsigned> process_number{0};
std::atomic<pthread_t> ending_thread{};

bool IsFinalizing() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing() != 0;
#else
  return _Py_IsFinalizing() != 0;
#endif
}

py::object Errors() { return py::module_::import("velta._errors"); }

/// Objects of Python that live until the process ends: nothing may be released after the interpreter has ended.
template <typename T>
const T& ForGood(T&& object) {
  return *new T(std::forward<T>(object));
}

}  // namespace

unsigned ProcessNumber() { return process_number.load(std::memory_order_relaxed); }

bool IsMainThread() { return getpid() == gettid(); }

void CheckProcess(unsigned number) {
  if (number != ProcessNumber())
    Raise("Error", "this object belongs to the parent process; make a new one after a fork");
}

void TakeGil(PyThreadState* state) {
  while (IsFinalizing() && pthread_self() != ending_thread.load()) pause();
  try {
    PyEval_RestoreThread(state);
  } catch (abi::__forced_unwind&) {  // the interpreter began to end meanwhile
    for (;;) pause();
  }
}

void Raise(const char* type, const std::string& text) {
  PyErr_SetString(Errors().attr(type).ptr(), text.c_str());
  throw py::error_already_set();
}

std::chrono::nanoseconds Duration(py::handle value, const char* name) {
  const py::object seconds = py::hasattr(value, "total_seconds") ? py::object(value.attr("total_seconds")())
                                                                 : py::reinterpret_borrow<py::object>(value);
  const double s = PyFloat_AsDouble(seconds.ptr());
  if (PyErr_Occurred() != nullptr) throw py::error_already_set();
  if (!(s >= 0)) BadArgument(std::string(name) + " is a duration in seconds, 0 or more");
  constexpr double kMost = 3e9;
  return std::chrono::nanoseconds(std::llround(std::min(s, kMost) * 1e9));
}

std::optional<std::chrono::nanoseconds> Timeout(py::handle value) {
  if (value.is_none()) return std::nullopt;
  return Duration(value, "timeout");
}

int CheckJointCount(int joints) {
  if (joints < 1 || joints > 828) BadArgument("an arm has 1 to 828 joints, not " + std::to_string(joints));
  return joints;
}

py::object AddEnum(py::module_& m, const char* base, const char* name, const char* doc,
                   std::initializer_list<std::pair<const char*, int>> members) {
  py::list pairs;
  for (const auto& [key, value] : members) pairs.append(py::make_tuple(key, value));
  py::object cls =
      py::module_::import("enum").attr(base)(name, pairs, py::arg("module") = "velta", py::arg("qualname") = name);
  cls.attr("__doc__") = doc;
  m.attr(name) = cls;
  return cls;
}

const std::vector<StatusField>& StatusFields() {
#define VELTA_FIELD(name, member, format, help) \
  { name, format, offsetof(rxJoint_t, member), help }
  static const std::vector<StatusField> fields{
      VELTA_FIELD("type", type, "u1", "joint type, uint8 (n,)"),
      VELTA_FIELD("com_status", comStatus, "u1", "communication status, uint8 (n,)"),
      VELTA_FIELD("system_mode", systemMode, "u1", "system mode, uint8 (n,)"),
      VELTA_FIELD("ctrl_mode", ctrlMode, "u1", "control mode, uint8 (n,)"),
      VELTA_FIELD("ew_status", ewStatus, "<u4", "error and warning word, uint32 (n,)"),
      VELTA_FIELD("trj_status", trjStatus, "u1", "trajectory status, uint8 (n,)"),
      VELTA_FIELD("trj_via_remain", trjViaRemain, "<u2", "trajectory via points still queued, uint16 (n,)"),
      VELTA_FIELD("ref_current", refCurrent, "<f4", "reference current, float32 (n,), controller's units"),
      VELTA_FIELD("ref_position", refPosition, "<f4", "reference position, float32 (n,), controller's units"),
      VELTA_FIELD("ref_velocity", refVelocity, "<f4", "reference velocity, float32 (n,), controller's units"),
      VELTA_FIELD("ref_acceleration", refAcceleration, "<f4",
                  "reference acceleration, float32 (n,), controller's units"),
      VELTA_FIELD("ref_effort", refEffort, "<f4", "reference effort, float32 (n,), controller's units"),
      VELTA_FIELD("current", current, "<f4", "measured current, float32 (n,), controller's units"),
      VELTA_FIELD("position", position, "<f4", "measured position, float32 (n,), controller's units"),
      VELTA_FIELD("velocity", velocity, "<f4", "measured velocity, float32 (n,), controller's units"),
      VELTA_FIELD("out_conv_in_velocity", outConvInVelocity, "<f4",
                  "output-side velocity converted to the input side, float32 (n,), controller's units"),
      VELTA_FIELD("acceleration", acceleration, "<f4", "measured acceleration, float32 (n,), controller's units"),
      VELTA_FIELD("out_conv_in_acceleration", outConvInAcceleration, "<f4",
                  "output-side acceleration converted to the input side, float32 (n,), controller's units"),
      VELTA_FIELD("effort", effort, "<f4", "measured effort, float32 (n,), controller's units"),
      VELTA_FIELD("temperature", temperature, "<f4", "temperature, float32 (n,), controller's units"),
      VELTA_FIELD("general", general, "(4,)<f4", "general-purpose registers, float32 (n, 4)")};
#undef VELTA_FIELD
  return fields;
}

const py::dtype& FieldType(std::size_t field) {
  static const auto& types =
      [] {
        std::vector<py::dtype> made;
        for (const StatusField& f : StatusFields()) {
          const py::dtype type = py::dtype::from_args(py::str(f.format));
          made.push_back(
              py::hasattr(type, "subdtype") && !type.attr("subdtype").is_none() ? py::dtype(type.attr("base")) : type);
        }
        return std::cref(ForGood(std::move(made)));
      }()
          .get();
  return types[field];
}

py::dtype StatusRecord() {
  static const auto& record =
      [] {
        py::list names, formats, offsets;
        for (const StatusField& field : StatusFields()) {
          names.append(field.name);
          formats.append(field.format);
          offsets.append(field.offset);
        }
        return std::cref(ForGood(py::dtype(names, formats, offsets, sizeof(rxJoint_t))));
      }()
          .get();
  return record;
}

py::dtype CommandRecord() {
  static const auto& record =
      [] {
        py::list names, formats, offsets;
        const auto add = [&](const char* name, const char* format, std::size_t offset) {
          names.append(name);
          formats.append(format);
          offsets.append(offset);
        };
        add("id", "u1", offsetof(txJoint_t, id));
        add("order", "u1", offsetof(txJoint_t, order));
        add("value1", "<f4", offsetof(txJoint_t, value1));
        add("value2", "<f4", offsetof(txJoint_t, value2));
        add("value3", "<f4", offsetof(txJoint_t, value3));
        add("value4", "<f4", offsetof(txJoint_t, value4));
        return std::cref(ForGood(py::dtype(names, formats, offsets, sizeof(txJoint_t))));
      }()
          .get();
  return record;
}

}  // namespace velta::python

namespace {

void RefuseSubinterpreter() {
  if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
    throw pybind11::import_error("velta runs in the main interpreter only, not in a subinterpreter");
  }
}

}  // namespace

PYBIND11_MODULE(_velta, m) {
  using namespace velta::python;
  RefuseSubinterpreter();
  m.doc() = "The compiled part of velta; use velta itself.";
  const pybind11::object name = m.attr("__name__");
  m.attr("__name__") = "velta";  // where users find the classes, and what the signatures in help() show
  m.def("_check_interpreter", RefuseSubinterpreter, "Raises ImportError in a subinterpreter.");
  m.def(
      "_ending", [] { ending_thread = pthread_self(); }, "The calling thread is the one that ends the interpreter.");
  pthread_atfork(nullptr, nullptr, [] {
    ++process_number;
    Notes::Renew();
  });
  AddPackets(m);
  AddClient(m);
  AddSession(m);
  AddRecording(m);
  m.attr("__name__") = name;
}
