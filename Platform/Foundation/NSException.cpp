#include "Foundation/NSException.h"

#include <utility>

const std::string NSInternalInconsistencyException = "NSInternalInconsistencyException";
const std::string NSInvalidArgumentException = "NSInvalidArgumentException";
const std::string NSRangeException = "NSRangeException";
const std::string NSGenericException = "NSGenericException";

NSException::NSException(std::string name, std::string reason) : name_(std::move(name)), reason_(std::move(reason)) {}

NSException::NSException(std::string name, std::string reason, std::string method, std::string file, int line)
    : name_(std::move(name)),
      reason_(std::move(reason)),
      method_(std::move(method)),
      file_(std::move(file)),
      line_(line) {}

void NSException::raise(const std::string& name, const std::string& reason) { throw NSException(name, reason); }

std::string QVInvalidParameterReason(const std::string& conditionText) {
  return "Invalid parameter not satisfying: " + conditionText;
}

namespace {
thread_local std::shared_ptr<NSAssertionHandler> tCurrentHandler;
}

NSAssertionHandler& NSAssertionHandler::currentHandler() {
  if (tCurrentHandler) return *tCurrentHandler;
  static NSAssertionHandler defaultHandler;
  return defaultHandler;
}

void NSAssertionHandler::setCurrentHandler(std::shared_ptr<NSAssertionHandler> handler) {
  tCurrentHandler = std::move(handler);
}

void NSAssertionHandler::handleFailureInMethod(const std::string& method, const std::string& /*objectDescription*/,
                                               const std::string& fileName, int line,
                                               const std::string& conditionText) {
  handleFailureWithDescription(method, fileName, line, QVInvalidParameterReason(conditionText));
}

void NSAssertionHandler::handleFailureInFunction(const std::string& function, const std::string& fileName, int line,
                                                 const std::string& conditionText) {
  handleFailureWithDescription(function, fileName, line, QVInvalidParameterReason(conditionText));
}

void NSAssertionHandler::handleFailureWithDescription(const std::string& methodOrFunction, const std::string& fileName,
                                                      int line, const std::string& description) {
  throw NSException(NSInternalInconsistencyException, description, methodOrFunction, fileName, line);
}
