// ImageIO: image sources (decode, properties, bounded thumbnails, orientation) and
// destinations (streaming encode) for JPEG, PNG and WebP.
#pragma once

#include "ImageIO/CGImage.h"
#include "ImageIO/CGImageDestination.h"
#include "ImageIO/CGImageSource.h"
