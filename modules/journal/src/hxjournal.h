#pragma once

#include <hxcommon/hxmodule.h>
#include <hxjournal/journal.h>
#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace HX {

class Feed;

/// Offers the memory's journal to other processes, and what is known of the memory beside it.
///
/// It is loaded into the memory's process, and finds it there through the broker.
///
/// @par Threads  All methods are safe from any thread.
class HXJournal : public HXModule {
 public:
  HXJournal(const std::shared_ptr<HXBroker>& broker, const std::string& name);

  /// Ends all feeds.
  void exit() override;

  /// Follows the changes for the caller.
  /// @param options  As `journal::requestOf` takes them.
  /// @return The feed, which is to be started. It ends when nobody holds it.
  /// @throws std::runtime_error naming the option that is wrong; when too many feeds are open.
  std::shared_ptr<Feed> open(const HXValue& options);
  /// What one can go back to: {"epoch", "from", "latest", "since", "recording"}.
  HXValue retained();
  /// The place at a time, in microseconds since the epoch: [epoch, revision].
  HXValue at(std::int64_t time);

  // hxjournal_questions.cpp
  /// What there is to know of a key.
  HXValue explain(const std::string& key);
  /// What extractors produce, and for whom. @param extractor  Empty for all.
  HXValue demand(const std::string& extractor);
  /// How the memory is.
  HXValue report();
  /// How many raises a module was not told of since its subscription ended although it had not unsubscribed.
  /// @param event   What it was subscribed to.
  /// @param module  Its name.
  /// @return A number: those raised since the end, and the one at which it ended; 0 while the subscription stands. Nil
  ///         where it is not known: the subscription ended otherwise, or before what the journal retains.
  HXValue missed(const std::string& event, const std::string& module);
  /// What is counted of subscribers and followers.
  HXValue figures();
  /// Who is subscribed to each of these keys.
  HXValue subscribers(const std::vector<std::string>& keys);

 private:
  void bindFeed();
  void bindQuestions();
  /// @throws std::runtime_error when the memory is of another process, or has gone.
  std::shared_ptr<journal::Journal> requireJournal() const;

  std::mutex mutex_;  // Guards `feeds_`.
  std::vector<std::weak_ptr<Feed>> feeds_;
};

}  // namespace HX
