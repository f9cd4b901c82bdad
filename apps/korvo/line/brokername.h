#pragma once

#include <string>

namespace korvo {

/// What is wrong with a name for a broker; empty when it can be one.
std::string checkBrokerName(const std::string& name);

/// What the option that chooses a broker says of itself.
inline constexpr const char* kBrokerHelp =
    "The broker to ask; by default that of KORVO_BROKER, or else the only one that is running";

/// The name of the broker to ask: `wanted`, or where that is empty what KORVO_BROKER says, or else the only one that is
/// running.
/// @throws InputError when several are running and none is chosen, or KORVO_BROKER names none; mw::NoBrokerError when
///         none is running.
std::string chooseBroker(const std::string& wanted);

class Output;

/// Prints a line for each broker that is running, sorted by name.
void listBrokers(Output& output, bool asObjects);

}  // namespace korvo
