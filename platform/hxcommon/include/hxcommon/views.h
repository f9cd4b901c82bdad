#pragma once

#include <hxerror/api.h>
#include <hxview/opened.h>

#include <memory>

namespace HX {

class HXBroker;

/// Views a key of the memory, for who has no proxy of it: `HXMemoryProxy::view` and `stream` are made of this. The
/// memory's broker must have the module `views` (service "HXViews"); it may be this process.
///
/// @param broker  Whose memory.
/// @param wish    What is asked for.
/// @return Follows the broker through its end and return as long as somebody has it.
/// @throws std::runtime_error when the broker offers no views, refuses one more, or cannot be reached.
/// @par Threads  Any. Waits for the broker.
HX_API std::shared_ptr<view::Opened> openView(const std::shared_ptr<HXBroker>& broker, const view::Wish& wish);

}  // namespace HX
