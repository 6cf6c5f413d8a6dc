// Property-list reading on arbitrary bytes: XML, binary, old-style text and strings tables must
// give a value or nil, never crash, hang or allocate without bound. Whatever reads back as a
// property list must also serialise and read back again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Foundation/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Value plist = propertyListFromData(data, size);
  (void)plist.description();
  if (!plist.isNil()) {
    for (bool xml : {true, false}) {
      const std::optional<std::string> bytes = dataWithPropertyList(plist, xml);
      if (!bytes) std::abort();  // everything read is writable
      const Value again = propertyListFromData(bytes->data(), bytes->size());
      if (again.isNil()) std::abort();
      if (again.kind() != plist.kind()) std::abort();
    }
  }
  const Value strings = stringsTableFromData(data, size);
  if (!strings.isNil() && !strings.dictionary()) std::abort();
  return 0;
}
