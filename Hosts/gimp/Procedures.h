// The PDB procedures of the GIMP plug-in: one per filter of the bundle, with parameters derived
// from the filter's input attributes, and the conversions between PDB values, the values a
// procedure remembers and the filter's own inputs.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"
#include "Foundation/Value.h"

namespace qvgimp {

// How one filter input travels through the PDB.
enum class ParamKind {
  Number,     // GIMP_PDB_FLOAT, checked against kCIAttributeMin/Max
  Integer,    // GIMP_PDB_INT32 (integer and count types), checked against kCIAttributeMin/Max
  Boolean,    // GIMP_PDB_INT32, 0 or 1
  Color,      // GIMP_PDB_COLOR
  Vector,     // GIMP_PDB_INT32 count + GIMP_PDB_FLOATARRAY, of the length qv::vectorFormForKey gives
  Transform,  // GIMP_PDB_INT32 count + GIMP_PDB_FLOATARRAY of 6 (a b c d tx ty)
  String,     // GIMP_PDB_STRING
  Texture,    // GIMP_PDB_STRING: a texture identifier or tag key the catalogue resolves, or ""
  ImageFile,  // GIMP_PDB_STRING: an image file, or "" for none
};

struct InputParam {
  std::string key;
  std::string attributeClass;
  ParamKind kind = ParamKind::String;
  Dictionary attributes;
  std::size_t length = 0;  // Vector and Transform: how many numbers
  std::string description;
};

struct FilterProcedure {
  std::string procedure;    // plug-in-qvfilter-border
  std::string filter;       // QVFilterBorder
  std::string displayName;  // Border
  std::string menuPath;     // <Image>/Filters/QVFilter/Stylize
  std::vector<InputParam> inputs;
};

inline constexpr const char* kRecipeProcedure = "plug-in-qvfilter-recipe";

// Loads the bundle (as the command line does) and describes a procedure for every filter it
// registered; the built-in filters are left out. Sorted by procedure name.
std::vector<FilterProcedure> bundleProcedures();

// The procedure's PDB name for a filter class name: QVFilterShineCurved -> plug-in-qvfilter-shine-curved.
std::string procedureNameForFilter(const std::string& filterName);

// Number of PDB parameters an input takes (2 for arrays, which carry their length first).
int pdbParamCount(const InputParam& input);

// A new filter of the procedure's class with its defaults.
CIFilterRef makeFilter(const FilterProcedure& procedure);

// Sets one input from its remembered (JSON) form: numbers, booleans, [r,g,b,a] colours, number
// arrays and strings, as the PDB carries them, checked by the attribute range and by
// qv::checkInputValue as every host does. Throws qv::ValueError with a message that names
// the key when the value does not fit (out of range, wrong length, unreadable image file); a
// texture the catalogue does not know is found by qv::checkFilterInputs once all are set.
void setInputFromJSON(CIFilter& filter, const InputParam& input, const nlohmann::json& value);

// The remembered form of the filter's current value of an input.
nlohmann::json inputJSON(const CIFilter& filter, const InputParam& input);

// A copy of the filter for a preview drawn at `scale` (at most 1) of the drawable's size: its
// distance inputs (kCIAttributeTypeDistance: radii, widths) multiplied by `scale`, no lower than
// their minimum, and its image inputs other than the drawable scaled down with it, so that the
// preview looks like the full-size result made smaller. The filter itself is left as it is.
CIFilterRef previewFilter(const CIFilter& filter, const FilterProcedure& procedure, double scale);

// Every input of the procedure, in the remembered form, from the filter.
nlohmann::json settingsJSON(const CIFilter& filter, const FilterProcedure& procedure);
// Applies remembered settings (unknown or missing keys are skipped, bad values throw).
void applySettings(CIFilter& filter, const FilterProcedure& procedure, const nlohmann::json& settings);

}  // namespace qvgimp
