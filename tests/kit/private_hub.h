#pragma once

#include "process.h"
#include "temporary_folder.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace kit {

/// A server of NATS with a store, of the test's own, on this machine.
class Hub {
 public:
  /// Where the server is; empty where there is none, and then the test has to say so.
  static std::string program() {
    for (const char* path : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"}) {
      if (std::filesystem::exists(path)) return path;
    }
    return {};
  }

  /// @param configuration  Beyond address and store.
  explicit Hub(std::string configuration = {}) : configuration_(std::move(configuration)) { start(); }
  ~Hub() { stop(); }
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  /// At the port that it had before, with the store that it had.
  void start() {
    std::filesystem::remove_all(folder_.path() / "ports");
    std::filesystem::create_directory(folder_.path() / "ports");
    writeConfiguration();
    server_ =
        std::make_unique<Process>(std::vector<std::string>{program(), "-c", (folder_.path() / "hub.conf").string()});
    if (!server_->waitFor("Server is ready")) throw std::runtime_error("the hub does not start");
    if (port_ > 0) return;
    for (int i = 0; i < 1000 && port_ < 0; ++i) {
      for (const auto& file : std::filesystem::directory_iterator(folder_.path() / "ports")) {
        std::ifstream stream(file.path());
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        const auto colon = text.rfind(':');
        if (text.find('}') != std::string::npos) port_ = std::atoi(text.c_str() + colon + 1);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (port_ < 0) throw std::runtime_error("the hub tells no port");
  }
  /// As if it had crashed.
  void stop() {
    if (!server_) return;
    server_->send(SIGCONT);
    server_->send(SIGKILL);
    server_.reset();
  }
  /// Started again with other words beyond address and store.
  void restartWith(std::string configuration) {
    stop();
    configuration_ = std::move(configuration);
    start();
  }
  /// Told other words while it runs. Only once it has been started again: until then its port is any.
  void reloadWith(std::string configuration) {
    configuration_ = std::move(configuration);
    writeConfiguration();
    server_->send(SIGHUP);
  }
  /// With an empty store.
  void startAnew() {
    stop();
    std::filesystem::remove_all(folder_.path() / "store");
    start();
  }
  void freeze() { server_->send(SIGSTOP); }
  void thaw() { server_->send(SIGCONT); }

  std::string url(const std::string& scheme = "nats") const { return scheme + "://127.0.0.1:" + std::to_string(port_); }
  const std::filesystem::path& folder() const { return folder_.path(); }

 private:
  void writeConfiguration() const {
    std::ofstream(folder_.path() / "hub.conf")
        << "listen: 127.0.0.1:" << port_ << "\nports_file_dir: \"" << (folder_.path() / "ports").string()
        << "\"\njetstream { domain: hub, store_dir: \"" << (folder_.path() / "store").string() << "\" }\n"
        << configuration_;
  }

  std::string configuration_;
  const TemporaryFolder folder_;
  int port_ = -1;
  std::unique_ptr<Process> server_;
};

}  // namespace kit
