#include "AppKit/NSViewController.h"

#include "AppKit/NSViewDescription.h"
#include "Foundation/NSBundle.h"

NSViewController::NSViewController(std::string nibName, std::shared_ptr<NSBundle> bundle)
    : nibName_(std::move(nibName)), nibBundle_(std::move(bundle)) {}

NSViewRef NSViewController::view() {
  if (!view_) loadView();
  return view_;
}

void NSViewController::loadView() {
  if (nibName_.empty()) return;
  if (!nibBundle_)
    NSException::raise(NSInternalInconsistencyException,
                       "could not load the view description \"" + nibName_ + "\": no bundle");
  NSViewDescription loaded = NSViewDescriptionLoad(*nibBundle_, nibName_);
  outlets_ = std::move(loaded.outlets);
  view_ = std::move(loaded.view);
}

NSView* NSViewController::outletNamed(const std::string& name) const {
  auto it = outlets_.find(name);
  return it == outlets_.end() ? nullptr : it->second;
}

void NSViewController::missingOutlet(const std::string& name, const NSView* found,
                                     const std::string& expectedClass) const {
  NSException::raise(NSInternalInconsistencyException,
                     "view description " + nibName_ + ": " +
                         (found ? "outlet \"" + name + "\" is a " + found->className() + ", not a " + expectedClass
                                : "no outlet \"" + name + "\" (" + expectedClass + ")"));
}
