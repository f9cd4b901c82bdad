#pragma once

#include "showroom.h"

#include <hxcommon/hxmodule.h>
#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <memory>
#include <string>

namespace HX {

class BellPage;
class ViewLease;

/// Shows keys of the memory in shared memory, where other processes read them at its speed. Loaded into the memory's
/// process. Costs nothing while nobody views.
///
/// Those who view use `HXMemoryProxy::view`; the page on the protocol says how it goes.
///
/// @par Threads  All methods are safe from any thread.
class HXViews : public HXModule {
 public:
  HXViews(const std::shared_ptr<HXBroker>& broker, const std::string& name);

  /// Tells all who view that it ends.
  void exit() override;

  /// Shows a key for the caller.
  /// @param key       Whether it is there or not.
  /// @param capacity  Bytes of a value; 0 for a number or bool.
  /// @param depth     How many values a stream goes back; 0 for the latest alone.
  /// @param within    Milliseconds after which the caller wants to know that the broker is frozen.
  /// @return Where. It is shown as long as somebody holds this.
  /// @throws std::runtime_error naming what is wrong, or the limit that it would exceed.
  std::shared_ptr<ViewLease> open(const std::string& key, std::int64_t capacity, std::int64_t depth,
                                  std::int64_t within);
  /// Takes a page with the bells of the caller's process.
  /// @param ticket  As `Session::offerFile` gave it.
  /// @return The page as it is here.
  /// @throws std::runtime_error when it is none.
  std::shared_ptr<BellPage> bells(const HXValue::Binary& ticket);
  /// Who views what.
  HXValue report();

 private:
  void bind();

  const std::shared_ptr<Showroom> room_;
  const std::int64_t life_;
};

}  // namespace HX
