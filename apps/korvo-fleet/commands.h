#pragma once

#include "fleettools.h"

#include <string>
#include <vector>

namespace korvo::fleet {

// What goes on with robots. Each prints lines of JSON, or for people where that is said, and throws what went wrong.

void listRobots(FleetView& fleet, bool asJson);
/// Prints what a robot has, or had when it was there last.
void getValue(FleetView& fleet, const std::string& path, bool asJson);
void listKeys(FleetView& fleet, const std::string& robot);
/// Until a signal ends it.
void watch(FleetView& fleet, const std::string& pattern);
void setValue(FleetView& fleet, const std::string& path, const std::string& json, bool whenOnline);
void raiseEvent(FleetView& fleet, const std::string& path, const std::string& json);
void callMethod(FleetView& fleet, const std::string& path, const std::string& method,
                const std::vector<std::string>& arguments);
void showHistory(FleetView& fleet, const std::string& path);
void showTop(FleetView& fleet);

// What goes on with hubs.

struct HubOptions {
  std::string folder = "fleet";
  std::string address = "127.0.0.1";
  int port = 4222;
  std::string certificate;
  std::string key;
  double hours = 168;
  double megabytes = 1024;
  int replicas = 1;
};

/// Makes the store of the fleet.
void initialiseHub(FleetView& fleet, const HubOptions& options);
/// A hub in this terminal, until a signal ends it.
/// @return Exit status.
int runHub(FleetOptions fleet, const HubOptions& options);
/// A hub and three robots, until a signal ends them.
int runDemo(FleetOptions fleet, const HubOptions& options);
/// Makes the key of a robot and what the hub is told of it.
void makeKey(const FleetOptions& fleet, const HubOptions& options, const std::string& robot,
             const std::vector<std::string>& followed);
/// Says what is wrong and what to do. @return Exit status.
int diagnose(const FleetOptions& fleet);

}  // namespace korvo::fleet
