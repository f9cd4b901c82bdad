#include "harness.h"

#include <hxjournal/batch.h>
#include <hxjournal/request.h>
#include <hxvalue/msgpack.h>

#include <algorithm>

namespace fuzz {
namespace {

/// As a client reads it, and all that it would touch.
void readBatch(const HX::HXValue& value) {
  HX::journal::Batch batch;
  try {
    batch = HX::journal::BatchReader().read(value);
  } catch (const std::runtime_error&) {
    return;
  }
  for (const auto& line : batch.lines) {
    require(std::ranges::count(*batch.names, line.change.key) > 0, "a line has a name that there is");
    require(static_cast<std::uint8_t>(line.change.what) < HX::journal::kWhats, "a change is of a kind that there is");
    require(line.change.author.empty() || std::ranges::count(*batch.authors, line.change.author) > 0, "and an author");
  }
}

/// As the service reads what somebody wants to follow.
void readRequest(const HX::HXValue& value) {
  HX::journal::Request request;
  try {
    request = HX::journal::requestOf(value);
  } catch (const std::runtime_error&) {
    return;
  }
  const HX::HXValue written = toValue(request.filter, request.options);
  const HX::journal::Request again = HX::journal::requestOf(written);
  require(toValue(again.filter, again.options) == written, "what was understood can be said again");
  for (const char* key : {"", "Arm/Speed", "a*b?c"}) {
    require(again.filter.wantsKey(key) == request.filter.wantsKey(key), "and means the same");
  }
}

}  // namespace

void batch(Input input) {
  HX::HXValue value;
  try {
    value = HX::fromMsgpack(std::as_bytes(input), {64, 4096});
  } catch (const std::runtime_error&) {
    return;
  }
  readBatch(value);
  readRequest(value);
}

}  // namespace fuzz
