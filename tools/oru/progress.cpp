#include "progress.h"

#include <cstdio>

#include "oru_command.h"

namespace oru::tool {

namespace {
constexpr int BAR_WIDTH = 30;
constexpr auto REDRAW_INTERVAL = std::chrono::milliseconds(200);

std::string Megabytes(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
  return text;
}
}  // namespace

Progress::Progress(std::string label, uint64_t total, bool quiet)
    : m_label(std::move(label)), m_total(total), m_enabled(!quiet && StderrIsTerminal()) {}

Progress::~Progress() {
  if (m_drawn) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

void Progress::Update(uint64_t done, uint64_t total) {
  if (!m_enabled) return;
  m_done = done;
  if (total != 0) m_total = total;
  // Small work finishes before a bar would help; unknown totals get one
  // once they have grown large.
  if ((m_total != 0 ? m_total : m_done) < MIN_BYTES) return;
  const auto now = std::chrono::steady_clock::now();
  if (m_drawn && now - m_lastDraw < REDRAW_INTERVAL) return;
  m_lastDraw = now;
  Draw();
}

void Progress::Draw() {
  std::string line = "\r" + m_label + " ";
  if (m_total != 0) {
    const uint64_t done = m_done < m_total ? m_done : m_total;
    const int filled = static_cast<int>(done * BAR_WIDTH / m_total);
    line += "[" + std::string(static_cast<std::size_t>(filled), '#') +
            std::string(static_cast<std::size_t>(BAR_WIDTH - filled), '.') + "] ";
    line += std::to_string(done * 100 / m_total) + "% of " + Megabytes(m_total);
  } else {
    line += Megabytes(m_done);
  }
  line += "\033[K";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  m_drawn = true;
}

}  // namespace oru::tool
