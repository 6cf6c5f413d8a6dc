#include "AppKit/NSValueTransformer.h"

#include <map>
#include <mutex>

namespace {

struct TransformerRegistry {
  std::mutex mutex;
  std::map<std::string, NSValueTransformerRef> instances;
  std::map<std::string, std::function<NSValueTransformerRef()>> classes;
};

TransformerRegistry& registry() {
  static TransformerRegistry* r = new TransformerRegistry;  // lives as long as the process
  return *r;
}

}  // namespace

NSValueTransformerRef NSValueTransformer::valueTransformerForName(const std::string& name) {
  TransformerRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  if (auto it = r.instances.find(name); it != r.instances.end()) return it->second;
  auto cls = r.classes.find(name);
  if (cls == r.classes.end() || !cls->second) return nullptr;
  NSValueTransformerRef made = cls->second();
  if (made) r.instances[name] = made;
  return made;
}

void NSValueTransformer::setValueTransformer(NSValueTransformerRef transformer, const std::string& name) {
  TransformerRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  if (transformer)
    r.instances[name] = std::move(transformer);
  else
    r.instances.erase(name);
}

void NSValueTransformer::registerValueTransformerClass(const std::string& className,
                                                       std::function<NSValueTransformerRef()> make) {
  TransformerRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  r.classes.emplace(className, std::move(make));
}
