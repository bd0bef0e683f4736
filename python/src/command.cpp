// SPDX-License-Identifier: MIT
#include "command.h"

#include <array>
#include <charconv>
#include <cmath>
#include <sstream>

#include "command_table.h"

namespace velta::python {

namespace {

/// A named setter as Python sees it.
struct Setter {
  const wire::CommandWord* word;
  std::string name;                    ///< "trajectory_pt_lin_spline"
  std::vector<std::string> arguments;  ///< after joints
};

constexpr std::size_t kMostArguments = 5;
using Arguments = std::array<float, kMostArguments>;

std::string ShowValue(py::handle value) { return py::repr(value).cast<std::string>(); }

bool IsSequence(py::handle value) {
  if (PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr()) || !PySequence_Check(value.ptr())) return false;
  if (PySequence_Size(value.ptr()) >= 0) return true;
  PyErr_Clear();  // an array of no dimension is a number
  return false;
}

int Joint(py::handle value, int joint_num) {
  if (PyBool_Check(value.ptr())) throw py::type_error("a joint is an index, not " + ShowValue(value));
  const py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  const long joint = PyLong_AsLongAndOverflow(index.ptr(), &overflow);
  if (overflow == 0 && joint >= 0 && joint < joint_num) return static_cast<int>(joint);
  BadArgument("joint " + ShowValue(value) + " does not exist; this arm has joints 0 to " +
              std::to_string(joint_num - 1));
}

std::vector<int> JointsOfText(const std::string& text, int joint_num) {
  std::vector<int> joints;
  if (text == "all") {
    for (int i = 0; i < joint_num; ++i) joints.push_back(i);
    return joints;
  }
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('/', begin), text.size());
    unsigned joint = 0;
    const auto [last, error] = std::from_chars(text.data() + begin, text.data() + end, joint);
    if (error != std::errc{} || last != text.data() + end || joint >= static_cast<unsigned>(joint_num)) {
      BadArgument("'" + text + "' does not name joints of this arm: 'all', or indices from 0 to " +
                  std::to_string(joint_num - 1) + " separated by '/'");
    }
    joints.push_back(static_cast<int>(joint));
    begin = end + 1;
  }
  return joints;
}

/// @param kind  as in wire::CommandWord::kinds
float Value(char kind, const std::string& name, py::handle value) {
  if (PyUnicode_Check(value.ptr())) throw py::type_error(name + " is a number, not " + ShowValue(value));
  const double real = PyFloat_AsDouble(value.ptr());
  if (PyErr_Occurred() != nullptr) {
    if (PyErr_ExceptionMatches(PyExc_OverflowError) == 0) throw py::error_already_set();
    PyErr_Clear();
    BadArgument(name + " is out of range");
  }
  const auto single = static_cast<float>(real);
  if (kind == 'f' && std::isfinite(single)) return single;
  if (kind == 'f') BadArgument(name + " is a finite 32-bit real number, not " + ShowValue(value));
  if (kind == 'b' && (real == 0 || real == 1)) return single;
  if (kind == 'b') BadArgument(name + " is True or False, not " + ShowValue(value));
  // It travels as a real, which holds every integer up to 2^24.
  if (std::abs(real) <= 1 << 24 && std::floor(real) == real) return single;
  BadArgument(name + " is an integer of up to 24 bits, not " + ShowValue(value));
}

/// The arguments of a call in the setter's order; empty handles for missing flags.
std::vector<py::object> Bind(const Setter& setter, std::size_t first, const py::args& args, const py::kwargs& kwargs) {
  std::vector<py::object> bound(first + setter.arguments.size());
  if (args.size() > bound.size()) {
    throw py::type_error(setter.name + " takes " + std::to_string(bound.size()) + " arguments, not " +
                         std::to_string(args.size()));
  }
  for (std::size_t i = 0; i < args.size(); ++i) bound[i] = args[i];
  std::size_t used = 0;
  for (std::size_t i = 0; i < bound.size(); ++i) {
    const std::string name = i < first ? std::string("joints") : setter.arguments[i - first];
    if (kwargs.contains(name)) {
      if (bound[i]) throw py::type_error(setter.name + " has two values for " + name);
      bound[i] = kwargs[name.c_str()];
      ++used;
    }
    const bool has_default = i >= first && setter.word->kinds[i - first] == 'b';
    if (!bound[i] && !has_default) throw py::type_error(setter.name + " needs " + name);
    if (!bound[i]) bound[i] = py::bool_(true);
  }
  if (used != kwargs.size()) throw py::type_error(setter.name + " has no such argument");
  return bound;
}

void SetCommand(const Setter& setter, Command& command, const py::args& args, const py::kwargs& kwargs) {
  const std::size_t first = setter.word->of_arm ? 0 : 1;
  const std::vector<py::object> bound = Bind(setter, first, args, kwargs);
  const std::vector<int> joints =
      first == 0 ? std::vector<int>{0} : NamedJoints(bound[0], command.jointNum);  // an arm command is one
  // Everything is read before anything is set.
  std::vector<Arguments> values(joints.size());
  for (std::size_t a = 0; a < setter.arguments.size(); ++a) {
    const py::object& given = bound[first + a];
    const std::string name = setter.name + ": " + setter.arguments[a];
    const char kind = setter.word->kinds[a];
    if (first == 0 || !IsSequence(given)) {
      const float value = Value(kind, name, given);
      for (Arguments& of_joint : values) of_joint[a] = value;
      continue;
    }
    const auto list = py::reinterpret_borrow<py::sequence>(given);
    if (list.size() != joints.size()) {
      BadArgument(name + " has " + std::to_string(list.size()) + " values for " + std::to_string(joints.size()) +
                  " joints");
    }
    for (std::size_t j = 0; j < joints.size(); ++j) values[j][a] = Value(kind, name, list[j]);
  }
  for (std::size_t j = 0; j < joints.size(); ++j) {
    setter.word->apply(command, std::to_string(joints[j]), values[j].data());
  }
}

/// What the packet's own setter does: silence for what it does not understand.
void SetPacket(const Setter& setter, SendPacket& packet, const py::args& args, const py::kwargs& kwargs) {
  const std::size_t first = setter.word->of_arm ? 0 : 1;
  const std::vector<py::object> bound = Bind(setter, first, args, kwargs);
  Arguments values{};
  for (std::size_t a = 0; a < setter.arguments.size(); ++a) {
    values[a] = static_cast<float>(bound[first + a].cast<double>());
  }
  setter.word->apply(packet, first == 0 ? std::string() : bound[0].cast<std::string>(), values.data());
}

std::vector<Setter> MakeSetters() {
  std::vector<Setter> setters;
  for (const wire::CommandWord& word : wire::CommandWords()) {
    Setter setter{&word, word.name, {}};
    for (char& c : setter.name) c = c == '-' ? '_' : c;
    std::istringstream names(word.arguments);
    for (std::string name; names >> name;) setter.arguments.push_back(name);
    setters.push_back(std::move(setter));
  }
  return setters;
}

/// The documentation of a setter, with a first line that Python's inspect module reads as the signature.
std::string Doc(const Setter& setter, const std::string& name, bool is_strict) {
  std::string doc = name + "(self" + (setter.word->of_arm ? "" : ", joints");
  for (std::size_t i = 0; i < setter.arguments.size(); ++i) {
    doc += ", " + setter.arguments[i] + (setter.word->kinds[i] == 'b' ? "=True" : "");
  }
  doc += std::string(")\n--\n\n") + static_cast<char>(std::toupper(setter.word->help[0])) + (setter.word->help + 1);
  if (setter.word->of_arm) doc += " (whole arm)";
  if (!is_strict) return doc + ".";
  doc += setter.arguments.empty() || setter.word->of_arm
             ? "."
             : ".\n\nEach value is a number, or a sequence with one per joint.";
  return doc + " Returns the command.";
}

template <typename Packet, typename Set>
void AddSetter(py::handle cls, const Setter& setter, const std::string& name, bool is_strict, Set set) {
  py::options options;
  options.disable_function_signatures();
  const std::string doc = Doc(setter, name, is_strict);
  cls.attr(name.c_str()) = py::cpp_function(
      [&setter, set, is_strict](const py::object& self, const py::args& args, const py::kwargs& kwargs) -> py::object {
        set(setter, self.cast<Packet&>(), args, kwargs);
        if (is_strict) return self;
        return py::none();
      },
      py::name(name.c_str()), py::is_method(cls), doc.c_str());
}

}  // namespace

std::vector<int> NamedJoints(py::handle joints, int joint_num) {
  if (PyUnicode_Check(joints.ptr())) return JointsOfText(joints.cast<std::string>(), joint_num);
  if (!IsSequence(joints)) return {Joint(joints, joint_num)};
  std::vector<int> named;
  for (const py::handle joint : py::reinterpret_borrow<py::sequence>(joints)) named.push_back(Joint(joint, joint_num));
  if (named.empty()) BadArgument("no joint is named");
  return named;
}

void AddSetters(py::handle packet_class, py::handle command_class) {
  static const auto& setters = *new std::vector<Setter>(MakeSetters());
  for (const Setter& setter : setters) {
    AddSetter<SendPacket>(packet_class, setter, "set_" + setter.name, false, SetPacket);
    AddSetter<Command>(command_class, setter, setter.name, true, SetCommand);
  }
}

}  // namespace velta::python
