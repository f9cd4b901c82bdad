#include <hxjournal/executor.h>
#include <hxjournal/source.h>

namespace HX::journal {

// Here, so that the types are one object in the process.
Executor::~Executor() = default;
Visitor::~Visitor() = default;
Source::~Source() = default;

}  // namespace HX::journal
