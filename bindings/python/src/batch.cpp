#include "batch.h"

#include "interpreter.h"

#include <atomic>
#include <stdexcept>

namespace korvo::python {
namespace {

/// Unlike the id of a thread it is not given again.
std::uint64_t thisThread() {
  static std::atomic<std::uint64_t> last{0};
  static thread_local const std::uint64_t number = ++last;
  return number;
}

}  // namespace

NativeBatch::~NativeBatch() {
  if (thisThread() != owner_) static_cast<void>(batch_.release());
}

void NativeBatch::begin() {
  requireUsable();
  if (batch_) throw std::runtime_error("this batch has begun already");
  batch_ = std::make_unique<mw::Batch>();
  owner_ = thisThread();
}

void NativeBatch::flush() {
  requireUsable();
  if (!batch_) throw std::runtime_error("this batch has not begun, or has ended");
  requireOwn();
  withoutGil([this] { batch_->flush(); });
}

void NativeBatch::end() {
  if (!batch_ || isForked()) return;
  requireOwn();
  withoutGil([this] { batch_.reset(); });
}

void NativeBatch::requireOwn() const {
  if (thisThread() != owner_) throw std::runtime_error("a batch is used by the thread that began it only");
}

}  // namespace korvo::python
