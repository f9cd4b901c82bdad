#include "errors.h"

#include "interpreter.h"
#include "values.h"

#include <hxerror/hxerror.h>
#include <libmw/anyvalue.h>
#include <libmw/deadline.h>
#include <libmw/future.h>
#include <libmw/local.h>
#include <libmw/remoteerror.h>

#include <stdexcept>

#include <fmt/format.h>

namespace korvo::python {
namespace {

py::object make(const char* family, const std::string& text, const std::string& module = {},
                const std::string& method = {}, const std::string& file = {}, int line = 0) {
  const auto decoded = [](const std::string& bytes) { return toPython(HX::HXValue(bytes)); };
  return callPython(Kinds::instance().errorOf, family, decoded(text), decoded(module), decoded(method), decoded(file),
                    line);
}

const char* familyOf(mw::FutureError::Kind kind) {
  switch (kind) {
    case mw::FutureError::Kind::Timeout:
      return "timeout";
    case mw::FutureError::Kind::Canceled:
      return "cancelled";
    case mw::FutureError::Kind::NoState:
    case mw::FutureError::Kind::UserError:
      break;
  }
  return "error";
}

// pybind11 states the signature.
void translate(std::exception_ptr error) {  // NOLINT(performance-unnecessary-value-param)
  try {
    std::rethrow_exception(error);
  } catch (const py::error_already_set&) {
    throw;
  } catch (const py::builtin_exception&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    // What a closed connection fails with is no news then.
    if (isEnding()) return PyErr_SetNone(PyExc_SystemExit);
    const py::object made = errorObject(error);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(made.ptr())), made.ptr());
  }
}

}  // namespace

void registerErrors() { py::register_exception_translator(translate); }

py::object errorObject(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const HX::HXError& one) {
    return make("module", one.message(), one.module(), one.method(), one.file(), one.line());
  } catch (const mw::DeadlineError& one) {
    return make("timeout", one.what());
  } catch (const mw::ConnectionLostError& one) {
    return make("connection", one.what());
  } catch (const mw::NoBrokerError& one) {
    return make("connection", one.what());
  } catch (const mw::NoSuchServiceError& one) {
    return make("service", one.what());
  } catch (const mw::NoSuchMethodError& one) {
    return make("call", one.what());
  } catch (const mw::ConversionError& one) {
    return make("call", one.what());
  } catch (const mw::FutureError& one) {
    return make(familyOf(one.kind()), one.what());
  } catch (const std::exception& one) {
    return make("error", one.what());
  } catch (...) {
    return make("error", mw::detail::describe(error));
  }
}

void throwRaised(const std::string& module, const std::string& method) {
  // It is not the method's: who waits on the main thread, the caller for instance, gets it.
  if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt)) PyErr_SetInterrupt();
  const py::error_already_set raised;
  const py::object trace = raised.trace() ? py::object(raised.trace()) : py::none();
  const py::tuple fields = callPython(Kinds::instance().fieldsOf, raised.value(), trace, module, method);
  const auto text = [&](std::size_t index) { return toValue(fields[index]).asString(); };
  throw HX::HXError(text(0), text(1), text(2), text(3), fields[4].cast<int>());
}

void throwTimeout(const std::string& whom, const std::string& what, double seconds) {
  throw mw::DeadlineError(fmt::format("{} did not answer {} within {} s", whom, what, seconds));
}

}  // namespace korvo::python
