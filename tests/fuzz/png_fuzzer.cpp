// Feeds arbitrary bytes to the PNG path of the image source: PNG (libpng: every colour type and depth, interlacing, tRNS, iCCP, eXIf).
#include "ImageSourceFuzzing.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  limitDecodesForFuzzing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzzImageSourceOfType(data, size, kUTTypePNG);
}
