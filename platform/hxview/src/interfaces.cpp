#include <hxview/opened.h>
#include <hxview/shown.h>

namespace HX::view {

Host::~Host() = default;
Waker::~Waker() = default;

}  // namespace HX::view
