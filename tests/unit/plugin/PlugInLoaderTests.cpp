#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "CoreImage/CIPlugIn.h"
#include "CoreImage/CIVector.h"
#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "PlugInTestSupport.h"

namespace fs = std::filesystem;

namespace {

const fs::path kBuiltBundle = QV_BUNDLE_DIR;
const fs::path kBuiltLibrary = kBuiltBundle / "QVFilterImageUnits.so";

// A scratch directory of bundles, removed after each test.
class PlugInLoader : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("qv-plugin-loader-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  // A bundle directory with an Info.plist of the given keys (none written when info is nil).
  fs::path makeBundle(const std::string& name, const Value& info) {
    const fs::path bundle = root_ / (name + ".plugin");
    fs::create_directories(bundle / "Resources");
    if (!info.isNil()) {
      EXPECT_TRUE(writePropertyList(info, (bundle / "Info.plist").string()));
    }
    return bundle;
  }

  static Dictionary infoFor(const std::string& identifier, const std::string& executable,
                            const std::string& principal = "QVFilterImageUnitsPlugin") {
    return Dictionary{{"CFBundleIdentifier", identifier},
                      {"CFBundleExecutable", executable},
                      {"NSPrincipalClass", principal}};
  }

  // The built library and description, under another identifier.
  fs::path makeWorkingCopy(const std::string& name, const std::string& identifier,
                           const std::string& principal = "QVFilterImageUnitsPlugin") {
    const fs::path bundle = makeBundle(name, Value(infoFor(identifier, "QVFilterImageUnits.so", principal)));
    fs::create_symlink(kBuiltLibrary, bundle / "QVFilterImageUnits.so");
    fs::copy_file(kBuiltBundle / "Resources" / "Description.plist", bundle / "Resources" / "Description.plist");
    return bundle;
  }

  static void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
  }

  static std::string failureOf(const fs::path& bundle) {
    std::string error;
    EXPECT_FALSE(CIPlugIn::loadPlugIn(bundle.string(), &error)) << bundle;
    EXPECT_FALSE(error.empty());
    return error;
  }

  fs::path root_;
};

}  // namespace

TEST_F(PlugInLoader, LoadsTheBuiltBundleAndRegistersItsFilters) {
  std::string error;
  ASSERT_TRUE(CIPlugIn::loadPlugIn(kBuiltBundle.string(), &error)) << error;
  EXPECT_TRUE(error.empty());
  EXPECT_TRUE(CIFilter::filterWithName("QVFilterRotate"));
  EXPECT_TRUE(CIFilter::filterWithName("QVFilterProportionalCrop"));
  // The plug-in's bundle is found by its identifier afterwards.
  auto bundle = NSBundle::bundleWithIdentifier(QVFilterImageUnitsBundleIdentifier);
  ASSERT_TRUE(bundle);
  EXPECT_EQ(fs::weakly_canonical(bundle->bundlePath()), fs::weakly_canonical(kBuiltBundle));
  // Loading again is harmless.
  EXPECT_TRUE(CIPlugIn::loadPlugIn(kBuiltBundle.string(), &error)) << error;
  const auto loaded = CIPlugIn::loadedPlugIns();
  EXPECT_EQ(std::count(loaded.begin(), loaded.end(), fs::weakly_canonical(kBuiltBundle).string()), 1);
}

TEST_F(PlugInLoader, TheLibraryExportsOnlyItsEntryPoint) {
  void* handle = dlopen(kBuiltLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_TRUE(handle) << dlerror();
  EXPECT_TRUE(dlsym(handle, kCIPlugInClassTableSymbol));
  // The framework's functions and the filter classes stay inside the library.
  EXPECT_FALSE(dlsym(handle, "_ZN24QVFilterImageUnitsPlugin4loadEPv"));
  EXPECT_FALSE(dlsym(handle, "_Z25QVFilterImageUnitsClassesv"));
  EXPECT_FALSE(dlsym(handle, "_ZNK14QVFilterRotate11outputImageEv"));
  dlclose(handle);
}

TEST_F(PlugInLoader, BundleWithoutInfoPlist) {
  EXPECT_NE(failureOf(makeBundle("NoInfo", Value())).find("missing Info.plist"), std::string::npos);
}

TEST_F(PlugInLoader, NotADirectory) {
  EXPECT_NE(failureOf(root_ / "Absent.plugin").find("not a bundle directory"), std::string::npos);
}

TEST_F(PlugInLoader, InfoPlistThatIsNotAPropertyList) {
  const fs::path bundle = makeBundle("BadInfo", Value());
  writeFile(bundle / "Info.plist", "<plist><dict><key>oops");
  EXPECT_NE(failureOf(bundle).find("Info.plist"), std::string::npos);
}

TEST_F(PlugInLoader, InfoPlistWithoutIdentifierOrPrincipalClass) {
  const fs::path a = makeBundle("NoIdentifier", Value(Dictionary{{"CFBundleExecutable", "x.so"},
                                                                  {"NSPrincipalClass", "X"}}));
  EXPECT_NE(failureOf(a).find("CFBundleIdentifier"), std::string::npos);
  const fs::path b = makeBundle("NoPrincipal", Value(Dictionary{{"CFBundleExecutable", "x.so"},
                                                                 {"CFBundleIdentifier", "org.qvfilter.tests.np"}}));
  EXPECT_NE(failureOf(b).find("NSPrincipalClass"), std::string::npos);
}

TEST_F(PlugInLoader, MissingLibrary) {
  const fs::path bundle = makeBundle("NoLibrary", Value(infoFor("org.qvfilter.tests.nolibrary", "Gone.so")));
  fs::copy_file(kBuiltBundle / "Resources" / "Description.plist", bundle / "Resources" / "Description.plist");
  EXPECT_NE(failureOf(bundle).find("missing library Gone.so"), std::string::npos);
}

TEST_F(PlugInLoader, LibraryThatIsNotALibrary) {
  const fs::path bundle = makeWorkingCopy("Garbage", "org.qvfilter.tests.garbagelibrary");
  fs::remove(bundle / "QVFilterImageUnits.so");
  writeFile(bundle / "QVFilterImageUnits.so", "this is not an ELF file");
  EXPECT_NE(failureOf(bundle).find("cannot open library"), std::string::npos);
}

TEST_F(PlugInLoader, LibraryWithoutTheEntryPoint) {
  // Any shared library that is not a plug-in: the platform library itself.
  const fs::path bundle = makeWorkingCopy("NoEntry", "org.qvfilter.tests.noentry");
  fs::remove(bundle / "QVFilterImageUnits.so");
  fs::create_symlink(fs::path(QV_BINARY_DIR) / "lib" / "libQVPlatform.so", bundle / "QVFilterImageUnits.so");
  EXPECT_NE(failureOf(bundle).find("exports no CIPlugInGetClassTable"), std::string::npos);
}

TEST_F(PlugInLoader, MissingDescription) {
  const fs::path bundle = makeWorkingCopy("NoDescription", "org.qvfilter.tests.nodescription");
  fs::remove(bundle / "Resources" / "Description.plist");
  EXPECT_NE(failureOf(bundle).find("missing filter description"), std::string::npos);
}

TEST_F(PlugInLoader, GarbledDescription) {
  const fs::path bundle = makeWorkingCopy("Garbled", "org.qvfilter.tests.garbled");
  writeFile(bundle / "Resources" / "Description.plist", "\x01\x02 not a property list {{{");
  EXPECT_NE(failureOf(bundle).find("garbled filter description"), std::string::npos);
}

TEST_F(PlugInLoader, DescriptionOfTheWrongShape) {
  const fs::path bundle = makeWorkingCopy("WrongShape", "org.qvfilter.tests.wrongshape");
  const fs::path description = bundle / "Resources" / "Description.plist";

  ASSERT_TRUE(writePropertyList(Value(Array{Value("QVFilterRotate")}), description.string()));
  EXPECT_NE(failureOf(bundle).find("not a dictionary"), std::string::npos);

  ASSERT_TRUE(writePropertyList(
      Value(Dictionary{{"QVFilterRotate", Dictionary{{kCIAttributeFilterCategories, "CICategoryBlur"}}}}),
      description.string()));
  EXPECT_NE(failureOf(bundle).find("CIAttributeFilterCategories is not an array"), std::string::npos);

  ASSERT_TRUE(writePropertyList(
      Value(Dictionary{{"QVFilterRotate",
                        Dictionary{{"inputAngle", Dictionary{{kCIAttributeClass, "CIVector"},
                                                             {kCIAttributeDefault, "not a vector"}}}}}}),
      description.string()));
  EXPECT_NE(failureOf(bundle).find("as a CIVector"), std::string::npos);
}

TEST_F(PlugInLoader, DescriptionNamingOnlyClassesTheLibraryLacks) {
  const fs::path bundle = makeWorkingCopy("Unknown", "org.qvfilter.tests.unknownclass");
  ASSERT_TRUE(writePropertyList(Value(Dictionary{{"QVFilterDoesNotExist", Dictionary{}}}),
                                (bundle / "Resources" / "Description.plist").string()));
  EXPECT_NE(failureOf(bundle).find("offers none of the filter classes its description names (QVFilterDoesNotExist)"),
            std::string::npos);
  EXPECT_FALSE(CIFilter::filterWithName("QVFilterDoesNotExist"));
}

TEST_F(PlugInLoader, DescribedClassTheLibraryLacksIsSkipped) {
  const fs::path bundle = makeWorkingCopy("Partial", "org.qvfilter.tests.partial");
  ASSERT_TRUE(writePropertyList(
      Value(Dictionary{{"QVFilterNotYetWritten", Dictionary{}},
                       {"QVFilterSquareCrop", Dictionary{{kCIAttributeFilterDisplayName, "Square Crop"},
                                                          {kCIAttributeFilterCategories,
                                                           Array{Value(kCICategoryGeometryAdjustment)}}}}}),
      (bundle / "Resources" / "Description.plist").string()));
  std::string error;
  EXPECT_TRUE(CIPlugIn::loadPlugIn(bundle.string(), &error)) << error;
  EXPECT_TRUE(CIFilter::filterWithName("QVFilterSquareCrop"));
  EXPECT_FALSE(CIFilter::filterWithName("QVFilterNotYetWritten"));
}

TEST_F(PlugInLoader, PrincipalClassMissingFromTheLibrary) {
  const fs::path bundle = makeWorkingCopy("NoPrincipalClass", "org.qvfilter.tests.noprincipal", "NoSuchPlugin");
  EXPECT_NE(failureOf(bundle).find("principal class NoSuchPlugin not found"), std::string::npos);
}

TEST_F(PlugInLoader, PrincipalClassRefusingTheLoad) {
  const fs::path bundle = makeBundle(
      "Refusing", Value(infoFor("org.qvfilter.tests.refusing", "QVRefusingTestPlugIn.so", "QVRefusingTestPlugIn")));
  fs::create_symlink(fs::path(QV_TEST_PLUGIN_DIR) / "QVRefusingTestPlugIn.so", bundle / "QVRefusingTestPlugIn.so");
  ASSERT_TRUE(writePropertyList(Value(Dictionary{{"QVRefusedTestFilter", Dictionary{}}}),
                                (bundle / "Resources" / "Description.plist").string()));
  EXPECT_NE(failureOf(bundle).find("load: of QVRefusingTestPlugIn returned NO"), std::string::npos);
  // Nothing of a refused bundle is registered.
  EXPECT_FALSE(CIFilter::filterWithName("QVRefusedTestFilter"));
}

TEST_F(PlugInLoader, DescriptionValuesOfVectorAndColourClassesAreConverted) {
  const fs::path bundle = makeWorkingCopy("Converted", "org.qvfilter.tests.converted");
  Dictionary rotate{{kCIAttributeFilterDisplayName, "Turn"},
                    {"inputAngle", Dictionary{{kCIAttributeClass, "NSNumber"}, {kCIAttributeDefault, 0.5}}},
                    {"inputTint", Dictionary{{kCIAttributeClass, "CIColor"}, {kCIAttributeDefault, "1 0 0 1"}}},
                    {"inputBox", Dictionary{{kCIAttributeClass, "CIVector"}, {kCIAttributeDefault, "[1 2 3 4]"}}}};
  ASSERT_TRUE(writePropertyList(Value(Dictionary{{"QVFilterRotate", rotate}}),
                                (bundle / "Resources" / "Description.plist").string()));
  std::string error;
  const Value description =
      CIPlugIn::readFilterDescription((bundle / "Resources" / "Description.plist").string(), &error);
  ASSERT_FALSE(description.isNil()) << error;
  // The bundle itself loads: same library, a description of its own.
  ASSERT_TRUE(CIPlugIn::loadPlugIn(bundle.string(), &error)) << error;
  const CIFilterRegistration* registration = CIFilter::registrationForName("QVFilterRotate");
  ASSERT_TRUE(registration);
  EXPECT_EQ(registration->displayName, "Turn");
  EXPECT_TRUE(registration->inputAttributes.at("inputTint")[kCIAttributeDefault].object<CIColor>());
  EXPECT_TRUE(registration->inputAttributes.at("inputBox")[kCIAttributeDefault].object<CIVector>());
  EXPECT_EQ(registration->inputAttributes.at("inputAngle")[kCIAttributeDefault].doubleValue(), 0.5);
  // Put the built bundle's registration back for the tests that run after this one.
  const Value built = propertyListFromFile((kBuiltBundle / "Resources" / "Description.plist").string());
  ASSERT_TRUE(built.dictionary());
  CIFilterRegistration restored = *registration;
  restored.displayName = *built["QVFilterRotate"][kCIAttributeFilterDisplayName].string();
  restored.categories.clear();
  for (const Value& c : *built["QVFilterRotate"][kCIAttributeFilterCategories].array())
    restored.categories.push_back(*c.string());
  restored.inputAttributes = {{"inputAngle", built["QVFilterRotate"]["inputAngle"]}};
  CIFilter::registerFilter(restored);
}

TEST_F(PlugInLoader, LoadAllReportsEachFailureWithItsPathAndGoesOn) {
  const fs::path dir = root_ / "search";
  fs::create_directories(dir);
  const fs::path broken = dir / "Broken.plugin";
  fs::create_directories(broken);
  fs::create_symlink(kBuiltBundle, dir / "Good.plugin");
  fs::create_directories(dir / "NotABundle");

  const auto failures = CIPlugIn::loadAllPlugIns(
      {(root_ / "does-not-exist").string(), dir.string(), broken.string(), "", (root_ / "Gone.plugin").string()});
  // Broken.plugin is tried once although named twice; a missing directory is skipped; a
  // missing bundle named directly is a failure.
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0], broken.string() + ": missing Info.plist");
  EXPECT_EQ(failures[1], (root_ / "Gone.plugin").string() + ": not a bundle directory");
  EXPECT_TRUE(CIFilter::filterWithName("QVFilterSquareCrop"));
}
#endif
