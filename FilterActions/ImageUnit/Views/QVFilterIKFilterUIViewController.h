// QVFilterIKFilterUIViewController: the base of the plug-in's parameter-view controllers. A
// controller is made on a view description of the plug-in's bundle, given the filter as its
// represented object, and asked for its view: an IKFilterUIView wrapping the described
// controls, which the subclasses then bind to the filter's inputs through the view's object
// controller ("selection.<input key>"). Main thread only.
//
// It also builds the menus of the pop-ups: platform filter names of a category, and textures
// of the catalogue by tag.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "AppKit/IKFilterUIView.h"
#include "AppKit/NSControl.h"
#include "AppKit/NSMenu.h"
#include "AppKit/NSViewController.h"

// Tag of the "None" item of every texture menu.
inline constexpr std::int64_t QVFilterIKFilterUIViewControllerTexturesMenuNoneItemTag = 1;

class QVFilterIKFilterUIViewController : public NSViewController {
 public:
  using NSViewController::NSViewController;

  // The platform's filter names in the category, in the platform's order, each item titled
  // with the name and representing it.
  static NSMenuRef menuWithFilterNamesForCategory(const std::string& category);

  // "None" (tag 1), a separator, then for every tag that the textures carrying all of `tags`
  // also carry (in ascending order, the requested tags left out): a disabled heading, a
  // "%@ (Random)" item representing the tag's key, and the textures carrying `tags` and that
  // tag, sorted by identifier, titled by display name, each representing its identifier.
  static NSMenuRef menuForTexturesWithTags(const std::set<std::string>& tags);

  // Loads the described view and wraps it in an IKFilterUIView for the represented object.
  void loadView() override;

  // The view as the IKFilterUIView it is after loading (nil before, or if it is not one).
  std::shared_ptr<IKFilterUIView> filterUIView();

  // The plug-in's bundle (found by its identifier); nil when it is not loaded.
  static std::shared_ptr<NSBundle> pluginBundle();

  // Binds a control of the view to one input of the filter: `binding` at "selection.<key>" of
  // the IKFilterUIView's object controller (the view must be loaded).
  void bindToFilter(NSView& control, const std::string& binding, const std::string& key,
                    const Dictionary& options = {});
  // The same with NSValueTransformerNameBindingOption naming the colour-well transformer.
  void bindColorWellToFilter(NSColorWell& well, const std::string& key);
  // The filter's value of an input, read through the view's object controller.
  Value boundFilterValue(const std::string& key);

  // The outlet, which the view description must offer with that class (raises otherwise).
  using NSViewController::requiredOutlet;

 protected:
  // A precondition of loadView: when it does not hold, the assertion handler is told, with
  // exactly the given condition text, source file and line (and raises). False when it failed
  // and the handler came back; the caller then loads nothing.
  bool assertPrecondition(bool holds, const char* method, const char* conditionText, const char* file, int line) const;
};

// Makes the controller's view for the filter, as every filter that describes its own view hands
// it out: the filter becomes the represented object and the view is loaded. nil for a nil
// controller.
std::shared_ptr<IKFilterUIView> QVFilterIKFilterUIViewForFilter(
    const std::shared_ptr<QVFilterIKFilterUIViewController>& controller, CIFilter& filter);
