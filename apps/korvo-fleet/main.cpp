#include "commands.h"

#include <hxvalue/json.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <unistd.h>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

using namespace korvo::fleet;

enum Status { kDone = 0, kFailed = 1, kWrongUsage = 2, kNotReached = 3 };

int fail(Status status, const std::string& text) {
  std::cerr << "error: " << text << '\n';
  return status;
}

/// What the line asks for, once it has been read.
class Line {
 public:
  Line() : app_("Sees and drives the robots of a fleet, and makes hubs for it.", "korvo fleet") {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "korvo " KORVO_VERSION);
    takeEnvironment();
    app_.footer("Exit status: 0 done, 1 failed, 2 wrong usage, 3 the robot or the hub cannot be reached.");
    addHubs();
    addRobots();
  }

  int run(int argc, const char* const* argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      const int status = app_.exit(error, std::cout, std::cerr);
      return status == 0 ? kDone : kWrongUsage;
    }
    return action_();
  }

 private:
  /// Before the options, which win. The parser would ask the environment for each command, also for those that are not
  /// given, and what it found for one of them would win over the option of the one that is.
  void takeEnvironment() {
    const std::pair<const char*, std::string*> all[] = {
        {"KORVO_FLEET_HUB", &fleet_.hub}, {"KORVO_FLEET_CA", &fleet_.authority}, {"KORVO_FLEET_SEED", &fleet_.seed}};
    for (const auto& [name, option] : all) {
      const char* const value = std::getenv(name);
      if (value && *value) *option = value;
    }
  }
  CLI::App* add(const char* name, const char* text, std::function<int()> action) {
    CLI::App* const command = app_.add_subcommand(name, text);
    command->add_option("--hub", fleet_.hub, "The hub's servers, with commas between them; or KORVO_FLEET_HUB")
        ->capture_default_str();
    command->add_option("--fleet", fleet_.fleet, "What the fleet is called")->capture_default_str();
    command->add_option("--domain", fleet_.domain, "Of the hub's store")->capture_default_str();
    command->add_option("--ca", fleet_.authority, "Certificate that the hub's is signed with; or KORVO_FLEET_CA");
    command->add_option("--seed", fleet_.seed, "File with the key to use; or KORVO_FLEET_SEED");
    command->add_flag("--insecure", fleet_.insecure, "Let a plain connection leave this machine");
    command->add_option("--timeout", fleet_.seconds, "Give up a request after so many seconds; 0: never")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    command->callback([this, action = std::move(action)] { action_ = action; });
    return command;
  }
  /// A command that asks the fleet.
  CLI::App* addAsking(const char* name, const char* text, std::function<void(FleetView&)> action) {
    return add(name, text, [this, action = std::move(action)] {
      FleetView view(fleet_);
      action(view);
      return int{kDone};
    });
  }

  void addHubOptions(CLI::App* command) {
    command->add_option("--folder", hub_.folder, "Where the hub keeps what it has")->capture_default_str();
    command->add_option("--port", hub_.port, "Its port")->check(CLI::Range(1, 65535))->capture_default_str();
  }
  void addBounds(CLI::App* command) {
    command->add_option("--hours", hub_.hours, "How long events are stored")
        ->check(CLI::Range(0.01, 1e5))
        ->capture_default_str();
    command->add_option("--megabytes", hub_.megabytes, "How much of them is stored")
        ->check(CLI::Range(1.0, 1e7))
        ->capture_default_str();
  }

  void addHubs() {
    CLI::App* demo =
        add("demo", "A hub and three robots, to try things with", [this] { return runDemo(fleet_, hub_); });
    addHubOptions(demo);
    CLI::App* hub = add("hub", "A hub in this terminal", [this] { return runHub(fleet_, hub_); });
    addHubOptions(hub);
    addBounds(hub);
    hub->add_option("--address", hub_.address, "Listen here; beyond this machine it needs a certificate")
        ->capture_default_str();
    hub->add_option("--certificate", hub_.certificate, "Of the hub, in PEM");
    hub->add_option("--key", hub_.key, "Of the certificate, in PEM");
    CLI::App* init = addAsking("init", "Makes the store of the fleet, or brings it up to what it should be",
                               [this](FleetView& view) { initialiseHub(view, hub_); });
    addBounds(init);
    init->add_option("--replicas", hub_.replicas, "On how many servers of a cluster each thing is stored")
        ->check(CLI::Range(1, 5))
        ->capture_default_str();
    CLI::App* key = add("key", "Makes the key of a robot and its rights at the hub", [this] {
      makeKey(fleet_, hub_, first_, followed_);
      return int{kDone};
    });
    addHubOptions(key);
    key->add_option("ROBOT", first_, "The robot")->required();
    key->add_option("--follow", followed_, "A robot that it may follow, or *; may be repeated")
        ->allow_extra_args(false);
    add("doctor", "Says what is wrong and what to do", [this] { return diagnose(fleet_); });
  }

  void addRobots() {
    addAsking("ls", "Lists the robots: state, round trip, last seen, queued, dropped", [this](FleetView& view) {
      listRobots(view, fleet_.json);
    })->add_flag("--json", fleet_.json, "Lines of JSON");
    CLI::App* get = addAsking("get", "Prints a value, or what it was when the robot was there last",
                              [this](FleetView& view) { getValue(view, first_, fleet_.json); });
    get->add_option("ROBOT/KEY", first_)->required();
    get->add_flag("--json", fleet_.json, "With everything that is known of it");
    addAsking("list", "Lists the keys of a robot", [this](FleetView& view) { listKeys(view, first_); })
        ->add_option("ROBOT", first_)
        ->required();
    addAsking("watch", "Prints what changes, until it is interrupted", [this](FleetView& view) { watch(view, first_); })
        ->add_option("PATTERN", first_, "robot*/Battery/**")
        ->required();
    CLI::App* set = addAsking("set", "Has a robot set a value",
                              [this](FleetView& view) { setValue(view, first_, second_, whenOnline_); });
    set->add_option("ROBOT/KEY", first_)->required();
    set->add_option("JSON", second_)->required();
    set->add_flag("--when-online", whenOnline_, "Now, or as soon as it is there, and after each of its starts");
    CLI::App* raise = addAsking("raise", "Has a robot raise an event",
                                [this](FleetView& view) { raiseEvent(view, first_, second_); });
    raise->add_option("ROBOT/EVENT", first_)->required();
    raise->add_option("JSON", second_)->required();
    CLI::App* call = addAsking("call", "Calls a method of a robot's service",
                               [this](FleetView& view) { callMethod(view, first_, second_, rest_); });
    call->add_option("ROBOT/SERVICE", first_)->required();
    call->add_option("METHOD", second_)->required();
    call->add_option("JSON", rest_);
    addAsking("history", "Prints the stored events of a key", [this](FleetView& view) { showHistory(view, first_); })
        ->add_option("ROBOT/EVENT", first_)
        ->required();
    addAsking("top", "Shows the robots, until it is interrupted", [](FleetView& view) { showTop(view); });
  }

  CLI::App app_;
  FleetOptions fleet_;
  HubOptions hub_;
  std::string first_, second_;
  std::vector<std::string> rest_, followed_;
  bool whenOnline_ = false;
  std::function<int()> action_;
};

}  // namespace

int main(int argc, char** argv) {
  // Before there are threads: the signals that end are waited for by those who go on until then.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  try {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "watch" || command == "top" || command == "hub" || command == "demo") {
      pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    }
    return Line().run(argc, argv);
  } catch (const UsageError& error) {
    return fail(kWrongUsage, error.what());
  } catch (const HX::fleet::NobodyError& error) {
    return fail(kNotReached, error.what());
  } catch (const HX::fleet::AwayError& error) {
    return fail(kNotReached, error.what());
  } catch (const HX::fleet::RefusedError& error) {
    return fail(kNotReached, error.what());
  } catch (const std::exception& error) {
    return fail(kFailed, error.what());
  }
}
