// QVFilterTextureInput<Base>: the texture name / identifier pair of the filters that lay a
// texture of the catalogue (the texture composite, the texture tile, the texture frame), added
// to their base class:
//
//   "inputTextureName"        the texture the user chose: a texture identifier string or a
//                             tag key;
//   "inputTextureIdentifier"  the texture identifier resolved from it (an empty attribute
//                             entry), maintained by the filter.
//
// The pair follows the mask's rules (QVFilterMask): every assignment of the name, through
// setInputTextureName or key-value coding, and every setCalculatedValues resolves the
// identifier again with the current one as hint; copies keep the identifier; archives hold
// only the name, and decoding resolves the identifier again without hint.
#pragma once

#include "Filters/QVFilterMask.h"
#include "Foundation/NSKeyedArchiver.h"

template <class Base>
class QVFilterTextureInput : public Base {
 public:
  static constexpr const char* inputTextureNameKey = "inputTextureName";
  static constexpr const char* inputTextureIdentifierKey = "inputTextureIdentifier";

  Value inputTextureName() const { return this->storedValue(inputTextureNameKey); }
  // Keeps the name and resolves the identifier from it.
  void setInputTextureName(const Value& name) {
    this->storeValue(inputTextureNameKey, name);
    _updateInputTextureIdentifier();
  }
  NSURLRef inputTextureIdentifier() const { return this->storedValue(inputTextureIdentifierKey).template object<NSURL>(); }
  void setInputTextureIdentifier(const NSURLRef& identifier) { this->storeValue(inputTextureIdentifierKey, identifier); }
  // The identifier resolved from the name, with the current identifier as hint.
  void _updateInputTextureIdentifier() {
    setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), inputTextureIdentifier()));
  }

  // The base's entries plus an empty entry for "inputTextureIdentifier".
  Value customAttributes() const override {
    return QVFilterAttributesByAdding(Base::customAttributes(), Dictionary{{inputTextureIdentifierKey, Value(Dictionary{})}});
  }
  // Routes the name through its setter, so that hosts and recipes resolve too.
  void setValue(const Value& value, const std::string& key) override {
    if (key == inputTextureNameKey) {
      setInputTextureName(value);
      return;
    }
    Base::setValue(value, key);
  }
  void setCalculatedValues() override {
    Base::setCalculatedValues();
    _updateInputTextureIdentifier();
  }
  void encodeWithCoder(NSCoder& coder) const override {
    Base::encodeWithCoder(coder);
    coder.removeObjectForKey(inputTextureIdentifierKey);  // only the name is archived
  }
  bool initWithCoder(const NSCoder& coder) override {
    if (!Base::initWithCoder(coder)) return false;
    setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), nullptr));
    return true;
  }
};
