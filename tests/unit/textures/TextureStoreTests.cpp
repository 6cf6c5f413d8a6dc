// The texture store: index lookups, identifiers, tag resolution, per-hint caches and failures,
// on fixture bundles written by the tests.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <set>
#include <thread>

#include "Foundation/NSException.h"
#include "RenderSupport.h"
#include "TextureTestSupport.h"
#include "Textures/_QVFilterTextureImageProvider.h"

using namespace qvtex;

namespace {

std::array<std::uint8_t, 4> grey(std::size_t x, std::size_t y) {
  const auto v = static_cast<std::uint8_t>((x * 7 + y * 3) & 0xff);
  return {v, v, v, 255};
}

// Three textures: "one" (tags a, b), "two" (tags a), "lone" (tag solo), "bare" (no tags).
Dictionary sampleTextures() {
  Dictionary t;
  t["one"] = record("one.png", {"a", "b"});
  t["two"] = record("two.jpg", {"a"});
  t["lone"] = record("lone.png", {"solo"});
  t["bare"] = Dictionary{{"fileName", "one.png"}};
  return t;
}

class TextureStore : public ::testing::Test {
 protected:
  void SetUp() override {
    fixture = std::make_unique<FixtureBundle>("store", sampleTextures());
    writeImage(fixture->texturePath("one.png"), 64, 48, kUTTypePNG, grey);
    writeImage(fixture->texturePath("two.jpg"), 80, 40, kUTTypeJPEG, grey);
    writeImage(fixture->texturePath("lone.png"), 32, 32, kUTTypePNG, grey);
    fixture->open();
  }
  void TearDown() override { _QVFilterTextureStore::_resetForTesting(nullptr); }

  std::string id(const std::string& key) { return _QVFilterTextureStore::_textureIdentifierWithKey(key); }
  std::unique_ptr<FixtureBundle> fixture;
};

const std::string kBundleID = QVFilterImageUnitsBundleIdentifier;

}  // namespace

TEST(TextureStoreConstants, IndexKeysAndSchemes) {
  EXPECT_STREQ(_QVFilterTextureTagsKey, "tags");
  EXPECT_STREQ(_QVFilterTextureDisplayNameKey, "displayName");
  EXPECT_STREQ(_QVFilterTextureFileNameKey, "fileName");
  EXPECT_STREQ(_QVFilterTextureConstraintsKey, "constraints");
  EXPECT_STREQ(_QVFilterTextureConstraintDestinationAttributeKey, "destinationAttribute");
  EXPECT_STREQ(_QVFilterTextureConstraintSourceAttributeKey, "sourceAttribute");
  EXPECT_STREQ(_QVFilterTextureConstraintOffsetKey, "offset");
  EXPECT_STREQ(_QVFilterTextureConstraintScaleKey, "scale");
  EXPECT_STREQ(_QVFilterTextureStoreTextureScheme, "x-qvfilter-texture");
}

TEST_F(TextureStore, IdentifiersAndTagKeysHaveTheSchemeBundleAndEscapedKey) {
  EXPECT_EQ(id("one"), "x-qvfilter-texture://" + kBundleID + "/one");
  EXPECT_EQ(_QVFilterTextureStore::textureKeyForTag("light leak"), "x-qvfilter-tag://" + kBundleID + "/light%20leak");
  EXPECT_EQ(id("caf\xc3\xa9"), "x-qvfilter-texture://" + kBundleID + "/caf%C3%A9");
  EXPECT_EQ(_QVFilterTextureStore::_queueLabel(), kBundleID + ".texture-store.queue");
}

TEST_F(TextureStore, AllTexturesMapIsTheIndexTexturesDictionary) {
  const Value map = _QVFilterTextureStore::allTexturesMap();
  ASSERT_TRUE(map.dictionary());
  EXPECT_EQ(map.dictionary()->size(), 4u);
  EXPECT_EQ(*map["two"]["fileName"].string(), "two.jpg");
}

TEST_F(TextureStore, IndexIsReadOncePerProcess) {
  const std::size_t before = _QVFilterTextureStore::_indexLoadCount();
  for (int i = 0; i < 5; ++i) {
    _QVFilterTextureStore::allTexturesMap();
    _QVFilterTextureStore::filteredTextureKeysContainingTags({"a"});
  }
  EXPECT_EQ(_QVFilterTextureStore::_indexLoadCount(), before + 1);
}

TEST_F(TextureStore, EmptyTagSetSelectsEveryTexture) {
  EXPECT_EQ(_QVFilterTextureStore::filteredTextureKeysContainingTags({}),
            (std::set<std::string>{id("one"), id("two"), id("lone"), id("bare")}));
}

TEST_F(TextureStore, TwoTagsSelectOnlyTexturesCarryingBoth) {
  EXPECT_EQ(_QVFilterTextureStore::filteredTextureKeysContainingTags({"a"}), (std::set<std::string>{id("one"), id("two")}));
  EXPECT_EQ(_QVFilterTextureStore::filteredTextureKeysContainingTags({"a", "b"}), (std::set<std::string>{id("one")}));
  EXPECT_TRUE(_QVFilterTextureStore::filteredTextureKeysContainingTags({"a", "solo"}).empty());
}

TEST_F(TextureStore, OneCandidateTagKeepsTheHint) {
  const auto hint = url(id("lone"));
  for (int i = 0; i < 20; ++i) {
    auto r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(_QVFilterTextureStore::textureKeyForTag("solo"), hint);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->absoluteString(), id("lone"));
  }
}

TEST_F(TextureStore, TwoCandidateTagAlwaysGivesTheOther) {
  const std::string tag = _QVFilterTextureStore::textureKeyForTag("a");
  for (int i = 0; i < 50; ++i) {
    auto r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(tag, url(id("one")));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->absoluteString(), id("two"));
    r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(tag, url(id("two")));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->absoluteString(), id("one"));
  }
}

TEST_F(TextureStore, HintNotAmongCandidatesMayGiveAnyCandidate) {
  const std::string tag = _QVFilterTextureStore::textureKeyForTag("a");
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    auto r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(tag, url(id("lone")));
    ASSERT_TRUE(r);
    seen.insert(r->absoluteString());
    r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(tag, NSURLRef());
    ASSERT_TRUE(r);
    seen.insert(r->absoluteString());
  }
  EXPECT_EQ(seen, (std::set<std::string>{id("one"), id("two")}));
}

TEST_F(TextureStore, TextureIdentifierPassesThroughUnchanged) {
  for (const std::string& s : {id("one"), id("no-such-texture"), std::string("https://example.org/x")}) {
    auto r = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(s, url(id("two")));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->absoluteString(), s);
  }
}

TEST_F(TextureStore, NilKeyAndUnknownTagResolveToNil) {
  EXPECT_FALSE(_QVFilterTextureStore::resolveNewTextureIdentifierForKey("", NSURLRef()));
  EXPECT_FALSE(_QVFilterTextureStore::resolveNewTextureIdentifierForKey(_QVFilterTextureStore::textureKeyForTag("nothing"),
                                                                        NSURLRef()));
}

TEST_F(TextureStore, KeyWithASpaceIsEscapedAndFoundAgain) {
  Dictionary t = sampleTextures();
  t["old paper"] = record("one.png", {"paper"});
  FixtureBundle spaced("spaced", t);
  writeImage(spaced.texturePath("one.png"), 16, 16, kUTTypePNG, grey);
  spaced.open();
  const std::string identifier = _QVFilterTextureStore::_textureIdentifierWithKey("old paper");
  EXPECT_EQ(identifier, "x-qvfilter-texture://" + kBundleID + "/old%20paper");
  const Value rec = _QVFilterTextureStore::textureForTextureIdentifier(url(identifier));
  ASSERT_TRUE(rec);
  EXPECT_EQ(*rec["tags"].array(), (Array{"paper"}));
  EXPECT_EQ(_QVFilterTextureStore::filteredTextureKeysContainingTags({"paper"}), (std::set<std::string>{identifier}));
  EXPECT_TRUE(_QVFilterTextureStore::imageForTextureIdentifier(url(identifier), CGSizeMake(10, 10)));
}

TEST_F(TextureStore, RecordIsFoundByLastPathComponentWhateverTheHost) {
  EXPECT_TRUE(_QVFilterTextureStore::textureForTextureIdentifier(url("x-qvfilter-texture://elsewhere/deep/one")));
  EXPECT_FALSE(_QVFilterTextureStore::textureForTextureIdentifier(url(id("nope"))));
  EXPECT_FALSE(_QVFilterTextureStore::textureForTextureIdentifier(NSURLRef()));
}

TEST_F(TextureStore, WrongSchemeFailsTheAssertion) {
  try {
    _QVFilterTextureStore::textureForTextureIdentifier(url(_QVFilterTextureStore::textureKeyForTag("a")));
    FAIL() << "no assertion";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    EXPECT_EQ(e.reason(),
              "Invalid parameter not satisfying: [[textureIdentifier scheme] "
              "isEqualToString:_QVFilterTextureStoreTextureScheme]");
    EXPECT_EQ(e.file(), "FilterActions/ImageUnit/_QVFilterTextureStore");
    EXPECT_EQ(e.line(), 92);
  }
  // Through the image request as well.
  EXPECT_THROW(_QVFilterTextureStore::imageForTextureIdentifier(url("https://example.org/one"), CGSizeMake(1, 1)),
               NSException);
}

TEST_F(TextureStore, ImageHasNominalExtentAndIsCachedPerHint) {
  const auto identifier = url(id("one"));
  const std::uint64_t decodes = _QVFilterTextureImageProvider::decodeCount();
  CIImage a = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 100));
  ASSERT_TRUE(a);
  EXPECT_EQ(a.extent(), CGRectMake(0, 0, 64, 48));
  // Nothing is decoded until pixels are asked for.
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), decodes);
  CIImage again = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 100));
  EXPECT_TRUE(again == a);
  EXPECT_EQ(_QVFilterTextureStore::_cachedImageCount(identifier), 1u);
  EXPECT_EQ(_QVFilterTextureStore::_cachedImageCost(identifier), 64u * 48u);
}

TEST_F(TextureStore, HintsThatDifferInOneDimensionMakeTwoEntriesThatShareOneDecode) {
  const auto identifier = url(id("two"));
  CIImage a = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 100));
  CIImage b = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 101));
  ASSERT_TRUE(a);
  ASSERT_TRUE(b);
  EXPECT_FALSE(a == b);
  EXPECT_EQ(_QVFilterTextureStore::_cachedImageCount(identifier), 2u);
  EXPECT_EQ(_QVFilterTextureStore::_cachedImageCost(identifier), 2u * 80u * 40u);
  // Both hints exceed the 80 x 40 file: both images decode it at full size, once.
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  const auto pixelsA = renderRGBA8(a, a.extent());
  const std::uint64_t afterA = _QVFilterTextureImageProvider::decodeCount();
  EXPECT_EQ(afterA, before + 1);
  EXPECT_EQ(renderRGBA8(b, b.extent()), pixelsA);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), afterA);
  // A third request with one of the hints is served from the cache: no new image, no decode.
  EXPECT_TRUE(_QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 101)) == b);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), afterA);
}

TEST_F(TextureStore, DecodedTextureIsKeptAcrossRendersPerDecodeSize) {
  const auto identifier = url(id("two"));
  auto cache = _QVFilterTextureStore::_decodedTextureCache();
  ASSERT_TRUE(cache);
  EXPECT_EQ(cache->byteLimit(), _QVFilterDecodedTextureCache::kDefaultByteLimit);
  CIImage full = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeZero);
  CIImage half = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(40, 40));
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  const auto first = renderRGBA8(full, full.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(cache->totalBytes(), 80u * 40u * 4u);
  // The next render of the same image decodes nothing and gives the same pixels.
  EXPECT_EQ(renderRGBA8(full, full.extent()), first);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
  // Another decode size is decoded once, then kept beside the first.
  renderRGBA8(half, half.extent());
  renderRGBA8(half, half.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 2);
  EXPECT_EQ(_QVFilterTextureImageProvider::lastDecodedPixelCount(), 40u * 20u);
  EXPECT_EQ(cache->count(), 2u);
  EXPECT_EQ(cache->totalBytes(), 80u * 40u * 4u + 40u * 20u * 4u);
}

TEST(TextureStoreDrawnSize, HintAsksForNoMoreThanIsDrawn) {
  using Store = _QVFilterTextureStore;
  // Drawn smaller than the hint decodes: the drawn size, rounded up.
  EXPECT_EQ(Store::drawnSizeHint(CGSizeMake(1000, 800), CGSizeMake(4000, 3000), CGSizeMake(500, 375)),
            CGSizeMake(500, 375));
  EXPECT_EQ(Store::drawnSizeHint(CGSizeZero, CGSizeMake(2048, 1536), CGSizeMake(202, 151.5)), CGSizeMake(202, 152));
  // Drawn at least as large as the full size (a zero hint) or as the hint: the hint stays.
  EXPECT_EQ(Store::drawnSizeHint(CGSizeZero, CGSizeMake(2048, 1536), CGSizeMake(6002, 4502)), CGSizeZero);
  EXPECT_EQ(Store::drawnSizeHint(CGSizeZero, CGSizeMake(2048, 1536), CGSizeMake(2048, 1536)), CGSizeZero);
  EXPECT_EQ(Store::drawnSizeHint(CGSizeMake(6000, 4000), CGSizeMake(1600, 1200), CGSizeMake(3600, 2700)),
            CGSizeMake(6000, 4000));
  EXPECT_EQ(Store::drawnSizeHint(CGSizeMake(300, 200), CGSizeMake(1600, 1200), CGSizeMake(400, 300)),
            CGSizeMake(300, 200));
  // Nothing drawn, or a size that is no number: the hint stays.
  EXPECT_EQ(Store::drawnSizeHint(CGSizeZero, CGSizeMake(64, 64), CGSizeZero), CGSizeZero);
  EXPECT_EQ(Store::drawnSizeHint(CGSizeZero, CGSizeMake(64, 64), CGSizeMake(NAN, NAN)), CGSizeZero);
}

TEST_F(TextureStore, SmallHintKeepsTheNominalExtentAndHoldsOnlyTheDecodedPixels) {
  // A smooth 400 x 200 texture asked for at 100: the image still measures 400 x 200, but what
  // it reads is the 100 x 50 decode, scaled up by the engine (no 400 x 200 copy is made), and
  // drawn at 100 x 50 it is that decode as it is.
  writeImage(fixture->texturePath("one.png"), 400, 200, kUTTypePNG, [](std::size_t x, std::size_t y) {
    return std::array<std::uint8_t, 4>{std::uint8_t(x * 255 / 399), std::uint8_t(y * 255 / 199), 90, 255};
  });
  const auto identifier = url(id("one"));
  const CIImage small = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100, 100));
  ASSERT_TRUE(small);
  EXPECT_EQ(small.extent(), CGRectMake(0, 0, 400, 200));
  const CIImage drawn = small.imageByApplyingTransform(CGAffineTransformMakeScale(0.25, 0.25));
  EXPECT_EQ(drawn.extent(), CGRectMake(0, 0, 100, 50));
  const auto pixels = renderRGBA8(drawn, drawn.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::lastDecodedPixelCount(), 100u * 50u);
  // The full decode drawn at the same size: the same picture within the rounding of two
  // different downscales of a smooth ramp (inside; at the border the engine's resampling of the
  // full decode also averages in the transparent outside).
  const CIImage full = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeZero);
  const CIImage fullDrawn = full.imageByApplyingTransform(CGAffineTransformMakeScale(0.25, 0.25));
  const CGRect inside = CGRectMake(2, 2, 96, 46);
  const auto reference = renderRGBA8(fullDrawn, inside);
  EXPECT_EQ(_QVFilterTextureImageProvider::lastDecodedPixelCount(), 400u * 200u);
  const auto mine = renderRGBA8(drawn, inside);
  ASSERT_EQ(mine.size(), reference.size());
  int worst = 0;
  for (std::size_t i = 0; i < mine.size(); ++i) worst = std::max(worst, std::abs(int(mine[i]) - int(reference[i])));
  EXPECT_LE(worst, 3);
  EXPECT_EQ(pixels.size(), 100u * 50u * 4u);
}

TEST_F(TextureStore, DecodedTextureCacheStaysWithinItsByteLimitDroppingTheLeastRecentlyUsed) {
  auto cache = _QVFilterTextureStore::_decodedTextureCache();
  // Room for "two" (80 x 40 x 4 = 12800 bytes) or "one" (64 x 48 x 4 = 12288), not both.
  cache->setByteLimit(20000);
  CIImage one = _QVFilterTextureStore::imageForTextureIdentifier(url(id("one")), CGSizeZero);
  CIImage two = _QVFilterTextureStore::imageForTextureIdentifier(url(id("two")), CGSizeZero);
  CIImage lone = _QVFilterTextureStore::imageForTextureIdentifier(url(id("lone")), CGSizeZero);
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  renderRGBA8(one, one.extent());
  renderRGBA8(two, two.extent());  // evicts "one"
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(cache->totalBytes(), 12800u);
  renderRGBA8(lone, lone.extent());  // 32 x 32 x 4 = 4096 fits beside "two"
  EXPECT_EQ(cache->count(), 2u);
  EXPECT_EQ(cache->totalBytes(), 12800u + 4096u);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 3);
  renderRGBA8(two, two.extent());  // kept: no decode; now the most recently used
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 3);
  renderRGBA8(one, one.extent());  // evicted before: decoded again, and evicts "lone", not "two"
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 4);
  EXPECT_LE(cache->totalBytes(), 20000u);
  EXPECT_EQ(cache->totalBytes(), 12288u);
  renderRGBA8(one, one.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 4);
  // A bitmap larger than the whole limit is decoded for its render and not kept.
  cache->setByteLimit(10000);
  EXPECT_LE(cache->totalBytes(), 10000u);
  const std::uint64_t settled = _QVFilterTextureImageProvider::decodeCount();
  renderRGBA8(two, two.extent());
  renderRGBA8(two, two.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), settled + 2);
  EXPECT_LE(cache->totalBytes(), 10000u);
}

TEST_F(TextureStore, ConcurrentRendersOfOneTextureDecodeItOnce) {
  const auto identifier = url(id("two"));
  // Separate images (two hints of the same decode size) rendered on separate threads at once.
  std::vector<CIImage> images;
  for (int i = 0; i < 6; ++i)
    images.push_back(_QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(100 + i, 100)));
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  std::vector<std::vector<std::uint8_t>> pixels(images.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < images.size(); ++i)
    threads.emplace_back([&, i] { pixels[i] = renderRGBA8(images[i], images[i].extent()); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
  for (const auto& p : pixels) EXPECT_EQ(p, pixels[0]);
  EXPECT_EQ(_QVFilterTextureStore::_decodedTextureCache()->count(), 1u);
}

TEST_F(TextureStore, RecordWithoutFileOrWithMissingOrUnreadableFileGivesNilAndCachesNothing) {
  Dictionary t;
  t["missing"] = record("missing.png", {"x"});
  t["garbage"] = record("garbage.jpg", {"x"});
  t["empty"] = record("empty.png", {"x"});
  t["nofile"] = Dictionary{{"tags", Value(Array{"x"})}};
  FixtureBundle broken("broken", t);
  { std::ofstream(broken.texturePath("garbage.jpg")) << "this is not an image at all"; }
  { std::ofstream(broken.texturePath("empty.png")); }
  broken.open();
  for (const char* key : {"missing", "garbage", "empty", "nofile", "unknown"}) {
    const auto identifier = url(_QVFilterTextureStore::_textureIdentifierWithKey(key));
    EXPECT_FALSE(_QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(50, 50))) << key;
    EXPECT_EQ(_QVFilterTextureStore::_cachedImageCount(identifier), 0u) << key;
  }
  EXPECT_FALSE(_QVFilterTextureStore::imageForTextureIdentifier(NSURLRef(), CGSizeMake(50, 50)));
}

TEST_F(TextureStore, FileNamesCannotLeaveTheTexturesFolder) {
  const fs::path outside = makeTempDir("outside");
  writeImage(outside / "secret.png", 8, 8, kUTTypePNG, grey);
  Dictionary t;
  t["up"] = record("../../Resources/TextureIndex.plist", {"x"});
  t["upimage"] = record("../secret.png", {"x"});
  t["absolute"] = record((outside / "secret.png").string(), {"x"});
  t["link"] = record("link.png", {"x"});
  FixtureBundle escaping("escaping", t);
  fs::copy_file(outside / "secret.png", escaping.dir / "Resources" / "secret.png");
  fs::create_symlink(outside / "secret.png", escaping.texturePath("link.png"));
  escaping.open();
  for (const char* key : {"up", "upimage", "absolute", "link"}) {
    const auto identifier = url(_QVFilterTextureStore::_textureIdentifierWithKey(key));
    EXPECT_TRUE(_QVFilterTextureStore::textureForTextureIdentifier(identifier)) << key;
    EXPECT_FALSE(_QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(8, 8))) << key;
  }
  fs::remove_all(outside);
}

TEST(TextureStoreIndex, MissingIndexGivesNilAndEmptyResults) {
  FixtureBundle noIndex("noindex", {}, /*writeIndex=*/false);
  noIndex.open();
  EXPECT_FALSE(_QVFilterTextureStore::allTexturesMap());
  EXPECT_TRUE(_QVFilterTextureStore::filteredTextureKeysContainingTags({}).empty());
  EXPECT_FALSE(_QVFilterTextureStore::resolveNewTextureIdentifierForKey(_QVFilterTextureStore::textureKeyForTag("a"),
                                                                        NSURLRef()));
  const auto identifier = url(_QVFilterTextureStore::_textureIdentifierWithKey("one"));
  EXPECT_FALSE(_QVFilterTextureStore::textureForTextureIdentifier(identifier));
  EXPECT_FALSE(_QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(10, 10)));
  _QVFilterTextureStore::_resetForTesting(nullptr);
}

TEST(TextureStoreIndex, UnreadableIndexGivesNil) {
  for (const std::string& content : {std::string("\x01\x02 not a plist"), std::string("<plist><array/></plist>"),
                                    std::string("{ textures = \"oops\"; }")}) {
    FixtureBundle bad("badindex", {}, /*writeIndex=*/false);
    { std::ofstream(bad.dir / "Resources" / "TextureIndex.plist") << content; }
    bad.open();
    EXPECT_FALSE(_QVFilterTextureStore::allTexturesMap()) << content;
    EXPECT_TRUE(_QVFilterTextureStore::filteredTextureKeysContainingTags({}).empty());
  }
  _QVFilterTextureStore::_resetForTesting(nullptr);
}

TEST_F(TextureStore, ConcurrentRequestsFromEightThreads) {
  const std::vector<std::string> keys = {"one", "two", "lone"};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        const std::string& key = keys[std::size_t(t + i) % keys.size()];
        auto identifier = _QVFilterTextureStore::resolveNewTextureIdentifierForKey(
            i % 2 ? _QVFilterTextureStore::_textureIdentifierWithKey(key) : _QVFilterTextureStore::textureKeyForTag("a"),
            NSURLRef());
        if (!identifier || !_QVFilterTextureStore::textureForTextureIdentifier(identifier)) ++failures;
        CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(identifier, CGSizeMake(16 + (i % 3), 16));
        if (!image) {
          ++failures;
          continue;
        }
        if (i % 8 == 0) renderRGBA8(image, CGRectMake(0, 0, 16, 16));
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  for (const auto& key : keys) {
    EXPECT_LE(_QVFilterTextureStore::_cachedImageCount(url(id(key))), 3u);
    EXPECT_GE(_QVFilterTextureStore::_cachedImageCount(url(id(key))), 1u);
  }
}
