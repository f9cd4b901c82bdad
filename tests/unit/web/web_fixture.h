#pragma once

#include "memory_fixture.h"

#include <hxcommon/feed.h>
#include <hxerror/mutex.h>
#include <hxproxies/hxmemoryproxy.h>

#include <page/pagesession.h>
#include <utility>
#include <vector>

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
    model_ = std::make_shared<HX::web::Model>(loop, [this](auto filter, auto onChange, auto options) {
      return HX::follow(broker, std::move(filter), std::move(onChange), std::move(options));
    });
    auto errands = std::make_shared<HX::web::Errands>(broker, [this] { return HX::HXMemoryProxy(generic); });
    services_ = std::make_shared<HX::web::PageServices>(
        model_, errands, loop, "robot", [this](HX::journal::TimePoint time) { return HX::changesAt(broker, time); });
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

}  // namespace kit
