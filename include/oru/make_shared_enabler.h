// make_shared_enabler: lets a static Create reach a protected constructor
// through std::make_shared, so object and control block are one allocation.
//
//   class Widget {
//   public:
//     static std::shared_ptr<Widget> Create(int x) {
//       return std::make_shared<make_shared_enabler<Widget>>(x);
//     }
//   protected:
//     explicit Widget(int x);
//   };
//
// The enabler adds no state and no behaviour; users of the library see the
// object only through std::shared_ptr<Widget>.
#pragma once

#include <utility>

namespace oru {

template <class T>
struct make_shared_enabler : public T {
  template <class... Args>
  explicit make_shared_enabler(Args&&... args) : T(std::forward<Args>(args)...) {}
};

}  // namespace oru
