#include "hosting.h"

#include "errors.h"
#include "future.h"
#include "values.h"

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>

#include <cmath>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo::python {
namespace {

const mw::TypeInterface* typeOfName(const std::string& name) {
  if (const auto* type = mw::typeNamed(name)) return type;
  throw std::runtime_error("there is no type " + name);
}

ModuleDescription::Parameter parameterFrom(py::handle described) {
  const auto fields = py::reinterpret_borrow<py::tuple>(described);
  return {fields[0].cast<std::string>(), typeOfName(fields[1].cast<std::string>()), fields[2].cast<std::string>()};
}

/// Runs one method, with the GIL.
mw::AnyValue callMethod(const std::string& module, const std::string& method, std::int64_t callback,
                        mw::GenericFunctionParameters parameters) {
  py::tuple arguments(parameters.size());
  for (std::size_t i = 0; i < parameters.size(); ++i) arguments[i] = toPython(parameters[i]);
  PyObject* const returned = callNumbered(callback, arguments.ptr());
  if (!returned && !PyErr_Occurred()) throw std::runtime_error(fmt::format("module {} has left", module));
  if (!returned) throwRaised(module, method);
  const auto result = py::reinterpret_steal<py::object>(returned);
  try {
    return toArgument(result);
  } catch (const py::builtin_exception& error) {
    throw std::runtime_error(error.what());
  } catch (py::error_already_set& error) {
    error.restore();
  }
  throwRaised(module, method);
}

}  // namespace

ModuleDescription ModuleDescription::from(const py::dict& described) {
  ModuleDescription made;
  made.name = described["name"].cast<std::string>();
  made.description = described["description"].cast<std::string>();
  for (const py::handle one : described["methods"]) {
    Method method;
    method.name = one["name"].cast<std::string>();
    method.description = one["description"].cast<std::string>();
    for (const py::handle parameter : one["parameters"]) method.parameters.push_back(parameterFrom(parameter));
    method.result = parameterFrom(one["result"]);
    method.callback = one["callback"].cast<std::int64_t>();
    made.methods.push_back(std::move(method));
  }
  for (const py::handle one : described["signals"]) {
    Signal signal{one["name"].cast<std::string>(), {}};
    for (const py::handle type : one["types"]) signal.types.push_back(typeOfName(type.cast<std::string>()));
    made.signals.push_back(std::move(signal));
  }
  for (const py::handle one : described["subscriptions"]) {
    made.subscriptions.push_back(
        {one["key"].cast<std::string>(), one["method"].cast<std::string>(), one["micro"].cast<bool>()});
  }
  return made;
}

/// A signal whose types are known at run time.
class PythonModule::TypedSignal final : public mw::SignalBase {
 public:
  explicit TypedSignal(std::vector<const mw::TypeInterface*> types)
      : types_(types),
        checked_(mw::AnyFunction::fromTypes(std::move(types), mw::typeOf<void>(),
                                            [this](mw::GenericFunctionParameters parameters) {
                                              SignalBase::trigger(parameters);
                                              return mw::AnyValue();
                                            })) {}

  std::string signature() const override {
    std::string text;
    for (const auto* type : types_) text += (text.empty() ? "" : ", ") + type->name;
    return "(" + text + ")";
  }
  void trigger(mw::GenericFunctionParameters parameters, mw::MetaCallType /*callType*/) override {
    checked_.call(parameters);
  }

 private:
  const std::vector<const mw::TypeInterface*> types_;
  const mw::AnyFunction checked_;
};

PythonModule::PythonModule(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name,
                           const ModuleDescription& description)
    : HXModule(broker, name), subscriptions_(description.subscriptions) {
  setModuleDescription(description.description);
  for (const auto& method : description.methods) bindMethod(method);
  for (const auto& signal : description.signals) bindSignal(signal);
}

PythonModule::~PythonModule() = default;

void PythonModule::bindMethod(const ModuleDescription::Method& method) {
  mw::MetaMethodBuilder documentation(method.name, getName(), method.description);
  std::vector<const mw::TypeInterface*> types;
  for (const auto& parameter : method.parameters) {
    documentation.addParameter(parameter.name, parameter.description);
    types.push_back(parameter.type);
  }
  if (!method.result.description.empty()) documentation.setReturn(method.result.name, method.result.description);
  const auto run = [this, name = method.name, what = getName() + "." + method.name,
                    callback = method.callback](mw::GenericFunctionParameters parameters) {
    mw::AnyValue result;
    if (!intoPython(what, [&] { result = callMethod(getName(), name, callback, parameters); })) {
      throw std::runtime_error(fmt::format("module {} is shutting down", getName()));
    }
    return result;
  };
  // What is promised and what was returned, both by their names: below, a value is a value.
  const auto promised = [this, run, name = method.name,
                         type = method.result.type](mw::GenericFunctionParameters parameters) {
    mw::AnyValue result = run(parameters);
    const auto* value = result.getIf<HX::HXValue>();
    if (value && type->kind != mw::TypeKind::Void && result.reference().fit(type) == mw::Fit::None) {
      throw HX::HXError(
          getName(), name,
          fmt::format("returned {}, where {} is promised", HX::HXValue::TypeToString(value->getType()), type->name));
    }
    return result;
  };
  objectBuilder().advertiseMethod(documentation, mw::AnyFunction::fromTypes(types, method.result.type, promised));
}

void PythonModule::bindSignal(const ModuleDescription::Signal& signal) {
  auto& made = signals_[signal.name] = std::make_unique<TypedSignal>(signal.types);
  HXModule::bindSignal(signal.name, *made);
}

void PythonModule::init() {
  if (subscriptions_.empty()) return;
  auto memory = this->memory();
  for (const auto& [key, method, isMicro] : subscriptions_) {
    if (isMicro) {
      memory.subscribeToMicroEvent(key, getName(), "", method);
    } else {
      memory.subscribeToEvent(key, getName(), method);
    }
  }
}

void PythonModule::emit(const std::string& signal, mw::GenericFunctionParameters parameters) {
  signals_.at(signal)->trigger(parameters, mw::MetaCallType::Auto);
}

std::shared_ptr<PythonModule> HostedModule::require() const {
  if (auto module = module_.lock()) return module;
  throw std::runtime_error(fmt::format("module {} has left", name_));
}

void HostedModule::emit(const std::string& signal, const py::tuple& arguments) const {
  requireUsable();
  const auto values = toArguments(arguments);
  withoutGil([&] {
    std::vector<mw::AnyReference> references;
    for (const auto& value : values) references.push_back(value.reference());
    require()->emit(signal, references);
  });
}

void HostedModule::sleep(double seconds) const {
  requireUsable();
  const Limit within(seconds);
  waitWhile(within, [this](std::chrono::milliseconds longest) {
    require()->sleepFor(longest);
    return false;
  });
}

void HostedModule::close() const {
  if (isForked() || isEnding()) return;
  withoutGil([this] {
    if (const auto module = module_.lock()) module->exit();
  });
}

}  // namespace korvo::python
