#pragma once

#include "page/errands.h"

#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace HX::web {

// What viewers ask for beside the changes of keys. Each function waits for the memory or for modules, as `Errands`.

/// A method as a viewer calls it: a service of its own.
struct ViewerService {
  std::string service;
  std::int64_t method = 0;
  std::vector<std::string> parameters;  ///< Their names, in their order.
  HXValue advertised;                   ///< As it is advertised, but for its number.

  friend bool operator==(const ViewerService&, const ViewerService&) = default;
};
/// By the names under which they are offered: "Arm.reach", and "Arm.reach(string, int)" for each of several.
using ViewerServices = std::map<std::string, ViewerService>;

/// All methods of all services that another process may call.
ViewerServices viewerServices(const Errands& errands);
/// The arguments in their order.
/// @param payload  A JSON object with the arguments by their names.
/// @throws std::runtime_error naming one that is missing, or that there is not.
HXValue::List argumentsOf(const ViewerService& service, const std::string& payload);

/// Which keys are offered as parameters: those that the keeper keeps, and the chosen ones. 2,000 at most.
class ViewerParameters {
 public:
  static constexpr std::size_t kMost = 2000;

  /// @param patterns  Of keys, as `journal::Filter` takes them.
  explicit ViewerParameters(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {}

  /// @param names  Empty for all that are offered.
  /// @return As viewers are sent them. Names that are not offered are left out.
  HXValue::List values(const Errands& errands, const std::vector<std::string>& names) const;
  /// Writes one, as a value of the type that it has.
  /// @param parameter  As viewers send it; one without a value is removed.
  /// @throws std::runtime_error for one that is not offered, or a value that does not fit.
  void set(const Errands& errands, const HXValue& parameter) const;
  /// One as viewers are sent it.
  static HXValue toParameter(const std::string& name, const HXValue& value);

 private:
  std::vector<std::string> offered(const Errands& errands) const;

  const std::vector<std::string> patterns_;
};

/// Who publishes, hears and provides what: names, each with its sorted parties.
struct ViewerGraph {
  using Parties = std::map<std::string, std::vector<std::string>>;
  Parties published, subscribed, services;

  /// What has changed since `before`, as viewers are sent it; invalid when nothing has.
  HXValue changesSince(const ViewerGraph& before) const;
};
/// @param authors  Of keys, by their names.
ViewerGraph viewerGraph(const Errands& errands, ViewerGraph::Parties authors);

}  // namespace HX::web
