#include "common/Component.h"

#include <gtest/gtest.h>

#include <climits>

namespace zav::test {
namespace {

using common::Component;
using common::ComponentName;

TEST(AComponent, IsA32BitIntegerAndThePlugInsIsZero) {
  EXPECT_EQ(sizeof(Component), 4u);
  EXPECT_EQ(static_cast<int>(common::PYXPlugin), 0);
}

TEST(AComponentName, OfThePlugInIsItsTable) {
  EXPECT_EQ(ComponentName(common::PYXPlugin), "PYXPlugin");
}

TEST(AComponentName, OfAnyOtherValueIsEmpty) {
  for (const int value : {1, -1, 2, 256, INT_MAX, INT_MIN}) {
    EXPECT_EQ(ComponentName(static_cast<Component>(value)), "") << value;
  }
}

}  // namespace
}  // namespace zav::test
