#pragma once

#include "interpreter.h"

#include <hxcommon/hxmodule.h>
#include <libmw/signal.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korvo::python {

/// What a module written in Python offers, as its class states it.
struct ModuleDescription {
  struct Parameter {
    std::string name;
    const mw::TypeInterface* type = nullptr;
    std::string description;
  };
  struct Method {
    std::string name;
    std::string description;
    std::vector<Parameter> parameters;
    Parameter result;
    std::int64_t callback = 0;  ///< Number of what is called.
  };
  struct Signal {
    std::string name;
    std::vector<const mw::TypeInterface*> types;
  };
  struct Subscription {
    std::string key;
    std::string method;
    bool isMicro;
  };

  std::string name;
  std::string description;
  std::vector<Method> methods;
  std::vector<Signal> signals;
  std::vector<Subscription> subscriptions;

  /// From the dict that `korvo.hosting` makes.
  /// @throws std::runtime_error for an unknown type.
  static ModuleDescription from(const py::dict& described);
};

/// A module whose methods are Python's. They run in parallel, on threads of the platform, as those of C++ modules do.
class PythonModule final : public HX::HXModule {
 public:
  PythonModule(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name,
               const ModuleDescription& description);
  ~PythonModule() override;

  /// Subscribes the module to what it wants to be told of; restored after a lost connection like those of C++ modules.
  void init() override;
  /// @throws std::runtime_error on a wrong number of arguments; mw::ConversionError.
  void emit(const std::string& signal, mw::GenericFunctionParameters parameters);

 private:
  class TypedSignal;
  void bindMethod(const ModuleDescription::Method& method);
  void bindSignal(const ModuleDescription::Signal& signal);

  const std::vector<ModuleDescription::Subscription> subscriptions_;
  std::map<std::string, std::unique_ptr<TypedSignal>> signals_;
};

/// A hosted module as Python knows it. It leaves by `close`, not when this is let go of, and belongs to its broker.
class HostedModule {
 public:
  explicit HostedModule(const std::shared_ptr<PythonModule>& module) : name_(module->getName()), module_(module) {}
  void emit(const std::string& signal, const py::tuple& arguments) const;
  /// @throws std::runtime_error when the module leaves, or who called has given up.
  void sleep(double seconds) const;
  void close() const;

 private:
  std::shared_ptr<PythonModule> require() const;

  const std::string name_;
  const std::weak_ptr<PythonModule> module_;
};

}  // namespace korvo::python
