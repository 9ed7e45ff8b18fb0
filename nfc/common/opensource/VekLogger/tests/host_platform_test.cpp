// The host stand-in for cutils' property_get behaves as the platform function does.
#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>

TEST(HostPropertyGet, ValueOrDefaultWithItsLength) {
  char value[PROPERTY_VALUE_MAX];
  EXPECT_EQ(2, property_get("vek.test.unset", value, "55"));
  EXPECT_STREQ("55", value);

  android::base::SetProperty("vek.test.set", "246");
  EXPECT_EQ(3, property_get("vek.test.set", value, "55"));
  EXPECT_STREQ("246", value);

  EXPECT_EQ(0, property_get("vek.test.unset", value, nullptr));
  EXPECT_STREQ("", value);

  std::string longValue(200, 'x');
  EXPECT_EQ(PROPERTY_VALUE_MAX - 1, property_get("vek.test.unset", value, longValue.c_str()));
  EXPECT_EQ(std::string(PROPERTY_VALUE_MAX - 1, 'x'), value);
}
