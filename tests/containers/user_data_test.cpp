// UserData: one object per type, owned by the container, found by
// process-wide type ids.
#include "oru/user_data.h"

#include <gtest/gtest.h>

namespace oru {
namespace {

int g_destroyed = 0;

template <int N>
struct Item : UserData {
  int value = N;
  ~Item() override { ++g_destroyed; }
};

TEST(UserData, OneObjectPerTypeOwnedByTheContainer) {
  EXPECT_EQ(UserDataTypeIdForName("some type"), UserDataTypeIdForName("some type"));
  EXPECT_NE(UserDataTypeIdForName("some type"), UserDataTypeIdForName("other type"));
  EXPECT_EQ(UserDataTypeId<Item<1>>(), UserDataTypeIdForName(typeid(Item<1>).name()));

  g_destroyed = 0;
  {
    UserDataContainer c;
    EXPECT_EQ(c.Get<Item<1>>(), nullptr);
    // Types attached in an order unlike their ids are all found.
    c.GetOrCreate<Item<5>>();
    c.Set(std::make_unique<Item<3>>());
    c.GetOrCreate<Item<1>>().value = 10;
    c.GetOrCreate<Item<4>>();
    EXPECT_EQ(c.GetOrCreate<Item<1>>().value, 10);  // the same object
    EXPECT_EQ(c.Get<Item<3>>()->value, 3);
    EXPECT_EQ(c.Get<Item<4>>()->value, 4);
    EXPECT_EQ(c.Get<Item<5>>()->value, 5);
    EXPECT_EQ(c.Size(), 4u);

    c.Set(std::make_unique<Item<3>>());  // replaces, destroying the old one
    EXPECT_EQ(g_destroyed, 1);
    std::unique_ptr<Item<4>> taken = c.Release<Item<4>>();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(c.Get<Item<4>>(), nullptr);
    EXPECT_EQ(c.Release<Item<4>>(), nullptr);
    EXPECT_TRUE(c.Remove<Item<5>>());
    EXPECT_FALSE(c.Remove<Item<5>>());
    EXPECT_EQ(g_destroyed, 2);
    c.Set<Item<1>>(nullptr);  // removes
    EXPECT_EQ(c.Size(), 1u);

    UserDataContainer moved = std::move(c);
    EXPECT_EQ(moved.Get<Item<3>>()->value, 3);
  }
  EXPECT_EQ(g_destroyed, 5);  // the rest with the container, and the one taken out
}

}  // namespace
}  // namespace oru
