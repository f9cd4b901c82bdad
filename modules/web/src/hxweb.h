#pragma once

#include "access/access.h"
#include "http/server.h"
#include "model/model.h"
#include "site.h"
#include "weboptions.h"

#include <hxcommon/hxmodule.h>
#include <libmw/trackable.h>

#include <memory>
#include <string>

namespace HX {

/// A window on the robot: a page that shows the memory as it changes, and figures for Prometheus.
///
/// In the broker's process or in one of its own; it sees the memory by its journal, like any other module.
///
/// @par Threads  All methods are safe from any thread.
class HXWeb : public HXModule {
 public:
  /// With the options that its settings say.
  /// @throws SettingsError for settings that are wrong.
  HXWeb(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  ~HXWeb() override;

  void init() override;
  void exit() override;

  /// Where the page is, with the token that it needs: the one to write with where writing is allowed.
  std::string address() const;

 private:
  void noteConnection();
  void close();

  WebOptions options_;
  std::shared_ptr<web::PageServices> services_;
  std::unique_ptr<web::Site> site_;
  std::unique_ptr<web::Server> server_;
  mw::Lifetime lifetime_;  ///< Of what the session tells.
  mw::CallGate gate_;      ///< To this module, for what pages have begun.
};

}  // namespace HX
