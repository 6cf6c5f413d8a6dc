// NSView: the headless view toolkit's base. A view has a frame in its superview's coordinates
// (origin bottom-left, as the platform's), bounds at the origin with the frame's size, ordered
// subviews, an identifier (the outlet name a view description gave it) and bindings.
//
// Bindings: bind(binding, controller, keyPath, options) ties one of the view's exposed
// bindings (NSValueBinding, NSSelectedObjectBinding) to a key path of an object controller.
// The view shows the model's value at once and whenever the model changes; a user's edit
// (the controls' userSet... operations) writes the view's value back through the binding. An
// NSValueTransformerNameBindingOption names a registered transformer: forward from model to
// view, reverse from view to model. Binding a binding again replaces the old binding.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AppKit/NSObjectController.h"
#include "AppKit/NSValueTransformer.h"
#include "CoreGraphics/CGGeometry.h"
#include "Foundation/Value.h"

inline constexpr const char* NSValueBinding = "value";
inline constexpr const char* NSSelectedObjectBinding = "selectedObject";
inline constexpr const char* NSValueTransformerNameBindingOption = "NSValueTransformerName";

// What infoForBinding tells about one binding.
struct NSBindingInfo {
  std::shared_ptr<NSObjectController> observedObject;
  std::string observedKeyPath;
  Dictionary options;
};

class NSView;
using NSViewRef = std::shared_ptr<NSView>;

class NSView {
 public:
  explicit NSView(CGRect frame = CGRectZero) : frame_(frame) {}
  virtual ~NSView();
  NSView(const NSView&) = delete;
  NSView& operator=(const NSView&) = delete;

  // The platform class name ("NSView", "NSSlider"...).
  virtual std::string className() const { return "NSView"; }

  CGRect frame() const { return frame_; }
  void setFrame(CGRect frame) { frame_ = frame; }
  CGRect bounds() const { return CGRectMake(0, 0, frame_.size.width, frame_.size.height); }

  const std::vector<NSViewRef>& subviews() const { return subviews_; }
  // Adds the view last; a view already inside another view moves here.
  void addSubview(NSViewRef view);
  void removeFromSuperview();
  NSView* superview() const { return superview_; }

  const std::string& identifier() const { return identifier_; }
  void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

  // ---- Bindings ----
  virtual std::vector<std::string> exposedBindings() const { return {}; }
  // Raises NSInvalidArgumentException for a binding the view does not expose or a transformer
  // name nobody registered, and NSUndefinedKeyException for a key path the controller refuses.
  void bind(const std::string& binding, const std::shared_ptr<NSObjectController>& observable,
            const std::string& keyPath, const Dictionary& options);
  void unbind(const std::string& binding);
  // nullptr when the binding is not bound.
  const NSBindingInfo* infoForBinding(const std::string& binding) const;
  // The bound bindings, by name.
  std::vector<std::string> boundBindings() const;

 protected:
  // Shows the model's value (already transformed) for one of the view's bindings.
  virtual void setValueForBinding(const std::string& /*binding*/, const Value& /*value*/) {}
  // The view's current value for one of its bindings, as the model should get it before any
  // reverse transformation.
  virtual Value valueForBinding(const std::string& /*binding*/) const { return {}; }
  // A user's edit: writes the view's value for the binding to the model, when it is bound.
  void pushBinding(const std::string& binding);

 private:
  struct Binding {
    NSBindingInfo info;
    NSValueTransformerRef transformer;
    NSObjectController::ObserverToken token = 0;
  };
  void pullBinding(const std::string& binding);

  CGRect frame_;
  std::string identifier_;
  std::vector<NSViewRef> subviews_;
  NSView* superview_ = nullptr;
  std::map<std::string, Binding> bindings_;
};
