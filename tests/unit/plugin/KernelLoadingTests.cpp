#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Foundation/NSBundle.h"
#include "Foundation/NSException.h"
#include "Foundation/PropertyList.h"
#include "Framework/QVFilter.h"
#include "Framework/QVFilterKernelLoader.h"
#include "PlugInTestSupport.h"

namespace fs = std::filesystem;

namespace {

const char* const kTwoKernels =
    "kernel vec4 firstKernel(sampler image) { return sample(image, samplerCoord(image)); }\n"
    "kernel vec4 secondKernel(sampler image) { return sample(image, samplerCoord(image)) * 0.5; }\n";

// A filter class that loads a kernel in its class initialisation, the way the plug-in's
// kernel-using filters do, and a subclass of it.
class KernelUsingFilter : public QVFilter {
 public:
  KernelUsingFilter() { kernel(); }
  static const CIKernelRef& kernel() {
    static const CIKernelRef& k = *new CIKernelRef(QVFilterKernelsFromResource("NoOp").kernelAtIndex(0));
    return k;
  }
  CIImage outputImage() const override { return {}; }
};

class KernelUsingSubclass : public KernelUsingFilter {};
class KernelUsingGrandSubclass : public KernelUsingSubclass {};

// A bundle of our own with kernel resources, under an identifier of its own.
class KernelResources : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("qv-kernel-resources-" + std::to_string(::getpid()) + "-" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".plugin");
    fs::remove_all(root_);
    fs::create_directories(root_ / "Resources");
    ASSERT_TRUE(writePropertyList(
        Value(Dictionary{{"CFBundleIdentifier", std::string("org.qvfilter.tests.kernels.") +
                                                    ::testing::UnitTest::GetInstance()->current_test_info()->name()}}),
        (root_ / "Info.plist").string()));
    bundle_ = NSBundle::bundleWithPath(root_.string());
    ASSERT_TRUE(bundle_);
  }
  void TearDown() override { fs::remove_all(root_); }

  void writeResource(const std::string& fileName, const std::string& bytes) {
    std::ofstream out(root_ / "Resources" / fileName, std::ios::binary);
    out << bytes;
  }

  fs::path root_;
  std::shared_ptr<NSBundle> bundle_;
};

std::string utf16(const std::string& ascii, bool bigEndian) {
  std::string out = bigEndian ? std::string("\xFE\xFF", 2) : std::string("\xFF\xFE", 2);
  for (char c : ascii) {
    if (bigEndian) {
      out += '\0';
      out += c;
    } else {
      out += c;
      out += '\0';
    }
  }
  return out;
}

}  // namespace

TEST(KernelLoading, ClassInitialisationLoadsOnceAndSubclassesNeverReload) {
  qvtest::loadBuiltBundle();
  const std::size_t before = QVFilterKernelResourceLoadCount();
  { KernelUsingSubclass first; }
  const std::size_t afterFirst = QVFilterKernelResourceLoadCount();
  EXPECT_EQ(afterFirst, before + 1);
  { KernelUsingFilter base; }
  { KernelUsingGrandSubclass grand; }
  { KernelUsingSubclass again; }
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), afterFirst);
}

TEST(KernelLoading, UsesThePlugInBundleByIdentifier) {
  qvtest::loadBuiltBundle();
  const auto bundle = NSBundle::bundleWithIdentifier("org.qvfilter.filters.imageunits");
  ASSERT_TRUE(bundle);
  // Whatever the bundle carries for "NoOp" is what the identifier lookup finds.
  const bool present = !bundle->pathForResource("NoOp", "cikernel").empty();
  const QVFilterKernelList list = QVFilterKernelsFromResource("NoOp");
  EXPECT_EQ(list.present, present);
  if (present) {
    ASSERT_FALSE(list.kernels.empty());
    EXPECT_TRUE(list.kernelAtIndex(0));
  }
}

TEST(KernelLoading, MissingResourceGivesANilKernelSilently) {
  qvtest::loadBuiltBundle();
  const std::size_t before = QVFilterKernelResourceLoadCount();
  const QVFilterKernelList list = QVFilterKernelsFromResource("NoSuchKernelResource");
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), before + 1);
  EXPECT_FALSE(list.present);
  EXPECT_NO_THROW(EXPECT_FALSE(list.kernelAtIndex(0)));
  EXPECT_NO_THROW(EXPECT_FALSE(list.kernelAtIndex(1)));
}

TEST(KernelLoading, NilBundleGivesANilList) {
  const QVFilterKernelList list = QVFilterKernelsFromResourceInBundle(nullptr, "NoOp");
  EXPECT_FALSE(list.present);
  EXPECT_FALSE(list.kernelAtIndex(0));
}

TEST_F(KernelResources, TwoKernelsInFileOrder) {
  writeResource("Pair.cikernel", kTwoKernels);
  const QVFilterKernelList list = QVFilterKernelsFromResourceInBundle(bundle_, "Pair");
  ASSERT_TRUE(list.present);
  ASSERT_EQ(list.kernels.size(), 2u);
  EXPECT_EQ(list.kernelAtIndex(0)->name(), "firstKernel");
  EXPECT_EQ(list.kernelAtIndex(1)->name(), "secondKernel");
}

TEST_F(KernelResources, EmptyButPresentListRaisesRangeException) {
  writeResource("Empty.cikernel", "");
  const QVFilterKernelList list = QVFilterKernelsFromResourceInBundle(bundle_, "Empty");
  EXPECT_TRUE(list.present);
  EXPECT_TRUE(list.kernels.empty());
  try {
    (void)list.kernelAtIndex(0);
    FAIL() << "no exception";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSRangeException);
  }
}

TEST_F(KernelResources, ABrokenCopyOfEachBundleKernelGivesANilListSilently) {
  // Each kernel resource of the bundle, whole (it compiles) and then cut off in the middle of
  // its text and followed by a stray brace (it does not).
  std::size_t resources = 0;
  for (const auto& entry : fs::directory_iterator(fs::path(QV_BUNDLE_DIR) / "Resources")) {
    if (entry.path().extension() != ".cikernel") continue;
    ++resources;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string name = entry.path().stem().string();
    writeResource(name + ".cikernel", text);
    const QVFilterKernelList whole = QVFilterKernelsFromResourceInBundle(bundle_, name);
    EXPECT_TRUE(whole.present) << name;
    EXPECT_TRUE(whole.kernelAtIndex(0)) << name;
    writeResource(name + ".cikernel", text.substr(0, text.size() / 2) + "\n}}\n");
    testing::internal::CaptureStderr();
    const QVFilterKernelList broken = QVFilterKernelsFromResourceInBundle(bundle_, name);
    EXPECT_FALSE(broken.present) << name;
    EXPECT_NO_THROW(EXPECT_FALSE(broken.kernelAtIndex(0))) << name;
    EXPECT_NO_THROW(EXPECT_FALSE(broken.kernelAtIndex(1))) << name;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << name;
  }
  EXPECT_EQ(resources, 5u);
}

TEST_F(KernelResources, IndexBeyondAPresentListRaises) {
  writeResource("Pair.cikernel", kTwoKernels);
  const QVFilterKernelList list = QVFilterKernelsFromResourceInBundle(bundle_, "Pair");
  EXPECT_THROW((void)list.kernelAtIndex(2), NSException);
}

TEST_F(KernelResources, ResourceLookupIsTopLevelWithTheCikernelExtension) {
  fs::create_directories(root_ / "Resources" / "Sub");
  {
    std::ofstream out(root_ / "Resources" / "Sub" / "Deep.cikernel");
    out << kTwoKernels;
  }
  writeResource("Plain.txt", kTwoKernels);
  EXPECT_FALSE(QVFilterKernelsFromResourceInBundle(bundle_, "Deep").present);
  EXPECT_FALSE(QVFilterKernelsFromResourceInBundle(bundle_, "Plain").present);
}

TEST_F(KernelResources, TextEncodingIsDetectedFromTheByteOrderMark) {
  writeResource("Utf8Bom.cikernel", "\xEF\xBB\xBF" + std::string(kTwoKernels));
  writeResource("Utf16LE.cikernel", utf16(kTwoKernels, false));
  writeResource("Utf16BE.cikernel", utf16(kTwoKernels, true));
  for (const char* name : {"Utf8Bom", "Utf16LE", "Utf16BE"}) {
    const QVFilterKernelList list = QVFilterKernelsFromResourceInBundle(bundle_, name);
    ASSERT_TRUE(list.present) << name;
    EXPECT_EQ(list.kernels.size(), 2u) << name;
  }
}

TEST(KernelText, DecodesMarksAndFallsBackToLatin1) {
  const fs::path path = fs::temp_directory_path() / ("qv-kernel-text-" + std::to_string(::getpid()));
  auto decode = [&](const std::string& bytes) {
    {
      std::ofstream out(path, std::ios::binary);
      out << bytes;
    }
    return QVFilterStringWithContentsOfFile(path.string());
  };
  EXPECT_EQ(decode("\xEF\xBB\xBF" "abc"), "abc");
  EXPECT_EQ(decode(std::string("\xFF\xFE" "a\0\xE9\0", 6)), "a\xC3\xA9");          // UTF-16LE a é
  EXPECT_EQ(decode(std::string("\xFE\xFF\xD8\x3D\xDE\x00", 6)), "\xF0\x9F\x98\x80");  // surrogate pair
  EXPECT_EQ(decode("caf\xE9"), "caf\xC3\xA9");                                      // Latin-1
  EXPECT_EQ(decode(""), "");
  // UTF-16 that does not decode is no text at all (no replacement characters).
  EXPECT_FALSE(decode(std::string("\xFF\xFE" "a\0\x3D\xD8", 6)));  // unpaired high surrogate
  EXPECT_FALSE(decode(std::string("\xFE\xFF\0a\0", 5)));            // odd byte count
  fs::remove(path);
  EXPECT_FALSE(QVFilterStringWithContentsOfFile(path.string()));
}
#endif
