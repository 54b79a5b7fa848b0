// Symbol: an immutable, interned, reference-counted string.
//
// Equal texts share one stored entry, so copying a Symbol is a pointer copy
// and an atomic increment, and comparing two Symbols for equality is one
// pointer comparison. Use it for names that are compared often: URLs, file
// extensions, keys.
//
//   oru::Symbol ext("png");
//   oru::Symbol other(std::string("png"));
//   assert(ext == other);                  // same entry: a pointer compare
//   assert(ext == "png");                  // against text: a byte compare
//   std::unordered_map<oru::Symbol, int> byExtension;   // hashed by GetHash()
//
// Storage: one heap block per distinct text, holding the reference count,
// the text's span, its 64-bit FNV-1a hash and the text with a terminating
// NUL; a Symbol holds a pointer to that text (null for the empty symbol), so
// c_str() is free and size() and GetHash() are single loads. The block is
// freed when the last Symbol for the text goes away. The table of entries
// lives until the process ends, so Symbols in static objects may be
// destroyed in any order.
//
// Threading: reference counts are always atomic, but the table is only
// locked after Symbol::EnableLocking(). A program that uses symbols on more
// than one thread calls it once, early, before the second thread starts;
// locking cannot be switched off again. Until then, create and destroy
// Symbols on one thread only. A single Symbol object, like any value, is not
// to be written by one thread while another uses it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "oru/export.h"
#include "oru/string_span.h"
#include "oru/toolchain.h"

namespace oru {

class JsonFormatter;

class ORU_API Symbol {
public:
  // An enumerator rather than a static member: nothing to import from the
  // DLL when it is used by reference.
  enum : uint64_t { npos = ~uint64_t(0) };
  static const Symbol EMPTY;

  Symbol() noexcept = default;
  Symbol(BasicStringSpan<char const> text);  // NOLINT: a symbol stands for its text
  Symbol(const char* text);                  // NOLINT
  Symbol(const std::string& text);           // NOLINT
  Symbol(const Symbol& other) noexcept : m_text(other.m_text) { AddRef(); }
  Symbol(Symbol&& other) noexcept : m_text(other.m_text) { other.m_text = nullptr; }
  ~Symbol() { Release(); }

  Symbol& operator=(const Symbol& other) noexcept {
    if (m_text == other.m_text) return *this;
    other.AddRef();
    Release();
    m_text = other.m_text;
    return *this;
  }
  Symbol& operator=(Symbol&& other) noexcept;
  Symbol& operator=(BasicStringSpan<char const> text);
  Symbol& operator=(const char* text);
  Symbol& operator=(const std::string& text);

  /// Makes the symbol empty, releasing its text.
  void clear() noexcept;
  void Swap(Symbol& other) noexcept {
    const char* t = m_text;
    m_text = other.m_text;
    other.m_text = t;
  }

  uint64_t size() const noexcept { return m_text ? Header()[-2] : 0; }
  uint64_t length() const noexcept { return size(); }
  bool empty() const noexcept { return m_text == nullptr; }
  /// The text, NUL-terminated; "" for the empty symbol.
  const char* c_str() const noexcept { return m_text ? m_text : ""; }
  const char* data() const noexcept { return c_str(); }
  const char* begin() const noexcept { return c_str(); }
  const char* end() const noexcept { return c_str() + size(); }
  /// No bounds check.
  char operator[](uint64_t i) const noexcept { return m_text[i]; }
  /// The 64-bit FNV-1a hash of the text; 0 for the empty symbol.
  uint64_t GetHash() const noexcept { return m_text ? Header()[-1] : 0; }

  operator BasicStringSpan<char const>() const noexcept {  // NOLINT
    return BasicStringSpan<char const>(c_str(), static_cast<size_t>(size()));
  }
  operator std::string() const {
    return std::string(c_str(), static_cast<size_t>(size()));
  }  // NOLINT
  std::string_view view() const noexcept { return {c_str(), static_cast<size_t>(size())}; }

  /// Identity: equal texts share one entry.
  friend bool operator==(const Symbol& a, const Symbol& b) noexcept { return a.m_text == b.m_text; }

  /// As std::string's members of the same names (npos = all ones).
  uint64_t find(char c, uint64_t pos = 0) const noexcept;
  uint64_t find(const char* text, uint64_t pos = 0) const noexcept;
  uint64_t rfind(char c, uint64_t pos = npos) const noexcept;
  /// std::out_of_range when pos > size(), as std::string::substr.
  std::string substr(uint64_t pos = 0, uint64_t count = npos) const;

  /// Writes the text.
  void Print(std::ostream& out) const;
  /// Reads one whitespace-delimited word (as `in >> std::string`) and
  /// assigns it; on failure the symbol is left as it was.
  void Read(std::istream& in);

  /// Turns on the table lock for the rest of the process.
  static void EnableLocking();
  /// How many distinct texts are interned right now (a diagnostic).
  static uint64_t GetInternedCount();

  /// FNV-1a, 64 bits, over `size` bytes: the hash a Symbol stores.
  static uint64_t Hash(const char* data, size_t size) noexcept {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < size; ++i) {
      h ^= static_cast<unsigned char>(data[i]);
      h *= 1099511628211ull;
    }
    return h;
  }

private:
  // The entry in front of the text: count (with padding), text pointer,
  // length, hash; see symbol.cpp.
  static constexpr ptrdiff_t COUNT_OFFSET = 32;
  const uint64_t* Header() const noexcept { return reinterpret_cast<const uint64_t*>(m_text); }
  static std::atomic<int32_t>& Count(const char* text) noexcept {
    return *reinterpret_cast<std::atomic<int32_t>*>(const_cast<char*>(text) - COUNT_OFFSET);
  }
  // While the process has a single thread (as the C++ library tracks it for
  // std::shared_ptr), counts need no locked instructions; the first thread
  // started ends that for good, and its start orders what came before.
  static bool SingleThreaded() noexcept { return detail::ProcessIsSingleThreaded(); }
  static void Increment(const char* text) noexcept {
    std::atomic<int32_t>& count = Count(text);
    if (SingleThreaded()) {
      count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
      count.fetch_add(1, std::memory_order_relaxed);
    }
  }
  // True when the count reached zero.
  static bool Decrement(const char* text) noexcept {
    std::atomic<int32_t>& count = Count(text);
    if (SingleThreaded()) {
      const int32_t left = count.load(std::memory_order_relaxed) - 1;
      count.store(left, std::memory_order_relaxed);
      return left == 0;
    }
    return count.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }
  void AddRef() const noexcept {
    if (m_text) Increment(m_text);
  }
  // The common case inline; the last reference goes to the table.
  void Release() noexcept {
    if (m_text == nullptr) return;
    const uint64_t hash = Header()[-1];
    if (Decrement(m_text)) ReleaseLast(m_text, hash);
  }
  void Assign(const char* text, size_t size);
  static const char* Intern(const char* text, size_t size);
  static void ReleaseLast(const char* text, uint64_t hash) noexcept;

  const char* m_text = nullptr;
};

ORU_API bool operator==(const Symbol& a, const std::string& b) noexcept;
ORU_API bool operator==(const std::string& a, const Symbol& b) noexcept;
ORU_API bool operator==(const Symbol& a, const char* b) noexcept;
ORU_API bool operator==(const char* a, const Symbol& b) noexcept;
/// The empty symbol first, then the texts as unsigned bytes, shorter first
/// on a tie.
ORU_API bool operator<(const Symbol& a, const Symbol& b) noexcept;
ORU_API std::ostream& operator<<(std::ostream& out, const Symbol& s);

/// Writes the symbol's text as a JSON string.
ORU_API void GenerateJson(JsonFormatter& formatter, const Symbol& symbol);

/// A pair of symbols.
class ORU_API DualSymbol {
public:
  static const DualSymbol EMPTY;

  DualSymbol() = default;
  DualSymbol(Symbol first, Symbol second) : m_s1(std::move(first)), m_s2(std::move(second)) {}

  const Symbol& S1() const noexcept { return m_s1; }
  Symbol& S1() noexcept { return m_s1; }
  const Symbol& S2() const noexcept { return m_s2; }
  Symbol& S2() noexcept { return m_s2; }
  /// True when both symbols are empty.
  bool empty() const noexcept { return m_s1.empty() && m_s2.empty(); }

  friend bool operator==(const DualSymbol& a, const DualSymbol& b) noexcept {
    return a.m_s1 == b.m_s1 && a.m_s2 == b.m_s2;
  }

private:
  Symbol m_s1;
  Symbol m_s2;
};

}  // namespace oru

template <>
struct std::hash<oru::Symbol> {
  size_t operator()(const oru::Symbol& s) const noexcept {
    return static_cast<size_t>(s.GetHash());
  }
};
