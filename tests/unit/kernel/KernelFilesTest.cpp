// Runs every kernel file of tests/kernels/: each ok/NAME.cikernel must compile and, where its
// NAME.expected asks, produce the expected pixels; each errors/NAME.cikernel must fail with the
// diagnostic its NAME.expected names.
//
// Format of ok/NAME.expected (one directive per line, '#' starts a comment):
//   kernels NAME...            the kernel routines the file defines, in order
//   signature TEXT             the next kernel's signature ("kernel vec4 f(sampler s)"), in order
//   kernel NAME                the kernel to run (default: the first)
//   sampler X Y W H [clamp] [nearest] [table]   an image argument; W*H*4 numbers follow
//   sample X Y W H             a __sample image argument; W*H*4 numbers follow
//   float V | vec2 V V | vec3 V V V | vec4 V V V V | color R G B A
//   render X Y W H             the output rectangle to evaluate
//   expect                     W*H*4 numbers follow (the render rectangle's pixels)
//   tolerance T                absolute tolerance (relative above 1), default 1e-5
// Pixels are premultiplied RGBA floats, listed from the top row down, left to right.
// Colours are straight and used as given (no colour management).
//
// Format of errors/NAME.expected: "LINE:COLUMN: TEXT", where TEXT must occur in the message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIKernel.h"
#include "CoreImage/ColorSpace.h"
#include "CoreImage/Kernel/Evaluator.h"

namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> filesIn(const char* sub) {
  std::vector<std::string> names;
  fs::path dir = fs::path(QV_SOURCE_DIR) / "tests" / "kernels" / sub;
  for (auto& e : fs::directory_iterator(dir))
    if (e.path().extension() == ".cikernel") names.push_back(e.path().stem().string());
  std::sort(names.begin(), names.end());
  return names;
}

struct Image {
  std::int64_t x = 0, y = 0, w = 0, h = 0;
  std::vector<float> pixels;  // bottom row first, as tiles hold them
  bool clamp = false, nearest = false, exact = false;
};

// Reads W*H*4 numbers listed from the top row down into bottom-first storage.
std::vector<float> readPixels(std::istream& in, std::int64_t w, std::int64_t h) {
  std::vector<float> top(std::size_t(w * h * 4));
  for (auto& v : top) {
    std::string tok;
    in >> tok;
    while (!tok.empty() && tok[0] == '#') {
      std::string rest;
      std::getline(in, rest);
      in >> tok;
    }
    v = std::stof(tok);
  }
  std::vector<float> bottom(top.size());
  for (std::int64_t r = 0; r < h; ++r)
    std::copy_n(top.begin() + (h - 1 - r) * w * 4, w * 4, bottom.begin() + r * w * 4);
  return bottom;
}

class OkKernel : public testing::TestWithParam<std::string> {};
class ErrorKernel : public testing::TestWithParam<std::string> {};

TEST_P(OkKernel, CompilesAndComputes) {
  fs::path dir = fs::path(QV_SOURCE_DIR) / "tests" / "kernels" / "ok";
  const std::string text = readFile(dir / (GetParam() + ".cikernel"));
  std::vector<KernelDiagnostic> diags;
  auto kernels = CIKernel::kernelsWithString(text, &diags);
  ASSERT_TRUE(diags.empty()) << diags[0].description();
  ASSERT_FALSE(kernels.empty());

  std::ifstream spec(dir / (GetParam() + ".expected"));
  ASSERT_TRUE(spec) << "missing " << GetParam() << ".expected";
  std::string line;
  std::size_t signatureIndex = 0;
  CIKernelRef kernel = kernels[0];
  std::vector<Image> images;
  std::vector<float> floats;
  std::int64_t rx = 0, ry = 0, rw = 0, rh = 0;
  std::vector<float> expected;
  float tolerance = 1e-5f;
  bool rendered = false;
  std::string word;
  while (spec >> word) {
    if (word[0] == '#') {
      std::getline(spec, line);
    } else if (word == "kernels") {
      std::getline(spec, line);
      std::istringstream names(line);
      std::vector<std::string> want, got;
      for (std::string n; names >> n;) want.push_back(n);
      for (auto& k : kernels) got.push_back(k->name());
      EXPECT_EQ(got, want);
    } else if (word == "signature") {
      std::getline(spec, line);
      line.erase(0, line.find_first_not_of(' '));
      ASSERT_LT(signatureIndex, kernels.size());
      EXPECT_EQ(kernels[signatureIndex++]->signature(), line);
    } else if (word == "kernel") {
      std::string name;
      spec >> name;
      auto it = std::find_if(kernels.begin(), kernels.end(), [&](auto& k) { return k->name() == name; });
      ASSERT_NE(it, kernels.end()) << "no kernel " << name;
      kernel = *it;
    } else if (word == "sampler" || word == "sample") {
      Image img;
      spec >> img.x >> img.y >> img.w >> img.h;
      std::getline(spec, line);
      img.clamp = line.find("clamp") != std::string::npos;
      img.nearest = line.find("nearest") != std::string::npos;
      img.exact = word == "sample";
      img.pixels = readPixels(spec, img.w, img.h);
      images.push_back(std::move(img));
    } else if (word == "float" || word == "vec2" || word == "vec3" || word == "vec4" || word == "color") {
      int n = word == "float" ? 1 : word == "vec2" ? 2 : word == "vec3" ? 3 : 4;
      std::vector<float> v(static_cast<std::size_t>(n), 0.0f);
      for (auto& f : v) spec >> f;
      if (word == "color") {
        auto c = workingColor(CIColor(v[0], v[1], v[2], v[3]), false);
        v.assign(c.begin(), c.end());
      }
      floats.insert(floats.end(), v.begin(), v.end());
    } else if (word == "render") {
      spec >> rx >> ry >> rw >> rh;
    } else if (word == "expect") {
      expected = readPixels(spec, rw, rh);
      rendered = true;
    } else if (word == "tolerance") {
      spec >> tolerance;
    } else {
      FAIL() << "unknown directive '" << word << "'";
    }
  }
  if (!rendered) return;
  const cikl::Program& program = *kernel->program();
  ASSERT_EQ(int(images.size()), program.inputCount) << "image arguments";
  ASSERT_EQ(int(floats.size()), program.floatCount) << "value arguments";
  std::vector<cikl::SamplerInput> inputs;
  for (auto& img : images) {
    cikl::SamplerInput in;
    in.tile = ConstPixelTile{img.pixels.data(), PixelRect{img.x, img.y, img.w, img.h}, std::ptrdiff_t(img.w * 4)};
    in.extent = CGRectMake(double(img.x), double(img.y), double(img.w), double(img.h));
    in.clamp = img.clamp;
    in.nearest = img.nearest || img.exact;
    inputs.push_back(in);
  }
  std::vector<float> out(std::size_t(rw * rh * 4), 0.0f);
  PixelTile tile{out.data(), PixelRect{rx, ry, rw, rh}, std::ptrdiff_t(rw * 4)};
  cikl::evaluate(program, tile, inputs, floats);
  for (std::size_t i = 0; i < out.size(); ++i) {
    const std::int64_t p = std::int64_t(i / 4);
    const float tol = tolerance * std::max(1.0f, std::fabs(expected[i]));
    const bool same = std::fabs(out[i] - expected[i]) <= tol || (std::isnan(out[i]) && std::isnan(expected[i]));
    EXPECT_TRUE(same) << "pixel (" << rx + p % rw << ", " << ry + p / rw << ") channel " << i % 4 << ": got "
                      << out[i] << ", expected " << expected[i];
  }
}

TEST_P(ErrorKernel, ReportsTheDiagnostic) {
  fs::path dir = fs::path(QV_SOURCE_DIR) / "tests" / "kernels" / "errors";
  const std::string text = readFile(dir / (GetParam() + ".cikernel"));
  std::string want = readFile(dir / (GetParam() + ".expected"));
  while (!want.empty() && (want.back() == '\n' || want.back() == '\r')) want.pop_back();
  int line = 0, column = 0;
  char rest[512] = {0};
  ASSERT_GE(std::sscanf(want.c_str(), "%d:%d: %511[^\n]", &line, &column, rest), 3) << "bad expectation: " << want;
  std::vector<KernelDiagnostic> diags;
  auto kernels = CIKernel::kernelsWithString(text, &diags);
  EXPECT_TRUE(kernels.empty());
  ASSERT_EQ(diags.size(), 1u);
  EXPECT_EQ(diags[0].line, line) << diags[0].description();
  EXPECT_EQ(diags[0].column, column) << diags[0].description();
  EXPECT_NE(diags[0].message.find(rest), std::string::npos) << diags[0].description();
}

std::string testName(const testing::TestParamInfo<std::string>& info) {
  std::string s = info.param;
  for (char& c : s)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return s;
}

INSTANTIATE_TEST_SUITE_P(Files, OkKernel, testing::ValuesIn(filesIn("ok")), testName);
INSTANTIATE_TEST_SUITE_P(Files, ErrorKernel, testing::ValuesIn(filesIn("errors")), testName);

}  // namespace
