// BasicStringSpan: a non-owning view of a run of characters.
//
// Names and texts passed into liboru (file names, URLs, counter names, ...)
// travel as BasicStringSpan<const char>. It is two pointers, owns nothing
// and is valid only while the characters it points at are; functions that
// keep a text copy it.
//
//   void Open(oru::BasicStringSpan<const char> name);
//   Open("data.bin");                 // string literal
//   Open(std::string("data.bin"));    // std::string (for the call only)
//   Open(std::string_view("a.bin"));  // string_view
//
// Unlike std::string_view a span may be built from a null pointer, which
// gives an empty span; that keeps C-style callers safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace oru {

template <class T>
class BasicStringSpan {
public:
  using value_type = std::remove_const_t<T>;
  using view_type = std::basic_string_view<value_type>;

  constexpr BasicStringSpan() noexcept = default;
  constexpr BasicStringSpan(T* begin, T* end) noexcept : m_begin(begin), m_end(end) {}
  constexpr BasicStringSpan(T* data, std::size_t size) noexcept
      : m_begin(data), m_end(data + size) {}
  // NUL-terminated text; a null pointer gives an empty span.
  constexpr BasicStringSpan(T* text) noexcept
      : m_begin(text), m_end(text ? text + std::char_traits<value_type>::length(text) : text) {}
  template <class Traits, class Alloc>
  BasicStringSpan(const std::basic_string<value_type, Traits, Alloc>& s) noexcept
      : m_begin(s.data()), m_end(s.data() + s.size()) {}
  template <class Traits>
  constexpr BasicStringSpan(std::basic_string_view<value_type, Traits> s) noexcept
      : m_begin(s.data()), m_end(s.data() + s.size()) {}

  constexpr T* begin() const noexcept { return m_begin; }
  constexpr T* end() const noexcept { return m_end; }
  constexpr T* data() const noexcept { return m_begin; }
  constexpr std::size_t size() const noexcept { return static_cast<std::size_t>(m_end - m_begin); }
  constexpr bool empty() const noexcept { return m_begin == m_end; }
  constexpr T& operator[](std::size_t i) const noexcept { return m_begin[i]; }

  constexpr operator view_type() const noexcept { return view_type(m_begin, size()); }
  std::basic_string<value_type> str() const {
    return std::basic_string<value_type>(m_begin, m_end);
  }

  friend constexpr bool operator==(BasicStringSpan a, BasicStringSpan b) noexcept {
    return view_type(a) == view_type(b);
  }

private:
  T* m_begin = nullptr;
  T* m_end = nullptr;
};

using StringSpan = BasicStringSpan<const char>;

}  // namespace oru
