// Menus, menu items, pop-up selection and the value-transformer registry.
#include <gtest/gtest.h>

#include <atomic>

#include "AppKit/NSColor.h"
#include "AppKit/NSControl.h"
#include "AppKit/NSMenu.h"
#include "AppKit/NSValueTransformer.h"

TEST(NSMenu, ItemsKeepWhatTheyAreGiven) {
  NSMenu menu;
  EXPECT_TRUE(menu.autoenablesItems());
  menu.setAutoenablesItems(false);
  EXPECT_FALSE(menu.autoenablesItems());
  auto item = menu.addItemWithTitle("One", "");
  item->setTag(7);
  item->setRepresentedObject("one");
  item->setIndentationLevel(3);
  item->setEnabled(false);
  menu.addItem(NSMenuItem::separatorItem());
  EXPECT_EQ(menu.numberOfItems(), 2);
  EXPECT_EQ(menu.itemAtIndex(0)->title(), "One");
  EXPECT_EQ(menu.itemAtIndex(0)->keyEquivalent(), "");
  EXPECT_FALSE(menu.itemAtIndex(0)->isEnabled());
  EXPECT_EQ(menu.itemAtIndex(0)->indentationLevel(), 3);
  EXPECT_TRUE(menu.itemAtIndex(1)->isSeparatorItem());
  EXPECT_EQ(menu.itemAtIndex(2), nullptr);
  EXPECT_EQ(menu.itemAtIndex(-1), nullptr);
  EXPECT_EQ(menu.itemWithTag(7), item);
  EXPECT_EQ(menu.indexOfItemWithTag(8), -1);
  EXPECT_EQ(menu.indexOfItemWithRepresentedObject("one"), 0);
  EXPECT_EQ(menu.indexOfItemWithRepresentedObject(Value()), -1);  // nil matches nothing
  item->setIndentationLevel(40);
  EXPECT_EQ(item->indentationLevel(), 15);
  item->setIndentationLevel(-2);
  EXPECT_EQ(item->indentationLevel(), 0);
}

TEST(NSPopUpButton, SelectionByIndexAndTag) {
  NSPopUpButton popup(CGRectZero);
  EXPECT_EQ(popup.indexOfSelectedItem(), -1);
  auto menu = std::make_shared<NSMenu>();
  menu->addItemWithTitle("None")->setTag(1);
  menu->addItem(NSMenuItem::separatorItem());
  menu->addItemWithTitle("Other")->setRepresentedObject("x");
  popup.setMenu(menu);
  EXPECT_EQ(popup.indexOfSelectedItem(), 0);  // a new menu selects its first item
  popup.selectItemAtIndex(2);
  EXPECT_EQ(popup.titleOfSelectedItem(), "Other");
  EXPECT_TRUE(popup.selectItemWithTag(1));
  EXPECT_EQ(popup.indexOfSelectedItem(), 0);
  EXPECT_FALSE(popup.selectItemWithTag(99));
  EXPECT_EQ(popup.indexOfSelectedItem(), 0);
  EXPECT_FALSE(popup.userSelectItemAtIndex(1));  // separators are never chosen
  popup.selectItemAtIndex(5);
  EXPECT_EQ(popup.selectedItem(), nullptr);
}

TEST(NSNumberFormatter, FractionDigits) {
  NSNumberFormatter f{0, 2};
  EXPECT_EQ(f.stringFromNumber(10), "10");
  EXPECT_EQ(f.stringFromNumber(0.5), "0.5");
  EXPECT_EQ(f.stringFromNumber(1.23456), "1.23");
  EXPECT_EQ(f.stringFromNumber(-0.001), "0");
  EXPECT_EQ((NSNumberFormatter{1, 1}.stringFromNumber(3)), "3.0");
  EXPECT_EQ(f.numberFromString(" 2.5 "), 2.5);
  EXPECT_EQ(f.numberFromString("2.5x"), std::nullopt);
  EXPECT_EQ(f.numberFromString(""), std::nullopt);
  EXPECT_EQ(f.numberFromString("inf"), std::nullopt);
}

TEST(NSColor, ConvertsToAndFromEngineColours) {
  const auto color = NSColor::colorWithCIColor(CIColor(0.1, 0.2, 0.3, 0.4));
  EXPECT_EQ(color->className(), "NSColor");
  const CGColor cg = color->qvappkit_CGColor();
  EXPECT_EQ(cg.red, 0.1);
  EXPECT_EQ(cg.alpha, 0.4);
  EXPECT_TRUE(color->isEqual(*NSColor::colorWithSRGBRed(0.1, 0.2, 0.3, 0.4)));
  EXPECT_FALSE(color->isEqual(*NSColor::colorWithSRGBRed(0.1, 0.2, 0.3, 1)));
}

namespace {
std::atomic<int> gMade{0};
class CountingTransformer : public NSValueTransformer {
 public:
  CountingTransformer() { ++gMade; }
  Value transformedValue(const Value& v) const override { return Value(v.doubleValue() * 2); }
};
}  // namespace

TEST(NSValueTransformer, ClassesAreInstantiatedOnFirstUseByName) {
  NSValueTransformer::registerValueTransformerClass("CountingTransformer",
                                                    [] { return std::make_shared<CountingTransformer>(); });
  EXPECT_EQ(gMade, 0);
  const auto first = NSValueTransformer::valueTransformerForName("CountingTransformer");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(NSValueTransformer::valueTransformerForName("CountingTransformer"), first);
  EXPECT_EQ(gMade, 1);
  EXPECT_EQ(first->transformedValue(Value(2)), Value(4.0));
  EXPECT_FALSE(first->allowsReverseTransformation());
  EXPECT_EQ(NSValueTransformer::valueTransformerForName("NoSuchTransformer"), nullptr);
}

TEST(NSValueTransformer, InstancesRegisteredByName) {
  auto t = std::make_shared<CountingTransformer>();
  NSValueTransformer::setValueTransformer(t, "Shared");
  EXPECT_EQ(NSValueTransformer::valueTransformerForName("Shared"), t);
  NSValueTransformer::setValueTransformer(nullptr, "Shared");
  EXPECT_EQ(NSValueTransformer::valueTransformerForName("Shared"), nullptr);
}
