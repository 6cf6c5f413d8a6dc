// QVFilterImageUnitsPlugin: the bundle's principal class, the object the host's image-unit
// loader talks to. It accepts every load and does nothing else: the loader registers the
// filter classes from the bundle's filter description.
#pragma once

class QVFilterImageUnitsPlugin {
 public:
  // The host's opaque plug-in argument is ignored; always true (YES).
  static bool load(void* host);
};
