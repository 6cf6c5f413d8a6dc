// Builds that compile assertions out: the parameter assertions vanish and the code goes on.
#define NS_BLOCK_ASSERTIONS 1

#include <gtest/gtest.h>

#include "Foundation/NSException.h"

TEST(BlockedAssertions, ParameterAssertionsDoNothing) {
  int reached = 0;
  EXPECT_NO_THROW({
    QVParameterAssert(1 == 2, "+[_QVFilterTextureStore textureForTextureIdentifier:]",
                      "FilterActions/ImageUnit/_QVFilterTextureStore", 92);
    ++reached;
    QVCParameterAssert(false, "f", "f.cpp", 1);
    ++reached;
  });
  EXPECT_EQ(reached, 2);
  // The handler itself still raises when called directly.
  EXPECT_THROW(NSAssertionHandler::currentHandler().handleFailureInFunction("f", "f.cpp", 1, "x"), NSException);
}
