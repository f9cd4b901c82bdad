#include "hxweb.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/session.h>

#include <stdexcept>
#include <utility>

namespace HX {
namespace {

web::AccessOptions accessOf(const WebOptions& options, std::uint16_t port) {
  web::AccessOptions access;
  access.address = options.bind;
  access.port = port;
  access.isTls = !options.certificate.empty();
  access.hosts = options.hosts;
  access.allowedOrigins = options.allowedOrigins;
  access.allowWrite = options.allowWrite;
  access.viewToken = options.viewToken;
  access.writeToken = options.writeToken;
  return access;
}

}  // namespace

HXWeb::HXWeb(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription("HXWeb serves a page that shows the memory as it changes, and figures for Prometheus.");
  functionName("address", getName(), "Gets the address of the page, with the token that it needs.");
  setReturn("address", "What a browser is given.");
  bindMethod(this, &HXWeb::address);
  for (const Setting& setting : WebOptions::settings()) addSetting(setting);
  options_ = WebOptions::from(settings());
  for (const WebOptions::Problem& problem : options_.problems()) refuseSetting(problem.setting, problem.text);
}

HXWeb::~HXWeb() { close(); }

void HXWeb::init() {
  const auto broker = getParentBroker();
  if (options_.needsToken()) {
    if (options_.viewToken.empty()) options_.viewToken = web::makeToken();
    if (options_.allowWrite && options_.writeToken.empty()) options_.writeToken = web::makeToken();
  }
  mw::EventLoop& loop = broker->session()->eventLoop();
  // What pages have begun may end after the module has left.
  auto model =
      std::make_shared<web::Model>(loop, [this, gate = gate_.token()](auto filter, auto onChange, auto options) {
        const auto pass = gate.enter();
        if (!pass) throw std::runtime_error("HXWeb has left its broker");
        return follow(std::move(filter), std::move(onChange), std::move(options));
      });
  auto errands = std::make_shared<web::Errands>(broker, [this, gate = gate_.token()] {
    const auto pass = gate.enter();
    if (!pass) throw std::runtime_error("HXWeb has left its broker");
    return memory();
  });
  services_ = std::make_shared<web::PageServices>(std::move(model), std::move(errands), loop, broker->getName(),
                                                  [weak = std::weak_ptr(broker)](journal::TimePoint time) {
                                                    const auto kept = weak.lock();
                                                    if (!kept) throw std::runtime_error("the broker has gone");
                                                    return changesAt(kept, time);
                                                  });
  noteConnection();
  web::ServerOptions server;
  server.address = options_.bind;
  server.port = options_.port;
  server.certificate = options_.certificate;
  server.key = options_.key;
  server_ = std::make_unique<web::Server>(std::move(server));
  site_ = std::make_unique<web::Site>(web::Access(accessOf(options_, server_->port())), services_, options_.metrics,
                                      options_.parameters, server_->connectionCount());
  server_->serve(*site_);
  mw::log::info("web", "init", "the page is at " + address());
}

/// In another process than the memory's the way there can be lost, and pages are to say so at once.
void HXWeb::noteConnection() {
  mw::Session& session = *getParentBroker()->session();
  const auto tell = [weak = std::weak_ptr(services_->model)](const std::string& trouble) {
    if (const auto model = weak.lock()) model->setTrouble(trouble);
  };
  session.connectionLost.connect(mw::SignalSubscriber([tell](const std::string& reason) {
                                   tell("the connection to the broker is lost: " + reason);
                                 }).track(lifetime_.token()));
  session.connectionRestored.connect(mw::SignalSubscriber([tell] { tell({}); }).track(lifetime_.token()));
  const auto note = [services = services_](mw::ServiceId, const std::string&) { ++services->serviceNotices; };
  session.serviceRegistered.connect(mw::SignalSubscriber(note).track(lifetime_.token()));
  session.serviceUnregistered.connect(mw::SignalSubscriber(note).track(lifetime_.token()));
}

std::string HXWeb::address() const {
  if (!site_) return {};
  const std::string& token = options_.allowWrite ? options_.writeToken : options_.viewToken;
  return site_->access().address() + "/" + (token.empty() ? "" : "#token=" + token);
}

void HXWeb::close() {
  server_.reset();
  if (services_) services_->model->close();
  lifetime_.destroy();
  gate_.drain();
}

void HXWeb::exit() {
  close();
  HXModule::exit();
}

}  // namespace HX
