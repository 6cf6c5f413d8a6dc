// Exceptions and the assertion handler: exact names, reason texts, files and lines.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "Foundation/NSAssertionHandler.h"
#include "Foundation/NSException.h"

TEST(NSException, NameConstants) {
  EXPECT_EQ(NSInternalInconsistencyException, "NSInternalInconsistencyException");
  EXPECT_EQ(NSInvalidArgumentException, "NSInvalidArgumentException");
  EXPECT_EQ(NSRangeException, "NSRangeException");
  EXPECT_EQ(NSGenericException, "NSGenericException");
}

TEST(NSException, RaiseCarriesNameAndReason) {
  try {
    NSException::raise(NSRangeException, "index 3 beyond bounds [0 .. 0]");
    FAIL() << "raise returned";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSRangeException);
    EXPECT_EQ(e.reason(), "index 3 beyond bounds [0 .. 0]");
    EXPECT_STREQ(e.what(), "index 3 beyond bounds [0 .. 0]");
    EXPECT_EQ(e.method(), "");
    EXPECT_EQ(e.file(), "");
    EXPECT_EQ(e.line(), 0);
  }
}

TEST(NSException, IsAStandardException) {
  EXPECT_THROW(NSException::raise(NSInvalidArgumentException, "bad"), std::exception);
}

TEST(NSAssertionHandler, MethodFailureRaisesInternalInconsistency) {
  try {
    NSAssertionHandler::currentHandler().handleFailureInMethod(
        "+[_QVFilterTextureStore textureForTextureIdentifier:]", "_QVFilterTextureStore",
        "FilterActions/ImageUnit/_QVFilterTextureStore", 92,
        "[[textureIdentifier scheme] isEqualToString:_QVFilterTextureStoreTextureScheme]");
    FAIL() << "the handler returned";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
    EXPECT_EQ(e.reason(),
              "Invalid parameter not satisfying: "
              "[[textureIdentifier scheme] isEqualToString:_QVFilterTextureStoreTextureScheme]");
    EXPECT_EQ(e.method(), "+[_QVFilterTextureStore textureForTextureIdentifier:]");
    EXPECT_EQ(e.file(), "FilterActions/ImageUnit/_QVFilterTextureStore");
    EXPECT_EQ(e.line(), 92);
  }
}

TEST(NSAssertionHandler, FunctionFailure) {
  try {
    NSAssertionHandler::currentHandler().handleFailureInFunction("QVSizeScaledToRect", "Geometry.cpp", 17,
                                                                 "size.width > 0");
    FAIL() << "the handler returned";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    EXPECT_EQ(e.reason(), "Invalid parameter not satisfying: size.width > 0");
    EXPECT_EQ(e.method(), "QVSizeScaledToRect");
    EXPECT_EQ(e.file(), "Geometry.cpp");
    EXPECT_EQ(e.line(), 17);
  }
}

TEST(NSAssertionHandler, FreeFormDescriptionBecomesTheReason) {
  try {
    NSAssertionHandler::currentHandler().handleFailureWithDescription("-[X y]", "X.cpp", 3, "unknown attribute");
    FAIL();
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    EXPECT_EQ(e.reason(), "unknown attribute");
  }
}

TEST(NSAssertionHandler, ParameterAssertMacroStringifiesTheCondition) {
  const int width = -1;
  try {
    QVParameterAssert(width >= 0, "-[QVFilter outputImage]", "FilterActions/ImageUnit/QVFilter", 40);
    FAIL() << "assertion did not fire";
  } catch (const NSException& e) {
    EXPECT_EQ(e.reason(), "Invalid parameter not satisfying: width >= 0");
    EXPECT_EQ(e.method(), "-[QVFilter outputImage]");
    EXPECT_EQ(e.file(), "FilterActions/ImageUnit/QVFilter");
    EXPECT_EQ(e.line(), 40);
  }
  // A satisfied condition does nothing.
  EXPECT_NO_THROW(QVParameterAssert(width < 0, "-[QVFilter outputImage]", "f", 1));
  EXPECT_NO_THROW(QVCParameterAssert(width < 0, "f", "f", 1));
  EXPECT_THROW(QVCParameterAssert(width > 0, "f", "f", 1), NSException);
}

namespace {
class RecordingHandler : public NSAssertionHandler {
 public:
  void handleFailureWithDescription(const std::string& methodOrFunction, const std::string& fileName, int line,
                                    const std::string& description) override {
    last = methodOrFunction + "|" + fileName + "|" + std::to_string(line) + "|" + description;
  }
  std::string last;
};
}  // namespace

TEST(NSAssertionHandler, ThreadMayInstallItsOwnHandler) {
  auto recorder = std::make_shared<RecordingHandler>();
  NSAssertionHandler::setCurrentHandler(recorder);
  EXPECT_NO_THROW(QVParameterAssert(1 == 2, "m", "file", 9));
  EXPECT_EQ(recorder->last, "m|file|9|Invalid parameter not satisfying: 1 == 2");

  // Other threads keep the default handler.
  bool otherThreadThrew = false;
  std::thread([&] {
    try {
      QVParameterAssert(1 == 2, "m", "file", 9);
    } catch (const NSException&) {
      otherThreadThrew = true;
    }
  }).join();
  EXPECT_TRUE(otherThreadThrew);

  NSAssertionHandler::setCurrentHandler(nullptr);
  EXPECT_THROW(QVParameterAssert(1 == 2, "m", "file", 9), NSException);
}
