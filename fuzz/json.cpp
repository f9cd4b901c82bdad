#include "harness.h"

#include <hxvalue/json.h>

namespace fuzz {

void json(Input input) {
  HX::HXValue value;
  try {
    value = HX::fromJson(textOf(input));
  } catch (const std::runtime_error&) {
    return;
  }
  const HX::JsonText text = HX::toJsonText(value);
  require(!text.replaced, "what was read from JSON can be written");
  require(HX::fromJson(text.text) == value, "what was valid JSON reads back equal");
}

}  // namespace fuzz
