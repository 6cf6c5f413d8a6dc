// Filter descriptions for `qvfilter info NAME`.
#include <gtest/gtest.h>

#include <stdexcept>

#include "CoreImage/CIFilter.h"
#include "FilterInfo.h"

namespace {

using json = nlohmann::json;

TEST(FilterInfo, KnowsRegisteredNames) {
  EXPECT_TRUE(qv::isRegisteredFilter("CICrop"));
  EXPECT_FALSE(qv::isRegisteredFilter("CINoSuchFilter"));
  EXPECT_FALSE(qv::isRegisteredFilter("photo.jpg"));
}

TEST(FilterInfo, JSONHasKeysAndAttributes) {
  const json info = qv::filterInfoJSON("CICrop");
  EXPECT_EQ(info["name"], json("CICrop"));
  ASSERT_TRUE(info["inputKeys"].is_array());
  EXPECT_EQ(info["inputKeys"][0], json("inputImage"));
  EXPECT_EQ(info["outputKeys"], (json{"outputImage"}));
  const json& attrs = info["attributes"];
  EXPECT_EQ(attrs["CIAttributeFilterName"], json("CICrop"));
  ASSERT_TRUE(attrs["CIAttributeFilterCategories"].is_array());
  const json& rect = attrs["inputRectangle"];
  EXPECT_EQ(rect["CIAttributeClass"], json("CIVector"));
  ASSERT_TRUE(rect["CIAttributeDefault"].contains("vector"));
  EXPECT_EQ(rect["CIAttributeDefault"]["vector"].size(), 4u);
  // Every input key has an attribute dictionary.
  for (const auto& key : info["inputKeys"]) EXPECT_TRUE(attrs.contains(key.get<std::string>())) << key;
}

TEST(FilterInfo, ColourDefaultsAreColours) {
  const json info = qv::filterInfoJSON("CIConstantColorGenerator");
  const json& color = info["attributes"]["inputColor"];
  EXPECT_EQ(color["CIAttributeClass"], json("CIColor"));
  ASSERT_TRUE(color["CIAttributeDefault"].contains("color"));
  EXPECT_EQ(color["CIAttributeDefault"]["color"].size(), 4u);
}

TEST(FilterInfo, TextListsKeysAndAttributes) {
  const std::string text = qv::filterInfoText("CICrop");
  EXPECT_EQ(text.rfind("CICrop", 0), 0u);
  EXPECT_NE(text.find("input keys: inputImage, inputRectangle"), std::string::npos) << text;
  EXPECT_NE(text.find("output keys: outputImage"), std::string::npos) << text;
  EXPECT_NE(text.find("  inputRectangle:\n"), std::string::npos) << text;
  EXPECT_NE(text.find("CIAttributeClass: CIVector"), std::string::npos) << text;
}

TEST(FilterInfo, UnknownNameThrows) {
  EXPECT_THROW(qv::filterInfoJSON("CINoSuchFilter"), std::invalid_argument);
  EXPECT_THROW(qv::filterInfoText("CINoSuchFilter"), std::invalid_argument);
}

}  // namespace
