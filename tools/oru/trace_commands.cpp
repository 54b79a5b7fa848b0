// oru trace summary: the totals of one of our heap trace files (heaptrack's
// text format as HeapTrace writes it): allocations, the peak of live bytes,
// what was never released, and the ten sites that allocated most.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <unordered_map>

#include "oru_command.h"

namespace oru::tool {

namespace {

struct Instruction {
  uint64_t function = 0;  // string numbers
  uint64_t file = 0;
  uint64_t line = 0;
};

struct Node {
  uint64_t instruction = 0;
  uint64_t parent = 0;
};

struct Site {
  uint64_t size = 0;
  uint64_t stack = 0;
};

struct SiteTotal {
  uint64_t stack = 0;
  uint64_t bytes = 0;
  uint64_t count = 0;
};

class TraceSummary {
public:
  explicit TraceSummary(std::string path) : m_path(std::move(path)) {}

  void Read() {
    std::FILE* in = OpenInput(m_path);
    std::string line;
    int c;
    for (;;) {
      c = std::fgetc(in);
      if (c != EOF && c != '\n') {
        line += static_cast<char>(c);
        continue;
      }
      if (!line.empty() || c != EOF) Record(line);
      line.clear();
      if (c == EOF) break;
    }
    const bool failed = std::ferror(in) != 0;
    CloseInput(in);
    if (failed) throw Failure(m_path + ": read error");
    if (m_lineNumber == 0) Bad("empty file, not a heap trace");
  }

  void Print() const {
    uint64_t leakedBytes = 0;
    for (auto const& [address, site] : m_live) leakedBytes += m_sites[site].size;
    std::printf("trace            %s\n", m_path.c_str());
    std::printf("allocations      %" PRIu64 " (%" PRIu64 " bytes)\n", m_allocations, m_allocated);
    std::printf("releases         %" PRIu64 "\n", m_releases);
    std::printf("peak             %" PRIu64 " bytes live\n", m_peak);
    std::printf("leaked           %zu blocks, %" PRIu64 " bytes\n", m_live.size(), leakedBytes);
    std::printf("unmatched frees  %" PRIu64 "\n", m_unmatched);

    std::vector<SiteTotal> totals;
    for (auto const& [stack, total] : m_byStack) totals.push_back(total);
    std::sort(totals.begin(), totals.end(), [](SiteTotal const& a, SiteTotal const& b) {
      return a.bytes != b.bytes ? a.bytes > b.bytes : a.stack < b.stack;
    });
    if (totals.size() > 10) totals.resize(10);
    if (totals.empty()) return;
    std::printf("top sites by bytes allocated:\n");
    std::printf("%14s %12s  %s\n", "bytes", "allocations", "site");
    for (SiteTotal const& t : totals) {
      std::printf("%14" PRIu64 " %12" PRIu64 "  %s\n", t.bytes, t.count, Frame(t.stack).c_str());
      // Two callers, to tell apart sites in the same helper.
      uint64_t node = t.stack;
      for (int depth = 0; depth < 2 && node != 0; ++depth) {
        node = m_nodes[node].parent;
        if (node != 0) std::printf("%29s  from %s\n", "", Frame(node).c_str());
      }
    }
  }

private:
  [[noreturn]] void Bad(std::string const& why) const {
    throw Failure(m_path + ":" + std::to_string(m_lineNumber) + ": " + why);
  }

  // The hexadecimal fields after the record letter.
  std::vector<uint64_t> Fields(std::string const& line, std::size_t count) const {
    std::istringstream in(line.substr(1));
    std::vector<uint64_t> values(count);
    for (auto& v : values) {
      if (!(in >> std::hex >> v)) Bad("malformed '" + line.substr(0, 1) + "' record");
    }
    return values;
  }

  void Record(std::string const& line) {
    ++m_lineNumber;
    if (m_lineNumber == 1) {
      if (line.rfind("v ", 0) != 0) Bad("not a heap trace (no version line)");
      return;
    }
    if (line.empty() || line[0] == '#') {
      if (line.rfind("#Unmatched free", 0) == 0) ++m_unmatched;
      return;
    }
    const char kind = line[0];
    if (kind == 's') {
      m_strings.push_back(line.size() > 2 ? line.substr(2) : std::string());
    } else if (kind == 'i') {
      const auto f = Fields(line, 5);
      m_instructions.push_back({f[2], f[3], f[4]});
    } else if (kind == 't') {
      const auto f = Fields(line, 2);
      if (f[0] == 0 || f[0] >= m_instructions.size() || f[1] >= m_nodes.size()) {
        Bad("stack node refers to an unknown frame");
      }
      m_nodes.push_back({f[0], f[1]});
    } else if (kind == 'a') {
      const auto f = Fields(line, 2);
      if (f[1] >= m_nodes.size()) Bad("allocation site refers to an unknown stack");
      m_sites.push_back({f[0], f[1]});
    } else if (kind == '+') {
      const auto f = Fields(line, 2);
      if (f[0] >= m_sites.size()) Bad("allocation refers to an unknown site");
      Site const& site = m_sites[f[0]];
      m_live[f[1]] = f[0];
      ++m_allocations;
      m_allocated += site.size;
      m_current += site.size;
      m_peak = std::max(m_peak, m_current);
      SiteTotal& total = m_byStack[site.stack];
      total.stack = site.stack;
      total.bytes += site.size;
      ++total.count;
    } else if (kind == '-') {
      const auto f = Fields(line, 2);
      const auto live = m_live.find(f[1]);
      if (live == m_live.end()) {
        ++m_unmatched;
      } else {
        m_current -= m_sites[live->second].size;
        m_live.erase(live);
        ++m_releases;
      }
    }
    // Other records (the clock, and those other writers add) carry nothing
    // the summary needs.
  }

  std::string String(uint64_t number) const {
    return number != 0 && number < m_strings.size() ? m_strings[number] : "?";
  }

  std::string Frame(uint64_t node) const {
    if (node == 0) return "(no stack)";
    Instruction const& i = m_instructions[m_nodes[node].instruction];
    std::string text = String(i.function);
    if (i.line != 0) text += " at " + String(i.file) + ":" + std::to_string(i.line);
    return text;
  }

  std::string m_path;
  uint64_t m_lineNumber = 0;
  // Numbered from 1 (strings, instructions, nodes) or 0 (sites), as written.
  std::vector<std::string> m_strings{std::string()};
  std::vector<Instruction> m_instructions{Instruction{}};
  std::vector<Node> m_nodes{Node{}};
  std::vector<Site> m_sites;
  std::unordered_map<uint64_t, uint64_t> m_live;  // address -> site
  std::unordered_map<uint64_t, SiteTotal> m_byStack;
  uint64_t m_allocations = 0;
  uint64_t m_allocated = 0;
  uint64_t m_releases = 0;
  uint64_t m_unmatched = 0;
  uint64_t m_current = 0;
  uint64_t m_peak = 0;
};

}  // namespace

void AddTraceCommands(CLI::App& app, Context& ctx) {
  auto* trace = app.add_subcommand("trace", "Heap trace files written by HeapTrace");
  trace->require_subcommand(1, 1);
  auto path = std::make_shared<std::string>();
  auto* summary = trace->add_subcommand(
      "summary", "Allocations, peak, leaked bytes and the top 10 sites by bytes allocated");
  summary->add_option("FILE", *path, "The .heaptrace file")->required();
  summary->callback([&ctx, path] {
    ctx.run = [path] {
      TraceSummary summaryOf(*path);
      summaryOf.Read();
      summaryOf.Print();
      return 0;
    };
  });
}

}  // namespace oru::tool
