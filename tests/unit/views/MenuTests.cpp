// The menus of the parameter views: platform filter names of a category, and catalogue
// textures grouped by tag, with their localised "None" and "(Random)" items.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "FilterTestSupport.h"
#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Textures/_QVFilterTextureStore.h"
#include "Views/QVFilterIKFilterUIViewController.h"

namespace fs = std::filesystem;

namespace {

using Controller = QVFilterIKFilterUIViewController;

// A catalogue index of its own, read by the texture store for the length of a test.
class FixtureCatalogue {
 public:
  explicit FixtureCatalogue(const Dictionary& textures) {
    static int counter = 0;
    dir_ = fs::temp_directory_path() / ("qv-views-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    fs::create_directories(dir_ / "Resources");
    const Dictionary info{{"CFBundleIdentifier", QVFilterImageUnitsBundleIdentifier}};
    EXPECT_TRUE(writePropertyList(Value(info), (dir_ / "Info.plist").string()));
    EXPECT_TRUE(writePropertyList(Value(Dictionary{{"textures", Value(textures)}}),
                                  (dir_ / "Resources/TextureIndex.plist").string()));
    _QVFilterTextureStore::_resetForTesting(std::make_shared<NSBundle>(dir_.string(), Value(info)));
  }
  ~FixtureCatalogue() {
    _QVFilterTextureStore::_resetForTesting(nullptr);
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

 private:
  fs::path dir_;
};

Value texture(std::vector<std::string> tags, std::optional<std::string> displayName) {
  Array t(tags.begin(), tags.end());
  Dictionary d{{"fileName", "none.png"}, {"tags", Value(t)}};
  if (displayName) d["displayName"] = *displayName;
  return Value(d);
}

// Display names run against identifier order, so that the order shows which one is used.
Dictionary catalogue() {
  return {{"a-stone", texture({"mask", "stone"}, "Zz Slate")},
          {"b-stone", texture({"stone", "mask"}, "Aa Granite")},
          {"c-paper", texture({"mask", "paper", "stone"}, "Paper Stone")},
          {"d-plain", texture({"mask"}, "Plain")},
          {"e-wood", texture({"mask", "wood"}, std::nullopt)},
          {"f-other", texture({"composite", "zzz"}, "Other")}};
}

std::string id(const std::string& key) { return _QVFilterTextureStore::_textureIdentifierWithKey(key); }

struct Item {
  std::string title;
  std::int64_t tag;
  Value represented;
  bool enabled;
  std::int64_t indentation;
  bool separator;
  bool operator==(const Item&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Item& i) {
  return os << "{\"" << i.title << "\" tag " << i.tag << " -> " << i.represented.description()
            << (i.enabled ? "" : " disabled") << " indent " << i.indentation << (i.separator ? " separator" : "")
            << "}";
}

std::vector<Item> itemsOf(const NSMenu& menu) {
  std::vector<Item> items;
  for (const auto& it : menu.itemArray())
    items.push_back({it->title(), it->tag(), it->representedObject(), it->isEnabled(), it->indentationLevel(),
                     it->isSeparatorItem()});
  return items;
}

const Item kNone{"None", 1, Value(), true, 0, false};
const Item kSeparator{"", 0, Value(), true, 0, true};

Item heading(const std::string& tag) { return {tag, 0, Value(), false, 0, false}; }
Item random(const std::string& tag) {
  return {tag + " (Random)", 0, Value(_QVFilterTextureStore::textureKeyForTag(tag)), true, 1, false};
}
Item textureItem(const std::string& title, const std::string& key) {
  return {title, 0, Value(id(key)), true, 1, false};
}

// Sets the locale variables for one scope.
class Locale {
 public:
  explicit Locale(const char* lang) {
    for (const char* v : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      const char* old = std::getenv(v);
      saved_.emplace_back(v, old ? std::optional<std::string>(old) : std::nullopt);
      unsetenv(v);
    }
    if (lang) setenv("LANG", lang, 1);
  }
  ~Locale() {
    for (const auto& [name, value] : saved_) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
  }

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

class Menus : public qvtest::BundleTest {
 protected:
  Locale english_{"C"};
};

}  // namespace

TEST_F(Menus, FilterNameMenuListsTheCategoryWithNameAsTitleAndObject) {
  const NSMenuRef menu = Controller::menuWithFilterNamesForCategory(kCICategoryBlur);
  const std::vector<std::string> names = CIFilter::filterNamesInCategory(kCICategoryBlur);
  ASSERT_FALSE(names.empty());
  ASSERT_EQ(menu->numberOfItems(), static_cast<std::int64_t>(names.size()));
  for (std::size_t i = 0; i < names.size(); ++i) {
    const NSMenuItemRef item = menu->itemAtIndex(static_cast<std::int64_t>(i));
    EXPECT_EQ(item->title(), names[i]);
    EXPECT_EQ(item->representedObject(), Value(names[i]));
    EXPECT_EQ(item->keyEquivalent(), "");
    EXPECT_EQ(item->tag(), 0);
  }
  EXPECT_EQ(Controller::menuWithFilterNamesForCategory("NoSuchCategory")->numberOfItems(), 0);
  // The composite operations, as the composite views offer them.
  const NSMenuRef composites = Controller::menuWithFilterNamesForCategory(kCICategoryCompositeOperation);
  EXPECT_GE(composites->indexOfItemWithRepresentedObject("CISourceOverCompositing"), 0);
}

TEST_F(Menus, UnknownTagsGiveNoneAndASeparatorOnly) {
  FixtureCatalogue c(catalogue());
  const NSMenuRef menu = Controller::menuForTexturesWithTags({"nothing-carries-this"});
  EXPECT_EQ(itemsOf(*menu), (std::vector<Item>{kNone, kSeparator}));
  EXPECT_FALSE(menu->autoenablesItems());
}

TEST_F(Menus, EmptyCatalogueGivesNoneAndASeparatorOnly) {
  FixtureCatalogue c(Dictionary{});
  EXPECT_EQ(itemsOf(*Controller::menuForTexturesWithTags({"mask"})), (std::vector<Item>{kNone, kSeparator}));
}

TEST_F(Menus, TextureMenuGroupsBySortedSubTags) {
  FixtureCatalogue c(catalogue());
  const NSMenuRef menu = Controller::menuForTexturesWithTags({"mask"});
  // "mask" never comes back as a heading; "zzz" belongs to a texture without "mask"; d-plain
  // carries no other tag and is in no group; c-paper is in two groups; textures follow their
  // identifiers, not their display names; e-wood has no display name and shows its identifier.
  const std::vector<Item> expected{kNone,
                                   kSeparator,
                                   heading("paper"),
                                   random("paper"),
                                   textureItem("Paper Stone", "c-paper"),
                                   heading("stone"),
                                   random("stone"),
                                   textureItem("Zz Slate", "a-stone"),
                                   textureItem("Aa Granite", "b-stone"),
                                   textureItem("Paper Stone", "c-paper"),
                                   heading("wood"),
                                   random("wood"),
                                   textureItem(id("e-wood"), "e-wood")};
  EXPECT_EQ(itemsOf(*menu), expected);
}

TEST_F(Menus, SeveralRequestedTagsNarrowTheTextures) {
  FixtureCatalogue c(catalogue());
  const NSMenuRef menu = Controller::menuForTexturesWithTags({"mask", "stone"});
  EXPECT_EQ(itemsOf(*menu), (std::vector<Item>{kNone, kSeparator, heading("paper"), random("paper"),
                                               textureItem("Paper Stone", "c-paper")}));
}

TEST_F(Menus, NoneAndRandomAreLocalised) {
  FixtureCatalogue c(catalogue());
  {
    Locale german("de_DE.UTF-8");
    const NSMenuRef menu = Controller::menuForTexturesWithTags({"mask", "stone"});
    EXPECT_EQ(menu->itemAtIndex(0)->title(), "Keine");
    EXPECT_EQ(menu->itemAtIndex(3)->title(), "paper (zufällig)");
  }
  {
    Locale french("fr");
    EXPECT_EQ(Controller::menuForTexturesWithTags({"x"})->itemAtIndex(0)->title(), "Aucune");
  }
  {
    Locale unknown("xx_YY");  // no such translation: English
    EXPECT_EQ(Controller::menuForTexturesWithTags({"x"})->itemAtIndex(0)->title(), "None");
  }
}

TEST_F(Menus, TheShippedCatalogueOffersMasks) {
  const NSMenuRef menu = Controller::menuForTexturesWithTags({"mask"});
  ASSERT_GT(menu->numberOfItems(), 2);
  EXPECT_EQ(menu->itemAtIndex(0)->tag(), QVFilterIKFilterUIViewControllerTexturesMenuNoneItemTag);
  // Headings are the only disabled items, and "None" the only tagged one.
  for (std::int64_t i = 2; i < menu->numberOfItems(); ++i) {
    const NSMenuItemRef item = menu->itemAtIndex(i);
    EXPECT_EQ(item->tag(), 0);
    EXPECT_EQ(item->isEnabled(), item->indentationLevel() != 0) << item->title();
  }
}
