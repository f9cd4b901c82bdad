#include <hxjournal/executor.h>
#include <hxjournal/follow.h>
#include <hxjournal/journal.h>
#include <hxjournal/source.h>

namespace HX::journal {

// Here, so that the types are one object in the process.
Executor::~Executor() = default;
bool Executor::leave(const std::function<void()>& /*task*/) { return false; }
Following::~Following() = default;
JournalOwner::~JournalOwner() = default;
Visitor::~Visitor() = default;
Source::~Source() = default;

}  // namespace HX::journal
