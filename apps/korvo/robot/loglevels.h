#pragma once

#include <libmw/log.h>

#include <string>
#include <vector>

namespace korvo {

/// The names of the levels, from silent to debug.
std::vector<std::string> levelNames();
/// @param name  One of `levelNames`.
mw::LogLevel levelOf(const std::string& name);

}  // namespace korvo
