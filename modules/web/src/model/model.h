#pragma once

#include "tree.h"

#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <libmw/eventloop.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace HX::web {

/// The memory as pages see it: a tree that is kept up as long as somebody looks.
///
/// While nobody looks nothing is followed, so that the memory's writers pay nothing: a minute after the last one left
/// the following ends. The tree stays as it was, and the next snapshot says what has changed.
///
/// @par Threads  Any.
class Model : public std::enable_shared_from_this<Model> {
 public:
  using OnChange = std::function<void(const journal::Change&)>;
  using FollowMemory = std::function<journal::Follow(journal::Filter, OnChange, journal::FollowOptions)>;

  /// @param loop    Where the following begins and ends, for both may wait.
  /// @param follow  As `HXModule::follow`.
  Model(mw::EventLoop& loop, FollowMemory follow);

  /// Has the tree kept up as long as it lives.
  class Use {
   public:
    explicit Use(std::shared_ptr<Model> model);
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use();

   private:
    const std::shared_ptr<Model> model_;
  };

  /// The tree, for as long as one holds on to it. Nothing else may be called meanwhile.
  class Locked {
   public:
    explicit Locked(Model& model) : lock_(model.treeMutex_), tree_(model.tree_) {}
    Tree* operator->() const { return &tree_; }
    Tree& operator*() const { return tree_; }

   private:
    std::unique_lock<std::mutex> lock_;
    Tree& tree_;
  };
  Locked lock() { return Locked(*this); }

  /// Follows some keys beside the tree, for what is retained of them.
  journal::Follow follow(journal::Filter filter, OnChange onChange, journal::FollowOptions options) const;
  /// Why there is nothing to see, empty when there is.
  std::string trouble() const;
  /// Told when the way to the memory is lost, and why; and with an empty text when it is back.
  void setTrouble(std::string why);
  /// Ends the following for good.
  void close();

 private:
  void begin();
  void endIfUnused();
  journal::Follow start();

  mw::EventLoop& loop_;
  const FollowMemory followMemory_;

  mutable std::mutex mutex_;  // Guards what follows; `treeMutex_` is never taken beside it.
  int users_ = 0;
  bool isFollowing_ = false;
  bool isClosed_ = false;
  std::string trouble_;

  std::mutex treeMutex_;  // Guards the tree. A leaf.
  Tree tree_;

  journal::Follow follow_;  // Guarded by `mutex_`. Last, for its callbacks use all of the above.
};

}  // namespace HX::web
