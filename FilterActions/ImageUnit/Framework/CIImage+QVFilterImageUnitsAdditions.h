// The plug-in's additions to CIImage: turning one image a quarter turn so that its orientation
// (landscape or portrait) matches another's. Free functions taking the receiver first.
#pragma once

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"

// The rotation that matches the receiver's orientation to `image`'s: a turn by pi/2
// (counter-clockwise, about the origin) when one of the two is landscape and the other
// portrait, the identity otherwise (a square image never turns).
CGAffineTransform affineTransformForMatchingOrientationOfImage(const CIImage& receiver, const CIImage& image);

// The receiver through affineTransformForMatchingOrientationOfImage(receiver, image). No
// translation follows: a turned image lies left of the origin and the caller places it again.
CIImage imageByApplyingTransformToMatchOrientationOfImage(const CIImage& receiver, const CIImage& image);

// The orientation class of an image, from its extent: 0 square, 1 landscape, 2 portrait.
// Square when width / height + 0.01 lies within [1.0, 1.02], with both constants taken as the
// single-precision values widened to double; a ratio that is not a number (a nil or empty
// image) is portrait.
int QVFilterImageOrientationClass(const CIImage& image);

// The receiver scaled about the origin by (rect width / extent width, rect height / extent
// height), then moved by the difference of the two lower-left corners, so that its extent is
// `rect`: how textures, masks, frames and generated layers are laid over a rectangle.
CIImage imageByFittingToRect(const CIImage& receiver, const CGRect& rect);
