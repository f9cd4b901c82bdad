#pragma once

#include "memory_fixture.h"
#include "print_value.h"

#include <hxcommon/feed.h>
#include <hxerror/mutex.h>
#include <hxproxies/hxmemoryproxy.h>

#include <chrono>
#include <functional>
#include <http/request.h>
#include <page/pagesession.h>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace kit {

/// A browser, as the server sees it.
class Browser : public HX::web::Socket {
 public:
  void send(HX::web::Message message) override {
    const HX::MutexLock lock(mutex_);
    messages_.push_back(std::move(message));
  }
  void close(const std::string& /*reason*/) override {}
  std::size_t unread() const override { return 0; }
  std::vector<HX::web::Message> take() {
    const HX::MutexLock lock(mutex_);
    return std::exchange(messages_, {});
  }

 private:
  HX::Mutex mutex_;
  std::vector<HX::web::Message> messages_ HX_GUARDED_BY(mutex_);
};

/// A memory, and what pages and viewers share to look at it.
class WebFixture : public MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    mw::EventLoop& loop = broker->session()->eventLoop();
    model_ = std::make_shared<HX::web::Model>(loop, [broker = broker](auto filter, auto onChange, auto options) {
      return HX::follow(broker, std::move(filter), std::move(onChange), std::move(options));
    });
    auto errands =
        std::make_shared<HX::web::Errands>(broker, [generic = generic] { return HX::HXMemoryProxy(generic); });
    services_ = std::make_shared<HX::web::PageServices>(
        model_, errands, loop, "robot",
        [broker = broker](HX::journal::TimePoint time) { return HX::changesAt(broker, time); });
  }
  void TearDown() override {
    model_->close();
    services_.reset();
    model_.reset();
    MemoryFixture::TearDown();
  }

  std::shared_ptr<HX::web::Model> model_;
  std::shared_ptr<HX::web::PageServices> services_;
};

/// A session with a browser at the other end.
class SessionFixture : public WebFixture {
 protected:
  void TearDown() override {
    if (session_) session_->closed();
    session_.reset();
    WebFixture::TearDown();
  }

  void open(std::shared_ptr<HX::web::SocketHandler> session) {
    browser_ = std::make_shared<Browser>();
    session_ = std::move(session);
    session_->opened(browser_);
  }
  void say(const std::string& text) { session_->message(text, false); }

  /// @return What a message says, as a value; the test keeps the rest itself.
  virtual HX::HXValue read(const HX::web::Message& message) = 0;

  /// Ticks until something has come that is waited for; all that comes is read.
  HX::HXValue waitFor(const std::function<bool(const HX::HXValue& message)>& isIt) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
      session_->tick();
      HX::HXValue found;
      for (const HX::web::Message& message : browser_->take()) {
        HX::HXValue content = read(message);
        if (!found.isValid() && isIt(content)) found = std::move(content);
      }
      if (found.isValid()) return found;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ADD_FAILURE() << "what was waited for did not come";
    return HX::HXValue::map();
  }

  std::shared_ptr<Browser> browser_;
  std::shared_ptr<HX::web::SocketHandler> session_;
};

}  // namespace kit
