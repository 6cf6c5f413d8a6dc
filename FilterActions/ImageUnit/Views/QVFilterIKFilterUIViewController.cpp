#include "Views/QVFilterIKFilterUIViewController.h"

#include <algorithm>
#include <vector>

#include "Foundation/KeyPath.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSURL.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Textures/_QVFilterTextureStore.h"
#include "Views/QVFilterColorWellValueTransformer.h"

namespace {

// The catalogue record of a texture, by the key the store lists it under.
Value textureRecord(const std::string& key) {
  return _QVFilterTextureStore::textureForTextureIdentifier(
      _QVFilterTextureStore::resolveNewTextureIdentifierForKey(key, NSURLRef()));
}

void addTagsOfTexture(const Value& texture, std::set<std::string>& into) {
  if (const Array* tags = texture[_QVFilterTextureTagsKey].array()) {
    for (const Value& tag : *tags)
      if (const std::string* s = tag.string()) into.insert(*s);
  }
}

// "%@" filled with the argument, as the platform's stringWithFormat: does for one object.
std::string formatWithObject(const std::string& format, const std::string& argument) {
  std::string out;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '@') {
      out += argument;
      ++i;
    } else if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      ++i;
    } else {
      out += format[i];
    }
  }
  return out;
}

std::string localized(const std::string& key) {
  const auto bundle = QVFilterIKFilterUIViewController::pluginBundle();
  return bundle ? bundle->localizedStringForKey(key, "", "") : key;
}

}  // namespace

std::shared_ptr<NSBundle> QVFilterIKFilterUIViewController::pluginBundle() {
  return NSBundle::bundleWithIdentifier(QVFilterImageUnitsBundleIdentifier);
}

NSMenuRef QVFilterIKFilterUIViewController::menuWithFilterNamesForCategory(const std::string& category) {
  auto menu = std::make_shared<NSMenu>();
  for (const std::string& name : CIFilter::filterNamesInCategory(category)) {
    const NSMenuItemRef item = menu->addItemWithTitle(name, "");
    item->setRepresentedObject(name);
  }
  return menu;
}

NSMenuRef QVFilterIKFilterUIViewController::menuForTexturesWithTags(const std::set<std::string>& tags) {
  std::set<std::string> related;
  for (const std::string& key : _QVFilterTextureStore::filteredTextureKeysContainingTags(tags))
    addTagsOfTexture(textureRecord(key), related);
  // std::set keeps them in ascending byte order, the order of compare:.
  std::vector<std::string> subTags;
  for (const std::string& tag : related)
    if (!tags.count(tag)) subTags.push_back(tag);

  auto menu = std::make_shared<NSMenu>();
  menu->setAutoenablesItems(false);
  const NSMenuItemRef none = menu->addItemWithTitle(localized("None"), "");
  none->setTag(QVFilterIKFilterUIViewControllerTexturesMenuNoneItemTag);
  menu->addItem(NSMenuItem::separatorItem());

  const std::string randomFormat = localized("%@ (Random)");
  for (const std::string& subTag : subTags) {
    const NSMenuItemRef heading = menu->addItemWithTitle(subTag, "");
    heading->setEnabled(false);
    heading->setIndentationLevel(0);

    const NSMenuItemRef random = menu->addItemWithTitle(formatWithObject(randomFormat, subTag), "");
    random->setRepresentedObject(_QVFilterTextureStore::textureKeyForTag(subTag));
    random->setIndentationLevel(1);

    std::set<std::string> groupTags = tags;
    groupTags.insert(subTag);
    // A std::set of identifier strings: sorted by identifier.
    for (const std::string& key : _QVFilterTextureStore::filteredTextureKeysContainingTags(groupTags)) {
      const Value displayName = textureRecord(key)[_QVFilterTextureDisplayNameKey];
      const NSMenuItemRef item = menu->addItemWithTitle(displayName.isString() ? *displayName.string() : key, "");
      item->setRepresentedObject(key);
      item->setIndentationLevel(1);
    }
  }
  return menu;
}

void QVFilterIKFilterUIViewController::loadView() {
  NSViewController::loadView();
  const NSViewRef loaded = isViewLoaded() ? NSViewController::view() : nullptr;
  auto filterView = std::make_shared<IKFilterUIView>(loaded ? loaded->frame() : CGRectZero, representedObject());
  if (loaded) {
    loaded->setFrame(filterView->bounds());
    filterView->addSubview(loaded);
  }
  setView(filterView);
}

std::shared_ptr<IKFilterUIView> QVFilterIKFilterUIViewController::filterUIView() {
  return std::dynamic_pointer_cast<IKFilterUIView>(isViewLoaded() ? NSViewController::view() : nullptr);
}

void QVFilterIKFilterUIViewController::bindToFilter(NSView& control, const std::string& binding, const std::string& key,
                                                    const Dictionary& options) {
  const auto filterView = filterUIView();
  if (!filterView)
    NSException::raise(NSInternalInconsistencyException, "cannot bind " + key + " before the filter view is loaded");
  control.bind(binding, filterView->objectController(), stringWithKeyPathComponents({"selection", key}), options);
}

void QVFilterIKFilterUIViewController::bindColorWellToFilter(NSColorWell& well, const std::string& key) {
  bindToFilter(well, NSValueBinding, key,
               Dictionary{{NSValueTransformerNameBindingOption, QVFilterColorWellValueTransformer::className()}});
}

Value QVFilterIKFilterUIViewController::boundFilterValue(const std::string& key) {
  const auto filterView = filterUIView();
  if (!filterView) return {};
  return filterView->objectController()->valueForKeyPath(stringWithKeyPathComponents({"selection", key}));
}

bool QVFilterIKFilterUIViewController::assertPrecondition(bool holds, const char* method, const char* conditionText,
                                                          const char* file, int line) const {
  if (holds) return true;
  const CIFilterRef& filter = representedObject();
  NSAssertionHandler::currentHandler().handleFailureInMethod(
      method, filter ? "<" + filter->name() + ">" : std::string("nil"), file, line, conditionText);
  return false;
}

std::shared_ptr<IKFilterUIView> QVFilterIKFilterUIViewForFilter(
    const std::shared_ptr<QVFilterIKFilterUIViewController>& controller, CIFilter& filter) {
  if (!controller) return nullptr;
  controller->setRepresentedObject(filter.shared_from_this());
  controller->view();
  return controller->filterUIView();
}

// For hosts: the same texture menu, for the texture pickers they build for filters that do
// not describe a view of their own.
extern "C" __attribute__((visibility("default"))) void QVFilterTexturesMenuWithTags(const std::set<std::string>* tags,
                                                                                    NSMenuRef* menu) {
  if (tags && menu) *menu = QVFilterIKFilterUIViewController::menuForTexturesWithTags(*tags);
}
