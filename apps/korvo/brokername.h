#pragma once

#include <string>

namespace korvo {

/// What is wrong with a name for a broker; empty when it can be one.
std::string checkBrokerName(const std::string& name);

/// The name of the broker to ask: `wanted`, or where that is empty the only one that is running.
/// @throws InputError when several are running and none is wanted; mw::NoBrokerError when none is running.
std::string chooseBroker(const std::string& wanted);

}  // namespace korvo
