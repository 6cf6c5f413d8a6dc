// CGImageDestination: writes PNG, JPEG and WebP files. Pixels arrive in strips of rows, top
// down, so that a large render is never held twice: PNG and JPEG rows go straight to the
// encoder. WebP's encoder needs the whole picture, so a WebP destination buffers the rows
// until CGImageDestinationFinalize.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Foundation/Value.h"
#include "ImageIO/CGImage.h"

class CGImageDestination;
using CGImageDestinationRef = std::shared_ptr<CGImageDestination>;

// Number 0..1: JPEG quality 1..100 (default 0.9), WebP lossy quality (default 0.9; 1.0 means
// lossless). Ignored by PNG.
inline constexpr char kCGImageDestinationLossyCompressionQuality[] = "kCGImageDestinationLossyCompressionQuality";
// Boolean: WebP lossless.
inline constexpr char kCGImageDestinationLossless[] = "kCGImageDestinationLossless";
// Integer 1-8: orientation tag written into a JPEG's EXIF (the pixels are stored as given).
inline constexpr char kCGImageDestinationOrientation[] = "Orientation";

// type: "public.png", "public.jpeg", "org.webmproject.webp"; nil for another type or count
// other than 1. The file is created on CGImageDestinationBeginImage, written to a temporary
// name beside the target and renamed over it by CGImageDestinationFinalize, so a failed write
// never leaves a partial file.
CGImageDestinationRef CGImageDestinationCreateWithURL(const std::string& path, const std::string& type,
                                                      std::size_t count = 1);
// From the extension, case-insensitive: .png .jpg .jpeg .webp; "" if unknown.
std::string CGImageDestinationTypeForPath(const std::string& path);

// Starts the image. bitsPerComponent 8 or 16 (16 is written as 16-bit by PNG, reduced to 8
// bits by JPEG and WebP); hasAlpha false drops the fourth component (JPEG always drops it).
bool CGImageDestinationBeginImage(const CGImageDestinationRef& dest, std::size_t width, std::size_t height,
                                  int bitsPerComponent, bool hasAlpha, const Dictionary& properties);
// rgbaRows: straight RGBA, top-down, bitsPerComponent as begun (16: native-endian uint16_t).
bool CGImageDestinationWriteRows(const CGImageDestinationRef& dest, const void* rgbaRows, std::size_t rowBytes,
                                 std::size_t rowCount);
// Completes the file: every row must have been written.
bool CGImageDestinationFinalize(const CGImageDestinationRef& dest);
// Convenience: begin with the image's size, depth and alpha flag, then all rows.
bool CGImageDestinationAddImage(const CGImageDestinationRef& dest, const CGImageRef& image,
                                const Dictionary& properties);
std::string CGImageDestinationGetLastError(const CGImageDestinationRef& dest);
