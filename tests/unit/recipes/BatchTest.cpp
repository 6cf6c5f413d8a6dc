// Batches: planning files and output names, running one file through a recipe's chain, and
// the report's summary.
#include <gtest/gtest.h>

#include <filesystem>

#include "Batch.h"
#include "ImageIO/ImageIO.h"
#include "TestFiles.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

std::vector<std::string> inputsOf(const std::vector<qv::BatchEntry>& entries) {
  std::vector<std::string> out;
  for (const auto& e : entries) out.push_back(fs::path(e.input).filename().string());
  return out;
}

TEST(Batch, PlansDirectoriesGlobsAndFilesOnce) {
  const auto dir = qvtest::scratchDirectory("batch-plan");
  for (const char* name : {"b.png", "a.JPG", "c.webp", "notes.txt"}) qvtest::writeText((dir / name).string(), "x");
  fs::create_directories(dir / "sub");
  qvtest::writeText((dir / "sub" / "d.png").string(), "x");
  const auto entries = qv::planBatch({dir.string(), (dir / "*.png").string(), (dir / "sub" / "d.png").string()},
                                     "out", "");
  EXPECT_EQ(inputsOf(entries), (std::vector<std::string>{"a.JPG", "b.png", "c.webp", "d.png"}));
  EXPECT_EQ(entries[0].output, "out/a.jpg");
  EXPECT_EQ(entries[2].output, "out/c.webp");
  for (const auto& e : entries) EXPECT_EQ(e.error, "") << e.input;
}

TEST(Batch, FormatsNamesAndClashes) {
  const auto dir = qvtest::scratchDirectory("batch-names");
  qvtest::writeText((dir / "a.png").string(), "x");
  qvtest::writeText((dir / "a.jpeg").string(), "x");
  const auto entries = qv::planBatch({(dir / "a.png").string(), (dir / "a.jpeg").string(),
                                      (dir / "none.png").string(), (dir / "*.gif").string()},
                                     "out", "WEBP");
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].output, "out/a.webp");
  EXPECT_EQ(entries[0].error, "");
  EXPECT_NE(entries[1].error.find("already the output of"), std::string::npos) << entries[1].error;
  EXPECT_NE(entries[2].error.find("no such file"), std::string::npos) << entries[2].error;
  EXPECT_NE(entries[3].error.find("no file matches"), std::string::npos) << entries[3].error;
  EXPECT_THROW(qv::planBatch({}, "out", "gif"), qv::RecipeError);
}

TEST(Batch, RecipesMustLeaveTheFirstInputToTheFiles) {
  EXPECT_THROW(qv::BatchRecipe(json::parse(R"({"output": {}})"), "."), qv::RecipeError);
  EXPECT_THROW(qv::BatchRecipe(json::parse(R"({"chain": [{"filter": "CICrop", "inputs": {"inputImage": "@x"}}]})"), "."),
               qv::RecipeError);
  EXPECT_THROW(qv::BatchRecipe(json::parse(R"({"chain": [{"filter": "CICrop"}], "output": {"image": "@x"}})"), "."),
               qv::RecipeError);
  EXPECT_NO_THROW(qv::BatchRecipe(json::parse(R"({"chain": [{"filter": "CICrop"}]})"), "."));
}

TEST(Batch, RunsEachFileThroughTheChain) {
  const auto dir = qvtest::scratchDirectory("batch-run");
  qvtest::writeSolidPNG((dir / "red.png").string(), 6, 4, {255, 0, 0, 255});
  qvtest::writeText((dir / "bad.png").string(), "not a picture");
  const qv::BatchRecipe recipe(json::parse(R"({"chain": [
      {"filter": "CIColorMatrix", "inputs": {"inputRVector": {"vector": [0, 0, 0, 0]}, "inputBVector": {"vector": [1, 0, 0, 0]}}},
      {"filter": "CICrop", "inputs": {"inputRectangle": {"vector": [0, 0, 3, 4]}}}]})"),
                               dir.string());
  const auto entries = qv::planBatch({(dir / "red.png").string(), (dir / "bad.png").string()},
                                     (dir / "out").string(), "png");
  const json ok = recipe.run(entries[0], {});
  EXPECT_EQ(ok["status"], "written") << ok.dump();
  auto source = CGImageSourceCreateWithURL(entries[0].output);
  ASSERT_TRUE(source);
  const CGImageRef image = CGImageSourceCreateImageAtIndex(source, 0);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->width, 3u);  // the crop ran on the file
  EXPECT_EQ(image->row(0)[0], 0);
  EXPECT_EQ(image->row(0)[2], 255);  // red moved to blue by the matrix

  const json bad = recipe.run(entries[1], {});
  EXPECT_EQ(bad["status"], "failed");
  EXPECT_NE(bad["error"].get<std::string>().find("bad.png"), std::string::npos);
  EXPECT_FALSE(fs::exists(entries[1].output));

  qv::BatchFileOptions skip;
  skip.skipExisting = true;
  EXPECT_EQ(recipe.run(entries[0], skip)["status"], "skipped");

  const json report = qv::batchReport("r.json", "out", {ok, bad, qv::batchNotRunResult(entries[0])}, 1.5, true);
  EXPECT_EQ(report["summary"], (json{{"files", 3}, {"written", 1}, {"skipped", 0}, {"failed", 1}, {"notRun", 1},
                                     {"seconds", 1.5}}));
  EXPECT_EQ(report["interrupted"], true);
  EXPECT_EQ(report["files"].size(), 3u);
}

}  // namespace
