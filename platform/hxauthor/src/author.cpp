#include <hxauthor/author.h>
#include <hxerror/mutex.h>

#include <atomic>
#include <deque>
#include <map>
#include <new>
#include <utility>

namespace HX {

/// One author, for as long as a handle is there.
struct AuthorRecord : std::enable_shared_from_this<AuthorRecord> {
  AuthorRecord(std::uint32_t itsNumber, std::shared_ptr<const std::string> itsText) noexcept
      : number(itsNumber), text(std::move(itsText)) {}
  AuthorRecord(const AuthorRecord&) = delete;
  AuthorRecord& operator=(const AuthorRecord&) = delete;
  ~AuthorRecord();

  const std::uint32_t number;
  const std::shared_ptr<const std::string> text;
  mutable std::atomic<bool> hasWritten{false};
};

namespace {

/// The authors that changes may name. Who has left without a change is forgotten at once; who has made one, when so
/// many others have left after it as a ring has places.
class Authors {
 public:
  static Authors& instance() {
    static Authors* const the = new Authors;  // Never destroyed: handles may go at the very end.
    return *the;
  }

  std::shared_ptr<const AuthorRecord> enter(std::string_view text) {
    std::shared_ptr<const AuthorRecord> record;  // Let go of after the lock, which its end takes.
    const MutexLock lock(mutex_);
    const auto known = numbers_.find(text);
    if (known != numbers_.end()) {
      Known& one = known_.at(known->second);
      record = one.present.lock();
      if (record) return record;
      record = std::make_shared<AuthorRecord>(known->second, one.text);
      one.present = record;
      ++one.stays;
      return record;
    }
    const std::uint32_t number = freeNumber();
    auto kept = std::make_shared<const std::string>(text);
    record = std::make_shared<AuthorRecord>(number, kept);
    const auto entered = known_.emplace(number, Known{kept, record, 1}).first;
    try {
      numbers_.emplace(*kept, number);
    } catch (...) {
      known_.erase(entered);
      throw;
    }
    last_ = number;
    return record;
  }

  void leave(const AuthorRecord& record) noexcept {
    const MutexLock lock(mutex_);
    const auto known = known_.find(record.number);
    if (known == known_.end()) return;
    if (record.hasWritten.load(std::memory_order_relaxed)) {
      try {
        limbo_.push_back(record.number);
        if (limbo_.size() <= kLimbo) return;
      } catch (const std::bad_alloc&) {
        forget(record.number);
        return;
      }
      const std::uint32_t oldest = limbo_.front();
      limbo_.pop_front();
      forget(oldest);
    } else {
      forget(record.number);
    }
  }

  std::shared_ptr<const std::string> textOf(std::uint32_t number) {
    const MutexLock lock(mutex_);
    const auto known = known_.find(number);
    return known == known_.end() ? nullptr : known->second.text;
  }

  std::size_t size() {
    const MutexLock lock(mutex_);
    return known_.size();
  }

 private:
  static constexpr std::size_t kLimbo = 65'536;

  struct Known {
    std::shared_ptr<const std::string> text;
    std::weak_ptr<const AuthorRecord> present;
    std::uint32_t stays = 0;  // Its handle, and its places in limbo: it may come back and leave again.
  };

  std::uint32_t freeNumber() const HX_REQUIRES(mutex_) {
    std::uint32_t number = last_ + 1;
    while (number == 0 || known_.contains(number)) ++number;
    return number;
  }

  void forget(std::uint32_t number) noexcept HX_REQUIRES(mutex_) {
    const auto known = known_.find(number);
    if (known == known_.end() || --known->second.stays != 0) return;
    numbers_.erase(*known->second.text);
    known_.erase(known);
  }

  Mutex mutex_;  // No handle goes under it.
  std::map<std::uint32_t, Known> known_ HX_GUARDED_BY(mutex_);
  std::map<std::string_view, std::uint32_t> numbers_ HX_GUARDED_BY(mutex_);  // By the texts that `known_` keeps.
  std::deque<std::uint32_t> limbo_ HX_GUARDED_BY(mutex_);
  std::uint32_t last_ HX_GUARDED_BY(mutex_) = 0;
};

// The fastest model of thread-local storage takes eight bytes of what a process reserves for libraries that it loads
// while it runs.
[[gnu::tls_model("initial-exec")]] constinit thread_local const AuthorRecord* current = nullptr;

}  // namespace

AuthorRecord::~AuthorRecord() { Authors::instance().leave(*this); }

Author::Author(std::string_view text) : record_(text.empty() ? nullptr : Authors::instance().enter(text)) {}

std::uint32_t Author::number() const noexcept { return record_ ? record_->number : 0; }

std::string_view Author::text() const noexcept { return record_ ? std::string_view(*record_->text) : ""; }

Author Author::present() { return current ? Author(current->shared_from_this()) : Author(); }

std::uint32_t Author::presentNumber() noexcept { return current ? current->number : 0; }

std::uint32_t Author::writing() noexcept {
  if (!current) return 0;
  if (!current->hasWritten.load(std::memory_order_relaxed)) current->hasWritten.store(true, std::memory_order_relaxed);
  return current->number;
}

std::shared_ptr<const std::string> Author::textOf(std::uint32_t number) {
  return number == 0 ? nullptr : Authors::instance().textOf(number);
}

std::size_t Author::remembered() { return Authors::instance().size(); }

Author::Scope::Scope(const Author& author) noexcept : outer_(current) {
  if (author.record_) current = author.record_.get();
}

Author::Scope::~Scope() { current = outer_; }

}  // namespace HX
