#pragma once

#include <libmw/future.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <pybind11/pybind11.h>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

/// How threads of the platform and the interpreter get along.
///
/// - **Whatever may wait is done without the GIL** (`withoutGil`, `waitWhile`): what it waits for may be a callback
/// that
///   wants it.
/// - **Callbacks come in by one gate** (`intoPython`), which closes when the interpreter ends.
/// - **A thread that wants the GIL after the end is ended by Python**, in the middle of C++ that does not expect it. So
///   the GIL is taken, and Python called, by functions that stop such a thread where it stands (`takeGil`,
///   `callObject`), never by destructors.
/// - **A forked child has none of the threads**: it uses nothing of the package, and lets go of nothing (`Held`).
namespace korvo::python {

namespace py = pybind11;

/// Called once, when the package is imported.
void prepareInterpreter();

/// From now on a fork makes a child that can use nothing of the package: this process has threads of the platform.
void beginUse();
/// Whether this process is such a child.
bool isForked() noexcept;
/// With the GIL.
/// @throws std::runtime_error in a forked child; SystemExit where the interpreter is ending, so that threads that go on
///         until the end, as daemons do, end without a word.
void requireUsable();

/// Takes the GIL back for the calling thread. Does not return where the interpreter has ended.
void takeGil(PyThreadState* state);

/// Runs `work` without the GIL, which the caller has.
/// @return What `work` returns.
template <class Work>
auto withoutGil(Work&& work) {
  using Result = std::invoke_result_t<Work>;
  std::exception_ptr error;
  PyThreadState* const state = PyEval_SaveThread();
  if constexpr (std::is_void_v<Result>) {
    try {
      work();
    } catch (...) {
      error = std::current_exception();
    }
    takeGil(state);
    if (error) std::rethrow_exception(error);
  } else {
    std::optional<Result> result;
    try {
      result.emplace(work());
    } catch (...) {
      error = std::current_exception();
    }
    takeGil(state);
    if (error) std::rethrow_exception(error);
    return std::move(*result);
  }
}

/// How long something may take, from now on.
class Limit {
 public:
  /// @param seconds  None for no limit.
  explicit Limit(std::optional<double> seconds) : seconds_(seconds), begin_(Clock::now()) {}

  double seconds() const { return seconds_.value_or(0); }
  bool isOver() const;
  /// How long the calling thread may wait before it looks after signals, which the main thread does, or is too late.
  std::chrono::milliseconds longestWait() const;

 private:
  using Clock = std::chrono::steady_clock;
  std::optional<double> seconds_;
  Clock::time_point begin_;
};

/// Waits without the GIL. The main thread looks after signals meanwhile.
/// @param limit  How long.
/// @param wait   Waits at most so long, and says whether what is waited for is there.
/// @return Whether it is there.
/// @throws py::error_already_set when the handler of a signal raised, as that of Ctrl-C does.
bool waitWhile(const Limit& limit, const std::function<bool(std::chrono::milliseconds)>& wait);

/// Runs `work` with the GIL, on any thread.
/// @param what  Named if it still runs when the interpreter has ended: "callback of Door". Good during the call.
/// @return False, with nothing done, where the interpreter is ending.
bool intoPython(std::string_view what, const std::function<void()>& work);

/// Calls a Python object. Does not return where the interpreter ends meanwhile.
/// @param callable   Borrowed.
/// @param arguments  A tuple; borrowed.
/// @return A new reference; null with the error set.
PyObject* callObject(PyObject* callable, PyObject* arguments);
/// The same with an error as an exception.
template <class... Arguments>
py::object callPython(const py::object& callable, Arguments&&... arguments) {
  const py::tuple all = py::make_tuple(std::forward<Arguments>(arguments)...);
  PyObject* const result = callObject(callable.ptr(), all.ptr());
  if (!result) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(result);
}

/// Ends all callbacks and runs `closeAll` without the GIL: called when Python's own end begins. Callbacks get two
/// seconds to return; the process then ends without them, and tells which they are.
void endInterpreter(const std::function<void()>& closeAll);
bool isEnding() noexcept;

/// What waits for more, and is to stop waiting when its connection is closed.
class Endable {
 public:
  Endable() = default;
  Endable(const Endable&) = delete;
  Endable& operator=(const Endable&) = delete;
  virtual ~Endable() = default;
  /// Without the GIL.
  virtual void end() = 0;
};

/// Lets go of what a Python object holds: without the GIL, since that may wait for callbacks, and not at all in a
/// forked child, where it would speak on its parent's connections.
struct Release {
  template <class T>
  void operator()(T* held) const {
    if (isForked()) return;
    if (PyGILState_Check()) {
      withoutGil([&] { delete held; });
    } else {
      delete held;
    }
  }
};
template <class T>
using Held = std::unique_ptr<T, Release>;

}  // namespace korvo::python
