#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace decision_bounds::internal {

/// What the admitted calls hold of one bound, in the bound's unit. A share is unbounded when it is
/// infinite, of either sign: what the call may take is not known before its reply, so it runs
/// alone. Takes no lock; the bound's lock guards it. Nothing here fails: counts stop at 0.
struct Held {
  std::int64_t holders = 0;    ///< admitted calls that hold a share
  double amount = 0.0;         ///< the sum of their bounded shares
  std::int64_t unbounded = 0;  ///< how many of them hold an unbounded share

  /// Whether a call that would hold `share` may start while settled calls used `used` of `limit`.
  /// The share itself is not added: a call may start while any room is left.
  [[nodiscard]] bool admits(double share, double used, double limit) const noexcept;
  void take(double share) noexcept;
  /// Returns what one take of the same `share` took.
  void give_back(double share) noexcept;

  bool operator==(const Held&) const = default;
};

std::string to_string(const Held& held, std::string_view name = "_Held");

/// The held amounts as a bound's operations reach them; a host may put others in a Held's place.
class HeldAmounts {
 public:
  HeldAmounts() = default;
  HeldAmounts(const HeldAmounts&) = delete;
  HeldAmounts& operator=(const HeldAmounts&) = delete;

  virtual bool admits(double share, double used, double limit) = 0;
  virtual void take(double share) = 0;
  virtual void give_back(double share) = 0;

 protected:
  ~HeldAmounts() = default;
};

/// The held amounts of a bound that keeps a Held of its own.
class OwnHeld final : public HeldAmounts {
 public:
  bool admits(double share, double used, double limit) override {
    return held_.admits(share, used, limit);
  }
  void take(double share) override { held_.take(share); }
  void give_back(double share) override { held_.give_back(share); }

 private:
  Held held_;
};

}  // namespace decision_bounds::internal
