#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace HX::model {

/// A memory under observation, the model or a real one, and the broker around it.
class Subject {
 public:
  /// Told of each call that the memory makes of a service or a client. May use the subject, and may throw.
  using Called = std::function<void(const std::string& service, const std::string& text)>;
  enum class Ending { Found, Nothing, Failed, Canceled };

  Subject() = default;
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;
  virtual ~Subject() = default;

  /// The published methods.
  virtual mw::GenericObject& methods() = 0;
  virtual void setTime(int seconds) = 0;
  /// Connects one more client to the signal of an event.
  /// @return The place of that signal among those followed so far.
  virtual std::size_t follow(const std::string& key) = 0;
  virtual void unfollow(std::size_t client) = 0;
  virtual void trigger(std::size_t place, const std::vector<HXValue>& arguments) = 0;
  /// Offers one of the first `kOffered` services, unless it is there.
  virtual void offer(const std::string& service) = 0;
  virtual void withdraw(const std::string& service) = 0;
  /// Ends the first look-up that waits for the service, if one does.
  virtual void endLookUp(const std::string& service, Ending ending) = 0;
};

}  // namespace HX::model
