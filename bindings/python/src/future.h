#pragma once

#include "interpreter.h"

#include <libmw/anyvalue.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace korvo::python {

/// A result that is on its way.
class PendingResult {
 public:
  /// @param answer  The call's.
  /// @param whom    Who is to answer, for errors: "broker korvo".
  /// @param what    The call, for errors: "Arm.move".
  PendingResult(mw::Future<mw::AnyValue> answer, std::string whom, std::string what)
      : answer_(std::move(answer)), whom_(std::move(whom)), what_(std::move(what)) {}

  bool isDone() const { return answer_.isFinished(); }
  bool isCancelled() const { return answer_.isCanceled(); }
  /// @return Whether it is cancelled now.
  bool cancel();
  /// Waits for the result. It goes on running when the time is over.
  /// @param limit  Seconds; none for no limit.
  py::object result(std::optional<double> limit);
  /// Its error; None where it has a result.
  py::object exception(std::optional<double> limit);
  /// Has the callback of that number called, without arguments, once the result is there: on a thread of the platform,
  /// or at once on this one.
  void notify(std::int64_t callback) const;

 private:
  void await(std::optional<double> limit) const;

  mw::Future<mw::AnyValue> answer_;
  const std::string whom_;
  const std::string what_;
};

/// What a call that is waited for at once gives.
/// @param answer  The call's.
/// @param limit   From before the call was made. When it is over, and when a signal ends the wait, the call is
/// cancelled.
py::object awaitNow(mw::Future<mw::AnyValue> answer, const Limit& limit, const std::string& whom,
                    const std::string& what);

/// Calls the Python callback that has a number, if it still has. With the GIL.
/// @return A new reference; null with the error set, or without where there is no such callback.
PyObject* callNumbered(std::int64_t callback, PyObject* arguments);

}  // namespace korvo::python
