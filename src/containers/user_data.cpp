#include "oru/user_data.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <unordered_map>

namespace oru {

namespace {

// Never destroyed: type ids may be asked for during static destruction.
struct TypeRegistry {
  std::mutex mutex;
  std::unordered_map<std::string, uint32_t> ids;
};

TypeRegistry& Registry() {
  static TypeRegistry* registry = new TypeRegistry;
  return *registry;
}

}  // namespace

UserData::~UserData() = default;

uint32_t UserDataTypeIdForName(const char* typeName) {
  TypeRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  const auto [it, added] =
      registry.ids.try_emplace(typeName, static_cast<uint32_t>(registry.ids.size() + 1));
  return it->second;
}

UserDataContainer::UserDataContainer() = default;
UserDataContainer::~UserDataContainer() {
  Clear();
}
UserDataContainer::UserDataContainer(UserDataContainer&&) noexcept = default;
UserDataContainer& UserDataContainer::operator=(UserDataContainer&& other) noexcept {
  if (this != &other) {
    Clear();
    m_items = std::move(other.m_items);
  }
  return *this;
}

namespace {
template <class Items>
auto LowerBound(Items& items, uint32_t id) {
  return std::lower_bound(items.begin(), items.end(), id,
                          [](const auto& item, uint32_t key) { return item.first < key; });
}
}  // namespace

UserData* UserDataContainer::Find(uint32_t id) const {
  const auto it = LowerBound(m_items, id);
  return it != m_items.end() && it->first == id ? it->second.get() : nullptr;
}

void UserDataContainer::Put(uint32_t id, std::unique_ptr<UserData> object) {
  const auto it = LowerBound(m_items, id);
  if (it != m_items.end() && it->first == id) {
    std::unique_ptr<UserData> old = std::exchange(it->second, std::move(object));
  } else {
    m_items.emplace(it, id, std::move(object));
  }
}

std::unique_ptr<UserData> UserDataContainer::Take(uint32_t id) {
  const auto it = LowerBound(m_items, id);
  if (it == m_items.end() || it->first != id) return nullptr;
  std::unique_ptr<UserData> object = std::move(it->second);
  m_items.erase(it);
  return object;
}

void UserDataContainer::Clear() {
  // One at a time from the end: a destructor that looks at the container
  // finds the objects not yet destroyed, and none half-gone.
  while (!m_items.empty()) {
    std::unique_ptr<UserData> object = std::move(m_items.back().second);
    m_items.pop_back();
  }
}

}  // namespace oru
