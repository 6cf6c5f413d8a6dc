// Runs a test body once per instruction set Highway dispatches to on this processor, so that
// every compiled version of a vector kernel is compared with its scalar rule.
#pragma once

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <hwy/targets.h>

namespace qvtest {

// Runs `body` once per instruction set Highway can dispatch to here, restoring the normal
// choice afterwards.
template <class Body>
void forEachTarget(Body&& body) {
  const std::vector<std::int64_t> targets = hwy::SupportedAndGeneratedTargets();
  ASSERT_FALSE(targets.empty());
  for (std::int64_t target : targets) {
    hwy::SetSupportedTargetsForTest(target);
    SCOPED_TRACE(hwy::TargetName(target));
    body();
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace qvtest
