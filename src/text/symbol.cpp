// The interned-string table behind Symbol.
//
// Entries are kept in 16 shards chosen by the top bits of the text's hash;
// each shard is an open-addressing table (linear probing, backward-shift
// deletion) of (hash, entry) slots with its own mutex, taken only once
// locking is enabled. Sharding keeps threads that intern different texts off
// each other's lock; a lookup touches one slot run and, on a hash match, the
// entry itself.
//
// Releasing the last reference with locking on: the count may be revived by
// a concurrent interning of the same text, and two releasers may then both
// see a count reach zero. The releaser therefore reads the hash while it
// still holds its reference, and under the shard lock looks the entry up by
// pointer in the slot array (which never needs the entry's memory). Only if
// the entry is still in the table and its count is still zero does it remove
// and free it; otherwise another thread revived or already freed it. No
// thread ever touches an entry it did not find in the table under the lock,
// so none touches a freed one.
#include "oru/symbol.h"

#include "oru/json_formatter.h"

#include <cstddef>
#include <cstring>
#include <istream>
#include <mutex>
#include <new>
#include <ostream>
#include <stdexcept>

namespace oru {

namespace {

struct Entry {
  std::atomic<int32_t> count;
  int32_t padding;
  const char* key;  // the text's span: key and length
  uint64_t length;
  uint64_t hash;
  // The text and its NUL follow in the same block.
  char* text() { return reinterpret_cast<char*>(this + 1); }
};
static_assert(sizeof(Entry) == 32, "Symbol's inline accessors rely on this layout");
static_assert(offsetof(Entry, length) == 16 && offsetof(Entry, hash) == 24,
              "length and hash lie two and one words before the text");

Entry* EntryOf(const char* text) {
  return reinterpret_cast<Entry*>(const_cast<char*>(text)) - 1;
}

Entry* NewEntry(const char* text, size_t size, uint64_t hash) {
  auto* e = static_cast<Entry*>(::operator new(sizeof(Entry) + size + 1));
  new (&e->count) std::atomic<int32_t>(1);
  e->padding = 0;
  e->key = e->text();
  e->length = size;
  e->hash = hash;
  std::memcpy(e->text(), text, size);
  e->text()[size] = '\0';
  return e;
}

void FreeEntry(Entry* e) {
  e->count.~atomic();
  ::operator delete(static_cast<void*>(e));
}

class Shard {
public:
  std::mutex mutex;

  ~Shard() { delete[] m_slots; }

  // The entry for the text, with one more reference, or a new entry.
  Entry* FindOrInsert(const char* text, size_t size, uint64_t hash) {
    if (m_slots == nullptr) Resize(INITIAL_CAPACITY);
    for (size_t i = hash & m_mask;; i = (i + 1) & m_mask) {
      Slot& s = m_slots[i];
      if (s.entry == nullptr) break;
      if (s.hash == hash && s.entry->length == size &&
          std::memcmp(s.entry->text(), text, size) == 0) {
        s.entry->count.fetch_add(1, std::memory_order_relaxed);
        return s.entry;
      }
    }
    Entry* e = NewEntry(text, size, hash);
    if ((m_used + 1) * 8 > (m_mask + 1) * 5) Resize((m_mask + 1) * 2);  // load <= 5/8
    Place(hash, e);
    ++m_used;
    return e;
  }

  // Removes `e` when it is in the table; false when it is not.
  bool Erase(const Entry* e, uint64_t hash) {
    if (m_slots == nullptr) return false;
    size_t i = hash & m_mask;
    for (;; i = (i + 1) & m_mask) {
      if (m_slots[i].entry == nullptr) return false;
      if (m_slots[i].entry == e) break;
    }
    // Backward shift: move later members of the probe run into the hole
    // when their home slot does not lie between the hole and them.
    for (size_t j = (i + 1) & m_mask;; j = (j + 1) & m_mask) {
      if (m_slots[j].entry == nullptr) break;
      const size_t home = m_slots[j].hash & m_mask;
      const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
      if (stays) continue;
      m_slots[i] = m_slots[j];
      i = j;
    }
    m_slots[i] = Slot{};
    --m_used;
    return true;
  }

  size_t Used() const { return m_used; }

  bool Contains(const Entry* e, uint64_t hash) const {
    if (m_slots == nullptr) return false;
    for (size_t i = hash & m_mask; m_slots[i].entry != nullptr; i = (i + 1) & m_mask) {
      if (m_slots[i].entry == e) return true;
    }
    return false;
  }

private:
  struct Slot {
    uint64_t hash = 0;
    Entry* entry = nullptr;
  };
  static constexpr size_t INITIAL_CAPACITY = 64;

  void Place(uint64_t hash, Entry* e) {
    size_t i = hash & m_mask;
    while (m_slots[i].entry != nullptr) i = (i + 1) & m_mask;
    m_slots[i] = Slot{hash, e};
  }

  void Resize(size_t capacity) {
    Slot* old = m_slots;
    const size_t oldCapacity = old ? m_mask + 1 : 0;
    m_slots = new Slot[capacity];
    m_mask = capacity - 1;
    for (size_t i = 0; i < oldCapacity; ++i) {
      if (old[i].entry) Place(old[i].hash, old[i].entry);
    }
    delete[] old;
  }

  Slot* m_slots = nullptr;
  size_t m_mask = 0;
  size_t m_used = 0;
};

struct Table {
  static constexpr int SHARD_BITS = 4;
  Shard shards[1 << SHARD_BITS];
  std::atomic<bool> lockingEnabled{false};

  Shard& For(uint64_t hash) { return shards[hash >> (64 - SHARD_BITS)]; }
};

// Created on first use and never destroyed: Symbols held by static objects
// may be released at any point of the process's teardown.
Table& TheTable() {
  static Table* table = new Table;
  return *table;
}

}  // namespace

const Symbol Symbol::EMPTY;
const DualSymbol DualSymbol::EMPTY;

const char* Symbol::Intern(const char* text, size_t size) {
  const uint64_t hash = Hash(text, size);
  Table& table = TheTable();
  Shard& shard = table.For(hash);
  if (table.lockingEnabled.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(shard.mutex);
    return shard.FindOrInsert(text, size, hash)->text();
  }
  return shard.FindOrInsert(text, size, hash)->text();
}

void Symbol::ReleaseLast(const char* text, uint64_t hash) noexcept {
  Table& table = TheTable();
  Shard& shard = table.For(hash);
  Entry* e = EntryOf(text);
  if (!table.lockingEnabled.load(std::memory_order_acquire)) {
    shard.Erase(e, hash);
    FreeEntry(e);
    return;
  }
  std::lock_guard<std::mutex> lock(shard.mutex);
  // Still in the table and still unused: ours to free. Otherwise it was
  // revived by an interning, or freed by another releaser.
  if (!shard.Contains(e, hash) || e->count.load(std::memory_order_acquire) != 0) return;
  shard.Erase(e, hash);
  FreeEntry(e);
}

void Symbol::EnableLocking() {
  TheTable().lockingEnabled.store(true, std::memory_order_release);
}

uint64_t Symbol::GetInternedCount() {
  Table& table = TheTable();
  const bool locking = table.lockingEnabled.load(std::memory_order_acquire);
  uint64_t n = 0;
  for (Shard& shard : table.shards) {
    if (locking) shard.mutex.lock();
    n += shard.Used();
    if (locking) shard.mutex.unlock();
  }
  return n;
}

Symbol::Symbol(BasicStringSpan<char const> text) {
  if (!text.empty()) m_text = Intern(text.data(), text.size());
}

Symbol::Symbol(const char* text) {
  if (text != nullptr && *text != '\0') m_text = Intern(text, std::strlen(text));
}

Symbol::Symbol(const std::string& text) {
  if (!text.empty()) m_text = Intern(text.data(), text.size());
}

Symbol& Symbol::operator=(Symbol&& other) noexcept {
  if (this != &other) {
    Release();
    m_text = other.m_text;
    other.m_text = nullptr;
  }
  return *this;
}

void Symbol::Assign(const char* text, size_t size) {
  // Interned before the old text is released: the new text may be the old
  // one's own bytes.
  const char* interned = size != 0 ? Intern(text, size) : nullptr;
  Release();
  m_text = interned;
}

Symbol& Symbol::operator=(BasicStringSpan<char const> text) {
  Assign(text.data(), text.size());
  return *this;
}

Symbol& Symbol::operator=(const char* text) {
  Assign(text, text != nullptr ? std::strlen(text) : 0);
  return *this;
}

Symbol& Symbol::operator=(const std::string& text) {
  Assign(text.data(), text.size());
  return *this;
}

void Symbol::clear() noexcept {
  Release();
  m_text = nullptr;
}

namespace {
uint64_t FromView(size_t r) {
  return r == std::string_view::npos ? Symbol::npos : r;
}
}  // namespace

uint64_t Symbol::find(char c, uint64_t pos) const noexcept {
  return FromView(view().find(c, static_cast<size_t>(pos)));
}

uint64_t Symbol::find(const char* text, uint64_t pos) const noexcept {
  if (text == nullptr) return npos;
  return FromView(view().find(text, static_cast<size_t>(pos)));
}

uint64_t Symbol::rfind(char c, uint64_t pos) const noexcept {
  return FromView(view().rfind(c, static_cast<size_t>(pos)));
}

std::string Symbol::substr(uint64_t pos, uint64_t count) const {
  if (pos > size()) throw std::out_of_range("Symbol::substr: position past the end");
  return std::string(view().substr(static_cast<size_t>(pos), static_cast<size_t>(count)));
}

void Symbol::Print(std::ostream& out) const {
  out.write(c_str(), static_cast<std::streamsize>(size()));
}

void Symbol::Read(std::istream& in) {
  std::string word;
  if (in >> word) *this = word;
}

bool operator==(const Symbol& a, const std::string& b) noexcept {
  return a.view() == std::string_view(b);
}

bool operator==(const std::string& a, const Symbol& b) noexcept {
  return b == a;
}

bool operator==(const Symbol& a, const char* b) noexcept {
  return a.view() == std::string_view(b != nullptr ? b : "");
}

bool operator==(const char* a, const Symbol& b) noexcept {
  return b == a;
}

bool operator<(const Symbol& a, const Symbol& b) noexcept {
  if (a.empty()) return !b.empty();
  if (b.empty()) return false;
  const size_t n = static_cast<size_t>(std::min(a.size(), b.size()));
  const int c = std::memcmp(a.data(), b.data(), n);  // memcmp compares unsigned bytes
  return c != 0 ? c < 0 : a.size() < b.size();
}

void GenerateJson(JsonFormatter& formatter, const Symbol& symbol) {
  formatter.FormatString(symbol);
}

std::ostream& operator<<(std::ostream& out, const Symbol& s) {
  s.Print(out);
  return out;
}

}  // namespace oru
