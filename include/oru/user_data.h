// UserData and UserDataContainer: objects of any type attached to a host
// object (a scene node, a document), one per type, found by type.
//
//   struct Selection : oru::UserData { std::vector<int> items; };
//
//   oru::UserDataContainer attached;            // a member of the host object
//   attached.GetOrCreate<Selection>().items.push_back(7);
//   if (Selection* s = attached.Get<Selection>()) use(s->items);
//   std::unique_ptr<Selection> taken = attached.Release<Selection>();
//
// Types are told apart by process-wide ids: UserDataTypeId<T>() is assigned
// on first use from a registry inside liboru keyed by the type's name, so
// every shared library of the process that uses the same T agrees on its id.
// A container keeps a small array sorted by id and finds a type by binary
// search; it holds a handful of objects, typically.
//
// Ownership: the container owns what it holds and destroys it with itself
// (or on Set, Remove, Clear); Release hands an object back. Objects are
// destroyed through UserData's virtual destructor, so each is freed by the
// module that made it.
//
// Threading: UserDataTypeId may be called from any thread. A container is
// used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "oru/export.h"

namespace oru {

/// The base of anything attached to a UserDataContainer.
class ORU_API UserData {
public:
  virtual ~UserData();
};

/// The process-wide id of the type named `typeName` (as typeid(T).name()
/// gives it); the same name always gives the same id, from 1 upwards.
ORU_API uint32_t UserDataTypeIdForName(const char* typeName);

/// The process-wide id of `T`.
template <class T>
uint32_t UserDataTypeId() {
  static const uint32_t id = UserDataTypeIdForName(typeid(T).name());
  return id;
}

class ORU_API UserDataContainer {
public:
  UserDataContainer();
  ~UserDataContainer();
  UserDataContainer(UserDataContainer&&) noexcept;
  UserDataContainer& operator=(UserDataContainer&&) noexcept;
  UserDataContainer(const UserDataContainer&) = delete;
  UserDataContainer& operator=(const UserDataContainer&) = delete;

  /// The object of type T, or null.
  template <class T>
  T* Get() const {
    static_assert(std::is_base_of_v<UserData, T>, "attached types derive from UserData");
    return static_cast<T*>(Find(UserDataTypeId<T>()));
  }
  /// The object of type T, default-constructed first when there is none.
  template <class T>
  T& GetOrCreate() {
    if (T* found = Get<T>()) return *found;
    auto made = std::make_unique<T>();
    T& object = *made;
    Put(UserDataTypeId<T>(), std::move(made));
    return object;
  }
  /// Attaches `object` as the one of type T, destroying any it replaces; a
  /// null `object` removes it.
  template <class T>
  void Set(std::unique_ptr<T> object) {
    static_assert(std::is_base_of_v<UserData, T>, "attached types derive from UserData");
    if (object) {
      Put(UserDataTypeId<T>(), std::move(object));
    } else {
      Take(UserDataTypeId<T>());
    }
  }
  /// Detaches the object of type T and hands it over; null when there is none.
  template <class T>
  std::unique_ptr<T> Release() {
    static_assert(std::is_base_of_v<UserData, T>, "attached types derive from UserData");
    return std::unique_ptr<T>(static_cast<T*>(Take(UserDataTypeId<T>()).release()));
  }
  /// Destroys the object of type T; false when there was none.
  template <class T>
  bool Remove() {
    return Take(UserDataTypeId<T>()) != nullptr;
  }
  /// Destroys every object, highest type id first.
  void Clear();
  /// How many objects are attached.
  size_t Size() const { return m_items.size(); }

private:
  UserData* Find(uint32_t id) const;
  void Put(uint32_t id, std::unique_ptr<UserData> object);
  std::unique_ptr<UserData> Take(uint32_t id);

  std::vector<std::pair<uint32_t, std::unique_ptr<UserData>>> m_items;  // sorted by id
};

}  // namespace oru
