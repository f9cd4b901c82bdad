#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace HX::journal {

/// The state of one key in the table.
struct State {
  HXValue value;
  TimePoint time{};
  std::uint64_t revision = 0;  ///< Of its last change; 0 when that was not recorded.
  std::uint32_t nth = 0;
  std::uint8_t kind = 0;
  bool byAddress = false;
};

/// Who is shown the table. Called with the table locked: must call nothing but itself.
class HX_API Visitor {
 public:
  virtual ~Visitor();
  /// Whether `visit` is to be called for a key. Most keys are not wanted, and copying their values costs.
  virtual bool wants(std::string_view name) = 0;
  virtual void visit(std::string_view name, State state) = 0;
};

/// The table whose changes the journal tells of. Every write of the table happens under a lock of the table's, shared
/// or exclusive.
class HX_API Source {
 public:
  /// Where a walk ends. Each name has its place, from 0 up to this.
  static constexpr std::uint64_t kEnd = std::uint64_t{1} << 32U;

  virtual ~Source();

  /// Shows the keys whose places lie from `place` on, of some `homes` homes of the table but of none from `until` on.
  /// Who stays in the table between two calls is met exactly once, though the table may grow meanwhile.
  ///
  /// @param place    0, or what an earlier call returned.
  /// @param until    As `place`, or `kEnd`.
  /// @param homes    How much of the table is looked at, and is locked for it.
  /// @param visitor  Called under the table's lock.
  /// @return Where the next call goes on; `until` in the end.
  virtual std::uint64_t walk(std::uint64_t place, std::uint64_t until, std::size_t homes, Visitor& visitor) const = 0;
  /// The place of a name, whether it is in the table or not.
  virtual std::uint64_t placeOf(std::string_view name) const noexcept = 0;
  /// Shows those of `names` that are there, at one moment.
  virtual void show(std::span<const std::string> names, Visitor& visitor) const = 0;
  /// Says whether writes are to be appended to the journal from now on. Set under the exclusive side of the table's
  /// lock: when it returns, no writer acts upon what it was before.
  virtual void setRecording(bool on) = 0;
};

}  // namespace HX::journal
