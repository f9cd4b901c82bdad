#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/dynamicobject.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kit {

/// A subscriber: remembers each notification, then does what `react` says.
///
/// Its callbacks are "heard" and "heardToo", which differ in what is remembered only. Threads: notifications may come
/// on any; `react` is set while none does.
class Listener : public mw::DynamicObject {
 public:
  struct Notification {
    std::string method;
    std::string key;
    HX::HXValue value;
    HX::HXValue message;

    bool operator==(const Notification&) const = default;
  };

  /// @param remembers  False for listeners that hear more than memory holds.
  explicit Listener(bool remembers = true) : remembers_(remembers) {
    mw::ObjectBuilder builder;
    builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    for (const char* method : {"heard", "heardToo"}) {
      const auto callback = [this, method](const std::string& key, const HX::HXValue& value,
                                           const HX::HXValue& message) {
        add({method, key, value, message});
      };
      builder.advertiseMethod(mw::MetaMethodBuilder(method, {}, {}), mw::AnyFunction::from(callback));
    }
    setType(builder.build());
  }

  static std::shared_ptr<Listener> make(bool remembers = true) { return std::make_shared<Listener>(remembers); }

  std::vector<Notification> notifications() const {
    const std::lock_guard lock(mutex_);
    return notifications_;
  }

  std::vector<HX::HXValue> values() const {
    std::vector<HX::HXValue> values;
    for (const auto& one : notifications()) values.push_back(one.value);
    return values;
  }

  std::function<void(const Notification&)> react;

 private:
  void add(const Notification& notification) {
    if (remembers_) {
      const std::lock_guard lock(mutex_);
      notifications_.push_back(notification);
    }
    if (react) react(notification);
  }

  const bool remembers_;
  mutable std::mutex mutex_;  // Guards `notifications_`.
  std::vector<Notification> notifications_;
};

}  // namespace kit
