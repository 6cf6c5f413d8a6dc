// Kernels in the image graph, rendered by CIContext: the shipped pass-through kernel with a
// clamp sampler (an infinite image with repeated edges), the same with the default sampler and
// a definition, tiled renders equal to whole renders, colours matched to the working space,
// and kernels chained on kernels.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIKernel.h"
#include "CoreImage/CISampler.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ColorSpace.h"
#include "RenderSupport.h"

namespace {

CIKernelRef noOpKernel() {
  std::ifstream in(std::filesystem::path(QV_SOURCE_DIR) / "Resources" / "NoOp.cikernel");
  std::stringstream ss;
  ss << in.rdbuf();
  auto kernels = CIKernel::kernelsWithString(ss.str());
  return kernels.size() == 1 ? kernels[0] : nullptr;
}

TEST(KernelRender, NoOpOverAClampSamplerRepeatsTheEdgesWithoutLimit) {
  auto k = noOpKernel();
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->parameters().size(), 1u);
  EXPECT_EQ(k->parameters()[0].type, "sampler");
  const int w = 9, h = 7;
  CIImage input = makeTestImageWithAlpha(w, h, CGPointMake(10, 20));
  auto sampler = CISampler::samplerWithImage(input, {{kCISamplerWrapMode, kCISamplerWrapClamp}});
  CIImage out = k->apply({Value(sampler)}, {});
  ASSERT_FALSE(out.isNil());
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
  const int m = 4;
  auto got = renderRGBAf(out, CGRectMake(10 - m, 20 - m, w + 2 * m, h + 2 * m), renderOptions(1, 0, false));
  auto src = renderRGBAf(input, CGRectMake(10, 20, w, h), renderOptions(1, 0, false));
  // Rows are top first in both buffers.
  for (int row = 0; row < h + 2 * m; ++row) {
    for (int col = 0; col < w + 2 * m; ++col) {
      int sr = std::clamp(row - m, 0, h - 1), sc = std::clamp(col - m, 0, w - 1);
      for (int c = 0; c < 4; ++c)
        ASSERT_EQ(got[std::size_t(((row * (w + 2 * m)) + col) * 4 + c)], src[std::size_t((sr * w + sc) * 4 + c)])
            << "row " << row << " col " << col;
    }
  }
  // Far away from the image the nearest edge pixel still repeats.
  auto far = pixelAt(out, 10 + w + 5000, 20 - 3000);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(far[std::size_t(c)], src[std::size_t(((h - 1) * w + (w - 1)) * 4 + c)]);
}

TEST(KernelRender, NoOpWithTheSamplersDefinitionEqualsTheInput) {
  auto k = noOpKernel();
  ASSERT_NE(k, nullptr);
  CIImage input = makeTestImageWithAlpha(23, 17, CGPointMake(-4, 3));
  auto sampler = CISampler::samplerWithImage(input);
  CIImage out = k->apply({Value(sampler)}, {{kCIApplyOptionDefinition, sampler->definition()}});
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), input.extent()));
  auto a = renderRGBAf(out, CGRectMake(-6, 1, 27, 21), renderOptions(1, 0, false));
  auto b = renderRGBAf(input, CGRectMake(-6, 1, 27, 21), renderOptions(1, 0, false));
  EXPECT_TRUE(bitwiseEqual(a, b));
}

TEST(KernelRender, TiledRenderEqualsWholeRender) {
  auto k = CIKernel::kernelWithString(R"(
kernel vec4 wobble(sampler s, vec2 centre, float amount)
{
    // Reads stay within one pixel of the destination, inside the default region of interest.
    vec2 d = destCoord() - centre;
    float r = length(d);
    vec2 p = destCoord() + 0.9 * vec2(sin(r * amount), cos(r * 0.1));
    vec4 acc = vec4(0.0);
    for (int i = 0; i < 3; i++) acc += sample(s, samplerTransform(s, p + vec2(0.0, float(i - 1) * 0.05)));
    return r < 80.0 ? acc / 3.0 : sample(s, samplerCoord(s));
})");
  ASSERT_NE(k, nullptr);
  CIImage input = makeTestImageWithAlpha(210, 150, CGPointMake(5, -7));
  for (bool clamp : {false, true}) {
    Dictionary options;
    if (clamp) options[kCISamplerWrapMode] = kCISamplerWrapClamp;
    auto s = CISampler::samplerWithImage(input, options);
    CIImage out = k->apply({Value(s), Value(CIVector::vectorWithX(100, 60)), 1.3}, {{kCIApplyOptionDefinition, Value(CIFilterShape::shapeWithRect(CGRectMake(0, -10, 220, 160)))}});
    ASSERT_FALSE(out.isNil());
    auto whole = renderRGBAf(out, out.extent(), renderOptions(1, 4096, false));
    auto tiled = renderRGBAf(out, out.extent(), renderOptions(4, 37, false));
    EXPECT_TRUE(bitwiseEqual(whole, tiled)) << "clamp " << clamp << ": " << maxAbsDifference(whole, tiled);
  }
}

TEST(KernelRender, ColoursAreMatchedToTheWorkingSpace) {
  auto k = CIKernel::kernelWithString("kernel vec4 fill(__color c) { return c; }");
  ASSERT_NE(k, nullptr);
  CIImage out = k->apply({Value(CIColor::colorWithRed(0.5, 0.25, 1.0, 0.5))}, {{kCIApplyOptionExtent, Value(Array{0, 0, 2, 2})}});
  CIContextOptions managed;
  managed.colorManagement = true;
  auto px = renderRGBAf(out, CGRectMake(0, 0, 1, 1), managed);
  EXPECT_NEAR(px[0], srgbToLinear(0.5f) * 0.5f, 1e-6);
  EXPECT_NEAR(px[1], srgbToLinear(0.25f) * 0.5f, 1e-6);
  EXPECT_NEAR(px[2], 0.5f, 1e-6);
  EXPECT_NEAR(px[3], 0.5f, 1e-6);
  auto raw = renderRGBAf(out, CGRectMake(0, 0, 1, 1), renderOptions(1, 0, false));
  EXPECT_NEAR(raw[0], 0.25f, 1e-6);
  EXPECT_NEAR(raw[1], 0.125f, 1e-6);
}

TEST(KernelRender, KernelsChainAndReadTheirNeighbours) {
  auto blur = CIKernel::kernelWithString(R"(
kernel vec4 boxX(sampler s)
{
    vec2 d = destCoord();
    return (sample(s, samplerTransform(s, d - vec2(1.0, 0.0))) + sample(s, samplerCoord(s)) +
            sample(s, samplerTransform(s, d + vec2(1.0, 0.0)))) / 3.0;
})");
  auto invert = CIKernel::kernelWithString(
      "kernel vec4 invert(__sample c) { return vec4((1.0 - c.rgb) * c.a, c.a); }");
  ASSERT_NE(blur, nullptr);
  ASSERT_NE(invert, nullptr);
  CIImage input = makeTestImage(40, 30);
  auto s = CISampler::samplerWithImage(input, {{kCISamplerWrapMode, kCISamplerWrapClamp}});
  CIImage blurred = blur->apply({Value(s)}, {{kCIApplyOptionDefinition, Value(CIFilterShape::shapeWithRect(input.extent()))}});
  CIImage out = invert->apply({Value(blurred)}, {{kCIApplyOptionDefinition, Value(CIFilterShape::shapeWithRect(input.extent()))}});
  ASSERT_FALSE(out.isNil());
  auto src = renderRGBAf(input, input.extent(), renderOptions(1, 0, false));
  auto got = renderRGBAf(out, input.extent(), renderOptions(2, 16, false));
  for (int row = 0; row < 30; ++row) {
    for (int col = 0; col < 40; ++col) {
      for (int c = 0; c < 3; ++c) {
        float sum = 0;
        for (int dx = -1; dx <= 1; ++dx) sum += src[std::size_t((row * 40 + std::clamp(col + dx, 0, 39)) * 4 + c)];
        float want = 1.0f - sum / 3.0f;
        ASSERT_NEAR(got[std::size_t((row * 40 + col) * 4 + c)], want, 1e-5) << row << " " << col;
      }
    }
  }
}

}  // namespace
