// Internal to the oru command: a progress bar on the standard error stream.
//
//   Progress bar("sha1 big.iso", totalBytes, ctx.quiet);
//   for (...) bar.Update(doneBytes);
//   // the destructor clears the line
//
// The bar is drawn only when stderr is a terminal and --quiet was not given,
// and only for work that is large enough to take a while; otherwise the
// object does nothing. Redraws are limited to a few per second.
// One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace oru::tool {

class Progress {
public:
  /// Work below this many bytes gets no bar.
  static constexpr uint64_t MIN_BYTES = uint64_t(8) << 20;

  /// `total` 0 means unknown (the bar then shows the bytes done only).
  Progress(std::string label, uint64_t total, bool quiet);
  /// Clears the bar's line.
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  /// Records `done` bytes of work (and `total`, when it became known).
  void Update(uint64_t done, uint64_t total = 0);

private:
  void Draw();

  std::string m_label;
  uint64_t m_total;
  uint64_t m_done = 0;
  bool m_enabled;
  bool m_drawn = false;
  std::chrono::steady_clock::time_point m_lastDraw;
};

}  // namespace oru::tool
