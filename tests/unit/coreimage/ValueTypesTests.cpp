// GCC 12 reports a false "may be used uninitialized" inside std::variant when a Value holding an
// object is built inline under the sanitizers; the values here are fully constructed.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <gtest/gtest.h>

#include <cfloat>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ColorSpace.h"

TEST(CIVector, ComponentsAndMissingIndicesReadZero) {
  auto v = CIVector::vectorWithX(1, 2, 3);
  EXPECT_EQ(v->count(), 3u);
  EXPECT_EQ(v->X(), 1);
  EXPECT_EQ(v->Y(), 2);
  EXPECT_EQ(v->Z(), 3);
  EXPECT_EQ(v->W(), 0);
  EXPECT_EQ(v->valueAtIndex(17), 0);
}

TEST(CIVector, PointAndRectForms) {
  auto p = CIVector::vectorWithCGPoint(CGPointMake(25, -3.5));
  EXPECT_EQ(p->CGPointValue(), CGPointMake(25, -3.5));
  auto r = CIVector::vectorWithCGRect(CGRectMake(1, 2, 30, 40));
  EXPECT_EQ(r->count(), 4u);
  EXPECT_EQ(r->CGRectValue(), CGRectMake(1, 2, 30, 40));
  const double vals[] = {0.25, 0.5};
  auto w = CIVector::vectorWithValues(vals, 2);
  EXPECT_EQ(w->values(), (std::vector<double>{0.25, 0.5}));
}

TEST(CIVector, StringFormsRoundTrip) {
  auto v = CIVector::vectorWithX(1, 0.5, 0.3);
  EXPECT_EQ(v->stringRepresentation(), "[1 0.5 0.3]");
  auto back = CIVector::vectorWithString(v->stringRepresentation());
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isEqual(*v));
  auto bare = CIVector::vectorWithString("  4 5  6 ");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->values(), (std::vector<double>{4, 5, 6}));
  EXPECT_EQ(CIVector::vectorWithString("[]"), nullptr);
  EXPECT_EQ(CIVector::vectorWithString("abc"), nullptr);
  EXPECT_EQ(CIVector::vectorWithString(""), nullptr);
}

TEST(CIVector, InfiniteRectangleKeepsItsValues) {
  auto v = CIVector::vectorWithCGRect(CGRectInfinite);
  EXPECT_TRUE(CGRectIsInfinite(v->CGRectValue()));
  EXPECT_DOUBLE_EQ(v->X(), -DBL_MAX / 2);
  EXPECT_DOUBLE_EQ(v->Z(), DBL_MAX);
}

TEST(CIVector, EqualityAndValueRoundTrip) {
  auto a = CIVector::vectorWithX(1, 2);
  auto b = CIVector::vectorWithX(1, 2);
  auto c = CIVector::vectorWithX(1, 2, 0);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_FALSE(a->isEqual(*c));
  Value v(a);
  EXPECT_EQ(v.className(), "CIVector");
  EXPECT_EQ(CIVector::fromValue(v), a);
  EXPECT_EQ(CIVector::fromValue(Value(3)), nullptr);
}

TEST(CIColor, StringRepresentationHasOneDecimalAtLeast) {
  EXPECT_EQ(CIColor::colorWithRed(1, 1, 1)->stringRepresentation(), "1.0 1.0 1.0 1.0");
  EXPECT_EQ(CIColor::colorWithRed(0.2, 0.4, 0.6)->stringRepresentation(), "0.2 0.4 0.6 1.0");
  EXPECT_EQ(CIColor::colorWithRed(1, 1, 0, 0.5)->stringRepresentation(), "1.0 1.0 0.0 0.5");
}

TEST(CIColor, ColorWithStringForms) {
  auto white = CIColor::colorWithString("1.0 1.0 1.0 1.0");
  EXPECT_EQ(white->red(), 1);
  EXPECT_EQ(white->alpha(), 1);
  auto three = CIColor::colorWithString("0.5 0.7 0.3");
  EXPECT_EQ(three->red(), 0.5);
  EXPECT_EQ(three->green(), 0.7);
  EXPECT_EQ(three->blue(), 0.3);
  EXPECT_EQ(three->alpha(), 1.0);
  for (const char* s : {"", "   ", "none"}) {
    auto clear = CIColor::colorWithString(s);
    EXPECT_EQ(clear->red(), 0) << s;
    EXPECT_EQ(clear->green(), 0) << s;
    EXPECT_EQ(clear->blue(), 0) << s;
    EXPECT_EQ(clear->alpha(), 0) << s;
  }
  auto tabs = CIColor::colorWithString("\t0.1\n0.2  0.3 0.4");
  EXPECT_EQ(tabs->alpha(), 0.4);
}

TEST(CIColor, StringRoundTrip) {
  auto c = CIColor::colorWithRed(0.125, 0.75, 0.3, 0.6);
  auto back = CIColor::colorWithString(c->stringRepresentation());
  EXPECT_TRUE(back->isEqual(*c));
  EXPECT_FALSE(back->isEqual(*CIColor::colorWithRed(0.125, 0.75, 0.3, 0.61)));
}

TEST(CIColor, ConstantColors) {
  auto black = CIColor::colorWithCGColor(CGColorGetConstantColor(kCGColorBlack));
  EXPECT_EQ(black->stringRepresentation(), "0.0 0.0 0.0 1.0");
  auto white = CIColor::colorWithCGColor(CGColorGetConstantColor(kCGColorWhite));
  EXPECT_EQ(white->stringRepresentation(), "1.0 1.0 1.0 1.0");
  auto clear = CIColor::colorWithCGColor(CGColorGetConstantColor(kCGColorClear));
  EXPECT_EQ(clear->alpha(), 0);
}

TEST(CIColor, WorkingColorIsPremultipliedLinear) {
  auto c = CIColor::colorWithRed(0.5, 1.0, 0.0, 0.5);
  auto managed = workingColor(*c, true);
  EXPECT_NEAR(managed[0], 0.21404114f * 0.5f, 1e-6);
  EXPECT_NEAR(managed[1], 0.5f, 1e-6);
  EXPECT_EQ(managed[2], 0.0f);
  EXPECT_EQ(managed[3], 0.5f);
  auto raw = workingColor(*c, false);
  EXPECT_NEAR(raw[0], 0.25f, 1e-7);
}
