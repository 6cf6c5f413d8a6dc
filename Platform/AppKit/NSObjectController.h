// NSObjectController: the object controller through which controls are bound to a filter. Its
// content is the filter; its "selection" is that same filter, so a control bound at
// "selection.inputRadius" reads and writes the filter's inputRadius, and hears of every change
// of that input however it was made (the controller observes the filter).
//
// Key paths are "selection.<key>", where <key> is one of the filter's input keys. Main thread
// only, like every view.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "CoreImage/CIFilter.h"
#include "Foundation/Value.h"

// The platform's name of the exception for a key that an object does not have.
extern const std::string NSUndefinedKeyException;  // "NSUnknownKeyException"

class NSObjectController {
 public:
  explicit NSObjectController(CIFilterRef content);
  ~NSObjectController();
  NSObjectController(const NSObjectController&) = delete;
  NSObjectController& operator=(const NSObjectController&) = delete;

  const CIFilterRef& content() const { return content_; }

  // The input key a key path names. Raises NSUndefinedKeyException when the path is not
  // "selection.<key>", when there is no content, or when the content has no input <key>.
  std::string keyForKeyPath(const std::string& keyPath) const;
  // The filter's value at the key path (raises as keyForKeyPath does).
  Value valueForKeyPath(const std::string& keyPath) const;
  // Stores the value in the filter through its setValue (raises as keyForKeyPath does).
  void setValueForKeyPath(const Value& value, const std::string& keyPath);

  // Observation of one key path: the callback runs after every change of the input it names.
  using Observer = std::function<void()>;
  using ObserverToken = std::uint64_t;
  ObserverToken addObserverForKeyPath(const std::string& keyPath, Observer observer);
  void removeObserver(ObserverToken token);

 private:
  void contentDidChangeKey(const std::string& key);

  CIFilterRef content_;
  CIFilter::ObserverToken contentToken_ = 0;
  std::map<ObserverToken, std::pair<std::string, Observer>> observers_;  // token -> (key, callback)
  ObserverToken nextToken_ = 1;
};
