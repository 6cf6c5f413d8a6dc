#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Foundation/KeyPath.h"

TEST(KeyPath, JoinsComponentsWithDots) {
  EXPECT_EQ(stringWithKeyPathComponents({"com.example.filters.imageunits", "texture-store", "queue"}),
            "com.example.filters.imageunits.texture-store.queue");
  EXPECT_EQ(stringWithKeyPathComponents({"representedObject", "inputTextureName"}),
            "representedObject.inputTextureName");
}

TEST(KeyPath, OneComponentIsItself) { EXPECT_EQ(stringWithKeyPathComponents({"inputImage"}), "inputImage"); }

TEST(KeyPath, NoComponentsIsEmpty) {
  EXPECT_EQ(stringWithKeyPathComponents(std::vector<std::string>{}), "");
  EXPECT_EQ(stringWithKeyPathComponents(std::initializer_list<std::string>{}), "");
}

TEST(KeyPath, VectorOverloadMatches) {
  const std::vector<std::string> parts{"a", "b", "c"};
  EXPECT_EQ(stringWithKeyPathComponents(parts), "a.b.c");
  EXPECT_EQ(stringWithKeyPathComponents(parts), stringWithKeyPathComponents({"a", "b", "c"}));
}
