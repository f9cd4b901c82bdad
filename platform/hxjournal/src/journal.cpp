#include "core.h"

#include <hxauthor/author.h>
#include <hxjournal/journal.h>

#include <utility>

namespace HX::journal {

Journal::Journal(Source& source, std::shared_ptr<Executor> executor)
    : Journal(source, std::move(executor), Options()) {}

Journal::Journal(Source& source, std::shared_ptr<Executor> executor, Options options)
    : core_(std::make_shared<Core>(source, std::move(executor), options)) {}

Journal::~Journal() { close(); }

void Journal::close() noexcept { core_->close(); }

std::uint64_t Journal::append(Entry&& entry, Afterwards& after) noexcept {
  entry.author = Author::writing();
  return core_->ring.append(entry, nullptr, after);
}

void Journal::appendRemoval(Entry&& entry, std::list<Grave>& grave, Afterwards& after) noexcept {
  entry.author = Author::writing();
  core_->ring.append(entry, &grave, after);
}

Follow Journal::follow(Filter filter, std::function<void(const Change&)> onChange, FollowOptions options) {
  return Follow(core_->join(std::move(filter), std::move(onChange), std::move(options)));
}

void Journal::keep(bool on) { core_->keep(on); }

bool Journal::isRecording() const { return core_->isRecording(); }

Position Journal::position() const { return core_->latest(); }

Retained Journal::retained() const { return core_->retainedFrom(TimePoint::min()); }

void Journal::scan(const Filter& filter, const std::function<void(const Change&)>& use) const {
  core_->scan(filter, use);
}

std::vector<FollowerInfo> Journal::followers() const { return core_->followers(); }

Position Journal::at(TimePoint time) const { return core_->retainedFrom(time).from; }

Afterwards::~Afterwards() {
  if (ring_) journal_.core_->ringBell(isLast_);
}

Follow& Follow::operator=(Follow&& other) noexcept {
  if (this != &other) {
    end();
    following_ = std::move(other.following_);
  }
  return *this;
}

Follow::~Follow() { end(); }

void Follow::end() noexcept {
  if (following_) following_->end();
}

Position Follow::position() const noexcept { return following_ ? following_->position() : Position(); }

void Follow::pause() noexcept {
  if (following_) following_->pause();
}

void Follow::resume() {
  if (following_) following_->resume();
}

}  // namespace HX::journal
