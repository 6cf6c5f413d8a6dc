// Every filter of the bundle with its defaults renders the same 8-bit pixels, bit for bit, with
// the parts that are a colour or the source unchanged written directly as without that
// shortcut: on a JPEG, a PNG with alpha and a JPEG with an EXIF orientation (turned upright by
// a flip, which nothing answers), with the renderer's own tiling and with small tiles, colour
// managed and not.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "CoreImage/CIContext.h"
#include "FilterTestSupport.h"
#include "RenderSupport.h"
#include "StreamTestImages.h"

using namespace qvtest;

namespace {

struct Picture {
  std::string file;
  bool flip;
};

const std::vector<Picture>& pictures() {
  static const std::vector<Picture> all = [] {
    std::vector<Picture> p;
    const auto dir = streamTestDir();
    const std::tuple<std::string, int, bool> files[] = {
        {"pass.jpg", 1, false}, {"pass-alpha.png", 1, true}, {"pass-oriented.jpg", 2, false}};
    for (const auto& [name, orientation, alpha] : files) {
      const std::string path = (dir / name).string();
      writePicture(grainyPicture(260, 190, alpha), path, orientation);
      p.push_back({path, orientation == 2});
    }
    return p;
  }();
  return all;
}

CIImage applyFilter(const std::string& filter, const CIImage& input) {
  CIFilterRef f = makeFilter(filter);
  if (!f) return {};
  f->setValue(input, kCIInputImageKey);
  return filterOutput(f);
}

class PassThrough : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(loadBundleOnce(&error)) << error;
  }
};

}  // namespace

TEST_P(PassThrough, WritesTheRenderedBytesBitForBit) {
  for (const Picture& picture : pictures()) {
    CIImage input = CIImage::imageWithContentsOfFile(picture.file);
    ASSERT_TRUE(input) << picture.file;
    // Orientation 2 is a mirror image: turned upright by a horizontal flip.
    if (picture.flip) input = input.imageByApplyingTransform(CGAffineTransformMake(-1, 0, 0, 1, 260, 0));
    const CIImage out = applyFilter(GetParam(), input);
    ASSERT_TRUE(out) << picture.file;
    CGRect rect = CGRectIntegral(out.extent());
    if (CGRectIsInfinite(out.extent()) || rect.size.width * rect.size.height > 4.0 * 260 * 190) rect = input.extent();
    for (bool managed : {true, false}) {
      for (int tile : {0, 48}) {
        CIContextOptions on;
        on.threads = 2;
        on.tileSize = tile;
        on.colorManagement = managed;
        CIContextOptions off = on;
        off.passThrough = false;
        const auto fast = renderRGBA8(out, rect, on), full = renderRGBA8(out, rect, off);
        ASSERT_EQ(fast.size(), full.size());
        std::size_t differing = 0;
        for (std::size_t i = 0; i < fast.size(); ++i) differing += fast[i] != full[i];
        EXPECT_EQ(differing, 0u) << GetParam() << " on " << picture.file << " tile " << tile
                                 << (managed ? " managed" : " raw");
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EveryBundleFilter, PassThrough, ::testing::ValuesIn(bundleFilterNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });
