#include "viewclient.h"

#include <hxcommon/views.h>

namespace HX {

std::shared_ptr<view::Opened> openView(const std::shared_ptr<HXBroker>& broker, const view::Wish& wish) {
  return ViewClient::of(broker)->open(wish);
}

}  // namespace HX
