#include "callstop.h"

#include "chain.h"

#include <libmw/servedcall.h>

namespace mw {

std::stop_token stopOfServedCall() {
  remote::CallStop* const stop = remote::servedByThisThread().stop;
  return stop ? stop->token() : std::stop_token();
}

}  // namespace mw
