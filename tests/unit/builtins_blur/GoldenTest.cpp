// Reference renders of every blur, sharpen and distortion built-in with its defaults, and the
// behaviour of the golden-image comparison itself.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "BlurTestSupport.h"
#include "Golden.h"

using blurtest::applyFilter;

namespace {

struct GoldenCase {
  const char* filter;
  bool needsMask;
};

void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.filter; }

class BuiltinGolden : public ::testing::TestWithParam<GoldenCase> {};

}  // namespace

TEST_P(BuiltinGolden, DefaultsOnThePhoto) {
  const CIImage image = blurtest::photo();
  std::vector<std::pair<std::string, Value>> inputs;
  if (GetParam().needsMask) inputs.push_back({"inputMask", Value(makeTestImage(160, 120, {}, 3))});
  const CIImage out = applyFilter(GetParam().filter, image, inputs);
  ASSERT_FALSE(out.isNil());
  expectMatchesGolden(out, image.extent(), std::string("builtins_blur/") + GetParam().filter);
}

INSTANTIATE_TEST_SUITE_P(
    Blur, BuiltinGolden,
    ::testing::Values(GoldenCase{"CIGaussianBlur", false}, GoldenCase{"CIBoxBlur", false},
                      GoldenCase{"CIDiscBlur", false}, GoldenCase{"CIMotionBlur", false},
                      GoldenCase{"CIMedianFilter", false}, GoldenCase{"CINoiseReduction", false},
                      GoldenCase{"CIMaskedVariableBlur", true}, GoldenCase{"CIBokehBlur", false},
                      GoldenCase{"CIMorphologyMaximum", false}, GoldenCase{"CIMorphologyMinimum", false},
                      GoldenCase{"CIMorphologyGradient", false}, GoldenCase{"CIMorphologyRectangleMaximum", false},
                      GoldenCase{"CIMorphologyRectangleMinimum", false}, GoldenCase{"CIZoomBlur", false},
                      GoldenCase{"CIUnsharpMask", false}, GoldenCase{"CIBumpDistortion", false},
                      GoldenCase{"CIPixellate", false}),
    [](const ::testing::TestParamInfo<GoldenCase>& info) { return std::string(info.param.filter); });

TEST(BuiltinGoldenExtra, ClampedGaussianAndPixellate) {
  const CIImage image = blurtest::photo();
  const CIImage clamped = image.imageByClampingToExtent();
  expectMatchesGolden(applyFilter("CIGaussianBlur", clamped, {{"inputRadius", Value(6)}}), image.extent(),
                      "builtins_blur/CIGaussianBlur-clamped-6");
  expectMatchesGolden(applyFilter("CIPixellate", clamped, {{"inputCenter", blurtest::vec(25, 25)}, {"inputScale", Value(12)}}),
                      image.extent(), "builtins_blur/CIPixellate-clamped-12");
  expectMatchesGolden(applyFilter("CIBumpDistortion", image,
                            {{"inputCenter", blurtest::vec(80, 60)}, {"inputRadius", Value(50)}, {"inputScale", Value(-0.6)}}),
                      image.extent(), "builtins_blur/CIBumpDistortion-pinch");
}

// ---- The comparison ----

TEST(GoldenComparison, ToleranceRules) {
  const std::size_t w = 10, h = 10;  // 400 values
  std::vector<std::uint8_t> a(w * h * 4, 100);
  auto b = a;
  EXPECT_TRUE(qv::golden::compareRGBA8(a, b, w, h).ok);
  // One step of 1/255 (0.0039) everywhere is within the per-value tolerance.
  for (auto& v : b) v = 101;
  EXPECT_TRUE(qv::golden::compareRGBA8(a, b, w, h).ok);
  // Two steps (0.0078) on 2% of the values passes, on more than 2% fails.
  b = a;
  for (int i = 0; i < 8; ++i) b[std::size_t(i) * 7] = 102;
  EXPECT_TRUE(qv::golden::compareRGBA8(a, b, w, h).ok);
  b[399] = 102;
  EXPECT_FALSE(qv::golden::compareRGBA8(a, b, w, h).ok);
  // Four steps (0.0157) on a single value exceeds the hard limit.
  b = a;
  b[5] = 104;
  const auto r = qv::golden::compareRGBA8(a, b, w, h);
  EXPECT_FALSE(r.ok);
  EXPECT_NEAR(r.maxDifference, 4.0 / 255, 1e-9);
  // Size mismatch fails.
  EXPECT_FALSE(qv::golden::compareRGBA8(a, std::vector<std::uint8_t>(8, 0), w, h).ok);
}

TEST(GoldenComparison, MissingReferenceFails) {
  if (const char* u = std::getenv("QV_UPDATE_GOLDEN"); u != nullptr && std::string(u) == "1") GTEST_SKIP();
  const CIImage image = blurtest::photo(8, 8);
  EXPECT_NONFATAL_FAILURE(expectMatchesGolden(image, image.extent(), "builtins_blur/no-such-reference"),
                          "missing or unreadable reference");
  EXPECT_TRUE(std::filesystem::exists(qv::golden::failureDirectory() + "/builtins_blur/no-such-reference.actual.png"));
}

TEST(GoldenComparison, MismatchWritesActualAndDiff) {
  if (const char* u = std::getenv("QV_UPDATE_GOLDEN"); u != nullptr && std::string(u) == "1") GTEST_SKIP();
  // The Gaussian reference compared with an unblurred render must fail and leave both files.
  const CIImage image = blurtest::photo();
  EXPECT_NONFATAL_FAILURE(expectMatchesGolden(image, image.extent(), "builtins_blur/CIGaussianBlur"), "differs");
  EXPECT_TRUE(std::filesystem::exists(qv::golden::failureDirectory() + "/builtins_blur/CIGaussianBlur.actual.png"));
  EXPECT_TRUE(std::filesystem::exists(qv::golden::failureDirectory() + "/builtins_blur/CIGaussianBlur.diff.png"));
}

TEST(GoldenComparison, PNGRoundTrip) {
  std::vector<std::uint8_t> px(6 * 4 * 4);
  for (std::size_t i = 0; i < px.size(); ++i) px[i] = std::uint8_t(i * 37 % 256);
  for (std::size_t i = 3; i < px.size(); i += 4) px[i] = 255;
  const std::string path = qv::golden::failureDirectory() + "/roundtrip.png";
  ASSERT_TRUE(qv::golden::writePNG(path, px, 6, 4));
  std::vector<std::uint8_t> back;
  std::size_t w = 0, h = 0;
  std::string error;
  ASSERT_TRUE(qv::golden::readPNG(path, back, w, h, error)) << error;
  EXPECT_EQ(w, 6u);
  EXPECT_EQ(h, 4u);
  EXPECT_EQ(back, px);
}
