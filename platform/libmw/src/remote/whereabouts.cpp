#include "../objects/servicehandle.h"
#include "link.h"
#include "remoteobject.h"

#include <libmw/forwardingobject.h>
#include <libmw/whereabouts.h>

namespace mw {

std::string processOf(const AnyObject& object) {
  const GenericObject* const known = object.pointer().get();
  if (const auto* service = dynamic_cast<const ServiceHandle*>(known)) return processOf(service->target());
  if (const auto* handle = dynamic_cast<const ForwardingObject*>(known)) return processOf(handle->target());
  const auto* const remote = dynamic_cast<const remote::RemoteObject*>(known);
  return remote ? std::string(remote->link()->authors().peer().text()) : std::string();
}

}  // namespace mw
