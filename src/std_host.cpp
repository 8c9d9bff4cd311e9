#include "decision_bounds/std_host.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include "numbers.hpp"

namespace decision_bounds {

// The lock analysis cannot follow a lock that counts how often its owner holds it.

void StdCondition::lock() DECISION_BOUNDS_NO_ANALYSIS {
  // Only this thread can have put its own id there, so a relaxed read cannot mislead it.
  if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
    if (!mutex_.try_lock()) {
      // Most of what is done with the lock held takes less time than falling asleep, and a
      // hand-over for each step would cost more than letting the owner do all that it is about to
      // do. So step aside once; a longer section is slept through.
      std::this_thread::yield();
      mutex_.lock();
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  ++depth_;
}

void StdCondition::unlock() DECISION_BOUNDS_NO_ANALYSIS {
  if (--depth_ != 0) return;
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
}

void StdCondition::wait_for(double seconds) {
  constexpr double longest = 3600.0;  // a wait may end early, and the clock must not overflow
  const std::chrono::duration<double> timeout(seconds > 0.0 ? std::min(seconds, longest) : 0.0);
  const std::uint64_t depth = std::exchange(depth_, 0);
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  std::unique_lock held(mutex_, std::adopt_lock);
  ++waiters_;
  woken_.wait_for(held, timeout);
  --waiters_;
  held.release();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  depth_ = depth;
}

void StdCondition::notify_all() {
  if (waiters_ != 0) woken_.notify_all();
}

namespace {

std::string argument_text(std::string_view conversion, const LogArgument& argument) {
  if (const auto* text = std::get_if<std::string_view>(&argument)) return std::string(*text);
  constexpr int printf_default = 6;
  const int decimals = conversion.size() == 4 ? conversion[2] - '0' : printf_default;  // "%.4f"
  return internal::fixed(std::get<double>(argument), decimals);
}

std::string formatted(std::string_view format, std::span<const LogArgument> arguments) {
  std::string text;
  for (const LogArgument& argument : arguments) {
    const auto begin = format.find('%');
    const auto end = format.find_first_of("sf", begin);
    if (end == std::string_view::npos) break;
    text.append(format.substr(0, begin));
    text += argument_text(format.substr(begin, end + 1 - begin), argument);
    format.remove_prefix(end + 1);
  }
  return text.append(format);
}

std::string error_text(const std::exception_ptr& error) {
  if (!error) return {};
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& caught) {
    return std::string(": ") + caught.what();
  } catch (...) {
    return ": an error of unknown type";
  }
}

}  // namespace

void StdLogger::warning(std::string_view format, std::span<const LogArgument> arguments,
                        std::exception_ptr error) {
  std::string line = "warning: " + formatted(format, arguments) + error_text(error);
  std::replace(line.begin(), line.end(), '\n', ' ');
  std::fputs(line.append("\n").c_str(), stderr);
}

StdLogger& StdLogger::instance() {
  static StdLogger logger;
  return logger;
}

}  // namespace decision_bounds
