#include "outputbatch.h"

#include <libmw/batch.h>

namespace mw {

class Batch::Impl : public remote::OutputBatch {
 public:
  Impl() : OutputBatch(true) {}
};

Batch::Batch() : impl_(std::make_unique<Impl>()) {}
Batch::~Batch() = default;
void Batch::flush() { impl_->flush(); }

}  // namespace mw
