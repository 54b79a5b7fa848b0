// StaticContainer: objects that live until one moment of the host's
// choosing, then are destroyed together, newest first.
//
//   auto& registry = oru::StaticContainer::Make<PluginRegistry>(config);
//   ...
//   oru::StaticContainer::DestroyAll();   // at the host's orderly shutdown
//
// Function-local statics are destroyed in an order nobody controls, after
// main returns, when the threads and libraries they rely on may be gone.
// Objects made here are destroyed by DestroyAll instead, in reverse order of
// creation, exactly once each, so an object's destructor may still use the
// objects made before it. When the host never calls DestroyAll, the library
// calls it at exit, before its own statics are destroyed. An object made
// after (or during) a DestroyAll is destroyed by the next one, at exit at
// the latest.
//
// Ownership: the container owns what Make returns; the reference is valid
// until the DestroyAll that destroys it. Each object is freed by the module
// that made it (the deleting destructor is instantiated with Make).
//
// Threading: Make and DestroyAll may be called from any thread; the objects
// themselves are the caller's to share safely.
#pragma once

#include <memory>
#include <utility>

#include "oru/export.h"

namespace oru {

class ORU_API StaticContainer {
public:
  /// Constructs a T from `args` that lives until the next DestroyAll.
  template <class T, class... A>
  static T& Make(A&&... args) {
    auto held = std::make_unique<Held<T>>(std::forward<A>(args)...);
    T& object = held->object;
    Keep(std::move(held));
    return object;
  }

  /// Destroys every object made so far, newest first.
  static void DestroyAll();

  /// What the container holds: an object of any type behind a virtual
  /// destructor.
  struct ORU_API Entry {
    virtual ~Entry();
  };

private:
  template <class T>
  struct Held final : Entry {
    template <class... A>
    explicit Held(A&&... args) : object(std::forward<A>(args)...) {}
    T object;
  };

  static void Keep(std::unique_ptr<Entry> entry);
};

}  // namespace oru
