#include "model.h"

#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

namespace HX::web {
namespace {

using namespace std::chrono_literals;

constexpr auto kRetry = 500ms;
constexpr auto kLinger = 60s;

}  // namespace

Model::Model(mw::EventLoop& loop, FollowMemory follow) : loop_(loop), followMemory_(std::move(follow)) {}

Model::Use::Use(std::shared_ptr<Model> model) : model_(std::move(model)) {
  const std::lock_guard lock(model_->mutex_);
  if (model_->users_++ > 0 || model_->isFollowing_) return;
  model_->isFollowing_ = true;
  model_->loop_.post([model = model_] { model->begin(); });
}

Model::Use::~Use() {
  const std::lock_guard lock(model_->mutex_);
  if (--model_->users_ > 0) return;
  model_->loop_.post(
      [weak = std::weak_ptr(model_)] {
        if (const auto model = weak.lock()) model->endIfUnused();
      },
      kLinger);
}

journal::Follow Model::follow(journal::Filter filter, OnChange onChange, journal::FollowOptions options) const {
  return followMemory_(std::move(filter), std::move(onChange), std::move(options));
}

journal::Follow Model::start() {
  {
    const std::lock_guard lock(treeMutex_);
    tree_.beginSnapshot();
  }
  journal::FollowOptions options;
  options.promptness = journal::Promptness::Relaxed;
  options.onGap = [this](const journal::Gap&) {
    const std::lock_guard lock(treeMutex_);
    tree_.beginSnapshot();
  };
  options.onUnchanged = [this](std::string_view key, journal::Position) {
    const std::lock_guard lock(treeMutex_);
    tree_.unchanged(key);
  };
  options.onComplete = [this](journal::Position) {
    const std::lock_guard lock(treeMutex_);
    tree_.complete();
  };
  return followMemory_(
      journal::Filter(),
      [this](const journal::Change& change) {
        const std::lock_guard lock(treeMutex_);
        tree_.change(change);
      },
      std::move(options));
}

void Model::begin() {
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
  }
  try {
    journal::Follow follow = start();
    std::unique_lock lock(mutex_);
    if (isClosed_) {
      lock.unlock();
      return follow.end();
    }
    follow_ = std::move(follow);
    trouble_.clear();
  } catch (const std::exception& error) {
    const std::lock_guard lock(mutex_);
    trouble_ = error.what();
    loop_.post(
        [weak = weak_from_this()] {
          if (const auto model = weak.lock()) model->begin();
        },
        kRetry);
  }
}

void Model::endIfUnused() {
  journal::Follow ended;
  {
    const std::lock_guard lock(mutex_);
    if (users_ > 0 || !isFollowing_) return;
    isFollowing_ = false;
    ended = std::move(follow_);
  }
  ended.end();
}

void Model::close() {
  journal::Follow ended;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    ended = std::move(follow_);
  }
  ended.end();
}

std::string Model::trouble() const {
  const std::lock_guard lock(mutex_);
  return trouble_;
}

void Model::setTrouble(std::string why) {
  const std::lock_guard lock(mutex_);
  trouble_ = std::move(why);
}

}  // namespace HX::web
