#include "object.h"

#include "errors.h"
#include "values.h"

#include <libmw/remoteerror.h>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo::python {
namespace {

using HX::HXValue;

std::vector<mw::AnyReference> referencesTo(const std::vector<mw::AnyValue>& values) {
  std::vector<mw::AnyReference> references;
  references.reserve(values.size());
  for (const auto& value : values) references.push_back(value.reference());
  return references;
}

HXValue narrowed(const HXValue& value, const std::string& type) {
  const bool isNumber = value.isInt() || value.isInt64() || value.isFloat() || value.isDouble();
  if (type == "float" && isNumber) return {value.toFloat()};
  if (type == "double" && isNumber) return {value.toDouble()};
  const bool isList = value.isList() && type.starts_with("list<") && type.ends_with(">");
  if (!isList) return value;
  HXValue::List list;
  for (const auto& element : value.asList()) list.push_back(narrowed(element, type.substr(5, type.size() - 6)));
  return HXValue(std::move(list));
}

/// Python has one float, and ints go where numbers are wanted: so those are made what the only overload with as many
/// parameters says.
/// @return Whether anything was changed.
bool narrowArguments(const mw::MetaObject& meta, const std::string& method, std::vector<mw::AnyValue>& arguments) {
  const mw::MetaMethod* only = nullptr;
  for (const mw::MetaMethod* one : meta.findMethods(method)) {
    if (one->dynamic || one->types.size() != arguments.size()) continue;
    if (only) return false;
    only = one;
  }
  if (!only) return false;
  bool changed = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto* value = arguments[i].getIf<HXValue>();
    if (!value) continue;
    HXValue made = narrowed(*value, only->types[i]->name);
    if (made == *value) continue;
    arguments[i] = mw::AnyValue(std::move(made));
    changed = true;
  }
  return changed;
}

const mw::MetaMethod& resolve(const mw::MetaObject& meta, const std::string& method,
                              std::vector<mw::AnyValue>& arguments) {
  try {
    return meta.resolve(method, referencesTo(arguments));
  } catch (const mw::NoSuchMethodError&) {
    auto narrow = arguments;
    if (!narrowArguments(meta, method, narrow)) throw;
    if (mw::fit(referencesTo(narrow), meta.findMethods(method).front()->types) == mw::Fit::None &&
        meta.findMethods(method).size() == 1) {
      throw;
    }
    arguments = std::move(narrow);
  }
  return meta.resolve(method, referencesTo(arguments));
}

py::dict describeMethod(const mw::MetaMethod& method) {
  py::list parameters;
  for (std::size_t i = 0; i < method.types.size(); ++i) {
    const bool isDocumented = i < method.parameters.size();
    parameters.append(py::make_tuple(isDocumented ? method.parameters[i].name : "", method.types[i]->name,
                                     isDocumented ? method.parameters[i].description : ""));
  }
  py::dict made;
  made["name"] = method.name;
  made["signature"] = method.signature();
  made["description"] = method.description;
  made["parameters"] = parameters;
  made["dynamic"] = method.dynamic;
  made["result"] =
      py::make_tuple(method.result ? method.result->name : "", method.resultType ? method.resultType->name : "void",
                     method.result ? method.result->description : "");
  return made;
}

}  // namespace

NativeObject::NativeObject(mw::AnyObject object, std::string name, std::string whom)
    : object_(std::move(object)), name_(std::move(name)), whom_(std::move(whom)) {}

std::string NativeObject::name() const { return name_.empty() ? object_->metaObject().typeName() : name_; }

std::string NativeObject::member(const std::string& name) const {
  const std::string own = this->name();
  return own.empty() ? name : own + "." + name;
}

py::dict NativeObject::describe() const {
  requireUsable();
  const mw::MetaObject& meta = object_->metaObject();
  py::list methods;
  for (const auto& method : meta.methods()) methods.append(describeMethod(method));
  py::dict signals;
  for (const auto& signal : meta.signals()) signals[py::str(signal.name)] = signal.signature;
  py::list properties;
  for (const auto& property : meta.properties()) properties.append(property.name);
  py::dict made;
  made["name"] = name();
  made["description"] = meta.description();
  made["methods"] = methods;
  made["signals"] = signals;
  made["properties"] = properties;
  return made;
}

py::object NativeObject::call(const std::string& method, const py::tuple& arguments,
                              std::optional<double> limit) const {
  requireUsable();
  auto values = toArguments(arguments);
  const unsigned id = resolve(object_->metaObject(), method, values).id;
  const Limit within(limit);
  auto answer = withoutGil([&] { return object_->callFor(id, referencesTo(values), within.longestWait()); });
  return awaitNow(std::move(answer), within, whom_, member(method));
}

std::unique_ptr<PendingResult, Release> NativeObject::start(const std::string& method,
                                                            const py::tuple& arguments) const {
  requireUsable();
  auto values = toArguments(arguments);
  const unsigned id = resolve(object_->metaObject(), method, values).id;
  auto answer = withoutGil([&] { return object_->metaCall(id, referencesTo(values), mw::MetaCallType::Queued); });
  return std::unique_ptr<PendingResult, Release>(new PendingResult(std::move(answer), whom_, member(method)));
}

void NativeObject::emit(const std::string& signal, const py::tuple& arguments) const {
  requireUsable();
  const auto values = toArguments(arguments);
  const int id = object_->metaObject().signalId(signal);
  if (id < 0) throw mw::NoSuchMethodError(fmt::format("{}: no such signal", member(signal)));
  withoutGil([&] { object_->metaPost(static_cast<unsigned>(id), referencesTo(values)); });
}

std::uint64_t NativeObject::connect(const std::string& signal, std::int64_t callback) const {
  requireUsable();
  const auto run = [callback, what = "callback of " + member(signal)](mw::GenericFunctionParameters parameters) {
    intoPython(what, [&] {
      py::tuple arguments(parameters.size());
      for (std::size_t i = 0; i < parameters.size(); ++i) arguments[i] = toPython(parameters[i]);
      if (PyObject* const returned = callNumbered(callback, arguments.ptr())) {
        Py_DECREF(returned);
      } else if (PyErr_Occurred()) {
        throwRaised("", what);
      }
    });
  };
  const mw::SignalSubscriber subscriber(mw::AnyFunction::fromParametersFunction(run), mw::MetaCallType::Queued);
  return withoutGil([&] { return object_->connect(signal, subscriber).value(); });
}

void NativeObject::disconnect(std::uint64_t link) const {
  if (isForked() || isEnding()) return;
  withoutGil([&] { object_->disconnect(link).wait(); });
}

unsigned NativeObject::propertyId(const std::string& name) const {
  const int id = object_->metaObject().propertyId(name);
  if (id < 0) throw mw::NoSuchMethodError(fmt::format("{}: no such property", member(name)));
  return static_cast<unsigned>(id);
}

py::object NativeObject::property(const std::string& name, std::optional<double> limit) const {
  requireUsable();
  const unsigned id = propertyId(name);
  return awaitNow(withoutGil([&] { return object_->metaProperty(id); }), Limit(limit), whom_, member(name));
}

void NativeObject::setProperty(const std::string& name, py::handle value, std::optional<double> limit) const {
  requireUsable();
  const unsigned id = propertyId(name);
  const mw::AnyValue wanted = toArgument(value);
  auto answer = withoutGil([&] { return object_->metaSetProperty(id, wanted).andThen([] { return mw::AnyValue(); }); });
  awaitNow(std::move(answer), Limit(limit), whom_, member(name));
}

py::object handleOn(mw::AnyObject object) {
  std::unique_ptr<NativeObject, Release> made(new NativeObject(std::move(object), {}, "the owner"));
  return callPython(Kinds::instance().object, py::cast(std::move(made)));
}

mw::AnyObject objectOf(py::handle handle) {
  PyObject* const given = handle.ptr();
  if (PyUnicode_Check(given) || PyFloat_Check(given) || PyLong_Check(given) || given == Py_None) return {};
  if (!Kinds::instance().object || !PyObject_IsInstance(given, Kinds::instance().object.ptr())) return {};
  return handle.attr("_native").cast<const NativeObject&>().object();
}

}  // namespace korvo::python
