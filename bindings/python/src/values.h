#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/anyvalue.h>
#include <libmw/genericobject.h>

#include <pybind11/pybind11.h>
#include <vector>

/// What a value is in Python, and what of Python is a value. All of it is called with the GIL.
///
/// A value that is read and written back keeps its type: 32-bit floats come as `korvo.Float32`, 64-bit ints that would
/// fit 32 bits as `korvo.Int64`. Text that is no UTF-8 comes and goes by `surrogateescape`. An array of numpy is a map
/// of its dtype, its shape and its bytes.
namespace korvo::python {

namespace py = pybind11;

/// What the Python half of the package gives the other: set once, when it is imported.
struct Kinds {
  py::object float32;
  py::object int64;
  py::object object;      ///< Makes the handle that users see of a native one.
  py::object change;      ///< Called with the fields of a change.
  py::object viewStates;  ///< A tuple of what `HX::view::State` numbers.
  py::dict callbacks;     ///< By the number that C++ knows them by.
  py::object errorOf;     ///< Makes an exception of (family, text, module, method, file, line).
  py::object fieldsOf;    ///< Of an exception that a callback raised: what `errorOf` takes.

  static Kinds& instance();
};

py::object toPython(const HX::HXValue& value);
/// A result: a value, an object, or None.
py::object toPython(const mw::AnyReference& result);

/// @throws py::error_already_set or py::type_error, py::value_error that say what cannot be a value, and where it
/// stands.
HX::HXValue toValue(py::handle object);
/// Handles on objects too.
mw::AnyValue toArgument(py::handle object);
/// A tuple's.
std::vector<mw::AnyValue> toArguments(py::handle tuple);

}  // namespace korvo::python
