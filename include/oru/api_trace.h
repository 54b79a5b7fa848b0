// apitrace::Range: named spans of a thread's work, recorded on request into
// a file that Perfetto's UI (ui.perfetto.dev) and chrome://tracing show as a
// flame chart per thread.
//
//   void LoadScene(const std::string& path) {
//     oru::apitrace::Range range("LoadScene");   // from here to the scope's end
//     {
//       oru::apitrace::Range parse("Parse");      // ranges nest
//       ...
//     }
//   }
//
//   oru::apitrace::StartCapture("load.trace.json");
//   LoadScene(path);
//   oru::apitrace::StopCapture();                 // the file is complete now
//
// While nothing is captured a Range costs one relaxed atomic load. While a
// capture runs, each range that both starts and ends inside it becomes one
// complete event of the Chrome trace-event JSON format ("ph":"X", "name",
// "ts" and "dur" in microseconds with nanosecond decimals, "pid", "tid"),
// written through JsonFormatter by a writer thread of the capture's own:
// the marked thread only reads the clock and appends to a queue.
// StopCapture flushes and closes a valid JSON file even while ranges are
// open on other threads; those are left out.
//
// Ownership: a Range keeps a pointer to its name, which must outlive it
// (string literals do). Threading: Ranges on any thread; StartCapture and
// StopCapture from any thread, one capture at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "oru/export.h"

namespace oru::apitrace {

namespace detail {
/// Whether a capture runs; read by every Range.
ORU_API extern std::atomic<bool> s_capturing;
}  // namespace detail

class ORU_API Range {
public:
  explicit Range(const char* name) noexcept {
    if (detail::s_capturing.load(std::memory_order_relaxed)) Begin(name);
  }
  ~Range() {
    if (m_capture != 0) End();
  }
  Range(const Range&) = delete;
  Range& operator=(const Range&) = delete;

private:
  void Begin(const char* name) noexcept;
  void End() noexcept;

  const char* m_name = nullptr;
  uint64_t m_start = 0;
  uint64_t m_capture = 0;  // the capture it started in; 0: none
};

/// Starts recording ranges into a new file at `path` (UTF-8), replacing
/// it; false when it cannot be created or a capture already runs.
ORU_API bool StartCapture(const std::string& path);
/// Ends the capture and closes its file; nothing when none runs.
ORU_API void StopCapture();

}  // namespace oru::apitrace
