#include <libmw/anyfunction.h>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace mw {
namespace detail {

FunctionBase::~FunctionBase() = default;

void throwEmptyFunction() { throw std::runtime_error("there is no function to call"); }

void throwWrongCount(std::size_t given, std::size_t wanted) {
  throw std::runtime_error(fmt::format("Invalid number of arguments: {} given, {} wanted", given, wanted));
}

void throwWrongArgument(std::size_t index, const AnyReference& given, const TypeInterface* wanted) {
  throw ConversionError(given, wanted, fmt::format("argument {}", index + 1));
}

namespace {

class Dynamic final : public FunctionBase {
 public:
  explicit Dynamic(AnyFunction::DynamicFunction function) : function_(std::move(function)) {}
  AnyValue invoke(void*, GenericFunctionParameters parameters) const override {
    return AnyValue(function_(std::vector<AnyReference>(parameters.begin(), parameters.end())));
  }

 private:
  AnyFunction::DynamicFunction function_;
};

class OfParameters final : public FunctionBase {
 public:
  explicit OfParameters(AnyFunction::ParametersFunction function) : function_(std::move(function)) {}
  AnyValue invoke(void*, GenericFunctionParameters parameters) const override {
    function_(parameters);
    return {};
  }

 private:
  AnyFunction::ParametersFunction function_;
};

class OfTypes final : public FunctionBase {
 public:
  OfTypes(std::vector<const TypeInterface*> parameterTypes, const TypeInterface* returnType,
          AnyFunction::TypedFunction function)
      : parameterTypes_(std::move(parameterTypes)), returnType_(returnType), function_(std::move(function)) {}

  AnyValue invoke(void*, GenericFunctionParameters parameters) const override {
    if (parameters.size() != parameterTypes_.size()) throwWrongCount(parameters.size(), parameterTypes_.size());
    std::vector<AnyValue> converted(parameters.size());  // What the references of converted arguments refer to.
    std::vector<AnyReference> arguments;
    arguments.reserve(parameters.size());
    for (std::size_t i = 0; i < parameters.size(); ++i) {
      const AnyReference given = parameters[i].content();
      if (given.type() == parameterTypes_[i]) {
        arguments.push_back(given);
        continue;
      }
      converted[i] = given.convert(parameterTypes_[i]);
      if (!converted[i]) throwWrongArgument(i, given, parameterTypes_[i]);
      arguments.push_back(converted[i].reference());
    }
    return asResult(function_(arguments));
  }

 private:
  AnyValue asResult(AnyValue given) const {
    if (returnType_->kind == TypeKind::Void) return {};
    if (given.type() == returnType_ || returnType_->kind == TypeKind::Dynamic) return given;
    AnyValue result = given.reference().convert(returnType_);
    if (!result) throw ConversionError(given.reference().content(), returnType_, "result");
    return result;
  }

  const std::vector<const TypeInterface*> parameterTypes_;
  const TypeInterface* const returnType_;
  const AnyFunction::TypedFunction function_;
};

}  // namespace
}  // namespace detail

AnyFunction AnyFunction::dynamic(std::shared_ptr<const detail::FunctionBase> function, const TypeInterface* result) {
  AnyFunction made;
  made.function_ = std::move(function);
  made.returnType_ = result;
  made.dynamic_ = true;
  return made;
}

AnyFunction AnyFunction::fromDynamicFunction(DynamicFunction function) {
  return dynamic(std::make_shared<detail::Dynamic>(std::move(function)), typeOf<AnyValue>());
}

AnyFunction AnyFunction::fromParametersFunction(ParametersFunction function) {
  return dynamic(std::make_shared<detail::OfParameters>(std::move(function)), typeOf<void>());
}

AnyFunction AnyFunction::fromTypes(std::vector<const TypeInterface*> parameterTypes, const TypeInterface* returnType,
                                   TypedFunction function) {
  AnyFunction made;
  made.function_ = std::make_shared<detail::OfTypes>(parameterTypes, returnType, std::move(function));
  made.parameterTypes_ = std::move(parameterTypes);
  made.returnType_ = returnType;
  return made;
}

Fit AnyFunction::fit(GenericFunctionParameters parameters) const {
  return dynamic_ ? Fit::Variant : mw::fit(parameters, parameterTypes_);
}

Fit fit(GenericFunctionParameters parameters, const std::vector<const TypeInterface*>& types) {
  if (parameters.size() != types.size()) return Fit::None;
  Fit worst = Fit::Exact;
  for (std::size_t i = 0; i < types.size() && worst != Fit::None; ++i) {
    worst = std::max(worst, parameters[i].fit(types[i]));
  }
  return worst;
}

}  // namespace mw
