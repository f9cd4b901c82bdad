#pragma once

#include "connection.h"
#include "names.h"

#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HX::fleet {

/// What the store of the hub answered to a message for it: its number there, or why not.
struct StoreAnswer {
  std::uint64_t sequence = 0;
  int code = 0;      ///< The store's own number of the error; 0 for none.
  std::string text;  ///< Of the error.
  /// For a message that says which one it follows, and follows another: that one's number.
  std::optional<std::uint64_t> last;

  bool isStored() const { return code == 0; }
};
/// @throws AwayError for what is no answer of a store: it is not there.
StoreAnswer toAnswer(const Message& message);
constexpr int kNoResponders = 503;

/// A key of a bucket, as it is stored.
struct Entry {
  std::string key;
  std::string data;  ///< Empty when it was removed.
  std::uint64_t sequence = 0;
  bool isRemoved = false;
};

/// The last of a key of a bucket; none when there is none.
/// @throws AwayError, RefusedError.
std::optional<Entry> readKey(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                             const std::string& key);
/// Changes a key that has not changed since it was read.
/// @param follows  `Entry::sequence`, or 0 where there was none.
StoreAnswer writeKey(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                     const std::string& key, const std::string& data, std::uint64_t follows);
/// Messages of a stream that match.
/// @param filter  Subjects, with wildcards. `Entry::key` is the subject.
/// @param policy  "all", or "last_per_subject".
/// @throws AwayError when not all arrive in time.
std::vector<Entry> readStream(Connection& connection, const FleetSubjects& subjects, const std::string& stream,
                              const std::string& filter, const std::string& policy, std::chrono::milliseconds limit);
/// The last of all keys that match.
/// @param filter  With wildcards.
std::vector<Entry> readKeys(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                            const std::string& filter, std::chrono::milliseconds limit);

/// Asks another robot, and gives its answer.
/// @param data  JSON.
/// @throws What its method threw; NobodyError when it is not there, AwayError when it does not answer in time.
HXValue askRobot(Connection& connection, const std::string& subject, const std::string& data,
                 std::chrono::milliseconds limit);

/// Makes the stream and the buckets of a fleet, or brings them up to what they should be.
/// @param age    How long events are stored, at most.
/// @param bytes  How much of them, at most.
/// @throws std::runtime_error saying what the store did not take.
void initialise(Connection& connection, const FleetSubjects& subjects, std::chrono::seconds age, std::int64_t bytes,
                int replicas);

}  // namespace HX::fleet
