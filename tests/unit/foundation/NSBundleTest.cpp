// Bundles: opening, lookup by identifier, resource lookup that never leaves Resources/, and
// localized strings.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "TempDir.h"
#include "ValuePrinter.h"

namespace fs = std::filesystem;

namespace {

int gBundleCounter = 0;

// A bundle in the flat layout, with a unique identifier, a few resources and strings.
struct BundleFixture {
  TempDir dir;
  std::string root;
  std::string identifier;

  BundleFixture() {
    root = dir / "Test.plugin";
    identifier = "com.example.test" + std::to_string(++gBundleCounter) + ".filters.imageunits";
    const Value info = Dictionary{{"CFBundleIdentifier", identifier},
                                  {"CFBundleExecutable", "TestUnits"},
                                  {"NSPrincipalClass", "QVFilterImageUnitsPlugin"},
                                  {"CFBundleVersion", "1.0"}};
    fs::create_directories(root + "/Resources");
    EXPECT_TRUE(writePropertyList(info, root + "/Info.plist"));
    dir.write("Test.plugin/Resources/TextureIndex.plist", "( a )");
    dir.write("Test.plugin/Resources/NoOp.cikernel", "kernel vec4 noOp(sampler s) { return sample(s, samplerCoord(s)); }");
    dir.write("Test.plugin/Resources/Textures/stone.jpg", "jpeg");
    dir.write("Test.plugin/Resources/Textures/rough stone.png", "png");
    dir.write("Test.plugin/Resources/Textures/Nested/deep.png", "png");
    dir.write("Test.plugin/Resources/en.lproj/Localizable.strings",
              "/* menus */\n\"None\" = \"No texture\";\n\"%@ (Random)\" = \"%@ (any)\";\n");
    const std::optional<std::string> menus = dataWithPropertyList(Dictionary{{"Title", "Menu title"}});
    dir.write("Test.plugin/Resources/en.lproj/Menus.strings", menus.value_or(""));
    dir.write("secret.txt", "outside");
    fs::create_directories(dir / "outside-dir");
    dir.write("outside-dir/file.png", "outside");
  }
  std::shared_ptr<NSBundle> open() const { return NSBundle::bundleWithPath(root); }
};

}  // namespace

TEST(NSBundle, OpensADirectoryWithAnInfoPlist) {
  BundleFixture f;
  auto bundle = f.open();
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->bundleIdentifier(), f.identifier);
  EXPECT_EQ(bundle->executableName(), "TestUnits");
  EXPECT_EQ(bundle->principalClassName(), "QVFilterImageUnitsPlugin");
  EXPECT_EQ(bundle->infoDictionary()["CFBundleVersion"], Value("1.0"));
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), Value("1.0"));
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("Absent").isNil());
  EXPECT_EQ(bundle->bundlePath(), fs::canonical(f.root).string());
  EXPECT_EQ(bundle->resourcePath(), fs::canonical(f.root).string() + "/Resources");
}

TEST(NSBundle, NoBundleWithoutAReadableInfoPlist) {
  TempDir dir;
  fs::create_directories(dir / "Empty.plugin");
  EXPECT_EQ(NSBundle::bundleWithPath(dir / "Empty.plugin"), nullptr);
  dir.write("Bad.plugin/Info.plist", "<?xml version=\"1.0\"?><plist><dict>");
  EXPECT_EQ(NSBundle::bundleWithPath(dir / "Bad.plugin"), nullptr);
  dir.write("Array.plugin/Info.plist", "(not, a, dictionary)");
  EXPECT_EQ(NSBundle::bundleWithPath(dir / "Array.plugin"), nullptr);
  EXPECT_EQ(NSBundle::bundleWithPath(dir / "absent"), nullptr);
  EXPECT_EQ(NSBundle::bundleWithPath(""), nullptr);
  dir.write("file", "x");
  EXPECT_EQ(NSBundle::bundleWithPath(dir / "file"), nullptr);
}

TEST(NSBundle, SameDirectoryGivesTheSameBundle) {
  BundleFixture f;
  auto a = f.open();
  auto b = NSBundle::bundleWithPath(f.root + "/Resources/..");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a, b);
}

TEST(NSBundle, FindsLoadedBundlesByIdentifier) {
  BundleFixture f;
  EXPECT_EQ(NSBundle::bundleWithIdentifier(f.identifier), nullptr);  // not opened yet
  auto bundle = f.open();
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(NSBundle::bundleWithIdentifier(f.identifier), bundle);
  EXPECT_EQ(NSBundle::bundleWithIdentifier("com.example.nobody"), nullptr);
  EXPECT_EQ(NSBundle::bundleWithIdentifier(""), nullptr);
}

TEST(NSBundle, OpeningFromManyThreadsGivesOneBundle) {
  BundleFixture f;
  std::vector<std::shared_ptr<NSBundle>> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&, i] { seen[i] = f.open(); });
  for (auto& t : threads) t.join();
  for (const auto& b : seen) EXPECT_EQ(b, seen[0]);
  EXPECT_EQ(NSBundle::bundleWithIdentifier(f.identifier), seen[0]);
}

TEST(NSBundle, ExecutablePathBesideInfoPlistOrInLib) {
  BundleFixture f;
  auto bundle = f.open();
  EXPECT_EQ(bundle->executablePath(), "");
  f.dir.write("Test.plugin/lib/libTestUnits.so", "elf");
  EXPECT_EQ(bundle->executablePath(), bundle->bundlePath() + "/lib/libTestUnits.so");
  f.dir.write("Test.plugin/TestUnits", "elf");
  EXPECT_EQ(bundle->executablePath(), bundle->bundlePath() + "/TestUnits");
}

TEST(NSBundle, ResourceWithSeparateExtension) {
  BundleFixture f;
  auto bundle = f.open();
  auto url = bundle->URLForResource("TextureIndex", "plist");
  ASSERT_NE(url, nullptr);
  EXPECT_TRUE(url->isFileURL());
  EXPECT_EQ(url->path(), bundle->resourcePath() + "/TextureIndex.plist");
  EXPECT_EQ(url->lastPathComponent(), "TextureIndex.plist");
  ASSERT_NE(bundle->URLForResource("NoOp", "cikernel"), nullptr);
  EXPECT_EQ(bundle->URLForResource("NoOp", "cikernel")->pathExtension(), "cikernel");
}

TEST(NSBundle, ResourceByFullFileNameInASubdirectory) {
  BundleFixture f;
  auto bundle = f.open();
  auto url = bundle->URLForResource("stone.jpg", "", "Textures");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->path(), bundle->resourcePath() + "/Textures/stone.jpg");
  auto spaced = bundle->URLForResource("rough stone.png", "", "Textures");
  ASSERT_NE(spaced, nullptr);
  EXPECT_EQ(spaced->lastPathComponent(), "rough stone.png");
  EXPECT_NE(bundle->URLForResource("stone", "jpg", "Textures"), nullptr);
  EXPECT_NE(bundle->URLForResource("Nested/deep.png", "", "Textures"), nullptr);
  EXPECT_NE(bundle->URLForResource("deep.png", "", "Textures/Nested"), nullptr);
  EXPECT_EQ(bundle->pathForResource("stone.jpg", "", "Textures"), bundle->resourcePath() + "/Textures/stone.jpg");
}

TEST(NSBundle, MissingResourcesAreNil) {
  BundleFixture f;
  auto bundle = f.open();
  EXPECT_EQ(bundle->URLForResource("absent.jpg", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("stone.jpg", ""), nullptr);  // it is in Textures/, not at the top
  EXPECT_EQ(bundle->URLForResource("stone", "png", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("", ""), nullptr);
  EXPECT_EQ(bundle->URLForResource("stone.jpg", "", "NoSuchFolder"), nullptr);
  EXPECT_EQ(bundle->pathForResource("absent", "x"), "");
}

TEST(NSBundle, NamesCannotLeaveResources) {
  BundleFixture f;
  auto bundle = f.open();
  EXPECT_EQ(bundle->URLForResource("../Info.plist", ""), nullptr);
  EXPECT_EQ(bundle->URLForResource("../Info", "plist"), nullptr);
  EXPECT_EQ(bundle->URLForResource("../../secret.txt", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("../x", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("Nested/../../../secret.txt", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("Info.plist", "", ".."), nullptr);
  EXPECT_EQ(bundle->URLForResource("secret.txt", "", "../.."), nullptr);
  EXPECT_EQ(bundle->URLForResource((f.dir / "secret.txt"), ""), nullptr);
  EXPECT_EQ(bundle->URLForResource("secret.txt", "", f.dir.path().string()), nullptr);
  EXPECT_EQ(bundle->URLForResource("/etc/passwd", ""), nullptr);
  EXPECT_EQ(bundle->URLForResource("..", ""), nullptr);
  EXPECT_EQ(bundle->URLForResource(".", ""), nullptr);
  EXPECT_EQ(bundle->URLForResource("Textures/..", ""), nullptr);
}

TEST(NSBundle, SymbolicLinksMayNotLeadOutside) {
  BundleFixture f;
  auto bundle = f.open();
  const std::string textures = f.root + "/Resources/Textures";
  fs::create_symlink(f.dir / "secret.txt", textures + "/escape.jpg");
  fs::create_symlink("../../../secret.txt", textures + "/relative-escape.jpg");
  fs::create_directory_symlink(f.dir / "outside-dir", textures + "/linked-dir");
  fs::create_symlink("stone.jpg", textures + "/alias.jpg");
  fs::create_symlink("missing.jpg", textures + "/dangling.jpg");
  EXPECT_EQ(bundle->URLForResource("escape.jpg", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("relative-escape.jpg", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("file.png", "", "Textures/linked-dir"), nullptr);
  EXPECT_EQ(bundle->URLForResource("linked-dir/file.png", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("dangling.jpg", "", "Textures"), nullptr);
  // A link that stays inside Resources is followed.
  auto alias = bundle->URLForResource("alias.jpg", "", "Textures");
  ASSERT_NE(alias, nullptr);
  EXPECT_EQ(alias->lastPathComponent(), "alias.jpg");
}

TEST(NSBundle, ResourcesFolderItselfLinkedElsewhereStillWorks) {
  // The bundle's own Resources/ may be a link (an installed layout); names are checked against
  // where it really is.
  TempDir dir;
  const std::string id = "com.example.linked" + std::to_string(++gBundleCounter) + ".filters.imageunits";
  dir.write("store/Textures/stone.jpg", "jpeg");
  fs::create_directories(dir / "B.plugin");
  ASSERT_TRUE(writePropertyList(Dictionary{{"CFBundleIdentifier", id}}, dir / "B.plugin/Info.plist"));
  fs::create_directory_symlink(dir / "store", dir / "B.plugin/Resources");
  auto bundle = NSBundle::bundleWithPath(dir / "B.plugin");
  ASSERT_NE(bundle, nullptr);
  EXPECT_NE(bundle->URLForResource("stone.jpg", "", "Textures"), nullptr);
  EXPECT_EQ(bundle->URLForResource("../B.plugin/Info.plist", ""), nullptr);
}

TEST(NSBundle, LocalizedStrings) {
  BundleFixture f;
  auto bundle = f.open();
  EXPECT_EQ(bundle->localizedStringForKey("None", "", ""), "No texture");
  EXPECT_EQ(bundle->localizedStringForKey("%@ (Random)", "", ""), "%@ (any)");
  EXPECT_EQ(bundle->localizedStringForKey("None", "fallback", "Localizable"), "No texture");
  // A missing key gives the value, or the key itself when the value is empty.
  EXPECT_EQ(bundle->localizedStringForKey("Missing", "fallback", ""), "fallback");
  EXPECT_EQ(bundle->localizedStringForKey("Missing", "", ""), "Missing");
  // Other tables, in property-list form.
  EXPECT_EQ(bundle->localizedStringForKey("Title", "", "Menus"), "Menu title");
  EXPECT_EQ(bundle->localizedStringForKey("None", "", "Menus"), "None");
  // A table that does not exist.
  EXPECT_EQ(bundle->localizedStringForKey("None", "", "NoSuchTable"), "None");
  EXPECT_EQ(bundle->localizedStringForKey("None", "Nothing", "NoSuchTable"), "Nothing");
}

TEST(NSBundle, MalformedStringsTableFallsBackToTheKey) {
  BundleFixture f;
  f.dir.write("Test.plugin/Resources/en.lproj/Broken.strings", "\"None\" = \"x\"  \"unterminated");
  auto bundle = f.open();
  EXPECT_EQ(bundle->localizedStringForKey("None", "", "Broken"), "None");
}
