#pragma once

#include "program.h"

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/local.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <end_broker.h>
#include <functional>
#include <memory>
#include <optional>
#include <socket_folder.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace kit {

/// A broker of this process that has joined another one, in whose process the memory is.
class FarMemoryFixture : public testing::Test {
 protected:
  FarMemoryFixture() { ::setenv("XDG_DATA_DIRS", "/nonexistent", 1); }
  ~FarMemoryFixture() override {
    client_.reset();
    if (broker_) endBroker(*broker_);
  }

  void run(std::vector<std::string> options = {}) {
    options.insert(options.begin(), "run");
    process_.emplace(korvo(std::move(options)));
    ASSERT_TRUE(process_->waitFor(" is running: "));
  }
  void join() { client_.emplace(*broker_->session(), "korvo"); }
  void kill() {
    process_->send(SIGKILL);
    process_->finish();
  }
  /// Of the memory that is there now.
  HX::HXMemoryProxy memory() { return *broker_->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"); }

  /// Waits until something is so that others do.
  static void await(const std::function<bool()>& isSo) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isSo()) {
      ASSERT_LT(std::chrono::steady_clock::now(), until);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  const SocketFolder sockets_;
  std::shared_ptr<HX::HXBroker> broker_ = HX::HXBroker::create("far");
  std::optional<Process> process_;
  std::optional<mw::LocalClient> client_;
};

}  // namespace kit
