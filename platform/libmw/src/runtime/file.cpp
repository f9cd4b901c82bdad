#include "processend.h"

#include <libmw/file.h>

#include <unistd.h>

namespace mw {

File::File(int number) noexcept : number_(number) {
  if (number_ >= 0) detail::closeInChildren(number_);
}

File::~File() {
  if (number_ < 0) return;
  detail::closedAlready(number_);
  ::close(number_);
}

}  // namespace mw
