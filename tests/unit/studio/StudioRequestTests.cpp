// The studio's request reading: bodies, path numbers, query parameters, control places.
#include <gtest/gtest.h>

#include <string>

#include "StudioRequests.h"

using json = nlohmann::json;
using namespace qv::studio;

namespace {

// The status and reason of the StudioError that `f` throws; {0, ""} when it throws none.
template <typename F>
StudioError refusal(F f) {
  try {
    f();
  } catch (const StudioError& e) {
    return e;
  }
  return {0, ""};
}

}  // namespace

TEST(StudioRequests, JSONBodiesMustBeSmallShallowObjects) {
  EXPECT_EQ(readJSONBody(R"({"filter": "CIGaussianBlur"})").at("filter"), "CIGaussianBlur");
  EXPECT_EQ(refusal([] { readJSONBody(R"({"filter":)"); }).message, "the body is not valid JSON");
  EXPECT_EQ(refusal([] { readJSONBody(""); }).message, "the body is not valid JSON");
  EXPECT_EQ(refusal([] { readJSONBody("[1, 2, 3]"); }).message, "the body must be a JSON object");
  const StudioError deep = refusal([] { readJSONBody(std::string(200000, '[')); });
  EXPECT_EQ(deep.status, 400);
  EXPECT_EQ(deep.message, "the JSON body is nested too deeply");
  // Brackets inside strings do not count as nesting.
  EXPECT_EQ(readJSONBody(R"({"value": ")" + std::string(100, '[') + R"("})").at("value").get<std::string>().size(), 100u);
  std::string nested;
  for (int i = 0; i < kMaxJSONNesting - 1; ++i) nested += "{\"a\":";
  nested += "{}" + std::string(kMaxJSONNesting - 1, '}');
  EXPECT_TRUE(readJSONBody(nested).is_object());
  EXPECT_EQ(refusal([] { readJSONBody(std::string(kMaxJSONBody + 1, ' ')); }).status, 413);
}

TEST(StudioRequests, WholeNumbersAndQueryNumbers) {
  EXPECT_EQ(readWholeNumber("0", 10, "the step"), 0);
  EXPECT_EQ(readWholeNumber("999999999999", 1ll << 40, "the export"), 999999999999);
  EXPECT_EQ(refusal([] { readWholeNumber("", 10, "the step"); }).message, "the step must be a whole number");
  EXPECT_EQ(refusal([] { readWholeNumber("-1", 10, "the step"); }).message, "the step must be a whole number");
  EXPECT_EQ(refusal([] { readWholeNumber("1e3", 10000, "the step"); }).message, "the step must be a whole number");
  EXPECT_EQ(refusal([] { readWholeNumber("1234567890123", 1ll << 50, "the step"); }).message,
            "the step must be a whole number");
  EXPECT_EQ(refusal([] { readWholeNumber("11", 10, "the step"); }).message, "the step is too large");

  EXPECT_EQ(readQueryNumber(std::nullopt, "size", 96), 96);
  EXPECT_EQ(readQueryNumber(std::string("512"), "size", 96), 512);
  EXPECT_EQ(readQueryNumber(std::string("0.25"), "quality", 0.9), 0.25);
  for (const char* bad : {"", "12px", "inf", "nan", "1e999"})
    EXPECT_EQ(refusal([&] { readQueryNumber(std::string(bad), "size", 96); }).message, "size must be a number") << bad;
}

TEST(StudioRequests, ControlPlacesFromQueriesAndBodies) {
  EXPECT_TRUE(readControlPath(std::string()).empty());
  EXPECT_EQ(readControlPath(std::string("0.1.2")), (std::vector<std::size_t>{0, 1, 2}));
  EXPECT_EQ(readControlPath(std::string("100000")), (std::vector<std::size_t>{100000}));
  for (const char* bad : {"0..1", "1.", ".1", "a", "-1", "100001"})
    EXPECT_EQ(refusal([&] { readControlPath(std::string(bad)); }).status, 400) << bad;
  std::string deep = "0";
  for (std::size_t i = 0; i < kMaxControlDepth; ++i) deep += ".0";
  EXPECT_EQ(refusal([&] { readControlPath(deep); }).message, "control is too deep");

  EXPECT_EQ(readControlPath(json::array({0, 3})), (std::vector<std::size_t>{0, 3}));
  for (const json& bad : {json(3), json::array({-1}), json::array({1.5}), json::array({"1"}), json::array({100001}),
                          json(std::vector<int>(kMaxControlDepth + 1, 0))})
    EXPECT_EQ(refusal([&] { readControlPath(bad); }).message, "\"control\" must be an array of subview indices")
        << bad.dump();
}

TEST(StudioRequests, StepBodies) {
  EXPECT_EQ(readStepFilter({{"filter", "CIGaussianBlur"}}), "CIGaussianBlur");
  EXPECT_EQ(refusal([] { readStepFilter({{"filter", 12}}); }).message, "a step needs a \"filter\" name string");
  EXPECT_EQ(refusal([] { readStepFilter(json::object()); }).status, 400);
  // Read from a body's text, a whole number that is not negative is an unsigned JSON number.
  EXPECT_EQ(readStepPosition(json::parse(R"({"position": 2})")), 2u);
  EXPECT_EQ(refusal([] { readStepPosition(json::parse(R"({"position": 2.0})")); }).status, 400);
  EXPECT_EQ(refusal([] { readStepPosition({{"position", -1}}); }).message, "\"position\" must be a whole number");
  EXPECT_FALSE(readStepEnabled({{"enabled", false}}));
  EXPECT_EQ(refusal([] { readStepEnabled({{"enabled", 0}}); }).message, "\"enabled\" must be true or false");
}

TEST(StudioRequests, RecipeQueriesAndExportBodies) {
  EXPECT_EQ(readRecipeQuery(std::nullopt, std::nullopt).outputFile, "result.png");
  EXPECT_EQ(readRecipeQuery(std::nullopt, std::nullopt).quality, 0.9);
  EXPECT_EQ(readRecipeQuery(std::string("jpeg"), std::string("0.5")).outputFile, "result.jpg");
  EXPECT_EQ(readRecipeQuery(std::string("webp"), std::string("1")).quality, 1);
  EXPECT_EQ(refusal([] { readRecipeQuery(std::string("tiff"), std::nullopt); }).message,
            "unknown format \"tiff\" (jpeg, png or webp)");
  EXPECT_EQ(refusal([] { readRecipeQuery(std::nullopt, std::string("1.5")); }).message, "quality must lie in 0...1");

  const ExportRequest defaults = readExportRequest(json::object());
  EXPECT_EQ(defaults.format, "png");
  EXPECT_EQ(defaults.quality, 0.9);
  EXPECT_EQ(readExportRequest({{"format", "webp"}, {"quality", 0.7}}).format, "webp");
  // A format that is not a string reaches the session as no format, which it refuses by name.
  EXPECT_EQ(readExportRequest({{"format", 3}}).format, "");
  EXPECT_EQ(refusal([] { readExportRequest({{"quality", "high"}}); }).message, "\"quality\" must be a number");
}
