#include <gtest/gtest.h>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "ValueParsing.h"

namespace {

TEST(ValueParsing, NumbersKeepIntegerAndRealApart) {
  auto i = qv::parseNumber("3");
  ASSERT_TRUE(i);
  EXPECT_TRUE(i->isInteger());
  EXPECT_EQ(i->integerValue(), 3);
  auto r = qv::parseNumber("2.5");
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->isReal());
  EXPECT_DOUBLE_EQ(r->doubleValue(), 2.5);
  EXPECT_TRUE(qv::parseNumber("1e3")->isReal());
  EXPECT_EQ(qv::parseNumber("-7")->integerValue(), -7);
  EXPECT_FALSE(qv::parseNumber("abc"));
  EXPECT_FALSE(qv::parseNumber("3x"));
  EXPECT_FALSE(qv::parseNumber(""));
  EXPECT_FALSE(qv::parseNumber("nan"));
  EXPECT_FALSE(qv::parseNumber("inf"));
  EXPECT_FALSE(qv::parseNumber("1e999"));
}
}  // namespace
