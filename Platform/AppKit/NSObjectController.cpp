#include "AppKit/NSObjectController.h"

#include <algorithm>
#include <vector>

#include "Foundation/NSException.h"

const std::string NSUndefinedKeyException = "NSUnknownKeyException";

namespace {
constexpr std::string_view kSelectionPrefix = "selection.";
}

NSObjectController::NSObjectController(CIFilterRef content) : content_(std::move(content)) {
  if (content_) contentToken_ = content_->addObserver([this](const std::string& key) { contentDidChangeKey(key); });
}

NSObjectController::~NSObjectController() {
  if (content_) content_->removeObserver(contentToken_);
}

std::string NSObjectController::keyForKeyPath(const std::string& keyPath) const {
  if (!keyPath.starts_with(kSelectionPrefix) || keyPath.size() == kSelectionPrefix.size() ||
      keyPath.find('.', kSelectionPrefix.size()) != std::string::npos) {
    NSException::raise(NSUndefinedKeyException, "the object controller has no value for the key path \"" + keyPath +
                                                    "\": key paths are \"selection.<input key>\"");
  }
  std::string key = keyPath.substr(kSelectionPrefix.size());
  if (!content_)
    NSException::raise(NSUndefinedKeyException, "the object controller has no content for \"" + keyPath + "\"");
  const std::vector<std::string> keys = content_->inputKeys();
  if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
    NSException::raise(NSUndefinedKeyException, "[<" + content_->name() +
                                                    "> valueForUndefinedKey:]: this class is not key value "
                                                    "coding-compliant for the key " +
                                                    key + ".");
  }
  return key;
}

Value NSObjectController::valueForKeyPath(const std::string& keyPath) const {
  return content_->valueForKey(keyForKeyPath(keyPath));
}

void NSObjectController::setValueForKeyPath(const Value& value, const std::string& keyPath) {
  content_->setValue(value, keyForKeyPath(keyPath));
}

NSObjectController::ObserverToken NSObjectController::addObserverForKeyPath(const std::string& keyPath,
                                                                            Observer observer) {
  std::string key = keyForKeyPath(keyPath);
  const ObserverToken token = nextToken_++;
  observers_.emplace(token, std::make_pair(std::move(key), std::move(observer)));
  return token;
}

void NSObjectController::removeObserver(ObserverToken token) { observers_.erase(token); }

void NSObjectController::contentDidChangeKey(const std::string& key) {
  // Tokens first: a callback may add or remove observers.
  std::vector<ObserverToken> tokens;
  for (const auto& [token, entry] : observers_)
    if (entry.first == key) tokens.push_back(token);
  for (ObserverToken token : tokens) {
    auto it = observers_.find(token);
    if (it == observers_.end()) continue;
    const Observer callback = it->second.second;
    callback();
  }
}
