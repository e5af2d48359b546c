#include <gtest/gtest.h>
#include "imgapi.h"
TEST(Part1_1_Smoke, Version) { int32_t a, b; IMG_ifl_version(&a, &b); EXPECT_EQ(a, 6); }
