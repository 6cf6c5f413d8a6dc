// CIFilter: filters created by name from a process-wide registry, with key-value inputs,
// attribute dictionaries and a lazily built output image.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <string>
#include <vector>

#include "CoreImage/CIImage.h"
#include "Foundation/Value.h"

class CIKernel;
class NSCoder;
using CIKernelRef = std::shared_ptr<const CIKernel>;
class IKFilterUIView;

// ---- Key and attribute constants (the platform's strings) ----
inline constexpr const char* kCIInputImageKey = "inputImage";
inline constexpr const char* kCIInputBackgroundImageKey = "inputBackgroundImage";
inline constexpr const char* kCIInputMaskImageKey = "inputMaskImage";
inline constexpr const char* kCIInputRadiusKey = "inputRadius";
inline constexpr const char* kCIInputScaleKey = "inputScale";
inline constexpr const char* kCIInputCenterKey = "inputCenter";
inline constexpr const char* kCIInputTransformKey = "inputTransform";
inline constexpr const char* kCIInputColorKey = "inputColor";
inline constexpr const char* kCIInputIntensityKey = "inputIntensity";
inline constexpr const char* kCIInputAngleKey = "inputAngle";
inline constexpr const char* kCIInputWidthKey = "inputWidth";
inline constexpr const char* kCIInputAspectRatioKey = "inputAspectRatio";
inline constexpr const char* kCIInputExtentKey = "inputExtent";
inline constexpr const char* kCIInputSaturationKey = "inputSaturation";
inline constexpr const char* kCIInputBrightnessKey = "inputBrightness";
inline constexpr const char* kCIInputContrastKey = "inputContrast";
inline constexpr const char* kCIInputEVKey = "inputEV";
inline constexpr const char* kCIOutputImageKey = "outputImage";

inline constexpr const char* kCIAttributeFilterName = "CIAttributeFilterName";
inline constexpr const char* kCIAttributeFilterDisplayName = "CIAttributeFilterDisplayName";
inline constexpr const char* kCIAttributeFilterCategories = "CIAttributeFilterCategories";
inline constexpr const char* kCIAttributeDescription = "CIAttributeDescription";
inline constexpr const char* kCIAttributeDisplayName = "CIAttributeDisplayName";
inline constexpr const char* kCIAttributeClass = "CIAttributeClass";
inline constexpr const char* kCIAttributeType = "CIAttributeType";
inline constexpr const char* kCIAttributeDefault = "CIAttributeDefault";
inline constexpr const char* kCIAttributeIdentity = "CIAttributeIdentity";
inline constexpr const char* kCIAttributeMin = "CIAttributeMin";
inline constexpr const char* kCIAttributeMax = "CIAttributeMax";
inline constexpr const char* kCIAttributeSliderMin = "CIAttributeSliderMin";
inline constexpr const char* kCIAttributeSliderMax = "CIAttributeSliderMax";

inline constexpr const char* kCIAttributeTypeTime = "CIAttributeTypeTime";
inline constexpr const char* kCIAttributeTypeScalar = "CIAttributeTypeScalar";
inline constexpr const char* kCIAttributeTypeDistance = "CIAttributeTypeDistance";
inline constexpr const char* kCIAttributeTypeAngle = "CIAttributeTypeAngle";
inline constexpr const char* kCIAttributeTypeBoolean = "CIAttributeTypeBoolean";
inline constexpr const char* kCIAttributeTypeInteger = "CIAttributeTypeInteger";
inline constexpr const char* kCIAttributeTypeCount = "CIAttributeTypeCount";
inline constexpr const char* kCIAttributeTypePosition = "CIAttributeTypePosition";
inline constexpr const char* kCIAttributeTypeOffset = "CIAttributeTypeOffset";
inline constexpr const char* kCIAttributeTypeRectangle = "CIAttributeTypeRectangle";
inline constexpr const char* kCIAttributeTypeColor = "CIAttributeTypeColor";
inline constexpr const char* kCIAttributeTypeOpaqueColor = "CIAttributeTypeOpaqueColor";
inline constexpr const char* kCIAttributeTypeImage = "CIAttributeTypeImage";
inline constexpr const char* kCIAttributeTypeTransform = "CIAttributeTypeTransform";

inline constexpr const char* kCICategoryBlur = "CICategoryBlur";
inline constexpr const char* kCICategoryCompositeOperation = "CICategoryCompositeOperation";
inline constexpr const char* kCICategoryColorAdjustment = "CICategoryColorAdjustment";
inline constexpr const char* kCICategoryColorEffect = "CICategoryColorEffect";
inline constexpr const char* kCICategoryDistortionEffect = "CICategoryDistortionEffect";
inline constexpr const char* kCICategoryGeometryAdjustment = "CICategoryGeometryAdjustment";
inline constexpr const char* kCICategoryGenerator = "CICategoryGenerator";
inline constexpr const char* kCICategoryGradient = "CICategoryGradient";
inline constexpr const char* kCICategorySharpen = "CICategorySharpen";
inline constexpr const char* kCICategoryStylize = "CICategoryStylize";
inline constexpr const char* kCICategoryTileEffect = "CICategoryTileEffect";
inline constexpr const char* kCICategoryHighDynamicRange = "CICategoryHighDynamicRange";
inline constexpr const char* kCICategoryBuiltIn = "CICategoryBuiltIn";
inline constexpr const char* kCICategoryStillImage = "CICategoryStillImage";

inline constexpr const char* kCIApplyOptionDefinition = "definition";
inline constexpr const char* kCIApplyOptionExtent = "extent";

// One declared input of a filter: the single table from which attributes, setDefaults, the
// command line's help and the studio's generic controls are all derived. Nil members are
// absent from the attribute dictionary.
struct CIInputSpec {
  std::string key;
  std::string attributeClass;  // "NSNumber", "CIVector", "CIColor", "CIImage", "NSString", "NSAffineTransform"...
  std::string type;            // kCIAttributeType..., may be empty
  Value defaultValue;
  Value identity;
  Value min, max, sliderMin, sliderMax;
  std::string displayName;
  std::string description;
};

class CIFilter;
using CIFilterRef = std::shared_ptr<CIFilter>;

// What the registry knows of a filter class.
struct CIFilterRegistration {
  std::string name;  // the class name; also the name filters are created by
  std::function<CIFilterRef()> make;
  std::string displayName;
  std::vector<std::string> categories;
  std::vector<CIInputSpec> inputs;  // declared inputs, in inputKeys order
  Dictionary inputAttributes;       // per-key attribute dictionaries from a filter description
};

class CIFilter : public std::enable_shared_from_this<CIFilter> {
 public:
  virtual ~CIFilter() = default;

  // ---- The registry ----
  // Registers or replaces a filter class. Thread-safe.
  static void registerFilter(CIFilterRegistration registration);
  // A new filter of the named class, or nil for an unknown name.
  static CIFilterRef filterWithName(const std::string& name);
  // Names of every registered filter carrying the category (all filters for an empty string),
  // sorted.
  static std::vector<std::string> filterNamesInCategory(const std::string& category);
  static std::vector<std::string> filterNamesInCategories(const std::vector<std::string>& categories);
  static const CIFilterRegistration* registrationForName(const std::string& name);

  // ---- Introspection ----
  const std::string& name() const { return name_; }
  virtual std::vector<std::string> inputKeys() const;
  virtual std::vector<std::string> outputKeys() const { return {kCIOutputImageKey}; }
  // Filter name, display name, categories, and one attribute dictionary per input key: the
  // declared or described attributes, each replaced whole by customAttributes()'s entry. An
  // empty entry of customAttributes() states nothing about its input and replaces nothing:
  // the described attributes (defaults and ranges from a filter description) stand.
  virtual Dictionary attributes() const;

  // ---- Key-value coding ----
  // Each input takes its kCIAttributeDefault from attributes().
  virtual void setDefaults();
  virtual void setValue(const Value& value, const std::string& key);
  virtual Value valueForKey(const std::string& key) const;

  // ---- Output ----
  // A fresh, lazily evaluated image graph built from the current inputs, or nil.
  virtual CIImage outputImage() const = 0;

  // Runs a kernel over its arguments in order (CISampler, numbers, CIVector, CIColor); with
  // kCIApplyOptionDefinition the result is defined over that domain, otherwise it is infinite.
  CIImage apply(const CIKernelRef& kernel, const Array& arguments, const Dictionary& options) const;

  // ---- Additions every filter answers (the plug-in's category on CIFilter) ----
  // nil (no dictionary) unless a subclass describes its own inputs.
  virtual Value customAttributes() const { return {}; }
  // Hook for deriving dependent inputs from the ones the host set; does nothing here.
  virtual void setCalculatedValues() {}
  // The filter's own parameter view for the host, or nil for the host's generic controls
  // (every filter but the few that describe a view of their own). Main thread only.
  virtual std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                        const std::vector<std::string>& excludedKeys);

  // ---- Key-value observation ----
  // Observers are told the key of every input stored from then on, through setValue or a typed
  // setter, after the store. They run on the storing thread, in registration order; one may
  // add or remove observers (itself included) while being told. Views use this on the main
  // thread only; filters that nobody observes pay one emptiness check per store.
  using Observer = std::function<void(const std::string& key)>;
  using ObserverToken = std::uint64_t;
  ObserverToken addObserver(Observer observer);
  void removeObserver(ObserverToken token);

  // ---- Copying and keyed archiving ----
  // The platform's copying and coding of filters, as three virtual functions:
  //
  //   copy()               a new filter of the same class holding the same input values
  //                        (values are immutable, so sharing them is copying). Here: a filter
  //                        made by name with every stored value put in directly, so no setter
  //                        runs and values the filter derived itself are kept as they are.
  //   encodeWithCoder(c)   writes the input values by key, each that a coder can hold (numbers,
  //                        strings, URLs, vectors, colours, transforms; images never).
  //   initWithCoder(c)     takes back every input value the coder holds, stored directly;
  //                        false refuses the archive (the unarchived filter is then nil).
  //
  // A class that derives inputs from others overrides them, calling these first, to leave the
  // derived values out of an archive or derive them again after decoding. The archive names
  // the filter's class (its registered name); filterWithArchivedData makes the filter by that
  // name and hands it the coder.
  virtual CIFilterRef copy() const;
  virtual void encodeWithCoder(NSCoder& coder) const;
  virtual bool initWithCoder(const NSCoder& coder);
  // The filter as archive data (an XML property list); nullopt when it cannot be serialised.
  static std::optional<std::string> archivedDataWithFilter(const CIFilter& filter);
  // The filter an archive holds; nil for data that is not a filter archive, an unknown class,
  // or a filter that refuses the coder.
  static CIFilterRef filterWithArchivedData(std::string_view data);

 protected:
  // Inputs stored generically: used by the built-ins and by subclasses that need no typed
  // property for a key.
  Value storedValue(const std::string& key) const;
  void storeValue(const std::string& key, const Value& value);
  // The registered name, for filters made other than by filterWithName (which sets it).
  void setName(std::string name) { name_ = std::move(name); }

 private:
  void notifyObservers(const std::string& key);

  // Observers belong to the object observed, not to its value: a copied filter starts with none.
  struct Observers {
    Observers() = default;
    Observers(const Observers&) {}
    Observers& operator=(const Observers&) { return *this; }
    std::vector<std::pair<ObserverToken, Observer>> list;
    ObserverToken next = 1;
  };

  std::string name_;
  Dictionary values_;
  Observers observers_;
};

// The hook through which CIFilter::apply reaches the kernel language; installed by the kernel
// subsystem so that the filter layer does not depend on it.
using CIKernelApplyHook = std::function<CIImage(const CIKernelRef&, const Array&, const Dictionary&)>;
void CISetKernelApplyHook(CIKernelApplyHook hook);
