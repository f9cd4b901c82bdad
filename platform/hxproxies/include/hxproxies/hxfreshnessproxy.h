#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX {

class HXProxy;

/// The methods of HXFreshness as C++ functions: which keys are expected to be written how often, and which are overdue.
///
///     auto freshness = broker->getSpecialisedProxy<HX::HXFreshnessProxy>("HXFreshness");
///     freshness->expect("Lidar/Scan", 200ms);
///
/// Expectations are not functions of HXMemoryProxy, which is a handle of one module and calls no other.
///
/// @par Threads  Any number of threads may use one proxy at once. A call returns when the method has.
/// @par Errors   Every function throws what the module does: HXError for a limit that is none; std::runtime_error when
///   there is no memory, when the module is gone or cannot be reached.
class HX_API HXFreshnessProxy {
 public:
  using Duration = std::chrono::nanoseconds;
  /// How an expected key stands.
  struct Standing {
    std::string key;
    Duration age{};  ///< Since it was written; since it is expected, when it never was.
    Duration limit{};
    bool isOverdue = false;
  };

  /// @param proxy  As `HXBroker::getProxy` gives it.
  /// @throws std::runtime_error "This object is null" when it is empty.
  explicit HXFreshnessProxy(std::shared_ptr<HXProxy> proxy);

  /// Expects a key to be written again and again. When it is not, HXFreshness/Overdue is raised once with
  /// [key, seconds, limit], and HXFreshness/Recovered when it is written again.
  /// @param key    Of the memory, whether it is there already or not.
  /// @param limit  The longest time between two writes; above zero. Replaces the one that the key has.
  void expect(const std::string& key, Duration limit);
  /// Expects several keys, or none when one of them is refused.
  /// @param limits  The limit of each key.
  void expect(const std::map<std::string, Duration>& limits);
  /// Expects a key no longer.
  /// @param key  The key.
  /// @return False when it was not expected.
  bool forget(const std::string& key);
  /// @return All expected keys, sorted.
  std::vector<Standing> expectations();

 private:
  std::shared_ptr<HXProxy> proxy_;
};

}  // namespace HX
