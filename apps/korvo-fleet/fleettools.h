#pragma once

#include "connection.h"
#include "hub.h"
#include "names.h"
#include "services.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvo::fleet {

/// What the command line says about which fleet is meant.
struct FleetOptions {
  std::string hub = "nats://127.0.0.1:4222";  ///< Servers, with commas between them.
  std::string fleet = "fleet";
  std::string domain = "hub";
  std::string authority;
  std::string seed;
  bool insecure = false;
  double seconds = 5;
  bool json = false;

  std::chrono::milliseconds patience() const {
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
  }
};

/// A command line that asks for nothing that there is.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A fleet as it is seen from outside.
class FleetView {
 public:
  /// Connects.
  explicit FleetView(const FleetOptions& options);

  HX::fleet::Connection& connection() { return *connection_; }
  const HX::fleet::FleetSubjects& subjects() const { return subjects_; }

  /// Asks a robot.
  /// @param data  JSON; may be empty.
  /// @throws HX::fleet::NobodyError when it is not there.
  HX::HXValue ask(const std::string& robot, const std::string& what, const std::string& data);
  /// What the hub has of a key.
  std::optional<HX::fleet::Record> stored(const std::string& robot, const std::string& key);
  /// Which robots answer, each with the time that it took.
  std::vector<std::pair<std::string, std::chrono::nanoseconds>> present(std::chrono::milliseconds wait);
  /// What each robot that there is or was has said of itself last.
  std::vector<HX::fleet::Status> statuses();
  /// Has a robot get a value for a key, as soon as it is there.
  void want(const std::string& robot, const std::string& key, const HX::HXValue& value);

 private:
  const std::chrono::milliseconds patience_;
  const HX::fleet::FleetSubjects subjects_;
  std::unique_ptr<HX::fleet::Connection> connection_;
};

/// {"robot7", "Battery/Level"} of "robot7/Battery/Level".
/// @throws UsageError.
std::pair<std::string, std::string> toRobotAndRest(std::string_view text);

/// The hub's servers out of the options, as they are reached.
HX::fleet::Access accessOf(const FleetOptions& options);

}  // namespace korvo::fleet
