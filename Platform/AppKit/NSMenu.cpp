#include "AppKit/NSMenu.h"

#include <algorithm>

NSMenuItemRef NSMenuItem::separatorItem() {
  auto item = std::make_shared<NSMenuItem>("");
  item->separator_ = true;  // never chosen, whatever its enabled flag says
  return item;
}

void NSMenuItem::setIndentationLevel(std::int64_t level) { indentationLevel_ = std::clamp<std::int64_t>(level, 0, 15); }

void NSMenu::addItem(NSMenuItemRef item) {
  if (item) items_.push_back(std::move(item));
}

NSMenuItemRef NSMenu::addItemWithTitle(std::string title, std::string keyEquivalent) {
  auto item = std::make_shared<NSMenuItem>(std::move(title), std::move(keyEquivalent));
  items_.push_back(item);
  return item;
}

NSMenuItemRef NSMenu::itemAtIndex(std::int64_t index) const {
  if (index < 0 || index >= numberOfItems()) return nullptr;
  return items_[static_cast<std::size_t>(index)];
}

NSMenuItemRef NSMenu::itemWithTag(std::int64_t tag) const { return itemAtIndex(indexOfItemWithTag(tag)); }

std::int64_t NSMenu::indexOfItemWithTag(std::int64_t tag) const {
  for (std::size_t i = 0; i < items_.size(); ++i)
    if (!items_[i]->isSeparatorItem() && items_[i]->tag() == tag) return static_cast<std::int64_t>(i);
  return -1;
}

std::int64_t NSMenu::indexOfItemWithRepresentedObject(const Value& object) const {
  if (object.isNil()) return -1;
  for (std::size_t i = 0; i < items_.size(); ++i)
    if (items_[i]->representedObject() == object) return static_cast<std::int64_t>(i);
  return -1;
}
