#include "interpreter.h"

#include <libmw/trackable.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <list>
#include <mutex>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>

namespace korvo::python {
namespace {

constexpr std::chrono::milliseconds kBetweenSignals{50};
constexpr std::chrono::seconds kGrace{2};

std::atomic<bool> used{false};
std::atomic<bool> forked{false};
std::atomic<bool> ending{false};

/// Never destroyed: threads come until the process has ended.
mw::CallGate& gate() {
  static auto* const the = new mw::CallGate;
  return *the;
}

/// The callbacks that run, for what is said of them at the end.
struct Running {
  static Running& instance() {
    static auto* const the = new Running;
    return *the;
  }

  std::mutex mutex;  // Guards `names`.
  std::list<std::string_view> names;
};

class Named {
 public:
  explicit Named(std::string_view name) {
    Running& all = Running::instance();
    const std::lock_guard lock(all.mutex);
    place_ = all.names.insert(all.names.end(), name);
  }
  Named(const Named&) = delete;
  Named& operator=(const Named&) = delete;
  ~Named() {
    Running& all = Running::instance();
    const std::lock_guard lock(all.mutex);
    all.names.erase(place_);
  }

 private:
  std::list<std::string_view>::iterator place_;
};

/// For a thread whom Python has begun to end: it must not unwind through C++ that does not expect it, and nobody waits
/// for it any more.
[[noreturn]] void stopHere() {
  for (;;) ::pause();
}

/// What Python keeps of a thread, made once for each thread of the platform that comes: made and destroyed around each
/// callback it would cost more than the callback, and `threading.local()` would not outlast it.
class ThreadState {
 public:
  ThreadState() : state_(PyThreadState_New(PyInterpreterState_Main())) {}
  ThreadState(const ThreadState&) = delete;
  ThreadState& operator=(const ThreadState&) = delete;
  ~ThreadState() {
    const auto pass = gate().enter();
    if (!pass || isForked()) return;
    takeGil(state_);
    PyThreadState_Clear(state_);
    PyThreadState_DeleteCurrent();
  }

  static PyThreadState* ofThisThread() {
    if (PyThreadState* const known = PyGILState_GetThisThreadState()) return known;
    static thread_local const ThreadState made;
    return made.state_;
  }

 private:
  PyThreadState* const state_;
};

void inChild() { forked = used.load(); }

/// Runs before everything else that is left to be done at the end of the process, and leaves it undone.
void leaveAtOnce(int status, void*) {
  std::fflush(nullptr);
  ::_exit(status);
}

void tellWhatRuns() {
  Running& all = Running::instance();
  const std::lock_guard lock(all.mutex);
  for (const std::string_view name : all.names) {
    std::fprintf(stderr, "korvo: %.*s still runs; the process ends without it\n", static_cast<int>(name.size()),
                 name.data());
  }
}

}  // namespace

void prepareInterpreter() {
  gate();
  ::pthread_atfork(nullptr, nullptr, inChild);
}

void beginUse() { used = true; }
bool isForked() noexcept { return forked; }
bool isEnding() noexcept { return ending; }

void requireUsable() {
  if (isForked()) {
    throw std::runtime_error(
        "this process was forked from one that uses korvo, whose threads it does not have: "
        "connect in the child only, or start processes by multiprocessing's 'spawn'");
  }
  if (!isEnding()) return;
  PyErr_SetNone(PyExc_SystemExit);
  throw py::error_already_set();
}

void takeGil(PyThreadState* state) {
  try {
    PyEval_RestoreThread(state);
  } catch (abi::__forced_unwind&) {
    stopHere();
  }
}

PyObject* callObject(PyObject* callable, PyObject* arguments) {
  try {
    return PyObject_Call(callable, arguments, nullptr);
  } catch (abi::__forced_unwind&) {
    stopHere();
  }
}

bool Limit::isOver() const { return seconds_ && Clock::now() - begin_ >= std::chrono::duration<double>(*seconds_); }

std::chrono::milliseconds Limit::longestWait() const {
  static const thread_local bool isMain = ::getpid() == ::gettid();
  const auto most = isMain ? kBetweenSignals : mw::kInfiniteTimeout;
  if (!seconds_) return most;
  const std::chrono::duration<double> past = Clock::now() - begin_;
  const double left = std::ceil(std::max(0.0, *seconds_ - past.count()) * 1000);
  return left >= static_cast<double>(most.count()) ? most : std::chrono::milliseconds(std::llround(left));
}

bool waitWhile(const Limit& limit, const std::function<bool(std::chrono::milliseconds)>& wait) {
  for (;;) {
    if (withoutGil([&] { return wait(limit.longestWait()); })) return true;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (limit.isOver()) return false;
  }
}

bool intoPython(std::string_view what, const std::function<void()>& work) {
  const auto pass = gate().enter();
  if (!pass || isForked()) return false;
  const Named named(what);
  if (PyGILState_Check()) {
    work();
    return true;
  }
  std::exception_ptr error;
  takeGil(ThreadState::ofThisThread());
  try {
    work();
  } catch (abi::__forced_unwind&) {
    stopHere();
  } catch (...) {
    error = std::current_exception();
  }
  PyEval_SaveThread();
  if (error) std::rethrow_exception(error);
  return true;
}

void endInterpreter(const std::function<void()>& closeAll) {
  if (isForked()) return;
  const bool ended = withoutGil([&] {
    gate().close();
    const bool drained = gate().drainFor(kGrace);  // What still runs may use its robot.
    ending = true;
    if (drained) closeAll();
    return drained;
  });
  if (ended) return;
  tellWhatRuns();
  ::on_exit(leaveAtOnce, nullptr);
}

}  // namespace korvo::python
