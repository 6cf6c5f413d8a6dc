// The recipe reader and runner: parsing, graph building, outputs, probes, and every error a
// recipe can raise.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>

#include "CoreImage/ColorSpace.h"
#include "Recipe.h"
#include "TestFiles.h"

namespace {

using json = nlohmann::json;

std::string recipeError(const std::string& text, const std::string& baseDir = "", qv::RecipeOptions options = {}) {
  try {
    qv::runRecipe(text, baseDir, options);
  } catch (const qv::RecipeError& e) {
    return e.what();
  }
  return "(no error)";
}

json run(const std::string& text, const std::string& baseDir = "", qv::RecipeOptions options = {}) {
  return qv::runRecipe(text, baseDir, options);
}

#define EXPECT_CONTAINS(haystack, needle)                                          \
  do {                                                                             \
    const std::string h_ = (haystack);                                             \
    EXPECT_NE(h_.find(needle), std::string::npos) << "\"" << h_ << "\" lacks \"" << (needle) << "\""; \
  } while (0)

TEST(RecipeParsing, MalformedJSONGivesLineAndColumn) {
  const std::string e = recipeError("{\n  \"chain\": [,]\n}");
  EXPECT_CONTAINS(e, "malformed recipe JSON at line 2, column 13");
  EXPECT_CONTAINS(recipeError(""), "malformed recipe JSON at line 1, column 1");
  EXPECT_CONTAINS(recipeError("{\"chain\": [}"), "line 1, column 12");
}

TEST(RecipeParsing, NestingTooDeep) {
  std::string deep = "{\"chain\": ";
  for (int i = 0; i < 100; ++i) deep += "[";
  for (int i = 0; i < 100; ++i) deep += "]";
  deep += "}";
  EXPECT_CONTAINS(recipeError(deep), "nesting too deep");
  // Brackets inside strings do not count.
  std::string inString = "{\"description\": \"" + std::string(200, '[') + "\", \"images\": {\"c\": {\"color\": [1,0,0,1]}}, "
                         "\"output\": {\"image\": \"@c\"}}";
  EXPECT_EQ(run(inString)["extent"], json("infinite"));
}

TEST(RecipeParsing, TooLarge) {
  std::string big = "{\"description\": \"" + std::string(qv::kMaxRecipeBytes, 'x') + "\"}";
  EXPECT_CONTAINS(recipeError(big), "larger than 16 MB");
}

TEST(RecipeParsing, NotAnObject) {
  EXPECT_CONTAINS(recipeError("[1, 2]"), "must be a JSON object");
  EXPECT_CONTAINS(recipeError("42"), "must be a JSON object");
}

TEST(RecipeFiles, ReadsFilesAndRefusesLargeOnes) {
  const auto dir = qvtest::scratchDirectory("RecipeFiles");
  const std::string path = (dir / "r.json").string();
  qvtest::writeText(path, "{}");
  EXPECT_EQ(qv::readRecipeText(path), "{}");
  EXPECT_EQ(qv::recipeBaseDirectory(path), dir.string());
  EXPECT_EQ(qv::recipeBaseDirectory("r.json"), ".");
  EXPECT_EQ(qv::recipeBaseDirectory("-"), "");
  try {
    qv::readRecipeText((dir / "missing.json").string());
    ADD_FAILURE() << "no error for a missing recipe";
  } catch (const qv::RecipeError& e) {
    EXPECT_CONTAINS(e.what(), "no such file");
  }
  const std::string big = (dir / "big.json").string();
  {
    std::ofstream out(big, std::ios::binary);
    out << std::string(qv::kMaxRecipeBytes + 1, ' ');
  }
  try {
    qv::readRecipeText(big);
    ADD_FAILURE() << "no error for a recipe over the limit";
  } catch (const qv::RecipeError& e) {
    EXPECT_CONTAINS(e.what(), "larger than 16 MB");
  }
}

TEST(RecipeBuild, ColourImagesWithExtent) {
  json r = run(R"({"images": {"red": {"color": [1, 0, 0, 1], "extent": [0, 0, 10, 5]}},
                   "output": {"image": "@red"}})");
  EXPECT_EQ(r["extent"], (json{0, 0, 10, 5}));
  EXPECT_FALSE(r.contains("probes"));
  EXPECT_FALSE(r.contains("file"));
  json s = run(R"({"images": {"red": {"color": "1 0 0 1"}}, "output": {"image": "@red"}})");
  EXPECT_EQ(s["extent"], json("infinite"));
}

TEST(RecipeBuild, ChainStepsTakeThePreviousOutput) {
  json r = run(R"({"chain": [
      {"filter": "CIConstantColorGenerator", "inputs": {"inputColor": {"color": [0, 0, 1, 1]}}},
      {"filter": "CICrop", "inputs": {"inputRectangle": {"vector": [0, 0, 20, 10]}}},
      {"filter": "CIAffineTransform", "inputs": {"inputTransform": {"transform": [1, 0, 0, 1, 5, 7]}}}]})");
  EXPECT_EQ(r["extent"], (json{5, 7, 20, 10}));
}

TEST(RecipeBuild, GivenInputImageOverridesThePreviousOutput) {
  json r = run(R"({"images": {"small": {"color": [1, 1, 1, 1], "extent": [0, 0, 3, 3]}},
      "chain": [
        {"filter": "CIConstantColorGenerator"},
        {"filter": "CIAffineTransform", "inputs": {"inputImage": "@small",
                                                   "inputTransform": {"transform": [2, 0, 0, 2, 0, 0]}}}]})");
  EXPECT_EQ(r["extent"], (json{0, 0, 6, 6}));
}

TEST(RecipeBuild, GeneratedImagesAndReferencesBetweenImages) {
  json r = run(R"({"images": {
        "base": {"filter": "CIConstantColorGenerator", "inputs": {"inputColor": "0 1 0 1"}, "extent": [0, 0, 8, 8]},
        "moved": {"filter": "CIAffineTransform", "inputs": {"inputImage": "@base",
                  "inputTransform": {"transform": [1, 0, 0, 1, 100, 0]}}}},
      "output": {"image": "@moved"}})");
  EXPECT_EQ(r["extent"], (json{100, 0, 8, 8}));
}

TEST(RecipeBuild, FileImagesRelativeToTheRecipeWithTransform) {
  const auto dir = qvtest::scratchDirectory("RecipeBuild.Files");
  std::filesystem::create_directories(dir / "in");
  qvtest::writeSolidPNG((dir / "in" / "p.png").string(), 6, 4, {0, 255, 0, 255});
  json r = run(R"({"images": {"p": {"file": "in/p.png", "transform": [1, 0, 0, 1, 10, 20]}},
                   "output": {"image": "@p"}})",
               dir.string());
  EXPECT_EQ(r["extent"], (json{10, 20, 6, 4}));
}

TEST(RecipeBuild, NilOutputHasNullExtent) {
  // A crop without an input image yields no image.
  json r = run(R"({"chain": [{"filter": "CICrop"}]})");
  EXPECT_TRUE(r["extent"].is_null());
}

TEST(RecipeErrors, UnknownFilterKeyAndClass) {
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CINoSuchThing"}]})"), "unknown filter \"CINoSuchThing\"");
  const std::string key = recipeError(R"({"chain": [{"filter": "CICrop", "inputs": {"inputRadius": 3}}]})");
  EXPECT_CONTAINS(key, "unknown key \"inputRadius\"");
  EXPECT_CONTAINS(key, "CICrop");
  EXPECT_CONTAINS(key, "inputRectangle");
  const std::string cls = recipeError(R"({"chain": [{"filter": "CICrop", "inputs": {"inputRectangle": 3}}]})");
  EXPECT_CONTAINS(cls, "does not fit its class CIVector");
  EXPECT_CONTAINS(cls, "chain step 1 (CICrop)");
}

TEST(RecipeErrors, ImageReferences) {
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop", "inputs": {"inputImage": "@ghost"}}]})"),
                  "unknown image \"@ghost\"");
  EXPECT_CONTAINS(recipeError(R"({"images": {"a": {"filter": "CICrop", "inputs": {"inputImage": "@b"}},
                                             "b": {"filter": "CICrop", "inputs": {"inputImage": "@a"}}},
                                  "output": {"image": "@a"}})"),
                  "refers to itself");
  EXPECT_CONTAINS(recipeError(R"({"images": {}, "output": {"image": "@none"}})"), "unknown image \"@none\"");
  EXPECT_CONTAINS(recipeError(R"({"output": {"image": "none"}})"), "\"@name\"");
}

TEST(RecipeErrors, ImageFiles) {
  const auto dir = qvtest::scratchDirectory("RecipeErrors.ImageFiles");
  qvtest::writeText((dir / "bad.png").string(), "this is no image");
  EXPECT_CONTAINS(recipeError(R"({"images": {"p": {"file": "missing.png"}}, "output": {"image": "@p"}})", dir.string()),
                  "no such file");
  EXPECT_CONTAINS(recipeError(R"({"images": {"p": {"file": "bad.png"}}, "output": {"image": "@p"}})", dir.string()),
                  "cannot read image file");
  qv::RecipeOptions noFiles;
  noFiles.allowFiles = false;
  EXPECT_CONTAINS(recipeError(R"({"images": {"p": {"file": "x.png"}}, "output": {"image": "@p"}})", "", noFiles),
                  "not allowed");
}

TEST(RecipeErrors, ShapeOfTheRecipe) {
  EXPECT_CONTAINS(recipeError(R"({"chains": []})"), "unknown key \"chains\"");
  EXPECT_CONTAINS(recipeError(R"({"chain": {}})"), "\"chain\" must be an array");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"inputs": {}}]})"), "needs a \"filter\"");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop", "defaults": "yes"}]})"), "\"defaults\"");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop", "inputs": [1]}]})"), "\"inputs\" must be an object");
  EXPECT_CONTAINS(recipeError(R"({"images": {"c": {"color": [1, 0, 0], "file": "x.png"}}})"), "exactly one of");
  EXPECT_CONTAINS(recipeError(R"({"images": {"c": {"color": [1, 0]}}, "output": {"image": "@c"}})"), "3 or 4");
  EXPECT_CONTAINS(recipeError(R"({"images": {"c": {"color": [1, 0, 0], "extent": [0, 0, -1, 1]}}})"), "width");
  EXPECT_CONTAINS(recipeError(R"({})"), "no \"chain\" steps");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop"}], "output": {"quality": 2}})"), "0...1");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop"}], "output": {"probes": [[1]]}})"), "[x, y]");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop"}], "output": {"file": "x.tiff"}})"), "unknown image type");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop"}], "output": {"rect": [0, 0, 0, 4]}})"), "width");
  std::string many = R"({"images": {)";
  for (std::size_t i = 0; i <= qv::kMaxRecipeImages; ++i) {
    many += (i ? "," : "") + std::string("\"i") + std::to_string(i) + "\": {\"color\": [0, 0, 0]}";
  }
  many += "}}";
  EXPECT_CONTAINS(recipeError(many), "more than 256 images");
}

TEST(RecipeErrors, InfiniteOrNilOutputWithoutRect) {
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CIConstantColorGenerator"}], "output": {"probes": [[0, 0]]}})"),
                  "infinite");
  EXPECT_CONTAINS(recipeError(R"({"chain": [{"filter": "CICrop"}], "output": {"probes": [[0, 0]]}})"), "nil");
}

TEST(RecipeProbes, StoredPixelFromWorking) {
  // Half-transparent mid grey in linear light, premultiplied.
  const float lin = srgbToLinear(0.5f);
  auto p = qv::storedPixelFromWorking({lin * 0.5f, lin * 0.5f, 0.0f, 0.5f}, true);
  EXPECT_NEAR(p[0], 0.5f, 1e-5);
  EXPECT_NEAR(p[2], 0.0f, 1e-6);
  EXPECT_FLOAT_EQ(p[3], 0.5f);
  auto raw = qv::storedPixelFromWorking({0.2f, 0.1f, 0.0f, 0.5f}, false);
  EXPECT_NEAR(raw[0], 0.4f, 1e-6);
  EXPECT_NEAR(raw[1], 0.2f, 1e-6);
  auto clear = qv::storedPixelFromWorking({0, 0, 0, 0}, true);
  EXPECT_EQ(clear, (std::array<float, 4>{0, 0, 0, 0}));
  auto over = qv::storedPixelFromWorking({2.0f, -1.0f, 0.5f, 1.0f}, false);
  EXPECT_EQ(over[0], 1.0f);
  EXPECT_EQ(over[1], 0.0f);
}

TEST(RecipeProbes, ProbesReadStoredValues) {
  json r = run(R"({"images": {"c": {"color": [1, 0.5, 0.25, 0.5], "extent": [0, 0, 4, 4]}},
                   "output": {"image": "@c", "probes": [[1, 1], [10, 10]]}})");
  ASSERT_EQ(r["probes"].size(), 2u);
  EXPECT_EQ(r["probes"][0]["at"], (json{1, 1}));
  const auto rgba = r["probes"][0]["rgba"];
  EXPECT_NEAR(rgba[0].get<double>(), 1.0, 1e-4);
  EXPECT_NEAR(rgba[1].get<double>(), 0.5, 1e-4);
  EXPECT_NEAR(rgba[2].get<double>(), 0.25, 1e-4);
  EXPECT_NEAR(rgba[3].get<double>(), 0.5, 1e-4);
  // Outside the extent: transparent.
  EXPECT_EQ(r["probes"][1]["rgba"], (json{0.0, 0.0, 0.0, 0.0}));
}

TEST(RecipeProbes, ColourManagementOff) {
  json r = run(R"({"images": {"c": {"color": [0.5, 0.5, 0.5, 1]}},
                   "output": {"image": "@c", "rect": [0, 0, 2, 2], "colorManagement": false, "probes": [[0, 0]]}})");
  EXPECT_NEAR(r["probes"][0]["rgba"][0].get<double>(), 0.5, 1e-5);
  EXPECT_EQ(r["extent"], json("infinite"));
}

TEST(RecipeProbes, ChainWithTransformMovesPixels) {
  json r = run(R"({"chain": [
      {"filter": "CIConstantColorGenerator", "inputs": {"inputColor": [0, 1, 0, 1]}},
      {"filter": "CICrop", "inputs": {"inputRectangle": [0, 0, 2, 2]}},
      {"filter": "CIAffineTransform", "inputs": {"inputTransform": [1, 0, 0, 1, 10, 0]}}],
    "output": {"probes": [[0, 0], [11, 1]]}})");
  EXPECT_EQ(r["extent"], (json{10, 0, 2, 2}));
  EXPECT_EQ(r["probes"][0]["rgba"][3].get<double>(), 0.0);
  EXPECT_NEAR(r["probes"][1]["rgba"][1].get<double>(), 1.0, 1e-5);
  EXPECT_NEAR(r["probes"][1]["rgba"][3].get<double>(), 1.0, 1e-6);
}

TEST(RecipeOutput, WritesTheFileRelativeToTheRecipe) {
  const auto dir = qvtest::scratchDirectory("RecipeOutput");
  json r = run(R"({"images": {"c": {"color": [0, 0, 1, 1], "extent": [0, 0, 5, 3]}},
                   "output": {"image": "@c", "file": "out.png"}})",
               dir.string());
  EXPECT_EQ(r["file"], json((dir / "out.png").string()));
  ASSERT_TRUE(std::filesystem::exists(dir / "out.png"));
  auto src = CGImageSourceCreateWithURL((dir / "out.png").string());
  ASSERT_TRUE(src);
  auto img = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(img);
  EXPECT_EQ(img->width, 5u);
  EXPECT_EQ(img->height, 3u);
  EXPECT_EQ(img->pixels[2], 255);
  EXPECT_EQ(img->pixels[0], 0);
  // The override path replaces the recipe's own.
  qv::RecipeOptions options;
  options.outputFileOverride = (dir / "other.png").string();
  json o = run(R"({"images": {"c": {"color": [0, 0, 1, 1], "extent": [0, 0, 5, 3]}},
                   "output": {"image": "@c", "file": "out2.png"}})",
               dir.string(), options);
  EXPECT_EQ(o["file"], json((dir / "other.png").string()));
  EXPECT_TRUE(std::filesystem::exists(dir / "other.png"));
  EXPECT_FALSE(std::filesystem::exists(dir / "out2.png"));
}

TEST(RecipeOutput, InfiniteFileWithoutRectAndTooLarge) {
  const auto dir = qvtest::scratchDirectory("RecipeOutput.Infinite");
  EXPECT_CONTAINS(recipeError(R"({"images": {"c": {"color": [0, 0, 1, 1]}}, "output": {"image": "@c", "file": "o.png"}})",
                              dir.string()),
                  "\"rect\"");
  qv::RecipeOptions small;
  small.maxOutputPixels = 100;
  EXPECT_CONTAINS(recipeError(R"({"images": {"c": {"color": [0, 0, 1, 1]}},
                                  "output": {"image": "@c", "file": "o.png", "rect": [0, 0, 20, 20]}})",
                              dir.string(), small),
                  "limit");
  EXPECT_FALSE(std::filesystem::exists(dir / "o.png"));
}

TEST(RecipeBuild, DefaultsFalseSkipsSetDefaults) {
  // CIGaussianBlur's default radius spreads the image; without setDefaults the radius is nil,
  // reads as 0, and the image keeps its extent.
  const std::string images = R"("images": {"c": {"color": [1, 1, 1, 1], "extent": [0, 0, 4, 4]}})";
  json with = run("{" + images + R"(, "chain": [{"filter": "CIGaussianBlur", "inputs": {"inputImage": "@c"}}]})");
  json without = run("{" + images +
                     R"(, "chain": [{"filter": "CIGaussianBlur", "defaults": false, "inputs": {"inputImage": "@c"}}]})");
  EXPECT_EQ(without["extent"], (json{0, 0, 4, 4}));
  ASSERT_TRUE(with["extent"].is_array());
  EXPECT_LT(with["extent"][0].get<double>(), 0.0);
  EXPECT_GT(with["extent"][2].get<double>(), 4.0);
}

}  // namespace
