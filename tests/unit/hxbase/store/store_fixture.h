#pragma once

#include "expect_error.h"
#include "memory_fixture.h"
#include "print_value.h"

#include <string>
#include <vector>

namespace HX::store {

class StoreFixture : public kit::MemoryFixture {
 protected:
  /// The keys that were added since the memory was loaded, oldest first.
  std::vector<std::string> added() {
    std::vector<std::string> names;
    const HXValue history = memory->getEventHistory(Memory::keyAddedKey);
    for (const HXValue& entry : history.asList()) names.push_back(entry[0].asString());
    names.erase(names.begin(), names.begin() + 4);
    return names;
  }
};

}  // namespace HX::store
