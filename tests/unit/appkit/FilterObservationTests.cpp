// The key-value observation hook of CIFilter that bindings rest on.
#include <gtest/gtest.h>

#include "AppKitTestSupport.h"

using namespace appkittest;

TEST(FilterObservation, ObserversHearEveryStoreWithItsKey) {
  auto filter = makeTestFilter();
  std::vector<std::string> keys;
  const auto token = filter->addObserver([&](const std::string& key) { keys.push_back(key); });
  filter->setValue(1, "inputAmount");
  filter->setInputAmount(Value(2));
  filter->setValue(Value(), "inputName");
  EXPECT_EQ(keys, (std::vector<std::string>{"inputAmount", "inputAmount", "inputName"}));
  filter->removeObserver(token);
  filter->setValue(3, "inputAmount");
  EXPECT_EQ(keys.size(), 3u);
}

TEST(FilterObservation, ObserversSeeTheStoredValue) {
  auto filter = makeTestFilter();
  Value seen;
  filter->addObserver([&](const std::string& key) { seen = filter->valueForKey(key); });
  filter->setValue(4.5, "inputAmount");
  EXPECT_EQ(seen, Value(4.5));
}

TEST(FilterObservation, AnObserverMayRemoveItselfAndOthers) {
  auto filter = makeTestFilter();
  int first = 0, second = 0;
  CIFilter::ObserverToken a = 0, b = 0;
  a = filter->addObserver([&](const std::string&) {
    ++first;
    filter->removeObserver(a);
    filter->removeObserver(b);  // removed before being told
  });
  b = filter->addObserver([&](const std::string&) { ++second; });
  filter->setValue(1, "inputAmount");
  filter->setValue(2, "inputAmount");
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
}

TEST(FilterObservation, CopiesStartWithoutObservers) {
  auto filter = makeTestFilter();
  int told = 0;
  filter->addObserver([&](const std::string&) { ++told; });
  TestFilter copy(*filter);
  copy.setValue(1, "inputAmount");
  EXPECT_EQ(told, 0);
  EXPECT_EQ(copy.valueForKey("inputAmount"), Value(1));
}

TEST(FilterObservation, FiltersProvideNoViewUnlessTheyHaveOne) {
  auto filter = makeTestFilter();
  EXPECT_EQ(filter->provideViewForUIConfiguration({}, {}), nullptr);
  EXPECT_EQ(CIFilter::filterWithName("CIGaussianBlur")->provideViewForUIConfiguration({}, {"inputRadius"}), nullptr);
}
