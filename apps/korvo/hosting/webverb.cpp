#include "host.h"
#include "line/brokername.h"
#include "line/verbs.h"

#include <cstdlib>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

struct WebVerbOptions {
  HostOptions host;
  int port = 8765;
  std::string bind = "127.0.0.1";
  std::vector<std::string> hosts, origins, metrics;
  std::string certificate, key;
  bool allowWrite = false;
};

CLI::Option* addRepeated(CLI::App& app, const char* name, std::vector<std::string>& values, const char* help,
                         const char* placeholder) {
  return app.add_option(name, values, help)->allow_extra_args(false)->type_name(placeholder);
}

void addOptions(CLI::App& app, WebVerbOptions& options) {
  app.add_option("--port", options.port, "Listen at this port; 0 takes any that is free")
      ->check(CLI::Range(0, 65535))
      ->type_name("PORT")
      ->capture_default_str();
  app.add_option("--bind", options.bind, "Listen at this address; others than this machine's own need a token")
      ->type_name("ADDRESS")
      ->capture_default_str();
  app.add_flag("--allow-write", options.allowWrite, "Let whoever has the printed link set, raise, remove and call");
  addRepeated(app, "--host", options.hosts, "Be reached under this name too; may be repeated", "NAME");
  addRepeated(app, "--allow-origin", options.origins, "Let pages of this origin connect; may be repeated", "URL");
  addRepeated(app, "--metric", options.metrics, "Tell Prometheus the numbers of these keys; may be repeated",
              "PATTERN");
  app.add_option("--certificate", options.certificate, "Speak TLS with this certificate, a file in PEM")
      ->type_name("FILE");
  app.add_option("--key", options.key, "The certificate's key, a file in PEM")->type_name("FILE");
  app.add_option("--broker", options.host.broker, kBrokerHelp)
      ->check(CLI::Validator(checkBrokerName, ""))
      ->type_name("NAME");
}

void provide(const char* variable, const std::string& value) {
  if (!value.empty()) ::setenv(variable, value.c_str(), 1);
}

/// Modules take their settings from the environment of their process, which is ours and has one thread yet.
int start(const WebVerbOptions& options) {
  provide("KORVO_WEB_PORT", std::to_string(options.port));
  provide("KORVO_WEB_BIND", options.bind);
  provide("KORVO_WEB_ALLOW_WRITE", options.allowWrite ? "1" : "");
  provide("KORVO_WEB_HOSTS", fmt::format("{}", fmt::join(options.hosts, ",")));
  provide("KORVO_WEB_ALLOW_ORIGINS", fmt::format("{}", fmt::join(options.origins, ",")));
  provide("KORVO_WEB_METRICS", fmt::format("{}", fmt::join(options.metrics, ",")));
  provide("KORVO_WEB_CERTIFICATE", options.certificate);
  provide("KORVO_WEB_KEY", options.key);
  HostOptions host = options.host;
  host.modules = {"web"};
  host.strict = true;
  return korvo::host(host);
}

}  // namespace

Verb webVerb() {
  const auto options = std::make_shared<WebVerbOptions>();
  return {
      "web",
      "",
      "Serves a page that shows a broker's memory as it changes, and figures for Prometheus.",
      "It prints the address of the page. Only this machine reaches it, and it only shows: --bind lets others in, and\n"
      "--allow-write lets the page act. Both ask for a token, which is part of the printed link; KORVO_WEB_VIEW_TOKEN\n"
      "and KORVO_WEB_WRITE_TOKEN set tokens that stay the same.\n"
      "\n"
      "/metrics is for Prometheus. In the broker's own process it runs as korvo run --module web, with the options as\n"
      "KORVO_WEB_PORT, KORVO_WEB_BIND, KORVO_WEB_ALLOW_WRITE=1, KORVO_WEB_METRICS and so on.",
      "web --allow-write\n"
      "web --bind 0.0.0.0 --host robot.local --certificate robot.pem --key robot.key\n"
      "web --metric 'Host/*'",
      "In this terminal",
      "0    ended in order\n"
      "1    the address could not be had, or an option is of no use\n"
      "2    wrong usage\n"
      "3    there is no broker to join\n"
      "130  ended at once by a second SIGINT\n",
      [options](CLI::App& app) { addOptions(app, *options); },
      [options](Arguments& arguments) {
        arguments.end();
        return start(*options);
      }};
}

}  // namespace korvo
