#pragma once

#include <libmw/anyfunction.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mw {

/// A documented parameter or result.
struct MetaParameter {
  std::string name;
  std::string description;
};

/// Flag of methods that mean something only to callers in the process of their object.
inline constexpr int kSameProcessOnly = 4;

/// One method as callers see it: one overload of one name.
struct MetaMethod {
  unsigned id = 0;
  std::string name;
  std::string module;  ///< The module that published it; empty outside modules.
  std::string description;
  int flags = 0;
  std::vector<MetaParameter> parameters;  ///< Documented ones; may be fewer than `types`.
  std::optional<MetaParameter> result;
  std::vector<const TypeInterface*> types;
  const TypeInterface* resultType = nullptr;
  MetaCallType callType = MetaCallType::Auto;
  bool dynamic = false;  ///< Takes any arguments; `types` is empty.

  /// "insertData(string, int)", as errors and listings show it.
  HX_API std::string signature() const;
};

struct MetaSignal {
  unsigned id = 0;
  std::string name;
  std::string signature;  ///< "(uint, string)".
};

struct MetaProperty {
  unsigned id = 0;
  std::string name;
};

/// Fills in the documentation of one method before it is advertised.
class HX_API MetaMethodBuilder {
 public:
  MetaMethodBuilder() = default;
  MetaMethodBuilder(std::string name, std::string module, std::string description, int flags = 0);

  MetaMethodBuilder& addParameter(std::string name, std::string description);
  MetaMethodBuilder& setReturn(std::string name, std::string description);

  const MetaMethod& method() const { return method_; }

 private:
  MetaMethod method_;
};

/// What an object offers: its methods with their documentation, its signals, its properties.
///
/// A handle on shared, immutable data: copying is cheap, and any thread may read. Ids are unique within one object
/// across the three kinds of member.
class HX_API MetaObject {
 public:
  struct Members {
    std::string typeName;  ///< What kind of object this is: "HXMemory", "HXMemorySubscriber".
    std::string description;
    std::vector<MetaMethod> methods;  ///< In the order of their binding.
    std::vector<MetaSignal> signals;
    std::vector<MetaProperty> properties;
  };

  MetaObject();
  explicit MetaObject(Members members);

  const std::string& typeName() const;
  const std::string& description() const;
  std::span<const MetaMethod> methods() const;
  std::span<const MetaSignal> signals() const;
  std::span<const MetaProperty> properties() const;

  /// The overloads of `name` in binding order; empty when there is none.
  std::span<const MetaMethod* const> findMethods(std::string_view name) const;
  /// The method with this id; null when there is none.
  const MetaMethod* method(unsigned id) const;
  /// @return -1 when there is no such signal.
  int signalId(std::string_view name) const;
  int propertyId(std::string_view name) const;

  /// Chooses among the overloads of `name`: the right number of arguments first, then the best fit of the argument that
  /// fits worst, then the best fits of all arguments together, then the one bound first.
  /// @throws std::runtime_error naming the method when it does not exist, and the candidates when none of them fits.
  const MetaMethod& resolve(std::string_view name, GenericFunctionParameters parameters) const;

  /// Differs between any two meta-objects of the process, so that a cached method id can be recognised as stale.
  /// Never 0.
  std::int32_t uid() const;

 private:
  struct Data;
  std::shared_ptr<const Data> data_;
};

}  // namespace mw
