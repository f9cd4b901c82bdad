#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace HX {

class HXBroker;
class HXProxy;

/// What the modules of this process have subscribed to in a memory of another one. That knows nothing of it any more
/// when the connection was lost: once it is back, what stands here is stated again, unless the module does so itself.
///
/// HXMemoryProxy notes what is subscribed by it; who subscribes in another way notes it too.
///
/// @par Threads  Any. No lock is held while the memory or a module is called.
class HX_API Subscriptions {
 public:
  struct Subscription {
    std::string method;   ///< Of the module, to be called.
    std::string message;  ///< Comes back with each call.
    bool isMicro = false;
  };
  /// Called when the subscriptions of a module have been stated again, with their keys: raises since the connection was
  /// lost may have been missed. On the event loop.
  using OnRestored = std::function<void(const std::vector<std::string>& keys)>;

  /// Those of the process.
  static Subscriptions& instance();

  /// @param memory        The one that was asked; nothing is noted for one of this process.
  /// @param module        Who subscribed.
  /// @param key           What to.
  /// @param subscription  How it is stated again.
  void note(const HXProxy& memory, const std::string& module, const std::string& key, Subscription subscription);
  void forget(const std::string& module, const std::string& key);
  /// The module leaves: everything about it is forgotten.
  void forgetModule(const std::string& module);

  /// Whether those of a module are stated again by themselves; so at first.
  void setRestored(const std::string& module, bool restored);
  /// @param module      Whose subscriptions are meant.
  /// @param onRestored  Must not use a module that has gone: `forgetModule` does not wait for it.
  void setOnRestored(const std::string& module, OnRestored onRestored);

  /// States again those of the broker's modules.
  void restore(HXBroker& broker);

 private:
  struct OfModule {
    std::map<std::string, Subscription> byKey;
    bool restored = true;
    OnRestored onRestored;
  };

  Subscriptions() = default;
  static void restore(HXBroker& broker, const std::string& module, const OfModule& lost);

  Mutex mutex_;
  std::map<std::string, OfModule> modules_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX
