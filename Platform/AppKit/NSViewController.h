// NSViewController: a controller that loads its view from a view description of a bundle
// (the "nib" it was initialised with) on the first request for its view. The description's
// outlets are the controller's outlets: non-owning references to views that the view tree owns.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "AppKit/NSView.h"
#include "CoreImage/CIFilter.h"
#include "Foundation/NSException.h"

class NSBundle;

class NSViewController {
 public:
  // initWithNibName:bundle:. An empty name loads no view.
  NSViewController(std::string nibName, std::shared_ptr<NSBundle> bundle);
  virtual ~NSViewController() = default;
  NSViewController(const NSViewController&) = delete;
  NSViewController& operator=(const NSViewController&) = delete;

  const std::string& nibName() const { return nibName_; }
  const std::shared_ptr<NSBundle>& nibBundle() const { return nibBundle_; }

  const CIFilterRef& representedObject() const { return representedObject_; }
  void setRepresentedObject(CIFilterRef object) { representedObject_ = std::move(object); }

  // The view, loaded by loadView on first use; exceptions from loadView pass through and the
  // view stays unloaded.
  NSViewRef view();
  void setView(NSViewRef view) { view_ = std::move(view); }
  bool isViewLoaded() const { return view_ != nullptr; }

  // Loads the described view and its outlets and makes it the view (none for an empty name).
  // Raises NSInternalInconsistencyException when the description is missing or unusable.
  virtual void loadView();

  // The outlet of that name, or nullptr (also before loading).
  NSView* outletNamed(const std::string& name) const;
  template <class T>
  T* outlet(const std::string& name) const {
    return dynamic_cast<T*>(outletNamed(name));
  }

 protected:
  // The outlet, which the description must offer with that class: raises
  // NSInternalInconsistencyException naming the description and the outlet otherwise.
  template <class T>
  T& requiredOutlet(const std::string& name) const {
    NSView* view = outletNamed(name);
    T* typed = dynamic_cast<T*>(view);
    if (!typed) missingOutlet(name, view, T(CGRectZero).className());
    return *typed;
  }

 private:
  [[noreturn]] void missingOutlet(const std::string& name, const NSView* found, const std::string& expectedClass) const;

  std::string nibName_;
  std::shared_ptr<NSBundle> nibBundle_;
  CIFilterRef representedObject_;
  NSViewRef view_;
  std::map<std::string, NSView*> outlets_;
};
