#pragma once

#include <libmw/dynamicobject.h>

#include <memory>
#include <string>
#include <utility>

namespace mw {

/// A service with the methods that a test gives it.
class Service : public DynamicObject {
 public:
  explicit Service(const std::string& name) {
    builder_.setTypeName(name).setThreadingModel(ObjectThreadingModel::MultiThread);
  }

  template <class F>
  Service& method(const std::string& name, F function, int flags = 0) {
    builder_.advertiseMethod({name, "", "About " + name, flags}, AnyFunction::from(std::move(function)));
    return *this;
  }
  Service& signal(const std::string& name, SignalBase& signal) {
    builder_.advertiseSignal(name, signal);
    return *this;
  }
  AnyObject build() {
    setType(builder_.build());
    return AnyObject(shared_from_this());
  }

 private:
  ObjectBuilder builder_;
};

inline std::shared_ptr<Service> makeService(const std::string& name) { return std::make_shared<Service>(name); }

}  // namespace mw
