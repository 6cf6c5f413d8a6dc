// The studio's request reading (bodies, path numbers, query parameters, control places) and the
// session's refusal of typed values for image inputs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "CoreImage/CIFilter.h"
#include "ServeStudio.h"
#include "StudioRequests.h"

namespace fs = std::filesystem;
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

std::string readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

// A session in a folder of its own, removed afterwards.
class StudioSession : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("qv-studio-test-" + std::to_string(getpid()));
    fs::create_directories(dir_);
    session_ = std::make_unique<Session>("test", dir_ / "session");
    fs::create_directories(dir_ / "session");
  }
  void TearDown() override {
    session_.reset();
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  fs::path dir_;
  std::unique_ptr<Session> session_;
};

TEST_F(StudioSession, ImageInputsTakeUploadsNotTypedFileNames) {
  const fs::path photo = fs::path(QV_SOURCE_DIR) / "tests/data/photo.png";
  session_->addStep("CISourceOverCompositing");
  const json view = session_->view(1)["view"];
  ASSERT_TRUE(view.contains("inputs"));
  const json before = session_->state();
  // By key and by the image well's place, a file named by the request is refused.
  const StudioError byKey =
      refusal([&] { session_->edit(1, {{"key", "inputBackgroundImage"}, {"value", photo.string()}}); });
  EXPECT_EQ(byKey.status, 400);
  EXPECT_EQ(byKey.message, "inputBackgroundImage: an image input takes an uploaded image file, not a typed value");
  std::vector<std::size_t> well;
  const json& rows = view["view"]["subviews"][0]["subviews"];
  for (std::size_t i = 0; i < rows.size(); ++i)
    if (rows[i]["kind"] == "imageWell" && rows[i]["bindings"]["value"]["key"] == "inputBackgroundImage") well = {0, i};
  ASSERT_EQ(well.size(), 2u);
  const StudioError byPlace =
      refusal([&] { session_->edit(1, {{"control", well}, {"value", photo.string()}}); });
  EXPECT_EQ(byPlace.status, 400);
  EXPECT_EQ(session_->view(1)["view"]["inputs"]["inputBackgroundImage"], nullptr);
  // Refused edits change nothing and leave no undo step.
  EXPECT_EQ(session_->state()["revision"], before["revision"]);

  // The upload of the same file sets the input, from a copy in the session's folder.
  const json after = session_->setImageInput(1, well, "back.png", readBytes(photo));
  EXPECT_TRUE(after["view"]["inputs"]["inputBackgroundImage"].is_object());
  EXPECT_TRUE(fs::exists(dir_ / "session" / "back.png"));
}

TEST_F(StudioSession, OtherInputsStillTakeTypedValues) {
  session_->addStep("CIGaussianBlur");
  const json after = session_->edit(1, {{"key", "inputRadius"}, {"value", "4.5"}});
  EXPECT_EQ(after["view"]["inputs"]["inputRadius"], 4.5);
}
