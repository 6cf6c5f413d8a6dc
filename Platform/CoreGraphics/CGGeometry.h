// Core Graphics geometry: points, sizes, rectangles and affine transforms, with the
// platform's exact rules for null, empty and infinite rectangles.
#pragma once

#include <string>

using CGFloat = double;

struct CGPoint {
  CGFloat x = 0;
  CGFloat y = 0;
  bool operator==(const CGPoint&) const = default;
};

struct CGSize {
  CGFloat width = 0;
  CGFloat height = 0;
  bool operator==(const CGSize&) const = default;
};

struct CGRect {
  CGPoint origin;
  CGSize size;
  bool operator==(const CGRect&) const = default;
};

// The 2-by-3 matrix [a b c d tx ty] mapping (x, y) to (a·x + c·y + tx, b·x + d·y + ty).
struct CGAffineTransform {
  CGFloat a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
  bool operator==(const CGAffineTransform&) const = default;
};

inline constexpr CGPoint CGPointZero{0, 0};
inline constexpr CGSize CGSizeZero{0, 0};
inline constexpr CGRect CGRectZero{{0, 0}, {0, 0}};
extern const CGRect CGRectNull;      // origin (+inf, +inf), size (0, 0)
extern const CGRect CGRectInfinite;  // origin (-DBL_MAX/2, -DBL_MAX/2), size (DBL_MAX, DBL_MAX)
inline constexpr CGAffineTransform CGAffineTransformIdentity{1, 0, 0, 1, 0, 0};

inline CGPoint CGPointMake(CGFloat x, CGFloat y) { return {x, y}; }
inline CGSize CGSizeMake(CGFloat w, CGFloat h) { return {w, h}; }
inline CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat w, CGFloat h) { return {{x, y}, {w, h}}; }

bool CGRectIsNull(const CGRect& r);
bool CGRectIsInfinite(const CGRect& r);
bool CGRectIsEmpty(const CGRect& r);
CGRect CGRectStandardize(const CGRect& r);

CGFloat CGRectGetMinX(const CGRect& r);
CGFloat CGRectGetMidX(const CGRect& r);
CGFloat CGRectGetMaxX(const CGRect& r);
CGFloat CGRectGetMinY(const CGRect& r);
CGFloat CGRectGetMidY(const CGRect& r);
CGFloat CGRectGetMaxY(const CGRect& r);
CGFloat CGRectGetWidth(const CGRect& r);
CGFloat CGRectGetHeight(const CGRect& r);

CGRect CGRectInset(const CGRect& r, CGFloat dx, CGFloat dy);
CGRect CGRectOffset(const CGRect& r, CGFloat dx, CGFloat dy);
CGRect CGRectIntegral(const CGRect& r);
CGRect CGRectIntersection(const CGRect& r1, const CGRect& r2);
CGRect CGRectUnion(const CGRect& r1, const CGRect& r2);
bool CGRectContainsPoint(const CGRect& r, CGPoint p);
bool CGRectContainsRect(const CGRect& outer, const CGRect& inner);
bool CGRectIntersectsRect(const CGRect& r1, const CGRect& r2);
bool CGRectEqualToRect(const CGRect& r1, const CGRect& r2);
bool CGSizeEqualToSize(CGSize s1, CGSize s2);

CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty);
CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty);
CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy);
CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle);
// The added operation is applied to a point first, then t (t' = op × t).
CGAffineTransform CGAffineTransformTranslate(const CGAffineTransform& t, CGFloat tx, CGFloat ty);
CGAffineTransform CGAffineTransformScale(const CGAffineTransform& t, CGFloat sx, CGFloat sy);
CGAffineTransform CGAffineTransformRotate(const CGAffineTransform& t, CGFloat angle);
// t1 then t2 (t1 × t2).
CGAffineTransform CGAffineTransformConcat(const CGAffineTransform& t1, const CGAffineTransform& t2);
// A singular transform is returned unchanged.
CGAffineTransform CGAffineTransformInvert(const CGAffineTransform& t);
bool CGAffineTransformIsIdentity(const CGAffineTransform& t);
bool CGAffineTransformEqualToTransform(const CGAffineTransform& t1, const CGAffineTransform& t2);

CGPoint CGPointApplyAffineTransform(CGPoint p, const CGAffineTransform& t);
CGSize CGSizeApplyAffineTransform(CGSize s, const CGAffineTransform& t);
// The bounding box of the transformed corners; null stays null, infinite stays infinite.
CGRect CGRectApplyAffineTransform(const CGRect& r, const CGAffineTransform& t);

// "{w, h}", "{x, y}", "{{x, y}, {w, h}}": integral values without decimals, others with
// 17 significant digits.
std::string NSStringFromSize(CGSize s);
std::string NSStringFromPoint(CGPoint p);
std::string NSStringFromRect(const CGRect& r);
std::string NSStringFromCGAffineTransform(const CGAffineTransform& t);
