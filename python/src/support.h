// SPDX-License-Identifier: MIT
#ifndef VELTA_PYTHON_SUPPORT_H_
#define VELTA_PYTHON_SUPPORT_H_

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "protocol.h"

namespace velta::python {

namespace py = pybind11;

/// @name Parts of the module, one per source file
/// @{
void AddPackets(py::module_& m);
void AddClient(py::module_& m);
void AddSession(py::module_& m);
void AddRecording(py::module_& m);
/// @}

/// How often a wait looks for signals, so that Ctrl-C ends it.
inline constexpr std::chrono::nanoseconds kSlice = std::chrono::milliseconds(20);

/// A number that differs between a process and its forked children, whose threads are gone.
unsigned ProcessNumber();

/// Raises velta.Error in a forked child of the process in which an object of that number was made.
void CheckProcess(unsigned number);

/// Signal handlers of Python run in the main thread.
bool IsMainThread();

/// Takes the GIL again. A thread that comes too late, while the interpreter ends, stays here for good: Python would end
/// it by unwinding through destructors.
void TakeGil(PyThreadState* state);

/// Runs job without the GIL; what it throws passes. Takes no lock itself, and has none when it takes the GIL again.
template <typename Job>
auto WithoutGil(Job job) {
  PyThreadState* const state = PyEval_SaveThread();
  std::exception_ptr error;
  if constexpr (std::is_void_v<decltype(job())>) {
    try {
      job();
    } catch (const std::exception&) {
      error = std::current_exception();
    }
    TakeGil(state);
    if (error) std::rethrow_exception(error);
  } else {
    std::optional<decltype(job())> result;
    try {
      result.emplace(job());
    } catch (const std::exception&) {
      error = std::current_exception();
    }
    TakeGil(state);
    if (error) std::rethrow_exception(error);
    return std::move(*result);
  }
}

/// Waits until look() is true or the time is over; a signal handler's exception passes, so that Ctrl-C ends the wait.
/// @param timeout  none: for ever
/// @param wait     waits for at most the time that it is given, without the GIL; true where looking makes sense
/// @param look     with the GIL
/// @return whether look() was true
template <typename Wait, typename Look>
bool WaitInSlices(std::optional<std::chrono::nanoseconds> timeout, Wait wait, Look look) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (;;) {
    std::chrono::nanoseconds slice = IsMainThread() ? kSlice : std::chrono::hours(1);
    if (timeout) slice = std::clamp(*timeout - (Clock::now() - start), std::chrono::nanoseconds(0), slice);
    if (WithoutGil([&] { return wait(slice); }) && look()) return true;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (timeout && Clock::now() - start >= *timeout) return false;
  }
}

/// Frees an object without the GIL, since its destructor may wait for a thread; in a forked child it is left alone,
/// since that thread is gone.
struct FreeWithoutGil {
  template <typename T>
  void operator()(T* object) const {
    if (object->process == ProcessNumber()) WithoutGil([object] { delete object; });
  }
};

/// Raises velta.<type>.
[[noreturn]] void Raise(const char* type, const std::string& text);

/// Raises velta.ArgumentError, which is a ValueError.
[[noreturn]] inline void BadArgument(const std::string& text) { Raise("ArgumentError", text); }

/// A duration given as seconds or as a timedelta; at most about a century.
std::chrono::nanoseconds Duration(py::handle value, const char* name);

/// The same, where None means for ever.
std::optional<std::chrono::nanoseconds> Timeout(py::handle value);

/// Throws ArgumentError unless 1 to 828 joints.
int CheckJointCount(int joints);

/// Adds an enumeration of Python's enum module.
/// @param base  "Enum" or "IntEnum"
/// @return the class
py::object AddEnum(py::module_& m, const char* base, const char* name, const char* doc,
                   std::initializer_list<std::pair<const char*, int>> members);

/// The dtype of rxJoint_t (79 bytes) and of txJoint_t (18 bytes), packed.
py::dtype StatusRecord();
py::dtype CommandRecord();

/// A read-only view of records: no copy; owner stays alive as long as the view.
template <typename Record>
py::array ViewRecords(const py::dtype& dtype, const std::vector<Record>& records, py::handle owner) {
  py::array view(dtype, {records.size()}, {sizeof(Record)}, records.data(), owner);
  py::detail::array_proxy(view.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
  return view;
}

/// Takes large memory in pages of 2 MiB where the system has them: one page fault in place of 512, which together take
/// longer than it takes to fill the memory.
template <typename T>
struct LargePages {
  using value_type = T;

  T* allocate(std::size_t count) {
    constexpr std::size_t kPage = std::size_t{1} << 21;
    const std::size_t size = count * sizeof(T);
    void* const memory =
        size < kPage ? std::malloc(size) : std::aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage);
    if (memory == nullptr) throw std::bad_alloc();
    if (size >= kPage) static_cast<void>(madvise(memory, size, MADV_HUGEPAGE));  // a wish only
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, std::size_t /*count*/) { std::free(memory); }

  friend bool operator==(const LargePages& /*left*/, const LargePages& /*right*/) { return true; }
  friend bool operator!=(const LargePages& /*left*/, const LargePages& /*right*/) { return false; }
};

/// An array of its own over what a vector holds, of any shape of that size; no copy.
template <typename T, typename Memory>
py::array Own(std::vector<T, Memory>&& values, const py::dtype& dtype, std::vector<py::ssize_t> shape) {
  auto kept = std::make_unique<std::vector<T, Memory>>(std::move(values));
  const void* const data = kept->data();
  const py::capsule owner(kept.get(), [](void* vector) { delete static_cast<std::vector<T, Memory>*>(vector); });
  static_cast<void>(kept.release());
  return py::array(dtype, std::move(shape), data, owner);
}

/// Adds a property per field of a status record: a read-only view (n,) over the packet that `packet` finds in an
/// object.
template <typename Class, typename PacketOf>
void AddFieldViews(Class& cls, PacketOf packet);

/// One field of a status record.
struct StatusField {
  const char* name;    ///< in Python
  const char* format;  ///< of NumPy
  std::size_t offset;  ///< in the record, bytes
  const char* help;
};
const std::vector<StatusField>& StatusFields();

/// The dtype of one field, made once.
const py::dtype& FieldType(std::size_t field);

template <typename Class, typename PacketOf>
void AddFieldViews(Class& cls, PacketOf packet) {
  using Object = typename Class::type;
  for (std::size_t i = 0; i < StatusFields().size(); ++i) {
    const StatusField& field = StatusFields()[i];
    const std::size_t offset = field.offset;
    cls.def_property_readonly(
        field.name,
        [i, offset, packet](const py::object& self) -> py::array {
          const auto& records = packet(self.cast<const Object&>()).joints;
          const auto count = static_cast<py::ssize_t>(records.size());
          if (count == 0) return py::array(FieldType(i), std::vector<py::ssize_t>{0});
          const char* const first = reinterpret_cast<const char*>(records.data()) + offset;
          constexpr auto kStride = static_cast<py::ssize_t>(sizeof(rxJoint_t));
          const bool is_general = offset == offsetof(rxJoint_t, general);
          py::array view =
              is_general ? py::array(FieldType(i), {count, py::ssize_t{4}}, {kStride, py::ssize_t{4}}, first, self)
                         : py::array(FieldType(i), {count}, {kStride}, first, self);
          py::detail::array_proxy(view.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
          return view;
        },
        field.help);
  }
}

}  // namespace velta::python

#endif  // VELTA_PYTHON_SUPPORT_H_
