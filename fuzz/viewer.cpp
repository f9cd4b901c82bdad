#include "harness.h"
#include "web_services.h"

#include <libmw/log.h>

#include <algorithm>
#include <viewer/viewersession.h>

namespace fuzz {
namespace {

using namespace HX::web;

/// A key of each shape, so that there are channels to subscribe to.
void fill(Tree& tree) {
  const auto store = [&](std::string_view key, const HX::HXValue& value) {
    HX::journal::Change change;
    change.key = key;
    change.value = value;
    change.kind = 1;
    change.at = {1, 1};
    tree.change(change);
  };
  store("a", 1);
  store("b", HX::HXValue::map({{"x", 1.5}}));
  tree.complete();
}

}  // namespace

/// Messages, each with a byte before it for its length; those of odd length are binary.
void viewer(Input input) {
  mw::log::setStderrSink(false);
  const auto services = webServices();
  fill(*services->model->lock());
  const auto viewer = std::make_shared<ViewerSession>(
      services, Right::Write, std::make_shared<ViewerParameters>(std::vector<std::string>{"a"}));
  viewer->opened(std::make_shared<Nowhere>());
  for (int i = 0; i < 7; ++i) viewer->tick();  // It is greeted, and told of the channels.
  for (std::string_view rest = textOf(input); !rest.empty();) {
    const std::size_t size = static_cast<unsigned char>(rest.front());
    rest.remove_prefix(1);
    const std::string_view message = rest.substr(0, size);
    rest.remove_prefix(std::min(size, rest.size()));
    viewer->message(message, size % 2 == 1);
    viewer->tick();
  }
  viewer->closed();
}

}  // namespace fuzz
