#include "future.h"

#include "errors.h"
#include "values.h"

namespace korvo::python {

PyObject* callNumbered(std::int64_t callback, PyObject* arguments) {
  const py::int_ number(callback);
  PyObject* const found = PyDict_GetItemWithError(Kinds::instance().callbacks.ptr(), number.ptr());
  if (!found) return nullptr;
  const auto kept = py::reinterpret_borrow<py::object>(found);  // It may be taken out while it runs.
  return callObject(kept.ptr(), arguments);
}

bool PendingResult::cancel() {
  requireUsable();
  withoutGil([this] { answer_.cancel(); });
  return answer_.isCanceled();
}

void PendingResult::await(std::optional<double> limit) const {
  requireUsable();
  if (answer_.isFinished()) return;
  const Limit within(limit);
  const bool done = waitWhile(
      within, [this](std::chrono::milliseconds longest) { return answer_.wait(longest) != mw::FutureState::Running; });
  if (!done) throwTimeout(whom_, what_, within.seconds());
}

py::object PendingResult::result(std::optional<double> limit) {
  await(limit);
  return toPython(answer_.value().reference());
}

py::object PendingResult::exception(std::optional<double> limit) {
  await(limit);
  if (answer_.isCanceled()) answer_.value();  // Throws.
  const auto error = answer_.exception();
  return error ? errorObject(error) : py::none();
}

void PendingResult::notify(std::int64_t callback) const {
  requireUsable();
  withoutGil([&] {
    answer_.then([callback](const mw::Future<mw::AnyValue>&) {
      intoPython("what waits for a future", [callback] {
        const py::tuple nothing;
        if (PyObject* const returned = callNumbered(callback, nothing.ptr())) {
          Py_DECREF(returned);
        } else if (PyErr_Occurred()) {
          PyErr_WriteUnraisable(nullptr);
        }
      });
    });
  });
}

py::object awaitNow(mw::Future<mw::AnyValue> answer, const Limit& limit, const std::string& whom,
                    const std::string& what) {
  if (!answer.isFinished()) {
    bool done = false;
    try {
      if (PyErr_CheckSignals() != 0) throw py::error_already_set();
      done = waitWhile(
          limit, [&](std::chrono::milliseconds longest) { return answer.wait(longest) != mw::FutureState::Running; });
    } catch (py::error_already_set&) {
      withoutGil([&] { answer.cancel(); });
      throw;
    }
    if (!done) {
      withoutGil([&] { answer.cancel(); });
      throwTimeout(whom, what, limit.seconds());
    }
  }
  // A method of this process, which this thread has run itself, may have been what Ctrl-C ended.
  if (answer.state() == mw::FutureState::FinishedWithError && PyErr_CheckSignals() != 0) throw py::error_already_set();
  const mw::AnyValue result = std::move(answer).take();
  return toPython(result.reference());
}

}  // namespace korvo::python
