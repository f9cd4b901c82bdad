#pragma once

#include <hxproxies/hxmemoryproxy.h>
#include <libmw/eventloop.h>

#include <memory>
#include <page/pagesession.h>
#include <stdexcept>
#include <string>

namespace fuzz {

/// A peer that takes everything.
class Nowhere : public HX::web::Socket {
 public:
  void send(HX::web::Message /*message*/) override {}
  void close(const std::string& /*reason*/) override {}
  std::size_t unread() const override { return 0; }
};

/// What pages and viewers share, where there is no memory.
inline std::shared_ptr<HX::web::PageServices> webServices() {
  using namespace HX::web;
  static mw::EventLoop loop;
  const auto refuse = []() -> HX::HXMemoryProxy { throw std::runtime_error("there is no memory"); };
  static const auto shared =
      std::make_shared<PageServices>(std::make_shared<Model>(loop, [](auto&&...) { return HX::journal::Follow(); }),
                                     std::make_shared<Errands>(std::weak_ptr<HX::HXBroker>(), refuse), loop, "fuzz",
                                     [](HX::journal::TimePoint) { return HX::journal::Position{}; });
  return shared;
}

}  // namespace fuzz
