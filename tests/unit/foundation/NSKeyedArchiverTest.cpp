// Keyed archiving: values stored by key in a coder, written as a property list and read back.
#include <gtest/gtest.h>

#include "Foundation/NSKeyedArchiver.h"
#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"

namespace {

// An object class with no registered string form.
class Opaque final : public Object {
 public:
  std::string className() const override { return "TestOpaque"; }
};

// An object class registered below, with its text as string form.
class Named final : public Object {
 public:
  explicit Named(std::string text) : text(std::move(text)) {}
  std::string className() const override { return "TestNamed"; }
  std::string text;
};

std::string encodeNamed(const Object& o) { return static_cast<const Named&>(o).text; }
ObjectRef decodeNamed(const std::string& s) { return s.empty() ? nullptr : std::make_shared<Named>(s); }

NSCoder roundTrip(const NSCoder& coder) {
  const auto data = NSKeyedArchiver::archivedDataWithCoder(coder);
  EXPECT_TRUE(data);
  auto back = NSKeyedUnarchiver::coderWithData(data ? *data : std::string());
  EXPECT_TRUE(back);
  return back ? *back : NSCoder();
}

}  // namespace

TEST(NSKeyedArchiver, PropertyListValuesComeBackAsTheyWere) {
  NSCoder coder;
  coder.setClassName("TestClass");
  EXPECT_TRUE(coder.encodeObject(Value(3), "integer"));
  EXPECT_TRUE(coder.encodeObject(Value(2.5), "real"));
  EXPECT_TRUE(coder.encodeObject(Value::boolean(true), "flag"));
  EXPECT_TRUE(coder.encodeObject(Value("text"), "string"));
  EXPECT_TRUE(coder.encodeObject(Value(Array{Value(1), Value("two")}), "array"));
  EXPECT_TRUE(coder.encodeObject(Value(Dictionary{{"k", Value(1.5)}}), "dictionary"));
  const NSCoder back = roundTrip(coder);
  EXPECT_EQ(back.className(), "TestClass");
  EXPECT_EQ(back.decodeObjectForKey("integer"), Value(3));
  EXPECT_TRUE(back.decodeObjectForKey("integer").isInteger());
  EXPECT_EQ(back.decodeObjectForKey("real"), Value(2.5));
  EXPECT_TRUE(back.decodeObjectForKey("flag").isBoolean());
  EXPECT_EQ(back.decodeObjectForKey("string"), Value("text"));
  EXPECT_EQ(back.decodeObjectForKey("array"), Value(Array{Value(1), Value("two")}));
  EXPECT_EQ(back.decodeObjectForKey("dictionary"), Value(Dictionary{{"k", Value(1.5)}}));
  EXPECT_EQ(back.allKeys().size(), 6u);
}

TEST(NSKeyedArchiver, ObjectsAndTransformsGoThroughTheirForms) {
  NSCoderRegisterClass(NSCodingClass{"TestNamed", encodeNamed, decodeNamed});
  NSCoder coder;
  EXPECT_TRUE(coder.encodeObject(Value(NSURL::URLWithString("x-test://host/a%20b")), "url"));
  EXPECT_TRUE(coder.encodeObject(Value(CGAffineTransform{1, 2, 3, 4, 5, 6}), "transform"));
  EXPECT_TRUE(coder.encodeObject(Value(std::make_shared<Named>("hello")), "named"));
  EXPECT_TRUE(coder.encodeObject(Value(Array{Value(std::make_shared<Named>("in an array"))}), "nested"));
  const auto data = NSKeyedArchiver::archivedDataWithCoder(coder);
  ASSERT_TRUE(data);
  // A readable XML property list.
  EXPECT_NE(data->find("<string>x-test://host/a%20b</string>"), std::string::npos);
  EXPECT_NE(data->find("<string>TestNamed</string>"), std::string::npos);
  const NSCoder back = roundTrip(coder);
  const auto url = back.decodeObjectForKey("url").object<NSURL>();
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString(), "x-test://host/a%20b");
  ASSERT_TRUE(back.decodeObjectForKey("transform").transform());
  EXPECT_EQ(*back.decodeObjectForKey("transform").transform(), (CGAffineTransform{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(back.decodeObjectForKey("named").object<Named>()->text, "hello");
  const Value nested = back.decodeObjectForKey("nested");
  ASSERT_TRUE(nested.array());
  EXPECT_EQ((*nested.array())[0].object<Named>()->text, "in an array");
}

TEST(NSKeyedArchiver, NilAndUnarchivableValuesAreNotStored) {
  NSCoder coder;
  EXPECT_TRUE(coder.encodeObject(Value("kept"), "a"));
  EXPECT_FALSE(coder.encodeObject(Value(), "a"));  // nil removes what was there
  EXPECT_FALSE(coder.containsValueForKey("a"));
  EXPECT_FALSE(coder.encodeObject(Value(std::make_shared<Opaque>()), "b"));
  EXPECT_FALSE(coder.encodeObject(Value(Array{Value(1), Value(std::make_shared<Opaque>())}), "c"));
  EXPECT_TRUE(coder.allKeys().empty());
  EXPECT_TRUE(coder.decodeObjectForKey("b").isNil());
  coder.encodeObject(Value(1), "d");
  coder.removeObjectForKey("d");
  EXPECT_FALSE(coder.containsValueForKey("d"));
}

TEST(NSKeyedArchiver, DataThatIsNoArchiveIsRefused) {
  EXPECT_FALSE(NSKeyedUnarchiver::coderWithData(""));
  EXPECT_FALSE(NSKeyedUnarchiver::coderWithData("not a property list"));
  const auto other = dataWithPropertyList(Value(Dictionary{{"$top", Value(Dictionary{})}}));
  ASSERT_TRUE(other);
  EXPECT_FALSE(NSKeyedUnarchiver::coderWithData(*other));  // no "$archiver"
  // An object whose form does not parse decodes as nil.
  NSCoderRegisterClass(NSCodingClass{"TestNamed", encodeNamed, decodeNamed});
  NSCoder coder;
  coder.encodeObject(Value(std::make_shared<Named>("")), "empty");
  EXPECT_TRUE(roundTrip(coder).decodeObjectForKey("empty").isNil());
}
