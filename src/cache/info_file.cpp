#include "cache/info_file.h"

#include <algorithm>

namespace oru::detail {

namespace {

constexpr const char* END_OF_ENTRIES = "---";
// An info file larger than this, or with a line longer than this, is not
// one the cache wrote: it is treated as unreadable, like one of another
// version, instead of being read into memory whole.
constexpr uint64_t MAX_INFO_FILE_SIZE = uint64_t{64} << 20;
constexpr size_t MAX_INFO_LINE = size_t{64} << 10;

}  // namespace

void ReadInfoFile(FileSystem& fs, const std::string& path, const std::string& dir,
                  DataCache::InfoMap& entries, AlternativeNames& alternatives) {
  FileStat st;
  if (!fs.Stat(path.c_str(), st)) return;
  if (!st.IsRegularFile()) {
    // A link or a FIFO planted in its place is removed, never followed.
    fs.Unlink(path.c_str());
    return;
  }
  if (st.size > MAX_INFO_FILE_SIZE) return;
  auto fp = fs.Fopen(path.c_str(), "r");
  if (!fp) return;

  // ReadLine cannot tell the end of the file from an empty line, so the
  // file's size bounds the reading: every line read uses at least its length
  // plus one byte of the file. With CR LF line ends this under-counts, and
  // the few empty reads past the end are harmless. A line too long for the
  // cache to have written ends the reading as a broken file.
  uint64_t remaining = st.size;
  bool broken = false;
  const auto next = [&](std::string& line) {
    if (remaining == 0 || broken) return false;
    line = fs.ReadLine(fp);
    remaining -= std::min<uint64_t>(remaining, line.size() + 1);
    broken = line.size() > MAX_INFO_LINE;
    return !broken;
  };

  std::string line;
  if (!next(line) || line != DataCache::VERSION_TEXT) {
    fs.Fclose(fp);
    return;
  }

  const char separator = fs.GetDirSeparator();
  DataCache::InfoMap read;
  bool sawEndOfEntries = false;
  std::string logicalName;
  while (next(line)) {
    if (line == END_OF_ENTRIES) {
      sawEndOfEntries = true;
      break;
    }
    if (!next(logicalName)) logicalName.clear();
    const size_t space = line.find(' ');
    // A line without a space is never written by the cache: skip the pair.
    if (space == std::string::npos || space == 0 || logicalName.empty()) continue;
    read[dir + separator + line.substr(0, space)] =
        DataCache::InfoContent{logicalName, line.substr(space + 1)};
  }

  std::vector<std::pair<std::string, std::string>> pairs;
  bool lastLineWasAlternative = false;
  while (sawEndOfEntries && next(line)) {
    if (line.empty()) continue;
    const size_t mark = line.find(ALTERNATIVE_MARK);
    lastLineWasAlternative = mark != std::string::npos;
    if (lastLineWasAlternative) {
      pairs.emplace_back(line.substr(0, mark), line.substr(mark + 4));
    }
  }
  fs.Fclose(fp);

  // A file cut short ends without its line end; the last line read may then
  // be the front of a longer one, and a truncated logical name could be
  // another file's. Entries are trusted only when "---" follows them, and an
  // unterminated last alternative is dropped.
  if (lastLineWasAlternative) {
    auto whole = fs.GetDS(path.c_str());
    const bool endsWithNewline =
        whole && whole->Seek(-1, DS_SEEK_END) != -1 && whole->GetByte() == '\n';
    if (!endsWithNewline) pairs.pop_back();
  }
  if (!sawEndOfEntries || broken) return;
  entries = std::move(read);
  for (auto& [alternative, name] : pairs) {
    if (!alternative.empty() && !name.empty()) alternatives[alternative] = name;
  }
}

std::string InfoFileText(const DataCache::FileMap& files, const AlternativeNames& alternatives,
                         char separator) {
  std::string text = DataCache::VERSION_TEXT;
  text += '\n';
  for (auto const& [name, record] : files) {
    const size_t slash = record->path.rfind(separator);
    if (slash == std::string::npos || slash + 1 == record->path.size()) continue;
    text.append(record->path, slash + 1, std::string::npos);
    text += ' ';
    text += record->extraData;
    text += '\n';
    text += name;
    text += '\n';
  }
  text += END_OF_ENTRIES;
  text += '\n';
  for (auto const& [alternative, name] : alternatives) {
    text += alternative;
    text += ALTERNATIVE_MARK;
    text += name;
    text += '\n';
  }
  return text;
}

}  // namespace oru::detail
