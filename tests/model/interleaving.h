#pragma once

#include "call.h"
#include "state.h"

#include <cstdint>
#include <string>
#include <vector>

namespace HX::model {

/// One call of a thread as it was seen.
struct Made {
  Call call;
  std::vector<std::string> seen;  ///< What services were told meanwhile on this thread, and last how the call ended.
  std::uint64_t began = 0;        ///< Ticks of one clock for all threads.
  std::uint64_t ended = 0;
};

/// What every thread saw, each its calls in order.
using History = std::vector<std::vector<Made>>;

/// A notification as it is recorded: numbered by the service, so that its order among all threads is known.
std::string numbered(const std::string& service, int number, const std::string& notification);

/// What the search for an order has come to. Undecided: it was given up, because there are too many orders to try.
enum class Verdict { Explained, Contradicted, Undecided };

/// Whether some order of the steps that the calls consist of explains what was seen, from `start` on: a call does its
/// steps in order, between its beginning and its end, and steps of other threads may come between them.
///
/// The steps are those that the memory promises to be whole: a write, an entry in a history, a read of an item or of a
/// list, a change of subscriptions, each call of a subscriber; the dispatch of an item keeps others from its
/// subscriptions.
Verdict judge(const State& start, const History& history);

std::string toText(const History& history);

}  // namespace HX::model
