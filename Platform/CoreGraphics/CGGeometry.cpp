#include "CoreGraphics/CGGeometry.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();
}

const CGRect CGRectNull{{kInf, kInf}, {0, 0}};
const CGRect CGRectInfinite{{-DBL_MAX / 2, -DBL_MAX / 2}, {DBL_MAX, DBL_MAX}};

bool CGRectIsNull(const CGRect& r) { return r.origin.x == kInf || r.origin.y == kInf; }

bool CGRectIsInfinite(const CGRect& r) { return r == CGRectInfinite; }

bool CGRectIsEmpty(const CGRect& r) {
  return CGRectIsNull(r) || r.size.width == 0 || r.size.height == 0;
}

CGRect CGRectStandardize(const CGRect& r) {
  if (CGRectIsNull(r)) return CGRectNull;
  CGRect s = r;
  if (s.size.width < 0) {
    s.origin.x += s.size.width;
    s.size.width = -s.size.width;
  }
  if (s.size.height < 0) {
    s.origin.y += s.size.height;
    s.size.height = -s.size.height;
  }
  return s;
}

CGFloat CGRectGetMinX(const CGRect& r) { return CGRectStandardize(r).origin.x; }
CGFloat CGRectGetMinY(const CGRect& r) { return CGRectStandardize(r).origin.y; }
CGFloat CGRectGetMaxX(const CGRect& r) {
  CGRect s = CGRectStandardize(r);
  return s.origin.x + s.size.width;
}
CGFloat CGRectGetMaxY(const CGRect& r) {
  CGRect s = CGRectStandardize(r);
  return s.origin.y + s.size.height;
}
CGFloat CGRectGetMidX(const CGRect& r) {
  CGRect s = CGRectStandardize(r);
  return s.origin.x + s.size.width / 2;
}
CGFloat CGRectGetMidY(const CGRect& r) {
  CGRect s = CGRectStandardize(r);
  return s.origin.y + s.size.height / 2;
}
CGFloat CGRectGetWidth(const CGRect& r) { return std::fabs(r.size.width); }
CGFloat CGRectGetHeight(const CGRect& r) { return std::fabs(r.size.height); }

CGRect CGRectInset(const CGRect& r, CGFloat dx, CGFloat dy) {
  if (CGRectIsNull(r)) return CGRectNull;
  if (CGRectIsInfinite(r)) return r;
  CGRect s = CGRectStandardize(r);
  s.origin.x += dx;
  s.origin.y += dy;
  s.size.width -= 2 * dx;
  s.size.height -= 2 * dy;
  if (s.size.width < 0 || s.size.height < 0) return CGRectNull;
  return s;
}

CGRect CGRectOffset(const CGRect& r, CGFloat dx, CGFloat dy) {
  if (CGRectIsNull(r) || CGRectIsInfinite(r)) return r;
  CGRect s = CGRectStandardize(r);
  s.origin.x += dx;
  s.origin.y += dy;
  return s;
}

CGRect CGRectIntegral(const CGRect& r) {
  if (CGRectIsNull(r) || CGRectIsInfinite(r)) return r;
  CGRect s = CGRectStandardize(r);
  const double x0 = std::floor(s.origin.x), y0 = std::floor(s.origin.y);
  const double x1 = std::ceil(s.origin.x + s.size.width), y1 = std::ceil(s.origin.y + s.size.height);
  return CGRectMake(x0, y0, x1 - x0, y1 - y0);
}

CGRect CGRectIntersection(const CGRect& r1, const CGRect& r2) {
  if (CGRectIsNull(r1) || CGRectIsNull(r2)) return CGRectNull;
  if (CGRectIsInfinite(r1)) return CGRectStandardize(r2);
  if (CGRectIsInfinite(r2)) return CGRectStandardize(r1);
  const CGRect a = CGRectStandardize(r1), b = CGRectStandardize(r2);
  const double x0 = std::max(a.origin.x, b.origin.x);
  const double y0 = std::max(a.origin.y, b.origin.y);
  const double x1 = std::min(a.origin.x + a.size.width, b.origin.x + b.size.width);
  const double y1 = std::min(a.origin.y + a.size.height, b.origin.y + b.size.height);
  // Rectangles that only touch along an edge still intersect, in a rectangle of zero width or
  // height; only a gap between them gives the null rectangle.
  if (x1 < x0 || y1 < y0) return CGRectNull;
  return CGRectMake(x0, y0, x1 - x0, y1 - y0);
}

CGRect CGRectUnion(const CGRect& r1, const CGRect& r2) {
  if (CGRectIsNull(r1)) return CGRectStandardize(r2);
  if (CGRectIsNull(r2)) return CGRectStandardize(r1);
  if (CGRectIsInfinite(r1) || CGRectIsInfinite(r2)) return CGRectInfinite;
  const CGRect a = CGRectStandardize(r1), b = CGRectStandardize(r2);
  const double x0 = std::min(a.origin.x, b.origin.x);
  const double y0 = std::min(a.origin.y, b.origin.y);
  const double x1 = std::max(a.origin.x + a.size.width, b.origin.x + b.size.width);
  const double y1 = std::max(a.origin.y + a.size.height, b.origin.y + b.size.height);
  return CGRectMake(x0, y0, x1 - x0, y1 - y0);
}

bool CGRectContainsPoint(const CGRect& r, CGPoint p) {
  if (CGRectIsNull(r)) return false;
  if (CGRectIsInfinite(r)) return true;
  const CGRect s = CGRectStandardize(r);
  return p.x >= s.origin.x && p.x < s.origin.x + s.size.width && p.y >= s.origin.y &&
         p.y < s.origin.y + s.size.height;
}

bool CGRectContainsRect(const CGRect& outer, const CGRect& inner) {
  if (CGRectIsNull(inner)) return true;
  if (CGRectIsNull(outer)) return false;
  return CGRectEqualToRect(CGRectUnion(outer, inner), CGRectStandardize(outer));
}

bool CGRectIntersectsRect(const CGRect& r1, const CGRect& r2) {
  const CGRect i = CGRectIntersection(r1, r2);
  return !CGRectIsNull(i) && i.size.width > 0 && i.size.height > 0;
}

bool CGRectEqualToRect(const CGRect& r1, const CGRect& r2) {
  if (CGRectIsNull(r1) || CGRectIsNull(r2)) return CGRectIsNull(r1) && CGRectIsNull(r2);
  return CGRectStandardize(r1) == CGRectStandardize(r2);
}

bool CGSizeEqualToSize(CGSize s1, CGSize s2) { return s1.width == s2.width && s1.height == s2.height; }

CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty) {
  return {a, b, c, d, tx, ty};
}
CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty) { return {1, 0, 0, 1, tx, ty}; }
CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy) { return {sx, 0, 0, sy, 0, 0}; }
CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle) {
  const double c = std::cos(angle), s = std::sin(angle);
  return {c, s, -s, c, 0, 0};
}

CGAffineTransform CGAffineTransformConcat(const CGAffineTransform& t1, const CGAffineTransform& t2) {
  return {t1.a * t2.a + t1.b * t2.c,
          t1.a * t2.b + t1.b * t2.d,
          t1.c * t2.a + t1.d * t2.c,
          t1.c * t2.b + t1.d * t2.d,
          t1.tx * t2.a + t1.ty * t2.c + t2.tx,
          t1.tx * t2.b + t1.ty * t2.d + t2.ty};
}

CGAffineTransform CGAffineTransformTranslate(const CGAffineTransform& t, CGFloat tx, CGFloat ty) {
  return CGAffineTransformConcat(CGAffineTransformMakeTranslation(tx, ty), t);
}
CGAffineTransform CGAffineTransformScale(const CGAffineTransform& t, CGFloat sx, CGFloat sy) {
  return CGAffineTransformConcat(CGAffineTransformMakeScale(sx, sy), t);
}
CGAffineTransform CGAffineTransformRotate(const CGAffineTransform& t, CGFloat angle) {
  return CGAffineTransformConcat(CGAffineTransformMakeRotation(angle), t);
}

CGAffineTransform CGAffineTransformInvert(const CGAffineTransform& t) {
  const double det = t.a * t.d - t.b * t.c;
  if (det == 0) return t;
  const double a = t.d / det, b = -t.b / det, c = -t.c / det, d = t.a / det;
  return {a, b, c, d, -(t.tx * a + t.ty * c), -(t.tx * b + t.ty * d)};
}

bool CGAffineTransformIsIdentity(const CGAffineTransform& t) { return t == CGAffineTransformIdentity; }
bool CGAffineTransformEqualToTransform(const CGAffineTransform& t1, const CGAffineTransform& t2) {
  return t1 == t2;
}

CGPoint CGPointApplyAffineTransform(CGPoint p, const CGAffineTransform& t) {
  return {t.a * p.x + t.c * p.y + t.tx, t.b * p.x + t.d * p.y + t.ty};
}
CGSize CGSizeApplyAffineTransform(CGSize s, const CGAffineTransform& t) {
  return {t.a * s.width + t.c * s.height, t.b * s.width + t.d * s.height};
}

CGRect CGRectApplyAffineTransform(const CGRect& r, const CGAffineTransform& t) {
  if (CGRectIsNull(r) || CGRectIsInfinite(r)) return r;
  const CGRect s = CGRectStandardize(r);
  const CGPoint corners[4] = {
      CGPointApplyAffineTransform(s.origin, t),
      CGPointApplyAffineTransform({s.origin.x + s.size.width, s.origin.y}, t),
      CGPointApplyAffineTransform({s.origin.x, s.origin.y + s.size.height}, t),
      CGPointApplyAffineTransform({s.origin.x + s.size.width, s.origin.y + s.size.height}, t)};
  double x0 = corners[0].x, x1 = corners[0].x, y0 = corners[0].y, y1 = corners[0].y;
  for (const CGPoint& p : corners) {
    x0 = std::min(x0, p.x);
    x1 = std::max(x1, p.x);
    y0 = std::min(y0, p.y);
    y1 = std::max(y1, p.y);
  }
  return CGRectMake(x0, y0, x1 - x0, y1 - y0);
}

namespace {
std::string formatNumber(double v) {
  char buf[64];
  if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 1e15) {
    std::snprintf(buf, sizeof buf, "%.0f", v);
  } else {
    std::snprintf(buf, sizeof buf, "%.17g", v);
  }
  return buf;
}
}  // namespace

std::string NSStringFromSize(CGSize s) {
  return "{" + formatNumber(s.width) + ", " + formatNumber(s.height) + "}";
}
std::string NSStringFromPoint(CGPoint p) { return "{" + formatNumber(p.x) + ", " + formatNumber(p.y) + "}"; }
std::string NSStringFromRect(const CGRect& r) {
  return "{" + NSStringFromPoint(r.origin) + ", " + NSStringFromSize(r.size) + "}";
}
std::string NSStringFromCGAffineTransform(const CGAffineTransform& t) {
  return "[" + formatNumber(t.a) + ", " + formatNumber(t.b) + ", " + formatNumber(t.c) + ", " +
         formatNumber(t.d) + ", " + formatNumber(t.tx) + ", " + formatNumber(t.ty) + "]";
}
