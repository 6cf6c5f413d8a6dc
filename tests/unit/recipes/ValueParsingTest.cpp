// Values as people and recipes write them: text by attribute class, recipe JSON values, and
// the JSON form of values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"
#include "TestFiles.h"
#include "Recipe.h"
#include "ValueParsing.h"

namespace {

using json = nlohmann::json;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const qv::ValueError& e) {
    return e.what();
  }
  return "(no error)";
}

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
  EXPECT_TRUE(qv::parseNumber("3.0")->isReal());
  EXPECT_EQ(qv::parseNumber("-7")->integerValue(), -7);
  EXPECT_EQ(qv::parseNumber(" +4 ")->integerValue(), 4);
  EXPECT_FALSE(qv::parseNumber("abc"));
  EXPECT_FALSE(qv::parseNumber("3x"));
  EXPECT_FALSE(qv::parseNumber(""));
  EXPECT_FALSE(qv::parseNumber("nan"));
  EXPECT_FALSE(qv::parseNumber("inf"));
  EXPECT_FALSE(qv::parseNumber("1e999"));
  // Integers too large for 64 bits are still numbers, as reals.
  auto big = qv::parseNumber("123456789012345678901234567890");
  ASSERT_TRUE(big);
  EXPECT_TRUE(big->isReal());
}

TEST(ValueParsing, NumberLists) {
  EXPECT_EQ(*qv::parseNumberList("1 2  3"), (std::vector<double>{1, 2, 3}));
  EXPECT_EQ(*qv::parseNumberList("[0.5 1]"), (std::vector<double>{0.5, 1}));
  EXPECT_TRUE(qv::parseNumberList("")->empty());
  EXPECT_FALSE(qv::parseNumberList("1 two 3"));
  EXPECT_FALSE(qv::parseNumberList("[1 2"));
}

TEST(ValueParsing, NSNumberText) {
  EXPECT_TRUE(qv::parseValueForClass("3", "NSNumber", "inputRadius").isInteger());
  EXPECT_TRUE(qv::parseValueForClass("2.5", "NSNumber", "inputRadius").isReal());
  Value t = qv::parseValueForClass("true", "NSNumber", "inputFlag");
  EXPECT_TRUE(t.isBoolean());
  EXPECT_TRUE(t.boolValue());
  Value n = qv::parseValueForClass("No", "NSNumber", "inputFlag");
  EXPECT_TRUE(n.isBoolean());
  EXPECT_FALSE(n.boolValue());
  const std::string e = errorOf([] { qv::parseValueForClass("wide", "NSNumber", "inputRadius"); });
  EXPECT_NE(e.find("inputRadius"), std::string::npos) << e;
  EXPECT_NE(e.find("NSNumber"), std::string::npos) << e;
  EXPECT_NE(e.find("\"wide\""), std::string::npos) << e;
}

TEST(ValueParsing, CIVectorText) {
  auto v = CIVector::fromValue(qv::parseValueForClass("10 20", "CIVector", "inputCenter"));
  ASSERT_TRUE(v);
  EXPECT_EQ(v->values(), (std::vector<double>{10, 20}));
  auto v4 = CIVector::fromValue(qv::parseValueForClass("[0 0 64 32.5]", "CIVector", "inputRectangle"));
  ASSERT_TRUE(v4);
  EXPECT_EQ(v4->count(), 4u);
  EXPECT_DOUBLE_EQ(v4->W(), 32.5);
  EXPECT_NE(errorOf([] { qv::parseValueForClass("1 2 3 4 5", "CIVector", "inputCenter"); }).find("CIVector"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::parseValueForClass("", "CIVector", "inputCenter"); }).find("inputCenter"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::parseValueForClass("1 x", "CIVector", "inputCenter"); }), "(no error)");
}

TEST(ValueParsing, CIColorText) {
  auto c = CIColor::fromValue(qv::parseValueForClass("1 0.5 0", "CIColor", "inputColor"));
  ASSERT_TRUE(c);
  EXPECT_DOUBLE_EQ(c->green(), 0.5);
  EXPECT_DOUBLE_EQ(c->alpha(), 1.0);
  auto c4 = CIColor::fromValue(qv::parseValueForClass("0.2 0.4 0.6 0.5", "CIColor", "inputColor"));
  ASSERT_TRUE(c4);
  EXPECT_DOUBLE_EQ(c4->alpha(), 0.5);
  EXPECT_NE(errorOf([] { qv::parseValueForClass("1 2", "CIColor", "inputColor"); }).find("CIColor"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::parseValueForClass("1 2 3 4 5", "CIColor", "inputColor"); }), "(no error)");
}

TEST(ValueParsing, TransformStringAndUnknownClassText) {
  Value t = qv::parseValueForClass("2 0 0 2 5 -6", "NSAffineTransform", "inputTransform");
  ASSERT_TRUE(t.transform());
  EXPECT_EQ(*t.transform(), CGAffineTransformMake(2, 0, 0, 2, 5, -6));
  EXPECT_NE(errorOf([] { qv::parseValueForClass("1 0 0 1 5", "NSAffineTransform", "inputTransform"); })
                .find("NSAffineTransform"),
            std::string::npos);
  Value s = qv::parseValueForClass(" two words ", "NSString", "inputName");
  ASSERT_TRUE(s.string());
  EXPECT_EQ(*s.string(), " two words ");
  EXPECT_TRUE(qv::parseValueForClass("5", "", "inputX").isInteger());
  EXPECT_EQ(*qv::parseValueForClass("abc", "", "inputX").string(), "abc");
}

TEST(ValueParsing, URLText) {
  Value u = qv::parseValueForClass("x-qvfilter-texture:stone", "NSURL", "inputTextureName");
  ASSERT_FALSE(u.isNil());
  EXPECT_TRUE(qv::valueFitsClass(u, "NSURL"));
  EXPECT_EQ(qv::jsonFromValue(u), (json{{"url", "x-qvfilter-texture:stone"}}));
}

TEST(ValueParsing, ImageFilePaths) {
  const auto dir = qvtest::scratchDirectory("ValueParsing.ImageFilePaths");
  const std::string png = (dir / "four.png").string();
  qvtest::writeSolidPNG(png, 4, 3, {255, 0, 0, 255});
  CIImage image = CIImage::fromValue(qv::parseValueForClass("four.png", "CIImage", "inputBackgroundImage", dir.string()));
  ASSERT_TRUE(image);
  EXPECT_EQ(image.extent(), CGRectMake(0, 0, 4, 3));
  const std::string missing = errorOf([&] { qv::parseValueForClass("nope.png", "CIImage", "inputMaskImage", dir.string()); });
  EXPECT_NE(missing.find("inputMaskImage"), std::string::npos) << missing;
  EXPECT_NE(missing.find("no such file"), std::string::npos) << missing;
  const std::string directory = errorOf([&] { qv::imageFromFile(dir.string()); });
  EXPECT_NE(directory.find("not a regular file"), std::string::npos) << directory;
  const std::string text = (dir / "text.png").string();
  qvtest::writeText(text, "not an image at all");
  const std::string notImage = errorOf([&] { qv::imageFromFile(text); });
  EXPECT_NE(notImage.find("cannot read image file"), std::string::npos) << notImage;
}

TEST(ValueParsing, JSONNumbersBooleansNull) {
  EXPECT_TRUE(qv::valueFromJSON(json(3), "NSNumber", "k", nullptr).isInteger());
  EXPECT_TRUE(qv::valueFromJSON(json(3.0), "NSNumber", "k", nullptr).isReal());
  EXPECT_TRUE(qv::valueFromJSON(json(true), "NSNumber", "k", nullptr).isBoolean());
  EXPECT_TRUE(qv::valueFromJSON(json(nullptr), "CIVector", "k", nullptr).isNil());
  // A string for a number input is read as text of that class.
  EXPECT_TRUE(qv::valueFromJSON(json("2.5"), "NSNumber", "k", nullptr).isReal());
  // Unsigned values beyond the signed range become reals rather than wrapping.
  EXPECT_TRUE(qv::valueFromJSON(json(18446744073709551615ull), "NSNumber", "k", nullptr).isReal());
}

TEST(ValueParsing, JSONObjectsOfValues) {
  auto v = CIVector::fromValue(qv::valueFromJSON(json{{"vector", {1, 2.5}}}, "CIVector", "k", nullptr));
  ASSERT_TRUE(v);
  EXPECT_EQ(v->values(), (std::vector<double>{1, 2.5}));
  auto c = CIColor::fromValue(qv::valueFromJSON(json{{"color", "1 0 0 0.5"}}, "CIColor", "k", nullptr));
  ASSERT_TRUE(c);
  EXPECT_DOUBLE_EQ(c->alpha(), 0.5);
  auto c3 = CIColor::fromValue(qv::valueFromJSON(json{{"color", {0, 1, 0}}}, "CIColor", "k", nullptr));
  ASSERT_TRUE(c3);
  EXPECT_DOUBLE_EQ(c3->alpha(), 1.0);
  Value t = qv::valueFromJSON(json{{"transform", {1, 0, 0, 1, 10, 20}}}, "NSAffineTransform", "k", nullptr);
  ASSERT_TRUE(t.transform());
  EXPECT_EQ(t.transform()->ty, 20);
  Value u = qv::valueFromJSON(json{{"url", "x-qvfilter-tag:wood"}}, "NSURL", "k", nullptr);
  EXPECT_EQ(qv::jsonFromValue(u), (json{{"url", "x-qvfilter-tag:wood"}}));
  // Bare arrays are read by the input's class.
  EXPECT_TRUE(CIVector::fromValue(qv::valueFromJSON(json{3, 4}, "CIVector", "k", nullptr)));
  EXPECT_TRUE(CIColor::fromValue(qv::valueFromJSON(json{1, 1, 1, 1}, "CIColor", "k", nullptr)));
  EXPECT_TRUE(qv::valueFromJSON(json{1, 0, 0, 1, 0, 0}, "NSAffineTransform", "k", nullptr).transform());
}

TEST(ValueParsing, JSONValuesThatDoNotFit) {
  const std::string wrongClass = errorOf([] { qv::valueFromJSON(json(5), "CIVector", "inputCenter", nullptr); });
  EXPECT_NE(wrongClass.find("does not fit its class CIVector"), std::string::npos) << wrongClass;
  EXPECT_NE(wrongClass.find("inputCenter"), std::string::npos) << wrongClass;
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"vector", {1, 2}}}, "NSNumber", "inputRadius", nullptr); })
                .find("does not fit its class NSNumber"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json(true), "CIColor", "inputColor", nullptr); }).find("CIColor"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"vector", json::array()}}, "CIVector", "k", nullptr); }),
            "(no error)");
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"vector", {1, "2"}}}, "CIVector", "k", nullptr); }), "(no error)");
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"colour", {1, 0, 0}}}, "CIColor", "k", nullptr); }).find("colour"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"vector", {1}}, {"color", {1, 1, 1}}}, "", "k", nullptr); }),
            "(no error)");
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json{{"transform", {1, 0, 0, 1}}}, "NSAffineTransform", "k", nullptr); })
                .find("6 numbers"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json("photo.png"), "CIImage", "inputImage", nullptr); }).find("@name"),
            std::string::npos);
  EXPECT_NE(errorOf([] { qv::valueFromJSON(json("red"), "CIColor", "inputColor", nullptr); }).find("CIColor"),
            std::string::npos);
}

TEST(ValueParsing, ImageReferences) {
  CIImage red = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0));
  std::vector<std::string> asked;
  qv::ImageResolver resolver = [&](const std::string& name) {
    asked.push_back(name);
    if (name != "red") throw qv::ValueError("unknown image \"@" + name + "\"");
    return red;
  };
  EXPECT_EQ(CIImage::fromValue(qv::valueFromJSON(json("@red"), "CIImage", "inputImage", resolver)), red);
  EXPECT_EQ(asked, std::vector<std::string>{"red"});
  EXPECT_NE(errorOf([&] { qv::valueFromJSON(json("@blue"), "CIImage", "inputImage", resolver); }).find("@blue"),
            std::string::npos);
  // An image where a number belongs does not fit.
  EXPECT_NE(errorOf([&] { qv::valueFromJSON(json("@red"), "NSNumber", "inputRadius", resolver); })
                .find("does not fit its class NSNumber"),
            std::string::npos);
  // "@@" escapes a literal string that starts with "@".
  Value s = qv::valueFromJSON(json("@@home"), "NSString", "inputText", resolver);
  ASSERT_TRUE(s.string());
  EXPECT_EQ(*s.string(), "@home");
}

TEST(ValueParsing, JSONFormOfValues) {
  EXPECT_TRUE(qv::jsonFromValue(Value::integer(8)).is_number_integer());
  const json real = qv::jsonFromValue(Value::real(2.0));
  EXPECT_TRUE(real.is_number_float());
  EXPECT_EQ(real.dump(), "2.0");
  EXPECT_EQ(qv::jsonFromValue(Value::boolean(true)), json(true));
  EXPECT_EQ(qv::jsonFromValue(Value("text")), json("text"));
  EXPECT_EQ(qv::jsonFromValue(Value()), json(nullptr));
  EXPECT_EQ(qv::jsonFromValue(Value(CIVector::vectorWithX(25, 25))), (json{{"vector", {25.0, 25.0}}}));
  EXPECT_EQ(qv::jsonFromValue(Value(CIColor::colorWithRed(1, 0.5, 0, 1))), (json{{"color", {1.0, 0.5, 0.0, 1.0}}}));
  EXPECT_EQ(qv::jsonFromValue(Value(CGAffineTransformMake(1, 0, 0, 1, 3, 4))),
            (json{{"transform", {1.0, 0.0, 0.0, 1.0, 3.0, 4.0}}}));
  Dictionary nested{{"CIAttributeClass", Value("NSNumber")}, {"inner", Value(Dictionary{{"a", Value::integer(1)}})}};
  EXPECT_EQ(qv::jsonFromValue(Value(nested)), (json{{"CIAttributeClass", "NSNumber"}, {"inner", {{"a", 1}}}}));
  EXPECT_EQ(qv::jsonFromValue(Value(Array{Value::integer(1), Value("x")})), (json{1, "x"}));
}

TEST(ValueParsing, JSONFormOfRects) {
  EXPECT_EQ(qv::jsonFromRect(CGRectMake(0, 0, 64, 32)), (json{0, 0, 64, 32}));
  EXPECT_TRUE(qv::jsonFromRect(CGRectMake(0, 0, 64, 32))[2].is_number_integer());
  EXPECT_EQ(qv::jsonFromRect(CGRectMake(0.5, 0, 1, 1))[0], json(0.5));
  EXPECT_EQ(qv::jsonFromRect(CGRectInfinite), json("infinite"));
  EXPECT_EQ(qv::jsonFromRect(CGRectNull), json(nullptr));
}

}  // namespace

namespace {

CIFilterRef builtin(const char* name) {
  qv::prepareFilterRegistry();
  auto f = CIFilter::filterWithName(name);
  EXPECT_TRUE(f) << name;
  return f;
}

}  // namespace

TEST(InputChecks, NumbersBeyondAnySettingAreRefusedWithTheirKey) {
  auto bump = builtin("CIBumpDistortion");
  ASSERT_TRUE(bump);
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputRadius", Value::real(1e308)); }),
            "inputRadius expects a number from -1e15 to 1e15, got 1e+308");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputRadius", Value::real(-1e16)); }),
            "inputRadius expects a number from -1e15 to 1e15, got -1e+16");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputRadius", Value::integer(INT64_MAX)); }),
            "inputRadius expects a number from -1e15 to 1e15, got 9223372036854775807");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputRadius", Value::real(1e15)); }), "(no error)");
  EXPECT_EQ(errorOf([&] {
              qv::checkInputValue(*bump, "inputCenter", Value(CIVector::vectorWithX(1, std::nan(""))));
            }),
            "inputCenter expects numbers from -1e15 to 1e15, got nan");
}

TEST(InputChecks, VectorsTakeTheNumberOfValuesOfTheirKey) {
  auto bump = builtin("CIBumpDistortion");
  ASSERT_TRUE(bump);
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputCenter", Value(CIVector::vectorWithX(5))); }),
            "inputCenter expects 2 numbers (\"x y\") (CIVector), got 1 number");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputCenter", Value(CIVector::vectorWithX(1, 2, 3, 4))); }),
            "inputCenter expects 2 numbers (\"x y\") (CIVector), got 4 numbers");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*bump, "inputCenter", Value(CIVector::vectorWithX(1, 2))); }),
            "(no error)");
  auto crop = builtin("CICrop");
  ASSERT_TRUE(crop);
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*crop, "inputRectangle", Value(CIVector::vectorWithX(1, 2, 3))); }),
            "inputRectangle expects 4 numbers (\"x y width height\") (CIVector), got 3 numbers");
  EXPECT_EQ(
      errorOf([&] { qv::checkInputValue(*crop, "inputRectangle", Value(CIVector::vectorWithX(0, 0, 0, 5))); }),
      "inputRectangle expects a rectangle \"x y width height\" with a width and a height above 0, got \"0 0 0 5\"");
}

TEST(InputChecks, TextureIdentifiersOfAnotherCatalogueAreRefused) {
  auto crop = builtin("CICrop");
  ASSERT_TRUE(crop);
  EXPECT_EQ(errorOf([&] {
              qv::checkInputValue(*crop, "inputTextureName",
                                  Value(std::string("x-qvfilter-texture://com.example.other/fabric-linen")));
            }),
            "inputTextureName: \"x-qvfilter-texture://com.example.other/fabric-linen\" names a texture of "
            "\"com.example.other\", which is no loaded plug-in's catalogue");
  EXPECT_EQ(errorOf([&] {
              qv::checkInputValue(*crop, "inputTextureName",
                                  Value(std::string("x-qvfilter-tag://com.example.other/fabric")));
            }),
            "inputTextureName: \"x-qvfilter-tag://com.example.other/fabric\" names a tag of \"com.example.other\", "
            "which is no loaded plug-in's catalogue");
  EXPECT_EQ(errorOf([&] { qv::checkInputValue(*crop, "inputTextureName", Value(std::string("plain text"))); }),
            "(no error)");
}

TEST(InputChecks, FilterNameInputsOfferTheirViewsCategory) {
  EXPECT_STREQ(qv::filterNameCategoryForKey("inputBlurFilterName"), kCICategoryBlur);
  EXPECT_STREQ(qv::filterNameCategoryForKey("inputCompositeFilterName"), kCICategoryCompositeOperation);
  EXPECT_EQ(qv::filterNameCategoryForKey("inputRadius"), nullptr);
}
