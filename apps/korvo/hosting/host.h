#pragma once

#include "hosting.h"

#include <string>

namespace korvo {

/// What `korvo host` was asked for.
struct HostOptions : HostingOptions {
  std::string broker;  ///< The broker to join; empty for the only one that is running.
};

/// Hosts modules in this process for a broker of another one, until SIGINT or SIGTERM; then they leave, the last one
/// first. See `Ending` for what that may take.
///
/// When the broker is lost, the modules stay and find its services again once it is back; both are told on standard
/// error.
///
/// Called by the first thread, before there are others.
///
/// @return The exit status: 0, or 1 when none of the libraries could be loaded, or strictly, not all.
/// @throws mw::NoBrokerError when there is no such broker.
int host(const HostOptions& options);

}  // namespace korvo
