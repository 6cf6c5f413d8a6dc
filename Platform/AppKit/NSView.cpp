#include "AppKit/NSView.h"

#include <algorithm>

#include "Foundation/NSException.h"

NSView::~NSView() {
  for (auto& [name, binding] : bindings_) binding.info.observedObject->removeObserver(binding.token);
  for (auto& view : subviews_) view->superview_ = nullptr;
}

void NSView::addSubview(NSViewRef view) {
  if (!view || view.get() == this) return;
  view->removeFromSuperview();
  view->superview_ = this;
  subviews_.push_back(std::move(view));
}

void NSView::removeFromSuperview() {
  if (!superview_) return;
  auto& siblings = superview_->subviews_;
  superview_ = nullptr;
  // The erased reference may be the last owner of this view: nothing touches it afterwards.
  std::erase_if(siblings, [this](const NSViewRef& v) { return v.get() == this; });
}

void NSView::bind(const std::string& binding, const std::shared_ptr<NSObjectController>& observable,
                  const std::string& keyPath, const Dictionary& options) {
  const std::vector<std::string> exposed = exposedBindings();
  if (std::find(exposed.begin(), exposed.end(), binding) == exposed.end())
    NSException::raise(NSInvalidArgumentException, className() + " does not expose the binding \"" + binding + "\"");
  if (!observable) NSException::raise(NSInvalidArgumentException, "cannot bind \"" + binding + "\" to nil");
  NSValueTransformerRef transformer;
  if (auto it = options.find(NSValueTransformerNameBindingOption); it != options.end()) {
    const std::string* name = it->second.string();
    transformer = name ? NSValueTransformer::valueTransformerForName(*name) : nullptr;
    if (!transformer)
      NSException::raise(NSInvalidArgumentException,
                         "cannot find a value transformer named \"" + (name ? *name : it->second.description()) + "\"");
  }
  observable->keyForKeyPath(keyPath);  // raises for a key path the controller cannot serve
  unbind(binding);
  Binding b;
  b.info = NSBindingInfo{observable, keyPath, options};
  b.transformer = std::move(transformer);
  // The binding is removed (and the observer with it) before the view goes.
  b.token = observable->addObserverForKeyPath(keyPath, [this, binding] { pullBinding(binding); });
  bindings_.emplace(binding, std::move(b));
  pullBinding(binding);
}

void NSView::unbind(const std::string& binding) {
  auto it = bindings_.find(binding);
  if (it == bindings_.end()) return;
  it->second.info.observedObject->removeObserver(it->second.token);
  bindings_.erase(it);
}

const NSBindingInfo* NSView::infoForBinding(const std::string& binding) const {
  auto it = bindings_.find(binding);
  return it == bindings_.end() ? nullptr : &it->second.info;
}

std::vector<std::string> NSView::boundBindings() const {
  std::vector<std::string> names;
  for (const auto& [name, b] : bindings_) names.push_back(name);
  return names;
}

void NSView::pullBinding(const std::string& binding) {
  auto it = bindings_.find(binding);
  if (it == bindings_.end()) return;
  const Binding& b = it->second;
  Value value = b.info.observedObject->valueForKeyPath(b.info.observedKeyPath);
  if (b.transformer) value = b.transformer->transformedValue(value);
  setValueForBinding(binding, value);
}

void NSView::pushBinding(const std::string& binding) {
  auto it = bindings_.find(binding);
  if (it == bindings_.end()) return;
  // Copies: writing the model calls back into this view, which may rebind.
  const NSBindingInfo info = it->second.info;
  const NSValueTransformerRef transformer = it->second.transformer;
  Value value = valueForBinding(binding);
  if (transformer) {
    if (!transformer->allowsReverseTransformation()) return;  // a one-way binding
    value = transformer->reverseTransformedValue(value);
  }
  info.observedObject->setValueForKeyPath(value, info.observedKeyPath);
}
