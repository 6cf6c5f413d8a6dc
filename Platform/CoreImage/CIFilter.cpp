#include "CoreImage/CIFilter.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Foundation/NSKeyedArchiver.h"

namespace {

struct Registry {
  std::shared_mutex mutex;
  std::map<std::string, CIFilterRegistration> filters;
};

Registry& registry() {
  static Registry r;
  return r;
}

std::mutex& hookMutex() {
  static std::mutex m;
  return m;
}

CIKernelApplyHook& hook() {
  static CIKernelApplyHook h;
  return h;
}

// The attribute dictionary of one declared input: only the members that are set.
Dictionary attributesOf(const CIInputSpec& spec) {
  Dictionary d;
  if (!spec.attributeClass.empty()) d[kCIAttributeClass] = spec.attributeClass;
  if (!spec.type.empty()) d[kCIAttributeType] = spec.type;
  if (spec.defaultValue) d[kCIAttributeDefault] = spec.defaultValue;
  if (spec.identity) d[kCIAttributeIdentity] = spec.identity;
  if (spec.min) d[kCIAttributeMin] = spec.min;
  if (spec.max) d[kCIAttributeMax] = spec.max;
  if (spec.sliderMin) d[kCIAttributeSliderMin] = spec.sliderMin;
  if (spec.sliderMax) d[kCIAttributeSliderMax] = spec.sliderMax;
  if (!spec.displayName.empty()) d[kCIAttributeDisplayName] = spec.displayName;
  if (!spec.description.empty()) d[kCIAttributeDescription] = spec.description;
  return d;
}

}  // namespace

void CIFilter::registerFilter(CIFilterRegistration registration) {
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  auto it = r.filters.find(registration.name);
  if (it != r.filters.end())
    it->second = std::move(registration);  // in place, so that pointers handed out stay valid
  else
    r.filters.emplace(registration.name, std::move(registration));
}

const CIFilterRegistration* CIFilter::registrationForName(const std::string& name) {
  registerBuiltinFilters();
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  auto it = r.filters.find(name);
  return it == r.filters.end() ? nullptr : &it->second;
}

CIFilterRef CIFilter::filterWithName(const std::string& name) {
  registerBuiltinFilters();
  std::function<CIFilterRef()> make;
  {
    Registry& r = registry();
    std::shared_lock lock(r.mutex);
    auto it = r.filters.find(name);
    if (it == r.filters.end()) return nullptr;
    make = it->second.make;
  }
  if (!make) return nullptr;
  CIFilterRef filter = make();
  if (filter) filter->name_ = name;
  return filter;
}

std::vector<std::string> CIFilter::filterNamesInCategory(const std::string& category) {
  if (category.empty()) return filterNamesInCategories({});
  return filterNamesInCategories({category});
}

std::vector<std::string> CIFilter::filterNamesInCategories(const std::vector<std::string>& categories) {
  registerBuiltinFilters();
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  std::vector<std::string> names;
  for (const auto& [name, registration] : r.filters) {
    // clang 14 cannot capture a structured binding in a lambda; name the registration.
    const CIFilterRegistration& reg = registration;
    const bool all = std::all_of(categories.begin(), categories.end(), [&](const std::string& c) {
      return c.empty() || std::find(reg.categories.begin(), reg.categories.end(), c) != reg.categories.end();
    });
    if (all) names.push_back(name);
  }
  return names;  // std::map keeps them sorted
}

std::vector<std::string> CIFilter::inputKeys() const {
  std::vector<std::string> keys;
  if (const CIFilterRegistration* reg = registrationForName(name_)) {
    if (!reg->inputs.empty()) {
      for (const auto& spec : reg->inputs) keys.push_back(spec.key);
    } else {
      for (const auto& [key, value] : reg->inputAttributes) keys.push_back(key);
    }
  }
  return keys;
}

namespace {

// True when every attribute of `entry` stands in `declared` with the same value.
bool declaredEntryCovers(const Value& declared, const Dictionary& entry) {
  const Dictionary* d = declared.dictionary();
  if (!d) return false;
  for (const auto& [attribute, value] : entry) {
    const auto it = d->find(attribute);
    if (it == d->end() || !(it->second == value)) return false;
  }
  return true;
}

}  // namespace

Dictionary CIFilter::attributes() const {
  Dictionary attrs;
  attrs[kCIAttributeFilterName] = name_;
  if (const CIFilterRegistration* reg = registrationForName(name_)) {
    attrs[kCIAttributeFilterDisplayName] = reg->displayName.empty() ? name_ : reg->displayName;
    Array cats;
    for (const auto& c : reg->categories) cats.emplace_back(c);
    attrs[kCIAttributeFilterCategories] = Value(std::move(cats));
    if (!reg->inputs.empty()) {
      for (const auto& spec : reg->inputs) attrs[spec.key] = Value(attributesOf(spec));
    } else {
      for (const auto& [key, value] : reg->inputAttributes) attrs[key] = value;
    }
  } else {
    attrs[kCIAttributeFilterDisplayName] = name_;
    attrs[kCIAttributeFilterCategories] = Value(Array{});
  }
  // A filter's own description of an input replaces the declared one whole, unless the
  // declared one already says everything the filter's says (an empty entry, or one that only
  // names the class): the host's filter description then keeps the default and ranges it adds.
  const Value custom = customAttributes();
  if (const Dictionary* d = custom.dictionary()) {
    for (const auto& [key, value] : *d) {
      const Dictionary* entry = value.dictionary();
      if (!entry) continue;
      const auto declared = attrs.find(key);
      if (declared != attrs.end() && declaredEntryCovers(declared->second, *entry)) continue;
      attrs[key] = value;
    }
  }
  return attrs;
}

void CIFilter::setDefaults() {
  const Dictionary attrs = attributes();
  for (const std::string& key : inputKeys()) {
    auto it = attrs.find(key);
    if (it == attrs.end()) continue;
    const Value def = it->second[kCIAttributeDefault];
    if (def) setValue(def, key);
  }
}

void CIFilter::setValue(const Value& value, const std::string& key) {
  if (key == kCIOutputImageKey) return;  // read-only
  storeValue(key, value);
}

Value CIFilter::valueForKey(const std::string& key) const {
  if (key == kCIOutputImageKey) return outputImage();
  return storedValue(key);
}

Value CIFilter::storedValue(const std::string& key) const {
  auto it = values_.find(key);
  return it == values_.end() ? Value() : it->second;
}

void CIFilter::storeValue(const std::string& key, const Value& value) {
  if (value.isNil())
    values_.erase(key);
  else
    values_[key] = value;
  if (!observers_.list.empty()) notifyObservers(key);
}

std::shared_ptr<IKFilterUIView> CIFilter::provideViewForUIConfiguration(const Dictionary& /*configuration*/,
                                                                        const std::vector<std::string>& /*excludedKeys*/) {
  return nullptr;
}

CIFilter::ObserverToken CIFilter::addObserver(Observer observer) {
  const ObserverToken token = observers_.next++;
  observers_.list.emplace_back(token, std::move(observer));
  return token;
}

void CIFilter::removeObserver(ObserverToken token) {
  std::erase_if(observers_.list, [token](const auto& entry) { return entry.first == token; });
}

void CIFilter::notifyObservers(const std::string& key) {
  // A copy, so that an observer may change the list; one removed meanwhile is not told.
  const auto observers = observers_.list;
  for (const auto& [token, observer] : observers) {
    const bool stillRegistered = std::any_of(observers_.list.begin(), observers_.list.end(),
                                             [t = token](const auto& entry) { return entry.first == t; });
    if (stillRegistered) observer(key);
  }
}

CIImage CIFilter::apply(const CIKernelRef& kernel, const Array& arguments, const Dictionary& options) const {
  CIKernelApplyHook h;
  {
    std::lock_guard lock(hookMutex());
    h = hook();
  }
  if (!h || !kernel) return {};
  return h(kernel, arguments, options);
}

void CISetKernelApplyHook(CIKernelApplyHook hook_) {
  std::lock_guard lock(hookMutex());
  hook() = std::move(hook_);
}

namespace {

std::string encodeColor(const Object& o) { return static_cast<const CIColor&>(o).stringRepresentation(); }
ObjectRef decodeColor(const std::string& s) { return CIColor::colorWithString(s); }
std::string encodeVector(const Object& o) { return static_cast<const CIVector&>(o).stringRepresentation(); }
ObjectRef decodeVector(const std::string& s) { return CIVector::vectorWithString(s); }

// The string forms by which colours and vectors are archived.
void registerCoreImageCodingClasses() {
  static const bool registered = [] {
    NSCoderRegisterClass(NSCodingClass{"CIColor", encodeColor, decodeColor});
    NSCoderRegisterClass(NSCodingClass{"CIVector", encodeVector, decodeVector});
    return true;
  }();
  (void)registered;
}

}  // namespace

CIFilterRef CIFilter::copy() const {
  CIFilterRef copied = filterWithName(name_);
  if (copied) copied->values_ = values_;
  return copied;
}

void CIFilter::encodeWithCoder(NSCoder& coder) const {
  registerCoreImageCodingClasses();
  for (const auto& [key, value] : values_) coder.encodeObject(value, key);
}

bool CIFilter::initWithCoder(const NSCoder& coder) {
  registerCoreImageCodingClasses();
  for (const std::string& key : coder.allKeys()) storeValue(key, coder.decodeObjectForKey(key));
  return true;
}

std::optional<std::string> CIFilter::archivedDataWithFilter(const CIFilter& filter) {
  NSCoder coder;
  coder.setClassName(filter.name());
  filter.encodeWithCoder(coder);
  return NSKeyedArchiver::archivedDataWithCoder(coder);
}

CIFilterRef CIFilter::filterWithArchivedData(std::string_view data) {
  registerCoreImageCodingClasses();
  const std::optional<NSCoder> coder = NSKeyedUnarchiver::coderWithData(data);
  if (!coder) return nullptr;
  CIFilterRef filter = filterWithName(coder->className());
  if (!filter || !filter->initWithCoder(*coder)) return nullptr;
  return filter;
}
