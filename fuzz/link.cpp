#include "harness.h"

#include <hxvalue/hxvalue.h>
#include <libmw/dynamicobject.h>
#include <libmw/log.h>
#include <libmw/session.h>
#include <libmw/signal.h>

#include <memory>
#include <memory_channel.h>
#include <remote/link.h>
#include <remote/sessionservice.h>

namespace fuzz {
namespace {

using mw::remote::Link;

class Echo final : public mw::DynamicObject {
 public:
  using DynamicObject::setType;
};

/// A broker's session with a service that peers may call, whose signal they may follow, and that hands out objects.
class Broker {
 public:
  Broker() {
    mw::log::setStderrSink(false);
    mw::ObjectBuilder builder;
    builder.setTypeName("Echo").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    builder.advertiseMethod({"echo", "", ""}, mw::AnyFunction::from([](const HX::HXValue& value) { return value; }));
    builder.advertiseMethod({"same", "", ""},
                            mw::AnyFunction::from([](const mw::AnyObject& object) { return object; }));
    builder.advertiseMethod({"say", "", ""}, mw::AnyFunction::from([this](int value) { said_(value); }));
    builder.advertiseSignal("said", said_);
    echo_->setType(builder.build());
    session.registerService("Echo", mw::AnyObject(echo_));
  }

  mw::Session session;

 private:
  mw::Signal<int> said_;
  const std::shared_ptr<Echo> echo_ = std::make_shared<Echo>();
};

/// What leaves must be whole messages, whatever came.
void drain(kit::MemoryChannel& channel) {
  for (auto frame = channel.takeSent(); !frame.empty(); frame = channel.takeSent()) {
    mw::remote::FrameSplitter splitter(std::size_t{1} << 26, 512);
    require(splitter.advance(frame) == frame.size(), "what is sent is one message");
  }
}

void feed(kit::MemoryChannel& channel, std::span<const std::byte> bytes, const mw::LinkOptions& options) {
  mw::remote::FrameSplitter splitter(options.frameLimit, options.depthLimit, options.valueLimit);
  while (!bytes.empty() && !channel.isEnded()) {
    std::size_t size = 0;
    try {
      size = splitter.advance(bytes);
    } catch (const mw::remote::ProtocolError&) {
    }
    if (size == 0) return;
    channel.receive(bytes.first(size));
    bytes = bytes.subspan(size);
    drain(channel);
  }
}

}  // namespace

void link(Input input) {
  static Broker broker;
  const mw::LinkOptions options;
  const auto channel = std::make_shared<kit::MemoryChannel>();
  const auto link = std::make_shared<Link>(channel, &broker.session, options);
  link->start(std::make_shared<mw::remote::SessionService>(broker.session, "fuzz", link,
                                                           mw::remote::SessionService::Role::Broker),
              {});
  feed(*channel, std::as_bytes(input), options);
  link->end("the input is over");
  link->gone().wait();
  require(link->pendingCount() == 0, "nothing waits for an answer of a link that has ended");
  require(link->objects().leaseCount() == 0, "a link that has ended lends nothing");
  require(broker.session.services().size() == 1, "the services of a peer go with it");
}

}  // namespace fuzz
