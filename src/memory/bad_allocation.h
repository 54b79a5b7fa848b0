// Internal: the exception of a failed allocation.
#pragma once

#include <new>

namespace oru::detail {

// std::bad_alloc with the text "bad allocation" on every platform (the C++
// runtimes do not agree: libstdc++ says "std::bad_alloc").
class BadAllocation final : public std::bad_alloc {
public:
  const char* what() const noexcept override;
};

}  // namespace oru::detail
