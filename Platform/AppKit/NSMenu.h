// NSMenu and NSMenuItem: the menus of pop-up buttons. Items carry a title, a tag, a
// represented object, an enabled flag and an indentation level; separators are items too.
// Headless: items have no action, and nothing enables or disables them on its own (the menu's
// autoenablesItems flag is kept for those who read it).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/Value.h"

class NSMenuItem;
using NSMenuItemRef = std::shared_ptr<NSMenuItem>;

class NSMenuItem {
 public:
  // initWithTitle:action:keyEquivalent: with no action.
  explicit NSMenuItem(std::string title, std::string keyEquivalent = "")
      : title_(std::move(title)), keyEquivalent_(std::move(keyEquivalent)) {}
  static NSMenuItemRef separatorItem();

  const std::string& title() const { return title_; }
  void setTitle(std::string title) { title_ = std::move(title); }
  const std::string& keyEquivalent() const { return keyEquivalent_; }
  std::int64_t tag() const { return tag_; }
  void setTag(std::int64_t tag) { tag_ = tag; }
  const Value& representedObject() const { return representedObject_; }
  void setRepresentedObject(Value object) { representedObject_ = std::move(object); }
  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }
  // 0 to 15, as the platform clamps it.
  std::int64_t indentationLevel() const { return indentationLevel_; }
  void setIndentationLevel(std::int64_t level);
  bool isSeparatorItem() const { return separator_; }

 private:
  std::string title_;
  std::string keyEquivalent_;
  std::int64_t tag_ = 0;
  Value representedObject_;
  bool enabled_ = true;
  std::int64_t indentationLevel_ = 0;
  bool separator_ = false;
};

class NSMenu;
using NSMenuRef = std::shared_ptr<NSMenu>;

class NSMenu {
 public:
  explicit NSMenu(std::string title = "") : title_(std::move(title)) {}

  const std::string& title() const { return title_; }
  bool autoenablesItems() const { return autoenablesItems_; }
  void setAutoenablesItems(bool autoenables) { autoenablesItems_ = autoenables; }

  void addItem(NSMenuItemRef item);
  // addItemWithTitle:action:keyEquivalent: with no action; returns the new item.
  NSMenuItemRef addItemWithTitle(std::string title, std::string keyEquivalent = "");

  const std::vector<NSMenuItemRef>& itemArray() const { return items_; }
  std::int64_t numberOfItems() const { return static_cast<std::int64_t>(items_.size()); }
  // nil outside 0 ..< numberOfItems.
  NSMenuItemRef itemAtIndex(std::int64_t index) const;
  // The first item with the tag, or nil; indexOfItemWithTag gives -1 for none.
  NSMenuItemRef itemWithTag(std::int64_t tag) const;
  std::int64_t indexOfItemWithTag(std::int64_t tag) const;
  // The first item whose represented object equals object (nil matches no item), or -1.
  std::int64_t indexOfItemWithRepresentedObject(const Value& object) const;

 private:
  std::string title_;
  bool autoenablesItems_ = true;
  std::vector<NSMenuItemRef> items_;
};
