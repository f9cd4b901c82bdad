#include "fileoptions.h"
#include "host.h"
#include "line/brokername.h"
#include "line/repeatedoption.h"
#include "line/verbs.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace korvo {
namespace {

const char* const kModule = "web";

struct WebVerbOptions {
  HostOptions host;
  std::optional<int> port;
  std::optional<std::string> bind, certificate, key;
  std::vector<std::string> hosts, origins, metrics, parameters;
  bool allowWrite = false;
  RobotFile file;
};

void addOptions(CLI::App& app, WebVerbOptions& options) {
  app.add_option("--port", options.port, "Listen at this port instead of 8765; 0 takes any that is free")
      ->check(CLI::Range(0, 65535))
      ->type_name("PORT");
  app.add_option("--bind", options.bind,
                 "Listen at this address instead of 127.0.0.1; others than this machine's own need a token")
      ->type_name("ADDRESS");
  app.add_flag("--allow-write", options.allowWrite, "Let whoever has the printed link set, raise, remove and call");
  addRepeated(app, "--host", options.hosts, "Be reached under this name too; may be repeated", "NAME");
  addRepeated(app, "--allow-origin", options.origins, "Let pages of this origin connect; may be repeated", "URL");
  addRepeated(app, "--metric", options.metrics, "Tell Prometheus the numbers of these keys; may be repeated",
              "PATTERN");
  addRepeated(app, "--parameter", options.parameters,
              "Offer viewers these keys as parameters, beside those that are kept; may be repeated", "PATTERN");
  app.add_option("--certificate", options.certificate, "Speak TLS with this certificate, a file in PEM")
      ->type_name("FILE");
  app.add_option("--key", options.key, "The certificate's key, a file in PEM")->type_name("FILE");
  app.add_option("--settings", "Take the settings of [modules.web] from a file of korvo run; options win over them")
      ->type_name("FILE");
  app.add_option("--broker", options.host.broker, kBrokerHelp)
      ->check(CLI::Validator(checkBrokerName, ""))
      ->type_name("NAME");
}

/// The settings of the file, with those that options say.
HX::GivenSettings settingsOf(const WebVerbOptions& options) {
  const auto found = options.host.settings.find(kModule);
  HX::GivenSettings given = found == options.host.settings.end() ? HX::GivenSettings() : found->second;
  const auto say = [&](const char* name, HX::HXValue value) { given.entries[name] = {std::move(value), {}, {}, {}}; };
  const auto sayList = [&](const char* name, const std::vector<std::string>& list) {
    if (!list.empty()) say(name, HX::HXValue(list));
  };
  if (options.port) say("port", *options.port);
  if (options.bind) say("bind", *options.bind);
  if (options.certificate) say("certificate", *options.certificate);
  if (options.key) say("key", *options.key);
  if (options.allowWrite) say("allow-write", true);
  sayList("hosts", options.hosts);
  sayList("allow-origins", options.origins);
  sayList("metrics", options.metrics);
  sayList("parameters", options.parameters);
  return given;
}

int start(WebVerbOptions& options) {
  options.host.modules = {kModule};
  options.host.strict = true;
  options.host.logLevels = options.file.logLevels;
  takeModules(options.file, false, options.host);
  options.host.settings[kModule] = settingsOf(options);
  return host(options.host);
}

}  // namespace

Verb webVerb() {
  const auto options = std::make_shared<WebVerbOptions>();
  return {
      "web",
      "",
      "Serves a page that shows a broker's memory as it changes, and figures for Prometheus.",
      "It prints the address of the page. Only this machine reaches it, and it only shows: --bind lets others in, and\n"
      "--allow-write lets the page act. Both ask for a token, which is part of the printed link, and another one each\n"
      "time unless the file of --settings sets it: view-token and write-token in [modules.web].\n"
      "\n"
      "/metrics is for Prometheus. In the broker's own process it runs as korvo run --module web, with the options as\n"
      "settings in its file: korvo settings web.",
      "web --allow-write\n"
      "web --bind 0.0.0.0 --host robot.local --certificate robot.pem --key robot.key\n"
      "web --settings robot.toml\n"
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
      },
      [options](const CLI::App& known, GivenWords& given) { options->file = readSettingsFile(known, given); }};
}

}  // namespace korvo
