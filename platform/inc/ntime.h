// nTime::cDiff: a time interval.
#ifndef COLLOQUY_NTIME_H
#define COLLOQUY_NTIME_H

#include <chrono>
#include <cstdint>

namespace nTime {

// An interval in milliseconds (negative intervals are allowed and mean "already over").
class cDiff {
  public:
    constexpr cDiff() = default;
    constexpr explicit cDiff(int64_t milliseconds) : mMs(milliseconds) {}
    static constexpr cDiff fromMilliseconds(int64_t ms) { return cDiff(ms); }
    static constexpr cDiff fromSeconds(int64_t s) { return cDiff(s * 1000); }
    constexpr int64_t milliseconds() const { return mMs; }
    std::chrono::milliseconds chrono() const { return std::chrono::milliseconds(mMs); }

    friend constexpr bool operator==(cDiff a, cDiff b) { return a.mMs == b.mMs; }
    friend constexpr bool operator!=(cDiff a, cDiff b) { return a.mMs != b.mMs; }
    friend constexpr bool operator<(cDiff a, cDiff b) { return a.mMs < b.mMs; }
    friend constexpr cDiff operator+(cDiff a, cDiff b) { return cDiff(a.mMs + b.mMs); }
    friend constexpr cDiff operator-(cDiff a, cDiff b) { return cDiff(a.mMs - b.mMs); }

  private:
    int64_t mMs = 0;
};

}  // namespace nTime

#endif
