#pragma once

#include <libmw/genericobject.h>
#include <libmw/session.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korvo {

class Target;

/// Finds the module that produces an event, without waiting: the memory tells the events of a module, and not the
/// module of an event.
///
/// @par Threads  One at a time.
class ExtractorSearch {
 public:
  explicit ExtractorSearch(std::string event) : event_(std::move(event)) {}

  /// Takes the answers that are there, and asks what is to be asked next.
  /// @return Whether it has just been found.
  bool advance(Target& target, const mw::AnyObject& memory);
  /// Empty as long as it is not found.
  const std::string& found() const { return found_; }

 private:
  using Services = mw::Future<std::vector<mw::ServiceInfo>>;

  const std::string event_;
  std::optional<Services> services_;
  std::vector<std::pair<std::string, mw::Future<mw::AnyValue>>> events_;  // Of each service, those it produces.
  std::string found_;
};

}  // namespace korvo
