// The one value type of key-value coding and property lists.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

#include "Foundation/NSURL.h"
#include "Foundation/Value.h"
#include "ValuePrinter.h"

TEST(Value, IntegersAndRealsAreKeptApart) {
  const Value i = 8;
  const Value r = 8.0;
  EXPECT_TRUE(i.isInteger());
  EXPECT_FALSE(i.isReal());
  EXPECT_TRUE(r.isReal());
  EXPECT_FALSE(r.isInteger());
  EXPECT_EQ(i.kind(), Value::Kind::Integer);
  EXPECT_EQ(r.kind(), Value::Kind::Real);
  EXPECT_TRUE(Value::integer(3).isInteger());
  EXPECT_TRUE(Value::real(3).isReal());
  EXPECT_TRUE(Value(2.5f).isReal());
  EXPECT_TRUE(Value(7L).isInteger());
  EXPECT_TRUE(Value(7u).isInteger());
  EXPECT_TRUE(Value::boolean(true).isBoolean());
  EXPECT_FALSE(Value::boolean(true).isInteger());
  // All three are numbers.
  EXPECT_TRUE(i.isNumber());
  EXPECT_TRUE(r.isNumber());
  EXPECT_TRUE(Value::boolean(false).isNumber());
  EXPECT_FALSE(Value("8").isNumber());
  EXPECT_EQ(i.className(), "NSNumber");
  EXPECT_EQ(r.className(), "NSNumber");
}

TEST(Value, NilReadsAsZero) {
  const Value nil;
  EXPECT_TRUE(nil.isNil());
  EXPECT_FALSE(static_cast<bool>(nil));
  EXPECT_EQ(nil.doubleValue(), 0.0);
  EXPECT_EQ(nil.integerValue(), 0);
  EXPECT_FALSE(nil.boolValue());
  EXPECT_EQ(nil.kind(), Value::Kind::Nil);
  EXPECT_EQ(nil.className(), "");
  EXPECT_TRUE(Value(nullptr).isNil());
}

TEST(Value, NumberConversions) {
  EXPECT_EQ(Value(2.9).integerValue(), 2);
  EXPECT_EQ(Value(-2.9).integerValue(), -2);
  EXPECT_EQ(Value(7).doubleValue(), 7.0);
  EXPECT_TRUE(Value(0.1).boolValue());
  EXPECT_FALSE(Value(0.0).boolValue());
  EXPECT_TRUE(Value::boolean(true).boolValue());
  EXPECT_EQ(Value::boolean(true).integerValue(), 1);
  EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).integerValue(), 0);
  EXPECT_EQ(Value(1e300).integerValue(), 0);
}

TEST(Value, StringsReadAsNumbersTheWayTheStringClassDoes) {
  EXPECT_EQ(Value("12.5").doubleValue(), 12.5);
  EXPECT_EQ(Value("42").integerValue(), 42);
  EXPECT_EQ(Value("abc").doubleValue(), 0.0);
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_TRUE(Value("true").boolValue());
  EXPECT_TRUE(Value("  7").boolValue());
  EXPECT_FALSE(Value("NO").boolValue());
  EXPECT_FALSE(Value("0").boolValue());
  EXPECT_FALSE(Value("").boolValue());
}

TEST(Value, NonNumbersReadAsZero) {
  EXPECT_EQ(Value(Array{Value(1)}).doubleValue(), 0.0);
  EXPECT_EQ(Value(Dictionary{}).integerValue(), 0);
  EXPECT_FALSE(Value(Data{{1, 2}}).boolValue());
}

TEST(Value, Equality) {
  EXPECT_EQ(Value(1), Value(1.0));  // numbers compare by value, as NSNumber does
  EXPECT_NE(Value(1), Value(2));
  EXPECT_NE(Value(1), Value::boolean(true));
  EXPECT_EQ(Value::boolean(false), Value::boolean(false));
  EXPECT_EQ(Value("a"), Value(std::string("a")));
  EXPECT_NE(Value("a"), Value("b"));
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_EQ(Value(), Value());
  EXPECT_NE(Value(), Value(0));
  EXPECT_EQ(Value(Array{1, "x"}), Value(Array{1, "x"}));
  EXPECT_NE(Value(Array{1, "x"}), Value(Array{"x", 1}));
  EXPECT_EQ(Value(Dictionary{{"k", 1}}), Value(Dictionary{{"k", 1.0}}));
  EXPECT_NE(Value(Dictionary{{"k", 1}}), Value(Dictionary{{"j", 1}}));
  EXPECT_EQ(Value(Data{{1, 2, 3}}), Value(Data{{1, 2, 3}}));
  EXPECT_NE(Value(Data{{1, 2, 3}}), Value(Data{{1, 2}}));
  EXPECT_EQ(Value(CGAffineTransformMakeScale(2, 2)), Value(CGAffineTransformMakeScale(2, 2)));
  EXPECT_NE(Value(CGAffineTransformMakeScale(2, 2)), Value(CGAffineTransformIdentity));
}

TEST(Value, ObjectsCompareWithIsEqual) {
  const Value a = NSURL::URLWithString("x-qvfilter-texture://b/k");
  const Value b = NSURL::URLWithString("x-qvfilter-texture://b/k");
  const Value c = NSURL::URLWithString("x-qvfilter-texture://b/other");
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ(a.className(), "NSURL");
  ASSERT_NE(a.object<NSURL>(), nullptr);
  EXPECT_EQ(a.object<NSURL>()->lastPathComponent(), "k");
  EXPECT_EQ(Value("s").object<NSURL>(), nullptr);
  EXPECT_TRUE(Value(std::shared_ptr<const NSURL>()).isNil());
}

TEST(Value, DictionaryLookup) {
  const Value d = Dictionary{{"textures", Dictionary{{"stone", Dictionary{{"fileName", "stone.jpg"}}}}},
                             {"count", 2}};
  EXPECT_EQ(d["count"].integerValue(), 2);
  EXPECT_EQ(d["textures"]["stone"]["fileName"], Value("stone.jpg"));
  EXPECT_TRUE(d["missing"].isNil());
  EXPECT_TRUE(d["textures"]["missing"]["fileName"].isNil());
  EXPECT_TRUE(Value(3)["key"].isNil());
  EXPECT_TRUE(Value()["key"].isNil());
  ASSERT_NE(d.dictionary(), nullptr);
  EXPECT_EQ(d.dictionary()->size(), 2u);
  EXPECT_EQ(d.array(), nullptr);
  EXPECT_EQ(d.className(), "NSDictionary");
}

TEST(Value, TypedAccessIsNullForOtherKinds) {
  const Value s = "text";
  ASSERT_NE(s.string(), nullptr);
  EXPECT_EQ(*s.string(), "text");
  EXPECT_EQ(s.data(), nullptr);
  EXPECT_EQ(s.date(), nullptr);
  EXPECT_EQ(s.transform(), nullptr);
  EXPECT_EQ(Value(1).string(), nullptr);
  EXPECT_EQ(Value(Date{5}).date()->secondsSinceReferenceDate, 5);
}

TEST(Value, Description) {
  EXPECT_EQ(Value().description(), "nil");
  EXPECT_EQ(Value(8).description(), "8");
  EXPECT_EQ(Value(-3).description(), "-3");
  EXPECT_EQ(Value(0.5).description(), "0.5");
  EXPECT_EQ(Value(0.1).description(), "0.1");
  EXPECT_EQ(Value(2.0).description(), "2");
  EXPECT_EQ(Value::boolean(true).description(), "true");
  EXPECT_EQ(Value("plain").description(), "plain");
  EXPECT_EQ(Value(Array{1, "a"}).description(), "(1, \"a\")");
  EXPECT_EQ(Value(Dictionary{{"b", 2}, {"a", "x"}}).description(), "{a = \"x\", b = 2}");
  EXPECT_EQ(Value(Data{{1, 2, 3}}).description(), "<3 bytes>");
  EXPECT_EQ(Value(CGAffineTransformIdentity).description(), "[1, 0, 0, 1, 0, 0]");
  EXPECT_EQ(Value(NSURL::URLWithString("http://h/p")).description(), "http://h/p");
}
