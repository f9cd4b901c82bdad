#pragma once

#include "names.h"

#include <string>
#include <vector>

namespace korvo::fleet {

/// Stands for all robots.
constexpr const char* kAllRobots = "*";

/// What the server is told of a robot: its key, and the subjects that it may use. Lists of what is allowed, since lists
/// of what is not have been got round.
/// @param followed  Other robots that it may follow and call; with `kAllRobots` it may list them, too.
/// @return One entry of the server's list of users.
std::string robotUser(const HX::fleet::FleetSubjects& subjects, const std::string& robot, const std::string& publicKey,
                      const std::vector<std::string>& followed);
/// The same of a person with tools: may ask all robots, read all, and make the store.
std::string operatorUser(const HX::fleet::FleetSubjects& subjects, const std::string& name,
                         const std::string& publicKey);

}  // namespace korvo::fleet
