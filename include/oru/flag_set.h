// FlagSet: a row of boolean flags addressed by index, packed into 64-bit
// words, with whole-set operations (set, clear, toggle, and, or, xor,
// complement, subset test) and a fast scan over the flags that are set.
//
// Two forms of one class template:
// - FlagSet<FixedSize<64>>: exactly 64 flags in one word; a trivially
//   copyable value.
// - FlagSet<std::allocator<uint64_t>> (or any allocator of uint64_t): a
//   resizable set. Up to 64 flags live inside the object itself; above that
//   the words come from the allocator.
//
//   oru::FlagSet<std::allocator<uint64_t>> visible(1000);   // all clear
//   visible.Set(3).Set(700);
//   oru::FlagSet<std::allocator<uint64_t>> selected(1000, true);
//   selected &= visible;                                     // {3, 700}
//   for (uint64_t i = selected.GetFirstSetFlag(); i != selected.NPOS;
//        i = selected.GetNextSetFlag(i)) {
//     ...
//   }
//   oru::FlagSet<oru::FixedSize<64>> mask{true, false, true};  // flags 0, 2
//
// Flag i is bit (i & 63), least significant first, of word (i >> 6). Bits of
// the last word beyond size() are not part of the set: every operation keeps
// them zero, and the whole-set queries mask them off as well.
//
// Contracts worth knowing:
// - Indices are not checked. Set(i), Clear(i), Toggle(i) and IsSet(i) with
//   i >= size() are undefined; callers stay in range.
// - GetNextSetFlag(i) returns the smallest set index greater than i, so it
//   never returns i itself; GetNextSetFlag(NPOS) starts from index 0, and any
//   i >= size() - 1 gives NPOS.
// - Operations between two resizable sets of different sizes (&=, |=, ^=,
//   Set(other), Clear(other), Toggle(other)) combine the flags below the
//   smaller of the two sizes only: flags of this set at or beyond
//   other.size() are left as they are, and flags of `other` beyond size()
//   are ignored. AreSet(other) likewise compares below the smaller size.
// - Braces pick the list constructor: FlagSet<FixedSize<64>>{true} sets flag
//   0 only, while FlagSet<FixedSize<64>>(true) sets all 64 flags.
// - The resizable form keeps no spare capacity: resize() and assign()
//   reallocate whenever the number of words changes.
//
// Ownership: a FlagSet owns its words. Up to 64 flags are stored inline and
// nothing is allocated (always so for the fixed form); a resizable set of
// more than 64 flags owns one block of ceil(size / 64) words, allocated and
// released through its allocator (std::allocator_traits, with the usual
// propagation rules on copy, move and swap).
//
// Threading: a plain value type. One thread at a time may modify a set;
// several threads may use the same set through const members at once.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace oru {

/// Storage tag: a FlagSet of exactly N flags held inside the object. Only
/// N = 64 is provided.
template <std::size_t N>
struct FixedSize {};

/// A set of boolean flags; see the forms below.
template <class Storage>
class FlagSet;

/// Exactly 64 flags in one word. All members are noexcept and constexpr.
template <>
class FlagSet<FixedSize<64>> {
public:
  static constexpr uint64_t BitsPerChunk = 64;
  static constexpr uint64_t Chunks = 1;
  static constexpr uint64_t Size = 64;
  /// "No index": the result of a scan that found nothing.
  static constexpr uint64_t NPOS = ~uint64_t{0};

  /// All flags clear.
  constexpr FlagSet() noexcept = default;
  /// All 64 flags `value`.
  constexpr explicit FlagSet(bool value) noexcept : storage(value ? ~uint64_t{0} : 0) {}
  /// Flag k is the k-th entry; entries beyond the 64th are ignored.
  constexpr FlagSet(std::initializer_list<bool> flags) noexcept { assign(flags); }

  constexpr uint64_t size() const noexcept { return Size; }
  constexpr uint64_t max_size() const noexcept { return Size; }
  constexpr bool empty() const noexcept { return false; }

  /// Sets, clears or inverts every flag.
  constexpr FlagSet& Set() noexcept {
    storage = ~uint64_t{0};
    return *this;
  }
  constexpr FlagSet& Clear() noexcept {
    storage = 0;
    return *this;
  }
  constexpr FlagSet& Toggle() noexcept {
    storage = ~storage;
    return *this;
  }

  /// Sets, clears or inverts flag i (i < 64, not checked).
  constexpr FlagSet& Set(uint64_t i) noexcept {
    storage |= Bit(i);
    return *this;
  }
  constexpr FlagSet& Clear(uint64_t i) noexcept {
    storage &= ~Bit(i);
    return *this;
  }
  constexpr FlagSet& Toggle(uint64_t i) noexcept {
    storage ^= Bit(i);
    return *this;
  }

  /// For every flag set in `other`: sets, clears or inverts it here.
  constexpr FlagSet& Set(const FlagSet& other) noexcept {
    storage |= other.storage;
    return *this;
  }
  constexpr FlagSet& Clear(const FlagSet& other) noexcept {
    storage &= ~other.storage;
    return *this;
  }
  constexpr FlagSet& Toggle(const FlagSet& other) noexcept {
    storage ^= other.storage;
    return *this;
  }

  /// Flag i (i < 64, not checked).
  constexpr bool IsSet(uint64_t i) const noexcept { return (storage & Bit(i)) != 0; }
  /// True when at least one flag is set.
  constexpr bool AnySet() const noexcept { return storage != 0; }
  /// True when every flag set in `other` is also set here.
  constexpr bool AreSet(const FlagSet& other) const noexcept {
    return (storage & other.storage) == other.storage;
  }

  /// The smallest set index, or NPOS.
  constexpr uint64_t GetFirstSetFlag() const noexcept {
    return storage == 0 ? NPOS : static_cast<uint64_t>(std::countr_zero(storage));
  }
  /// The smallest set index greater than i, or NPOS; i = NPOS starts at 0.
  constexpr uint64_t GetNextSetFlag(uint64_t i) const noexcept {
    const uint64_t next = i + 1;  // NPOS wraps round to 0
    if (next >= Size) return NPOS;
    const uint64_t bits = storage & (~uint64_t{0} << next);
    return bits == 0 ? NPOS : static_cast<uint64_t>(std::countr_zero(bits));
  }

  constexpr FlagSet& operator&=(const FlagSet& other) noexcept {
    storage &= other.storage;
    return *this;
  }
  constexpr FlagSet& operator|=(const FlagSet& other) noexcept {
    storage |= other.storage;
    return *this;
  }
  constexpr FlagSet& operator^=(const FlagSet& other) noexcept {
    storage ^= other.storage;
    return *this;
  }
  /// A set with every flag inverted.
  constexpr FlagSet operator~() const noexcept {
    FlagSet result;
    result.storage = ~storage;
    return result;
  }

  /// Clears every flag, then sets flag k for each true k-th entry (at most
  /// the first 64 entries are used).
  constexpr FlagSet& assign(std::initializer_list<bool> flags) noexcept {
    storage = 0;
    uint64_t k = 0;
    for (const bool flag : flags) {
      if (k == Size) break;
      if (flag) storage |= Bit(k);
      ++k;
    }
    return *this;
  }

  constexpr void swap(FlagSet& other) noexcept { std::swap(storage, other.storage); }
  friend constexpr void swap(FlagSet& a, FlagSet& b) noexcept { a.swap(b); }

private:
  static constexpr uint64_t Bit(uint64_t i) noexcept { return uint64_t{1} << (i & 63); }

  uint64_t storage = 0;  // the 64 flags
};

/// The resizable form over any allocator of uint64_t words.
template <class Alloc>
requires std::is_same_v<typename Alloc::value_type, uint64_t>
class FlagSet<Alloc> {
  using Traits = std::allocator_traits<Alloc>;
  static_assert(std::is_same_v<typename Traits::pointer, uint64_t*>,
                "FlagSet keeps its word block behind a plain uint64_t*");
  static_assert(sizeof(uint64_t*) <= sizeof(uint64_t));

public:
  using allocator_type = Alloc;

  static constexpr uint64_t BitsPerChunk = 64;
  /// "No index": the result of a scan that found nothing.
  static constexpr uint64_t NPOS = ~uint64_t{0};

  /// Size 0.
  FlagSet() noexcept(noexcept(Alloc())) : FlagSet(Alloc()) {}
  explicit FlagSet(const Alloc& alloc) noexcept : allocator(alloc) {}
  /// n flags, all clear. Throws std::length_error when n > max_size().
  explicit FlagSet(uint64_t n, const Alloc& alloc = Alloc()) : FlagSet(n, false, alloc) {}
  /// n flags, all `value`.
  FlagSet(uint64_t n, bool value, const Alloc& alloc = Alloc()) : allocator(alloc) {
    Reshape(n);
    Init(value);
  }
  /// One flag per entry.
  FlagSet(std::initializer_list<bool> flags, const Alloc& alloc = Alloc()) : allocator(alloc) {
    assign(flags);
  }

  FlagSet(const FlagSet& other)
      : FlagSet(other, Traits::select_on_container_copy_construction(other.allocator)) {}
  FlagSet(const FlagSet& other, const Alloc& alloc) : allocator(alloc) {
    Reshape(other.flagCount);
    Init(other.GetStorageBuffer());
  }
  /// Takes the other set's words; `other` is left empty.
  FlagSet(FlagSet&& other) noexcept : allocator(std::move(other.allocator)) { Steal(other); }
  /// Takes the other set's words when the allocators compare equal (`other`
  /// is left empty); copies them into this allocator's storage otherwise.
  FlagSet(FlagSet&& other, const Alloc& alloc) : allocator(alloc) {
    if (allocator == other.allocator) {
      Steal(other);
    } else {
      Reshape(other.flagCount);
      Init(other.GetStorageBuffer());
    }
  }

  FlagSet& operator=(const FlagSet& other) {
    if (this == &other) return *this;
    if constexpr (Traits::propagate_on_container_copy_assignment::value) {
      if (!(allocator == other.allocator)) {
        Release();  // with the allocator that made the block
        storage.bits = 0;
        flagCount = 0;
      }
      allocator = other.allocator;
    }
    Reshape(other.flagCount);
    Init(other.GetStorageBuffer());
    return *this;
  }

  FlagSet& operator=(FlagSet&& other) noexcept(
      Traits::propagate_on_container_move_assignment::value || Traits::is_always_equal::value) {
    if (this == &other) return *this;
    if constexpr (Traits::propagate_on_container_move_assignment::value) {
      Release();
      allocator = std::move(other.allocator);
      Steal(other);
    } else if (allocator == other.allocator) {
      Release();
      Steal(other);
    } else {
      // The block cannot change hands between unequal allocators: copy.
      Reshape(other.flagCount);
      Init(other.GetStorageBuffer());
    }
    return *this;
  }

  ~FlagSet() { Release(); }

  Alloc get_allocator() const noexcept { return allocator; }
  uint64_t size() const noexcept { return flagCount; }
  static constexpr uint64_t max_size() noexcept { return ~uint64_t{0} >> 1; }
  bool empty() const noexcept { return flagCount == 0; }

  /// Sets, clears or inverts every flag.
  FlagSet& Set() noexcept {
    Init(true);
    return *this;
  }
  FlagSet& Clear() noexcept {
    Init(false);
    return *this;
  }
  FlagSet& Toggle() noexcept {
    uint64_t* words = GetStorageBuffer();
    const uint64_t count = WordCount(flagCount);
    for (uint64_t w = 0; w < count; ++w) words[w] = ~words[w];
    MaskLastWord();
    return *this;
  }

  /// Sets, clears or inverts flag i (i < size(), not checked).
  FlagSet& Set(uint64_t i) noexcept {
    GetStorageBuffer()[i >> 6] |= Bit(i);
    return *this;
  }
  FlagSet& Clear(uint64_t i) noexcept {
    GetStorageBuffer()[i >> 6] &= ~Bit(i);
    return *this;
  }
  FlagSet& Toggle(uint64_t i) noexcept {
    GetStorageBuffer()[i >> 6] ^= Bit(i);
    return *this;
  }

  /// For every flag set in `other` (below the smaller size): sets, clears or
  /// inverts it here.
  FlagSet& Set(const FlagSet& other) noexcept {
    Combine(other, [](uint64_t a, uint64_t b) { return a | b; });
    return *this;
  }
  FlagSet& Clear(const FlagSet& other) noexcept {
    Combine(other, [](uint64_t a, uint64_t b) { return a & ~b; });
    return *this;
  }
  FlagSet& Toggle(const FlagSet& other) noexcept {
    Combine(other, [](uint64_t a, uint64_t b) { return a ^ b; });
    return *this;
  }

  /// Flag i (i < size(), not checked).
  bool IsSet(uint64_t i) const noexcept { return (GetStorageBuffer()[i >> 6] & Bit(i)) != 0; }

  /// True when at least one flag is set; false for size 0.
  bool AnySet() const noexcept {
    if (flagCount == 0) return false;
    const uint64_t* words = GetStorageBuffer();
    const uint64_t last = (flagCount - 1) >> 6;
    for (uint64_t w = 0; w < last; ++w) {
      if (words[w] != 0) return true;
    }
    return (words[last] & LastWordMask(flagCount)) != 0;
  }

  /// True when every flag set in `other` is also set here, comparing the
  /// flags below the smaller of the two sizes. True when `other` is empty.
  bool AreSet(const FlagSet& other) const noexcept {
    const uint64_t n = std::min(flagCount, other.flagCount);
    if (n == 0) return true;
    const uint64_t* mine = GetStorageBuffer();
    const uint64_t* theirs = other.GetStorageBuffer();
    const uint64_t last = (n - 1) >> 6;
    for (uint64_t w = 0; w < last; ++w) {
      if ((mine[w] & theirs[w]) != theirs[w]) return false;
    }
    return (theirs[last] & ~mine[last] & LastWordMask(n)) == 0;
  }

  /// The smallest set index, or NPOS.
  uint64_t GetFirstSetFlag() const noexcept { return GetNextSetFlag(NPOS); }

  /// The smallest set index greater than i, or NPOS; i = NPOS starts at 0.
  /// Reads no word beyond the one holding flag size() - 1.
  uint64_t GetNextSetFlag(uint64_t i) const noexcept {
    const uint64_t next = i + 1;  // NPOS wraps round to 0
    if (next >= flagCount) return NPOS;
    const uint64_t* words = GetStorageBuffer();
    const uint64_t last = (flagCount - 1) >> 6;
    uint64_t w = next >> 6;
    uint64_t bits = words[w] & (~uint64_t{0} << (next & 63));
    if (w < last) {
      // Whole words before the last need no mask.
      if (bits != 0) return (w << 6) + static_cast<uint64_t>(std::countr_zero(bits));
      for (++w; w < last; ++w) {
        if (words[w] != 0) return (w << 6) + static_cast<uint64_t>(std::countr_zero(words[w]));
      }
      bits = words[last];
    }
    bits &= LastWordMask(flagCount);
    return bits == 0 ? NPOS : (last << 6) + static_cast<uint64_t>(std::countr_zero(bits));
  }

  /// Word-wise and, or, xor with `other`, below the smaller size.
  FlagSet& operator&=(const FlagSet& other) noexcept {
    Combine(other, [](uint64_t a, uint64_t b) { return a & b; });
    return *this;
  }
  FlagSet& operator|=(const FlagSet& other) noexcept { return Set(other); }
  FlagSet& operator^=(const FlagSet& other) noexcept { return Toggle(other); }

  /// A set of the same size (and a copy of the allocator) with every flag
  /// inverted.
  FlagSet operator~() const {
    FlagSet result(*this);
    result.Toggle();
    return result;
  }

  /// Makes the set size n with every flag `value`.
  FlagSet& assign(uint64_t n, bool value) {
    Reshape(n);
    Init(value);
    return *this;
  }
  /// Makes the set one flag per entry: clears, then sets flag k for each
  /// true k-th entry.
  FlagSet& assign(std::initializer_list<bool> flags) {
    assign(static_cast<uint64_t>(flags.size()), false);
    uint64_t* words = GetStorageBuffer();
    uint64_t k = 0;
    for (const bool flag : flags) {
      if (flag) words[k >> 6] |= Bit(k);
      ++k;
    }
    return *this;
  }

  /// Makes the set size n: the first min(n, size()) flags are kept, new
  /// flags are `value`. Strong guarantee if the allocation throws.
  void resize(uint64_t n, bool value = false) {
    CheckSize(n);
    if (n == flagCount) return;
    const uint64_t oldCount = flagCount;
    const uint64_t oldWords = WordCount(oldCount);
    const uint64_t newWords = WordCount(n);
    const uint64_t kept = std::min(oldWords, newWords);
    Words fresh = storage;
    uint64_t* dst;
    if (n <= BitsPerChunk) {
      fresh.bits = oldCount == 0 ? 0 : GetStorageBuffer()[0];
      dst = &fresh.bits;
    } else if (oldWords != newWords) {
      fresh.words = Traits::allocate(allocator, static_cast<std::size_t>(newWords));
      dst = fresh.words;
      std::copy_n(GetStorageBuffer(), kept, dst);
    } else {
      dst = storage.words;  // same block, resized in place
    }
    std::fill(dst + kept, dst + newWords, value ? ~uint64_t{0} : 0);
    if (n > oldCount && value && (oldCount & 63) != 0) {
      dst[oldCount >> 6] |= ~uint64_t{0} << (oldCount & 63);
    }
    if (n == 0) {
      fresh.bits = 0;
    } else {
      dst[newWords - 1] &= LastWordMask(n);
    }
    if (oldCount > BitsPerChunk && (n <= BitsPerChunk || oldWords != newWords)) Release();
    storage = fresh;
    flagCount = n;
  }

  /// Exchanges contents. When the allocators neither propagate on swap nor
  /// compare equal, the contents are copied into each side's own storage
  /// (which may allocate and throw) rather than exchanging blocks.
  void swap(FlagSet& other) noexcept(Traits::propagate_on_container_swap::value ||
                                     Traits::is_always_equal::value) {
    if (this == &other) return;
    if constexpr (Traits::propagate_on_container_swap::value) {
      using std::swap;
      swap(allocator, other.allocator);
    } else if constexpr (!Traits::is_always_equal::value) {
      if (!(allocator == other.allocator)) {
        FlagSet mine(other, allocator);
        FlagSet theirs(*this, other.allocator);
        *this = std::move(mine);
        other = std::move(theirs);
        return;
      }
    }
    std::swap(storage, other.storage);
    std::swap(flagCount, other.flagCount);
  }
  friend void swap(FlagSet& a, FlagSet& b) noexcept(noexcept(a.swap(b))) { a.swap(b); }

private:
  // Either the flags themselves (size <= 64) or the allocated block of
  // ceil(size / 64) words (size > 64); flagCount tells which.
  union Words {
    uint64_t bits;
    uint64_t* words;
  };

  static constexpr uint64_t Bit(uint64_t i) noexcept { return uint64_t{1} << (i & 63); }
  static constexpr uint64_t WordCount(uint64_t n) noexcept { return (n + 63) >> 6; }
  // The valid bits of the last word of a set of n > 0 flags.
  static constexpr uint64_t LastWordMask(uint64_t n) noexcept {
    return (n & 63) == 0 ? ~uint64_t{0} : (uint64_t{1} << (n & 63)) - 1;
  }

  static void CheckSize(uint64_t n) {
    if (n > max_size()) throw std::length_error("FlagSet: too many flags");
  }

  uint64_t* GetStorageBuffer() noexcept {
    return flagCount <= BitsPerChunk ? &storage.bits : storage.words;
  }
  const uint64_t* GetStorageBuffer() const noexcept {
    return flagCount <= BitsPerChunk ? &storage.bits : storage.words;
  }

  // Fills every word with `value` and clears the bits beyond the size.
  void Init(bool value) noexcept {
    std::fill_n(GetStorageBuffer(), WordCount(flagCount), value ? ~uint64_t{0} : 0);
    MaskLastWord();
  }
  // Copies ceil(size / 64) words and clears the bits beyond the size.
  void Init(const uint64_t* src) noexcept {
    std::copy_n(src, WordCount(flagCount), GetStorageBuffer());
    MaskLastWord();
  }
  void MaskLastWord() noexcept {
    if (flagCount == 0) {
      storage.bits = 0;
    } else {
      GetStorageBuffer()[(flagCount - 1) >> 6] &= LastWordMask(flagCount);
    }
  }

  // Makes the storage fit n flags, reusing the block when the word count
  // stays the same; the flags are unspecified afterwards. Allocates before
  // releasing, so a throwing allocation leaves the set unchanged.
  void Reshape(uint64_t n) {
    CheckSize(n);
    if (n > BitsPerChunk && flagCount > BitsPerChunk && WordCount(n) == WordCount(flagCount)) {
      flagCount = n;
      return;
    }
    Words fresh;
    if (n > BitsPerChunk) {
      fresh.words = Traits::allocate(allocator, static_cast<std::size_t>(WordCount(n)));
    } else {
      fresh.bits = 0;
    }
    Release();
    storage = fresh;
    flagCount = n;
  }

  // Gives the block back to the allocator; the set's fields are left for
  // the caller to overwrite.
  void Release() noexcept {
    if (flagCount > BitsPerChunk) {
      Traits::deallocate(allocator, storage.words, static_cast<std::size_t>(WordCount(flagCount)));
    }
  }

  // Takes the other set's fields and leaves it empty; the caller has
  // released this set's block.
  void Steal(FlagSet& other) noexcept {
    storage = other.storage;
    flagCount = other.flagCount;
    other.storage.bits = 0;
    other.flagCount = 0;
  }

  template <class Op>
  void Combine(const FlagSet& other, Op op) noexcept {
    const uint64_t n = std::min(flagCount, other.flagCount);
    if (n == 0) return;
    uint64_t* mine = GetStorageBuffer();
    const uint64_t* theirs = other.GetStorageBuffer();
    const uint64_t last = (n - 1) >> 6;
    for (uint64_t w = 0; w < last; ++w) mine[w] = op(mine[w], theirs[w]);
    // Bits of the shared last word at or beyond the smaller size stay.
    const uint64_t mask = LastWordMask(n);
    mine[last] = (mine[last] & ~mask) | (op(mine[last], theirs[last]) & mask);
  }

  Words storage{0};
  uint64_t flagCount = 0;  // the size
  [[no_unique_address]] Alloc allocator;
};

}  // namespace oru
