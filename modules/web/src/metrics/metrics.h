#pragma once

#include "model/tree.h"

#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace HX::web {

/// What is measured elsewhere: of the server itself, and what other modules tell.
struct ServerFigures {
  std::size_t connections = 0;
  std::uint64_t pageBatches = 0;
  std::string version;
  HXValue journal{};          ///< As `HXJournal.figures` tells it; invalid where it is not there.
  HXValue freshness{};        ///< As `HXFreshness.expectations` tells it; invalid where it is not there.
  std::uint64_t dropped = 0;  ///< Subscriptions that have ended because their calls failed.
};

/// The page "/metrics".
///
/// @param tree     Of which keys and changes are told.
/// @param keys     Patterns of the keys whose numbers are told, as `journal::Filter::globMatches` takes them. A
///                 thousand keys at most: each is a series, and Prometheus keeps them all.
/// @param figures  The rest.
std::string metricsOf(const Tree& tree, const std::vector<std::string>& keys, const ServerFigures& figures);

}  // namespace HX::web
