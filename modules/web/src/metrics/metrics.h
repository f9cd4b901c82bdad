#pragma once

#include "model/tree.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace HX::web {

/// What is measured of the server itself.
struct ServerFigures {
  std::size_t connections = 0;
  std::uint64_t pageBatches = 0;
  std::string version;
};

/// The page "/metrics".
///
/// @param keys     Patterns of the keys whose numbers are told, as `journal::Filter::globMatches` takes them. A
///                 thousand keys at most: each is a series, and Prometheus keeps them all.
std::string metricsOf(const Tree& tree, const std::vector<std::string>& keys, const ServerFigures& figures);

}  // namespace HX::web
