#include <hxcommon/hxmodule.h>

/// A module that is registered already when it finds that it cannot work.
class ThrowsInInit : public HX::HXModule {
 public:
  using HXModule::HXModule;
  void init() override { throw HX::HXError(getName(), "init", "no motor"); }
};

HX_MODULE(ThrowsInInit)
