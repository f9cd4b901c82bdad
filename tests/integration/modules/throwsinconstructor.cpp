#include <hxcommon/hxmodule.h>

#include <stdexcept>

/// A module that cannot be made.
class ThrowsInConstructor : public HX::HXModule {
 public:
  ThrowsInConstructor(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    throw std::runtime_error("no hands to build with");
  }
};

HX_MODULE(ThrowsInConstructor)
