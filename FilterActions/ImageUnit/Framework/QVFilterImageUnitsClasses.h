// The plug-in library's class table: every class the bundle offers to the host's loader. Each
// filter's source file adds its class with one QVFilterClassRegistration at namespace scope:
//
//   static const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterRotate>(
//       QVFilterRotateName, "QVFilter");
//
// The loader registers, from this table, the classes that the bundle's filter description
// names; a class must appear in both to be offered to hosts.
#pragma once

#include <memory>
#include <string>

#include "CoreImage/CIPlugIn.h"

// The library's table (filled by the registrations during static initialisation).
CIPlugInClassTable& QVFilterImageUnitsClasses();

struct QVFilterClassRegistration {
  explicit QVFilterClassRegistration(CIPlugInClass cls) { QVFilterImageUnitsClasses().classes.push_back(std::move(cls)); }

  template <class T>
  static QVFilterClassRegistration filter(std::string name, std::string superclassName) {
    CIPlugInClass cls;
    cls.name = std::move(name);
    cls.superclassName = std::move(superclassName);
    cls.makeFilter = [] { return CIFilterRef(std::make_shared<T>()); };
    return QVFilterClassRegistration(std::move(cls));
  }
};
