#include "child.h"
#include "commands.h"
#include "nkey.h"
#include "rights.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo::fleet {
namespace {

using namespace HX::fleet;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

const char* const kOperator = "operator";

/// What only its owner may read, from its first byte on.
void writeSecret(const fs::path& file, const std::string& text) {
  const mode_t before = ::umask(S_IRWXG | S_IRWXO);
  std::ofstream stream(file);
  stream << text << '\n';
  stream.close();
  ::umask(before);
  if (!stream) throw std::runtime_error(fmt::format("{} cannot be written", file.string()));
}

/// What the server reads: all users, each of whom has a file.
void writeUsers(const fs::path& folder) {
  std::vector<fs::path> files;
  for (const auto& file : fs::directory_iterator(folder / "users")) files.push_back(file.path());
  std::ranges::sort(files);
  std::ofstream stream(folder / "users.conf");
  stream << "users = [\n";
  for (const fs::path& file : files) stream << std::ifstream(file).rdbuf();
  stream << "]\n";
}

/// Makes a key for somebody who has none yet.
/// @return The file with the seed.
fs::path ensureKey(const fs::path& folder, const std::string& name,
                   const std::function<std::string(const std::string&)>& user) {
  fs::create_directories(folder / "users");
  const fs::path seed = folder / (name + ".seed");
  std::string secret;
  if (std::ifstream known(seed); known >> secret) {
    std::ofstream(folder / "users" / name) << user(userKeyOf(secret).publicKey);
  } else {
    const UserKey key = makeUserKey();
    writeSecret(seed, key.seed);
    std::ofstream(folder / "users" / name) << user(key.publicKey);
  }
  writeUsers(folder);
  return seed;
}

std::string serverProgram() {
  for (const char* path : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  throw std::runtime_error("there is no nats-server: apt install nats-server");
}

/// Whether what listens can be reached from this machine alone.
bool isOwn(const std::string& address) {
  return address == "localhost" || address == "::1" || address.starts_with("127.");
}

void writeConfiguration(const HubOptions& options, const std::string& domain) {
  const fs::path folder = fs::absolute(options.folder);
  std::ofstream stream(folder / "hub.conf");
  stream << fmt::format("listen: \"{}:{}\"\njetstream {{ domain: {}, store_dir: \"{}\" }}\n", options.address,
                        options.port, domain, (folder / "store").string());
  if (options.certificate.empty()) return;
  stream << fmt::format("tls {{ cert_file: \"{}\", key_file: \"{}\" }}\nauthorization {{ include \"./users.conf\" }}\n",
                        fs::absolute(options.certificate).string(), fs::absolute(options.key).string());
}

/// Starts a hub, and returns once its store is made.
Child startHub(FleetOptions& fleet, const HubOptions& options) {
  if (!isOwn(options.address) && options.certificate.empty()) {
    throw UsageError(
        fmt::format("a hub at {} can be reached from elsewhere: give --certificate and --key", options.address));
  }
  if (options.certificate.empty() != options.key.empty()) throw UsageError("--certificate and --key go together");
  fs::create_directories(options.folder);
  writeConfiguration(options, fleet.domain);
  const bool isTls = !options.certificate.empty();
  fleet.hub = fmt::format("{}://localhost:{}", isTls ? "tls" : "nats", options.port);
  if (isTls) {
    const FleetSubjects subjects(fleet.fleet, fleet.domain);
    fleet.seed = ensureKey(options.folder, kOperator, [&](const std::string& key) {
                   return operatorUser(subjects, kOperator, key);
                 }).string();
    if (fleet.authority.empty()) fleet.authority = options.certificate;
  }
  Child server({serverProgram(), "-c", (fs::path(options.folder) / "hub.conf").string(), "-l",
                (fs::path(options.folder) / "hub.log").string()});
  const auto end = std::chrono::steady_clock::now() + 20s;
  for (;;) {
    if (!server.isRunning()) {
      throw std::runtime_error(fmt::format("the hub does not run: {}/hub.log says why", options.folder));
    }
    try {
      FleetView view(fleet);
      initialiseHub(view, options);
      return server;
    } catch (const UsageError&) {
      throw;
    } catch (const std::exception&) {
      if (std::chrono::steady_clock::now() > end) throw;
    }
    std::this_thread::sleep_for(100ms);
  }
}

/// Waits for a signal that ends.
/// @param look  Called now and then. @return False to end.
void awaitSignal(const std::function<bool()>& look) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  const timespec gap{0, 500'000'000};
  while (look()) {
    if (sigtimedwait(&signals, nullptr, &gap) > 0) return;
  }
}

/// The program `korvo`, which lies beside this one.
std::string korvoProgram() { return (fs::read_symlink("/proc/self/exe").parent_path() / "korvo").string(); }

/// A line of output that was not asked for.
void note(const std::string& text, bool good) { std::cout << (good ? "ok     " : "wrong  ") << text << std::endl; }

}  // namespace

void initialiseHub(FleetView& fleet, const HubOptions& options) {
  const auto age =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::duration<double, std::ratio<3600>>(options.hours));
  constexpr double kMega = 1024.0 * 1024.0;
  initialise(fleet.connection(), fleet.subjects(), age, static_cast<std::int64_t>(options.megabytes * kMega),
             options.replicas);
}

int runHub(FleetOptions fleet, const HubOptions& options) {
  const Child server = startHub(fleet, options);
  std::cout << fmt::format("hub is running at {}; korvo fleet ls lists its robots, Ctrl-C ends it", fleet.hub)
            << std::endl;
  const fs::path users = fs::path(options.folder) / "users.conf";
  std::error_code none;
  auto known = fs::last_write_time(users, none);
  awaitSignal([&] {
    if (const auto now = fs::last_write_time(users, none); now != known) {
      known = now;
      server.send(SIGHUP);  // It reads its users anew.
    }
    return server.isRunning();
  });
  return server.isRunning() ? 0 : 1;
}

int runDemo(FleetOptions fleet, const HubOptions& options) {
  const Child server = startHub(fleet, options);
  std::vector<std::unique_ptr<Child>> robots;
  for (int i = 1; i <= 3; ++i) {
    const std::string robot = fmt::format("robot{}", i);
    robots.push_back(std::make_unique<Child>(std::vector<std::string>{korvoProgram(), "run", "--name", "fleet-" + robot,
                                                                      "--console", "--log-level", "error", "--fleet",
                                                                      fleet.hub, "--robot", robot}));
  }
  // So that the first command in another terminal finds them all.
  FleetView view(fleet);
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (view.present(200ms).size() < robots.size() && std::chrono::steady_clock::now() < end) {
  }
  std::cout << fmt::format("a hub at {} and robot1, robot2, robot3 are running; Ctrl-C ends them", fleet.hub)
            << std::endl;
  int step = 0;
  awaitSignal([&] {
    ++step;
    for (std::size_t i = 0; i < robots.size(); ++i) {
      const int level = 100 - (step / 20 + static_cast<int>(i) * 17) % 100;
      robots[i]->write(fmt::format("set Battery/Level {}\nraise Steps {}\n", level, step));
    }
    return server.isRunning();
  });
  return 0;
}

void makeKey(const FleetOptions& fleet, const HubOptions& options, const std::string& robot,
             const std::vector<std::string>& followed) {
  for (const std::string& name : followed) {
    if (!isName(name) && name != kAllRobots) throw UsageError(fmt::format("{} is no name of a robot", name));
  }
  if (!isName(robot) || robot == kOperator) throw UsageError(fmt::format("{} is no name of a robot", robot));
  const FleetSubjects subjects(fleet.fleet, fleet.domain);
  const auto seed = ensureKey(options.folder, robot,
                              [&](const std::string& key) { return robotUser(subjects, robot, key, followed); });
  std::cout << fmt::format("{} is the secret of {}: take it there, mode 600, and leave no copy\n", seed.string(),
                           robot);
  std::cout << fmt::format(
      "{} has its rights; a hub of korvo fleet hub reads them by itself, another one after\n"
      "nats-server --signal reload\n",
      (fs::path(options.folder) / "users.conf").string());
}

int diagnose(const FleetOptions& options) {
  std::unique_ptr<FleetView> view;
  try {
    view = std::make_unique<FleetView>(options);
    note(fmt::format("connected to {}", view->connection().server()), true);
  } catch (const RefusedError& error) {
    note(fmt::format("{}: the hub refuses; check --ca and --seed, and whether the name is that of its certificate",
                     error.what()),
         false);
    return 1;
  } catch (const AwayError& error) {
    note(fmt::format("{}: is the hub running, and does a firewall let us reach it?", error.what()), false);
    return 3;
  }
  const auto& subjects = view->subjects();
  bool isWell = true;
  for (const std::string& stream : {"KV_" + subjects.valueBucket(), "KV_" + subjects.statusBucket(),
                                    "KV_" + subjects.desiredBucket(), subjects.eventStream()}) {
    try {
      const auto answer =
          view->connection().request({subjects.interface("STREAM.INFO." + stream), {}}, options.patience());
      const HX::HXValue info = HX::fromJson(answer.data());
      const bool isThere = !info.find("error");
      note(isThere ? fmt::format("{}: {} messages, {} bytes", stream, info["state"]["messages"].toString(),
                                 info["state"]["bytes"].toString())
                   : fmt::format("{} is not there: korvo fleet init makes it", stream),
           isThere);
      isWell = isWell && isThere;
    } catch (const std::exception& error) {
      note(fmt::format("{}: the hub has no store under domain {}: {}", stream, options.domain, error.what()), false);
      return 1;
    }
  }
  const auto present = view->present(500ms);
  for (const Status& status : view->statuses()) {
    const bool isThere = std::ranges::any_of(present, [&](const auto& one) { return one.first == status.robot; });
    const bool isLossless = status.dropped == 0 && status.turnedAway == 0;
    if (!isThere) note(fmt::format("{} is not there since {}", status.robot, toText(status.time)), true);
    if (!isLossless) {
      note(fmt::format("{} dropped {} events and mirrors {} keys, and no more: keep or export fewer", status.robot,
                       status.dropped, status.keys),
           false);
    }
    isWell = isWell && isLossless;
  }
  note(fmt::format("{} robots answer", present.size()), true);
  return isWell ? 0 : 1;
}

}  // namespace korvo::fleet
