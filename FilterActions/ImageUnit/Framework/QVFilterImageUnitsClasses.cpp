#include "Framework/QVFilterImageUnitsClasses.h"

#include "Framework/QVFilterImageUnitsPlugin.h"

CIPlugInClassTable& QVFilterImageUnitsClasses() {
  // The principal class heads the table; filters add themselves as their files initialise.
  static CIPlugInClassTable table = [] {
    CIPlugInClassTable t;
    CIPlugInClass principal;
    principal.name = "QVFilterImageUnitsPlugin";
    principal.superclassName = "NSObject";
    principal.load = [](void* host) { return QVFilterImageUnitsPlugin::load(host); };
    t.classes.push_back(std::move(principal));
    return t;
  }();
  return table;
}
