#include "assets.h"

// Stands in for the page where it could not be built.

namespace HX::web {
namespace {

constexpr std::string_view kPage =
    "<!doctype html>\n"
    "<html lang=\"en\">\n"
    "<meta charset=\"utf-8\">\n"
    "<title>Korvo</title>\n"
    "<link rel=\"icon\" href=\"data:,\">\n"
    "<h1>The page is missing</h1>\n"
    "<p>This server runs, but it was built without Node.js and npm, which build the page. Install the packages\n"
    "<code>nodejs</code> and <code>npm</code> and build again.</p>\n"
    "<p><a href=\"/metrics\">/metrics</a> and viewers that connect by WebSocket work all the same.</p>\n";

constexpr Asset kAssets[] = {{"/", "text/html; charset=utf-8", "plain", kPage, {}}};

}  // namespace

std::span<const Asset> assets() { return kAssets; }

}  // namespace HX::web
