#include "oru/static_container.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace oru {

namespace {

// Never destroyed: objects may be made and destroyed during static
// destruction too.
struct Kept {
  std::mutex mutex;
  std::vector<std::unique_ptr<StaticContainer::Entry>> entries;
  bool exitHookInstalled = false;
};

Kept& TheKept() {
  static Kept* kept = new Kept;
  return *kept;
}

}  // namespace

StaticContainer::Entry::~Entry() = default;

void StaticContainer::Keep(std::unique_ptr<Entry> entry) {
  Kept& kept = TheKept();
  std::lock_guard<std::mutex> lock(kept.mutex);
  kept.entries.push_back(std::move(entry));
  // Registered on the first object: handlers run in reverse order of
  // registration, statics are destroyed in reverse order of construction,
  // so this runs before every static of the library made before it, which
  // is all of them.
  if (!kept.exitHookInstalled) {
    kept.exitHookInstalled = true;
    std::atexit([] { StaticContainer::DestroyAll(); });
  }
}

void StaticContainer::DestroyAll() {
  Kept& kept = TheKept();
  std::vector<std::unique_ptr<Entry>> entries;
  {
    std::lock_guard<std::mutex> lock(kept.mutex);
    entries.swap(kept.entries);
  }
  // Outside the lock: a destructor may make new objects (kept for the next
  // DestroyAll) or call DestroyAll itself.
  while (!entries.empty()) entries.pop_back();
}

}  // namespace oru
