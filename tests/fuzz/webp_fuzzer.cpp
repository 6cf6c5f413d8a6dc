// Feeds arbitrary bytes to the WebP path of the image source: WebP (libwebp: lossy, lossless, extended files with EXIF and ICCP chunks, scaled decode).
#include "ImageSourceFuzzing.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  limitDecodesForFuzzing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzzImageSourceOfType(data, size, kUTTypeWebP);
}
