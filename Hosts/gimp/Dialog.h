// The interactive dialog of a filter procedure: the filter's parameter view (its own, or the
// generic controls from its attributes) drawn with GTK, a preview of the drawable that follows
// every edit, and Reset, OK and Cancel.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "Procedures.h"

namespace qvgimp {

class DialogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Shows the dialog for `filter` (whose inputs it edits through the view's bindings) over the
// drawable, previewed from a copy scaled down to the preview's size. True when the user chose
// OK. Throws DialogError when no display can be opened.
bool runDialog(const FilterProcedure& procedure, const CIFilterRef& filter, std::int32_t drawable);

}  // namespace qvgimp
