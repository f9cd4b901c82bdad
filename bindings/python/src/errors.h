#pragma once

#include <exception>
#include <pybind11/pybind11.h>
#include <string>

/// Errors both ways: what the platform throws becomes an exception of the package, and what a callback raises an
/// HXError that names the line which raised it.
namespace korvo::python {

/// Has exceptions that leave functions of the extension become those of the package.
void registerErrors();

/// The exception that stands for `error` in Python, as an object. With the GIL.
pybind11::object errorObject(const std::exception_ptr& error);

/// The exception that Python has set, as what the caller of a hosted method gets. Clears it.
/// @param module  Whose method it was.
/// @param method  Its name.
[[noreturn]] void throwRaised(const std::string& module, const std::string& method);

/// A call had no answer in the time that it was given.
/// @param whom     "broker korvo".
/// @param what     "HXMemory.getData".
/// @param seconds  The time.
[[noreturn]] void throwTimeout(const std::string& whom, const std::string& what, double seconds);

}  // namespace korvo::python
