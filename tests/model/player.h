#pragma once

#include "call.h"
#include "subject.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX::model {

/// Makes the call of a published method by its name.
mw::AnyValue callMethod(mw::GenericObject& memory, const Call& call);
/// What the call gave, in words: a result,
std::string shown(const Call& call, const mw::AnyValue& result);
/// or the error that `action` ended with.
std::string endOf(const std::function<std::string()>& action);

/// Makes calls of a memory and writes down what its callers see: results, errors, and between them, in the order of
/// events, what services and clients are told.
class Player {
 public:
  template <class Memory>
  static std::vector<std::string> play(const Calls& calls) {
    Player player;
    player.subject_ = std::make_shared<Memory>(
        [&player](const std::string& service, const std::string& text) { player.called(service, text); });
    player.playAll(calls);
    return std::move(player.seen_);
  }

 private:
  void playAll(const Calls& calls);
  void record(const Call& call);
  void called(const std::string& service, const std::string& text);
  std::string perform(const Call& call);

  std::vector<std::string> seen_;
  struct Reaction {
    Calls calls;
    std::string ending;
  };

  std::map<std::string, std::deque<Reaction>> reactions_;
  std::map<std::string, int*> addresses_;
  bool nested_ = false;
  std::shared_ptr<Subject> subject_;
};

}  // namespace HX::model
