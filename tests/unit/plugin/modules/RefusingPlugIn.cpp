// A plug-in library for the loader's tests: its principal class refuses to load, and it offers
// one filter class that must therefore never be registered.
#include "CoreImage/CIPlugIn.h"

namespace {

class RefusedFilter : public CIFilter {
 public:
  CIImage outputImage() const override { return {}; }
};

CIPlugInClassTable makeTable() {
  CIPlugInClassTable table;
  CIPlugInClass principal;
  principal.name = "QVRefusingTestPlugIn";
  principal.superclassName = "NSObject";
  principal.load = [](void*) { return false; };
  table.classes.push_back(std::move(principal));
  CIPlugInClass filter;
  filter.name = "QVRefusedTestFilter";
  filter.superclassName = "CIFilter";
  filter.makeFilter = [] { return CIFilterRef(std::make_shared<RefusedFilter>()); };
  table.classes.push_back(std::move(filter));
  return table;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const CIPlugInClassTable* CIPlugInGetClassTable() {
  static const CIPlugInClassTable table = makeTable();
  return &table;
}
