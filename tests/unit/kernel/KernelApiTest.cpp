// CIKernel and CISampler as the filters use them: compiling, listing, binding arguments,
// domains of definition, the CIFilter::apply hook, and the limits on hostile kernel text.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIKernel.h"
#include "CoreImage/CISampler.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/Kernel/Evaluator.h"
#include "CoreImage/Kernel/KernelNode.h"

namespace {

const char* kTwo = R"(
kernel vec4 alpha(sampler s) { return sample(s, samplerCoord(s)); }
vec4 helper(vec4 c) { return c * 2.0; }
kernel vec4 beta(sampler s, float k, vec2 p, vec3 q, vec4 r, __color c, __table sampler t)
{
    return helper(sample(s, p)) * k + vec4(q, 1.0) + r + c + sample(t, p);
}
)";

CIImage someImage() {
  float px[4 * 4] = {0.1f, 0.2f, 0.3f, 1, 0.4f, 0.5f, 0.6f, 1, 0.7f, 0.8f, 0.9f, 1, 0.2f, 0.2f, 0.2f, 0.5f};
  return CIImage::imageWithRGBAf(px, 2, 2, CGPointMake(3, 4));
}

TEST(CIKernel, KernelsComeBackInSourceOrderWithoutHelpers) {
  auto kernels = CIKernel::kernelsWithString(kTwo);
  ASSERT_EQ(kernels.size(), 2u);
  EXPECT_EQ(kernels[0]->name(), "alpha");
  EXPECT_EQ(kernels[1]->name(), "beta");
  EXPECT_EQ(kernels[0]->className(), "CIKernel");
  const auto& params = kernels[1]->parameters();
  std::vector<std::string> types;
  for (auto& p : params) types.push_back(p.type);
  EXPECT_EQ(types, (std::vector<std::string>{"sampler", "float", "vec2", "vec3", "vec4", "__color", "__table sampler"}));
  EXPECT_EQ(params[0].name, "s");
  EXPECT_EQ(kernels[0]->signature(), "kernel vec4 alpha(sampler s)");
}

TEST(CIKernel, TextThatDoesNotCompileGivesAnEmptyListAndADiagnostic) {
  const std::string text = "kernel vec4 k(sampler s)\n{\n  return sample(s, samplerCoord(s)).xyz;\n}\n";
  EXPECT_TRUE(CIKernel::kernelsWithString(text).empty());
  std::vector<KernelDiagnostic> diags;
  EXPECT_TRUE(CIKernel::kernelsWithString(text, &diags).empty());
  ASSERT_EQ(diags.size(), 1u);
  EXPECT_EQ(diags[0].line, 3);
  EXPECT_EQ(diags[0].column, 10);
  EXPECT_EQ(diags[0].description(), "3:10: error: 'k' must return vec4, not vec3");
}

TEST(CIKernel, EmptyTextAndTextWithoutKernelsGiveNoKernels) {
  std::vector<KernelDiagnostic> diags;
  EXPECT_TRUE(CIKernel::kernelsWithString("", &diags).empty());
  EXPECT_TRUE(diags.empty());
  EXPECT_TRUE(CIKernel::kernelsWithString("float f(float x) { return x; }", &diags).empty());
  EXPECT_TRUE(diags.empty());
}

TEST(CIKernel, KernelWithStringWantsExactlyOneKernel) {
  std::vector<KernelDiagnostic> diags;
  EXPECT_EQ(CIKernel::kernelWithString(kTwo, &diags), nullptr);
  ASSERT_EQ(diags.size(), 1u);
  EXPECT_NE(diags[0].message.find("exactly one"), std::string::npos);
  auto one = CIKernel::kernelWithString("kernel vec4 solo(float a) { return vec4(a); }");
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one->name(), "solo");
  EXPECT_EQ(CIKernel::kernelWithString("kernel vec4 broken(float a) { return a; }"), nullptr);
}

TEST(CISampler, OptionsAndDefinition) {
  CIImage image = someImage();
  auto black = CISampler::samplerWithImage(image);
  EXPECT_EQ(black->className(), "CISampler");
  EXPECT_FALSE(black->clampsToEdge());
  EXPECT_FALSE(black->filtersNearest());
  EXPECT_TRUE(CGRectEqualToRect(black->extent(), CGRectMake(3, 4, 2, 2)));
  auto shape = black->definition().object<CIFilterShape>();
  ASSERT_NE(shape, nullptr);
  EXPECT_EQ(shape->className(), "CIFilterShape");
  EXPECT_TRUE(CGRectEqualToRect(shape->extent(), CGRectMake(3, 4, 2, 2)));

  auto clamp = CISampler::samplerWithImage(
      image, {{kCISamplerWrapMode, kCISamplerWrapClamp}, {kCISamplerFilterMode, kCISamplerFilterNearest}});
  EXPECT_TRUE(clamp->clampsToEdge());
  EXPECT_TRUE(clamp->filtersNearest());
  EXPECT_TRUE(CGRectIsInfinite(clamp->definition().object<CIFilterShape>()->extent()));

  auto explicitBlack = CISampler::samplerWithImage(image, {{kCISamplerWrapMode, kCISamplerWrapBlack}});
  EXPECT_FALSE(explicitBlack->clampsToEdge());

  auto none = CISampler::samplerWithImage(CIImage());
  EXPECT_TRUE(none->image().isNil());
  EXPECT_TRUE(none->definition().isNil());
}

TEST(CIKernelApply, DefinitionGivesTheExtentOtherwiseInfinite) {
  auto k = CIKernel::kernelWithString("kernel vec4 dim(sampler s) { return sample(s, samplerCoord(s)) * 0.5; }");
  auto s = CISampler::samplerWithImage(someImage());
  CIImage infinite = k->apply({Value(s)}, {});
  ASSERT_FALSE(infinite.isNil());
  EXPECT_TRUE(CGRectIsInfinite(infinite.extent()));
  CIImage defined = k->apply({Value(s)}, {{kCIApplyOptionDefinition, s->definition()}});
  EXPECT_TRUE(CGRectEqualToRect(defined.extent(), CGRectMake(3, 4, 2, 2)));
  CIImage fromVector = k->apply({Value(s)}, {{kCIApplyOptionDefinition, Value(CIVector::vectorWithX(1, 2, 3, 4))}});
  EXPECT_TRUE(CGRectEqualToRect(fromVector.extent(), CGRectMake(1, 2, 3, 4)));
  CIImage fromArray = k->apply({Value(s)}, {{kCIApplyOptionExtent, Value(Array{0, 0, 5, 6})}});
  EXPECT_TRUE(CGRectEqualToRect(fromArray.extent(), CGRectMake(0, 0, 5, 6)));
}

// The pass-through kernel adds no node of its own: the result is the input, cropped to the
// definition, or the input's clamped extension.
TEST(CIKernelApply, PassThroughKernelsSimplifyToTheInput) {
  auto k = CIKernel::kernelsWithString(kTwo)[0];
  CIImage image = someImage();
  auto black = CISampler::samplerWithImage(image);
  CIImage same = k->apply({Value(black)}, {{kCIApplyOptionDefinition, black->definition()}});
  EXPECT_EQ(same, image);
  auto clamp = CISampler::samplerWithImage(image, {{kCISamplerWrapMode, kCISamplerWrapClamp}});
  CIImage clamped = k->apply({Value(clamp)}, {});
  EXPECT_TRUE(CGRectIsInfinite(clamped.extent()));
  EXPECT_EQ(dynamic_cast<const KernelNode*>(clamped.node().get()), nullptr);
  // Without a definition a black-wrap pass-through stays an infinite kernel image.
  CIImage infinite = k->apply({Value(black)}, {});
  EXPECT_TRUE(CGRectIsInfinite(infinite.extent()));
}

TEST(CIKernelApply, ArgumentsAreCheckedByKind) {
  auto beta = CIKernel::kernelsWithString(kTwo)[1];
  auto s = Value(CISampler::samplerWithImage(someImage()));
  auto v2 = Value(CIVector::vectorWithX(1, 2));
  auto v3 = Value(CIVector::vectorWithX(1, 2, 3));
  auto v4 = Value(CIVector::vectorWithX(1, 2, 3, 4));
  auto color = Value(CIColor::colorWithRed(1, 0, 0, 1));
  Array good{s, 2.0, v2, v3, v4, color, s};
  EXPECT_FALSE(beta->apply(good, {}).isNil());
  testing::internal::CaptureStderr();
  for (std::size_t i = 0; i < good.size(); ++i) {
    Array bad = good;
    bad[i] = Value("text");
    EXPECT_TRUE(beta->apply(bad, {}).isNil()) << "argument " << i;
  }
  Array wrongCount(good.begin(), good.end() - 1);
  EXPECT_TRUE(beta->apply(wrongCount, {}).isNil());
  Array wrongSize = good;
  wrongSize[2] = v3;  // vec2 needs a CIVector of 2
  EXPECT_TRUE(beta->apply(wrongSize, {}).isNil());
  std::string messages = testing::internal::GetCapturedStderr();
  EXPECT_NE(messages.find("argument 3 ('p') must be a CIVector of 2 values"), std::string::npos) << messages;
  // A missing image is not an error: the result is simply nil.
  Array noImage = good;
  noImage[0] = Value();
  EXPECT_TRUE(beta->apply(noImage, {}).isNil());
  noImage[0] = Value(CISampler::samplerWithImage(CIImage()));
  EXPECT_TRUE(beta->apply(noImage, {}).isNil());
}

class KernelTestFilter : public CIFilter {
 public:
  CIImage outputImage() const override { return {}; }
  CIImage run(const CIKernelRef& k, const Array& args, const Dictionary& opts) const { return apply(k, args, opts); }
};

TEST(CIKernelApply, CIFilterApplyRunsKernels) {
  auto k = CIKernel::kernelWithString("kernel vec4 half_(sampler s) { return sample(s, samplerCoord(s)) * 0.5; }");
  auto s = CISampler::samplerWithImage(someImage());
  KernelTestFilter f;
  CIImage out = f.run(k, {Value(s)}, {{kCIApplyOptionDefinition, s->definition()}});
  ASSERT_FALSE(out.isNil());
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), CGRectMake(3, 4, 2, 2)));
  EXPECT_NE(dynamic_cast<const KernelNode*>(out.node().get()), nullptr);
  EXPECT_TRUE(f.run(nullptr, {Value(s)}, {}).isNil());
}

// ---- Limits: hostile text gives a diagnostic quickly, never a crash or a hang ----

std::vector<KernelDiagnostic> compileErrors(const std::string& text) {
  std::vector<KernelDiagnostic> diags;
  EXPECT_TRUE(CIKernel::kernelsWithString(text, &diags).empty());
  return diags;
}

TEST(KernelLimits, OversizedTextIsRefused) {
  std::string text = "kernel vec4 k(float a) { return vec4(a); }\n";
  text += std::string((1 << 20) + 10, ' ');
  auto d = compileErrors(text);
  ASSERT_EQ(d.size(), 1u);
  EXPECT_NE(d[0].message.find("too long"), std::string::npos);
}

TEST(KernelLimits, DeepNestingIsRefused) {
  std::string blocks = "kernel vec4 k(float a) {" + std::string(5000, '{') + std::string(5000, '}') + " return vec4(a); }";
  auto d = compileErrors(blocks);
  ASSERT_EQ(d.size(), 1u);
  EXPECT_NE(d[0].message.find("too deep"), std::string::npos);
  std::string unary = "kernel vec4 k(float a) { return vec4(" + std::string(100000, '-') + "a); }";
  d = compileErrors(unary);
  ASSERT_EQ(d.size(), 1u);
  std::string chain = "kernel vec4 k(float a) { return vec4(a";
  for (int i = 0; i < 5000; ++i) chain += " + a";
  chain += "); }";
  d = compileErrors(chain);
  ASSERT_EQ(d.size(), 1u);
  EXPECT_NE(d[0].message.find("too deeply nested"), std::string::npos);
}

TEST(KernelLimits, LongButShallowExpressionsCompile) {
  std::string text = "kernel vec4 k(float a) { float s = 0.0;";
  for (int i = 0; i < 2000; ++i) text += " s += a * " + std::to_string(i) + ".0;";
  text += " return vec4(s); }";
  EXPECT_EQ(CIKernel::kernelsWithString(text).size(), 1u);
}

TEST(KernelLimits, ExponentialInliningIsRefusedQuickly) {
  std::string text = "float f0(float x) { return x; }\n";
  for (int i = 1; i <= 40; ++i)
    text += "float f" + std::to_string(i) + "(float x) { return f" + std::to_string(i - 1) + "(f" +
            std::to_string(i - 1) + "(x)); }\n";
  text += "kernel vec4 k(float a) { return vec4(f40(a)); }\n";
  auto start = std::chrono::steady_clock::now();
  auto d = compileErrors(text);
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_EQ(d.size(), 1u);
  EXPECT_NE(d[0].message.find("too large"), std::string::npos);
  EXPECT_LT(seconds, 20.0);
}

// A loop whose bound is only known when the kernel runs stops at the iteration cap.
TEST(KernelLimits, RuntimeLoopsStopAtTheCap) {
  auto k = CIKernel::kernelWithString(R"(
kernel vec4 k(float n)
{
    float s = 0.0;
    for (float i = 0.0; i < n; i += 1.0) s += 1.0;
    float t = 0.0;
    for (float i = 0.0; i < n; i += 1.0)
        for (float j = 0.0; j < n; j += 1.0)
            t += 1.0;
    return vec4(s, t, 0.0, 1.0);
})");
  ASSERT_NE(k, nullptr);
  std::vector<float> out(4 * 3, -1.0f);
  PixelTile tile{out.data(), PixelRect{0, 0, 3, 1}, 12};
  float n = 1e9f;
  auto start = std::chrono::steady_clock::now();
  cikl::evaluate(*k->program(), tile, {}, std::span<const float>(&n, 1));
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(out[0], float(cikl::kMaxLoopIterations));
  EXPECT_LE(out[1], float(cikl::kMaxLoopIterationsPerBatch));
  EXPECT_GT(out[1], 0.0f);
  EXPECT_LT(seconds, 20.0);
}

// Non-finite coordinates read transparency or an edge texel, never outside the pixels.
TEST(KernelLimits, NonFiniteCoordinatesAreSafe) {
  auto k = CIKernel::kernelWithString(R"(
kernel vec4 k(sampler s, vec2 p) { return sample(s, p) + sample(s, p * 1e30); })");
  ASSERT_NE(k, nullptr);
  float texels[4 * 4] = {1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4};
  for (bool clamp : {false, true}) {
    cikl::SamplerInput in;
    in.tile = ConstPixelTile{texels, PixelRect{0, 0, 2, 2}, 8};
    in.extent = CGRectMake(0, 0, 2, 2);
    in.clamp = clamp;
    for (float v : {NAN, INFINITY, -INFINITY, 3e38f}) {
      float params[2] = {v, 0.5f};
      std::vector<float> out(4, -1.0f);
      PixelTile tile{out.data(), PixelRect{0, 0, 1, 1}, 4};
      cikl::evaluate(*k->program(), tile, std::span<const cikl::SamplerInput>(&in, 1), params);
      if (!std::isnan(v) && !clamp) {
        EXPECT_EQ(out[0], 0.0f) << v;
      }
    }
  }
}

}  // namespace
