// Feeds arbitrary bytes to the JPEG path of the image source: JPEG (libjpeg-turbo: markers, progressive scans, DCT scaling, EXIF through libexif, ICC).
#include "ImageSourceFuzzing.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  limitDecodesForFuzzing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzzImageSourceOfType(data, size, kUTTypeJPEG);
}
