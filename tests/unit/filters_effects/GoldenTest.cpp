// Every effect filter with its defaults on the fixed test photo, against references under
// tests/golden/filters/.
#include <algorithm>
#include <cmath>
#include <vector>

#include "EffectTestSupport.h"
#include "Framework/QVFilterKernelLoader.h"
#include "Golden.h"

using namespace effects;

namespace {

class EffectGolden : public qvtest::BundleTest {
 protected:
  static CIImage withDefaults(const std::string& name, const std::vector<std::pair<std::string, Value>>& extra = {}) {
    const CIImage photo = qvtest::testPhoto();
    EXPECT_TRUE(photo);
    std::vector<std::pair<std::string, Value>> inputs{{kCIInputImageKey, photo}};
    inputs.insert(inputs.end(), extra.begin(), extra.end());
    return outputWith(name, inputs);
  }
  // `variant` names the reference when extra inputs make it differ from the filter's plain
  // defaults (which the registry test renders under the filter's own name).
  static void expectGolden(const std::string& name, const std::vector<std::pair<std::string, Value>>& extra = {},
                           const std::string& variant = "") {
    const CIImage out = withDefaults(name, extra);
    ASSERT_TRUE(out) << name;
    // A visible change, not the photo itself.
    const CIImage photo = qvtest::testPhoto();
    EXPECT_GT(maxDifference(out, photo, CGRectIntersection(out.extent(), photo.extent())), 0.05f) << name;
    expectMatchesGolden(out, out.extent(), "filters/" + name + variant);
  }
};

// A small signature-like watermark: a white rounded bar with a dark outline, 96 x 28.
CIImage makeWatermark() {
  const int w = 96, h = 28;
  std::vector<float> pixels(static_cast<std::size_t>(w * h * 4), 0.0f);
  for (int row = 0; row < h; ++row)
    for (int x = 0; x < w; ++x) {
      const double cx = std::min(std::max(x + 0.5, 14.0), w - 14.0), cy = h / 2.0;
      const double d = std::hypot(x + 0.5 - cx, row + 0.5 - cy);
      float* p = &pixels[static_cast<std::size_t>((row * w + x) * 4)];
      const double a = std::clamp(13.5 - d, 0.0, 1.0);
      const double white = std::clamp(11.0 - d, 0.0, 1.0);
      // Straight colour: white inside, near black outline; stored premultiplied.
      const double c = 0.1 + 0.9 * white;
      p[0] = p[1] = p[2] = static_cast<float>(c * a);
      p[3] = static_cast<float>(a);
    }
  return CIImage::imageWithRGBAf(pixels.data(), w, h);
}

}  // namespace

TEST_F(EffectGolden, Border) { expectGolden("QVFilterBorder"); }
TEST_F(EffectGolden, Reflection) { expectGolden("QVFilterReflection"); }
TEST_F(EffectGolden, Watermark) { expectGolden("QVFilterWatermark", {{"inputWatermarkImage", makeWatermark()}}, ".logo"); }
TEST_F(EffectGolden, Shine) { expectGolden("QVFilterShine"); }
TEST_F(EffectGolden, ShineStraight) { expectGolden("QVFilterShineStraight"); }
TEST_F(EffectGolden, ShineCurved) { expectGolden("QVFilterShineCurved"); }
TEST_F(EffectGolden, Tilt) { expectGolden("QVFilterTilt"); }
TEST_F(EffectGolden, Stereoscopic) { expectGolden("QVFilterStereoscopic"); }

TEST_F(EffectGolden, WatermarkWithoutItsImageReturnsThePhoto) {
  const CIImage photo = qvtest::testPhoto();
  EXPECT_TRUE(withDefaults("QVFilterWatermark") == photo);
}

TEST_F(EffectGolden, EveryKernelResourceCompiles) {
  for (const char* name : {"QVFilterShineStraightMask", "QVFilterTiltLinear", "QVFilterTextureTile"}) {
    const QVFilterKernelList list = QVFilterKernelsFromResource(name);
    ASSERT_TRUE(list.present) << name;
    EXPECT_EQ(list.kernels.size(), 1u) << name;
  }
  const QVFilterKernelList pair = QVFilterKernelsFromResource("QVFilterStereoscopic");
  ASSERT_TRUE(pair.present);
  EXPECT_EQ(pair.kernels.size(), 2u);
}
