#include "values.h"

#include "object.h"

#include <cstring>
#include <limits>
#include <string>

namespace korvo::python {
namespace {

using HX::HXValue;

/// Deeper than any message may be, and long before the stack ends: something is inside itself.
constexpr int kDeepest = 250;

[[noreturn]] void fail(PyObject* kind, const std::string& text) {
  PyErr_SetString(kind, text.c_str());
  throw py::error_already_set();
}

std::string textOf(py::handle object) {
  Py_ssize_t size = 0;
  if (const char* const text = PyUnicode_AsUTF8AndSize(object.ptr(), &size)) {
    return {text, static_cast<std::size_t>(size)};
  }
  PyErr_Clear();
  const auto bytes =
      py::reinterpret_steal<py::bytes>(PyUnicode_AsEncodedString(object.ptr(), "utf-8", "surrogateescape"));
  if (!bytes) throw py::error_already_set();
  return bytes;
}

py::object textFrom(const std::string& text) {
  PyObject* const made = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
  if (!made) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(made);
}

HXValue integer(py::handle object) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(object.ptr(), &overflow);
  if (overflow != 0) {
    fail(PyExc_OverflowError, "an int of the memory has 64 bits: " + std::string(py::repr(object)) + " does not fit");
  }
  if (number == -1 && PyErr_Occurred()) throw py::error_already_set();
  const bool isLong = py::isinstance(object, Kinds::instance().int64);
  const bool isNarrow =
      number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max() && !isLong;
  return isNarrow ? HXValue(static_cast<int>(number)) : HXValue(static_cast<std::int64_t>(number));
}

/// Of what has its bytes in one piece: nothing is copied before they are.
HXValue bytesOf(py::handle object) {
  Py_buffer view;
  if (PyObject_GetBuffer(object.ptr(), &view, PyBUF_SIMPLE) != 0) throw py::error_already_set();
  HXValue value;
  try {
    value = HXValue::binary({static_cast<const std::byte*>(view.buf), static_cast<std::size_t>(view.len)});
  } catch (...) {
    PyBuffer_Release(&view);
    throw;
  }
  PyBuffer_Release(&view);
  return value;
}

/// A class of numpy, where that has been imported: before, there are no objects of it.
bool isOfNumpy(py::handle object, const char* kind) {
  PyObject* const modules = PyImport_GetModuleDict();
  PyObject* const numpy = modules ? PyDict_GetItemString(modules, "numpy") : nullptr;
  if (!numpy || !PyObject_HasAttrString(numpy, kind)) return false;
  return py::isinstance(object, py::reinterpret_borrow<py::object>(numpy).attr(kind));
}

HXValue convert(py::handle object, int depth);

HXValue scalarOfNumpy(py::handle object) {
  const std::string type = py::str(object.attr("dtype").attr("name"));
  if (type == "float32") return {object.attr("item")().cast<float>()};
  if (type == "int64") return {object.attr("item")().cast<std::int64_t>()};
  const py::object plain = object.attr("item")();
  if (py::isinstance(plain, py::handle(reinterpret_cast<PyObject*>(Py_TYPE(object.ptr()))))) {
    fail(PyExc_TypeError, "a numpy." + type + " cannot be kept");
  }
  return convert(plain, 0);
}

HXValue arrayOfNumpy(py::handle object) {
  const py::object dtype = object.attr("dtype");
  if (dtype.attr("hasobject").cast<bool>() || !dtype.attr("names").is_none()) {
    fail(PyExc_TypeError,
         "an array of " + std::string(py::str(dtype)) + " cannot be kept: its elements are no numbers");
  }
  const bool isWhole = object.attr("flags").attr("c_contiguous").cast<bool>();
  const py::object whole = isWhole ? py::reinterpret_borrow<py::object>(object) : object.attr("copy")("C");
  HXValue::List shape;
  for (const py::handle size : object.attr("shape")) shape.push_back(integer(size));
  HXValue::Map map;
  map.emplace("dtype", HXValue(std::string(py::str(dtype.attr("str")))));
  map.emplace("shape", HXValue(std::move(shape)));
  // As bytes, which those of any type are; an array of no elements has no such view.
  map.emplace("bytes", object.attr("size").cast<std::int64_t>() == 0
                           ? HXValue(HXValue::Binary())
                           : bytesOf(whole.attr("reshape")(-1).attr("view")("u1")));
  return HXValue(std::move(map));
}

HXValue dictionary(py::handle object, int depth) {
  HXValue::Map map;
  PyObject* key = nullptr;
  PyObject* entry = nullptr;
  Py_ssize_t place = 0;
  while (PyDict_Next(object.ptr(), &place, &key, &entry)) {
    if (!PyUnicode_Check(key)) {
      fail(PyExc_TypeError,
           "keys of a map are str, not " + std::string(Py_TYPE(key)->tp_name) + ": " + std::string(py::repr(key)));
    }
    map.emplace(textOf(key), convert(entry, depth + 1));
  }
  return HXValue(std::move(map));
}

HXValue sequence(py::handle object, int depth) {
  const auto fast = py::reinterpret_steal<py::object>(PySequence_Fast(object.ptr(), "a list or a tuple"));
  if (!fast) throw py::error_already_set();
  HXValue::List list;
  const Py_ssize_t size = PySequence_Fast_GET_SIZE(fast.ptr());
  list.reserve(static_cast<std::size_t>(size));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(fast.ptr()); ++i) {
    list.push_back(convert(PySequence_Fast_GET_ITEM(fast.ptr(), i), depth + 1));
  }
  return HXValue(std::move(list));
}

HXValue convert(py::handle object, int depth) {
  PyObject* const given = object.ptr();
  if (depth > kDeepest) fail(PyExc_ValueError, "lists and dicts nested too deep; does one stand inside itself?");
  if (given == Py_None) return {};
  if (PyBool_Check(given)) return {given == Py_True};
  if (PyUnicode_Check(given)) return {textOf(object)};
  if (PyLong_Check(given)) return integer(object);
  if (PyFloat_CheckExact(given)) return {PyFloat_AS_DOUBLE(given)};
  // Numpy's float64 is a float of Python and keeps what that does; the others are numbers and buffers at once.
  if (PyFloat_Check(given)) {
    const double number = PyFloat_AS_DOUBLE(given);
    return py::isinstance(object, Kinds::instance().float32) ? HXValue(static_cast<float>(number)) : HXValue(number);
  }
  if (PyList_Check(given) || PyTuple_Check(given)) return sequence(object, depth);
  if (PyDict_Check(given)) return dictionary(object, depth);
  if (PyBytes_Check(given)) return bytesOf(object);
  if (isOfNumpy(object, "generic")) return scalarOfNumpy(object);
  if (isOfNumpy(object, "ndarray")) return arrayOfNumpy(object);
  if (PyByteArray_Check(given) || PyMemoryView_Check(given)) return bytesOf(object);
  fail(PyExc_TypeError,
       "an object of type " + std::string(Py_TYPE(given)->tp_name) +
           " cannot be kept; the memory keeps None, bool, int, float, str, bytes, list, dict, and numpy's "
           "numbers and arrays");
}

/// Of a map that an array was written as; none where it is another one, or there is no numpy.
py::object arrayFrom(const HXValue::Map& map) {
  if (map.size() != 3) return {};
  const auto dtype = map.find("dtype");
  const auto shape = map.find("shape");
  const auto bytes = map.find("bytes");
  if (dtype == map.end() || shape == map.end() || bytes == map.end()) return {};
  if (!dtype->second.isString() || !shape->second.isList() || !bytes->second.isBinary()) return {};
  try {
    const py::module_ numpy = py::module_::import("numpy");
    return numpy.attr("frombuffer")(toPython(bytes->second), toPython(dtype->second))
        .attr("reshape")(toPython(shape->second));
  } catch (const py::error_already_set&) {
    return {};  // A map like another one.
  }
}

py::object listFrom(const HXValue::List& list) {
  const auto made = py::reinterpret_steal<py::object>(PyList_New(static_cast<Py_ssize_t>(list.size())));
  if (!made) throw py::error_already_set();
  for (std::size_t i = 0; i < list.size(); ++i) {
    PyList_SET_ITEM(made.ptr(), static_cast<Py_ssize_t>(i), toPython(list[i]).release().ptr());
  }
  return made;
}

py::object mapFrom(const HXValue::Map& map) {
  if (py::object array = arrayFrom(map)) return array;
  py::dict made;
  for (const auto& [key, entry] : map) made[textFrom(key)] = toPython(entry);
  return made;
}

}  // namespace

Kinds& Kinds::instance() {
  // Never destroyed: at the end of the process there is no interpreter to give its objects back to.
  static auto* const the = new Kinds;
  return *the;
}

py::object toPython(const HXValue& value) {
  switch (value.getType()) {
    case HXValue::Type::Invalid:
      return py::none();
    case HXValue::Type::Bool:
      return py::bool_(value.asBool());
    case HXValue::Type::Int:
      return py::int_(value.asInt());
    case HXValue::Type::Int64: {
      const std::int64_t number = value.asInt64();
      const bool isNarrow = number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
      return isNarrow ? Kinds::instance().int64(number) : py::object(py::int_(number));
    }
    case HXValue::Type::Float:
      return Kinds::instance().float32(static_cast<double>(value.asFloat()));
    case HXValue::Type::Double:
      return py::float_(value.asDouble());
    case HXValue::Type::String:
      return textFrom(value.asString());
    case HXValue::Type::Binary: {
      const auto& bytes = value.asBinary();
      return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case HXValue::Type::List:
      return listFrom(value.asList());
    case HXValue::Type::Map:
      return mapFrom(value.asMap());
  }
  return py::none();
}

py::object toPython(const mw::AnyReference& result) {
  const mw::AnyReference content = result.content();
  if (!content) return py::none();
  if (const auto* value = content.getIf<HXValue>()) return toPython(*value);
  if (const auto* number = content.getIf<std::int64_t>()) return py::int_(*number);  // As its parameter says.
  if (content.type()->toObject) {
    mw::AnyObject object = content.type()->toObject(content.data());
    return object ? handleOn(std::move(object)) : py::none();
  }
  HXValue value;
  if (content.toValue(value)) return toPython(value);
  throw py::type_error("a result of type " + content.type()->name + " means something only inside its own process");
}

HXValue toValue(py::handle object) { return convert(object, 0); }

mw::AnyValue toArgument(py::handle object) {
  if (mw::AnyObject held = objectOf(object)) return mw::AnyValue(std::move(held));
  return mw::AnyValue(toValue(object));
}

std::vector<mw::AnyValue> toArguments(py::handle tuple) {
  std::vector<mw::AnyValue> arguments;
  const Py_ssize_t size = PyTuple_GET_SIZE(tuple.ptr());
  arguments.reserve(static_cast<std::size_t>(size));
  for (Py_ssize_t i = 0; i < size; ++i) arguments.push_back(toArgument(PyTuple_GET_ITEM(tuple.ptr(), i)));
  return arguments;
}

}  // namespace korvo::python
