#include "Framework/QVFilter.h"

Value QVFilterAttributesByAdding(const Value& superAttributes, const Dictionary& entries) {
  Dictionary attributes;
  if (const Dictionary* inherited = superAttributes.dictionary()) attributes = *inherited;
  for (const auto& [key, entry] : entries) attributes[key] = entry;
  return Value(std::move(attributes));
}

CIFilterRef QVFilterWithDefaults(const std::string& name) {
  CIFilterRef filter = CIFilter::filterWithName(name);
  if (filter) filter->setDefaults();
  return filter;
}

Value QVFilterAttributeDefault(const CIFilter& filter, const std::string& key) {
  return Value(filter.attributes())[key][kCIAttributeDefault];
}

CIImage QVFilterOutputImage(const CIFilterRef& filter) {
  if (!filter) return {};
  return filter->outputImage();  // what valueForKey(kCIOutputImageKey) answers
}

CIImage QVFilterPointOperationOutput(const CIFilter& filter, const std::string& builtinName, const CIImage& image) {
  if (!image) return {};
  const CIFilterRef builtin = QVFilterWithDefaults(builtinName);
  if (!builtin) return {};
  for (const std::string& key : filter.inputKeys())
    if (key != kCIInputImageKey) builtin->setValue(filter.valueForKey(key), key);
  builtin->setValue(image, kCIInputImageKey);
  return QVFilterOutputImage(builtin).imageByCroppingToRect(image.extent());
}
