// qvfilter-gimp: the filters of the bundle as GIMP 2.10 procedures. GIMP runs the program once
// to learn its procedures (query) and again for every call (run); both load the bundle as the
// command line does, so the procedures always match the bundle beside the plug-in.
#include <libgimp/gimp.h>

#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Dialog.h"
#include "Foundation/NSException.h"
#include "Pixels.h"
#include "PlugIns.h"
#include "Procedures.h"
#include "Recipe.h"
#include "TextureCatalogue.h"
#include "Timing.h"
#include "ValueParsing.h"

namespace {

using nlohmann::json;
using qvgimp::FilterProcedure;
using qvgimp::InputParam;
using qvgimp::ParamKind;

// Parameter definitions with the strings they point to.
struct ParamDefs {
  std::vector<std::string> names, descriptions;
  std::vector<GimpParamDef> defs;

  void add(GimpPDBArgType type, std::string name, std::string description) {
    names.push_back(std::move(name));
    descriptions.push_back(std::move(description));
    defs.push_back(GimpParamDef{type, nullptr, nullptr});
  }
  GimpParamDef* finish() {
    for (std::size_t i = 0; i < defs.size(); ++i) {
      defs[i].name = names[i].data();
      defs[i].description = descriptions[i].data();
    }
    return defs.data();
  }
};

void addCommonParams(ParamDefs& defs) {
  defs.add(GIMP_PDB_INT32, "run-mode",
           "The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1), RUN-WITH-LAST-VALS (2) }");
  defs.add(GIMP_PDB_IMAGE, "image", "Input image");
  defs.add(GIMP_PDB_DRAWABLE, "drawable", "Input drawable");
}

void addInputParams(ParamDefs& defs, const InputParam& input) {
  switch (input.kind) {
    case ParamKind::Number:
      defs.add(GIMP_PDB_FLOAT, input.key, input.description);
      break;
    case ParamKind::Integer:
    case ParamKind::Boolean:
      defs.add(GIMP_PDB_INT32, input.key, input.description);
      break;
    case ParamKind::Color:
      defs.add(GIMP_PDB_COLOR, input.key, input.description);
      break;
    case ParamKind::Vector:
    case ParamKind::Transform:
      defs.add(GIMP_PDB_INT32, "num-" + input.key, "Number of values in " + input.key);
      defs.add(GIMP_PDB_FLOATARRAY, input.key, input.description);
      break;
    case ParamKind::String:
    case ParamKind::Texture:
    case ParamKind::ImageFile:
      defs.add(GIMP_PDB_STRING, input.key, input.description);
      break;
  }
}

constexpr const char* kAuthor = "QVFilter";
constexpr const char* kDate = "2026";
constexpr const char* kResizeHelp =
    " When the filter's output is larger or smaller than the layer (an outside border, a reflection, a texture "
    "border, an offset composite), the layer is resized to the output and the selection does not apply; "
    "otherwise a selection limits the effect and feathers it.";

void query() {
  for (const FilterProcedure& procedure : qvgimp::bundleProcedures()) {
    ParamDefs defs;
    addCommonParams(defs);
    for (const InputParam& input : procedure.inputs) addInputParams(defs, input);
    const std::string blurb = procedure.displayName + ": the " + procedure.filter + " filter of the QVFilter bundle";
    const std::string help = "Applies " + procedure.filter + " to the drawable." + kResizeHelp;
    const std::string label = procedure.displayName + "...";
    const int count = static_cast<int>(defs.defs.size());
    gimp_install_procedure(procedure.procedure.c_str(), blurb.c_str(), help.c_str(), kAuthor, kAuthor, kDate,
                           label.c_str(), "RGB*, GRAY*", GIMP_PLUGIN, count, 0, defs.finish(), nullptr);
    gimp_plugin_menu_register(procedure.procedure.c_str(), procedure.menuPath.c_str());
  }
  ParamDefs defs;
  addCommonParams(defs);
  defs.add(GIMP_PDB_STRING, "recipe",
           "A recipe file (JSON) whose chain is applied, the drawable standing in for the "
           "first step's inputImage");
  gimp_install_procedure(qvgimp::kRecipeProcedure, "Apply a QVFilter recipe's chain to the drawable",
                         (std::string("Runs the chain of a recipe file written by the studio or the command line on "
                                      "the drawable.") +
                          kResizeHelp)
                             .c_str(),
                         kAuthor, kAuthor, kDate, nullptr, "RGB*, GRAY*", GIMP_PLUGIN,
                         static_cast<int>(defs.defs.size()), 0, defs.finish(), nullptr);
}

// The PDB arguments of a filter procedure in their remembered form. Throws qv::ValueError
// naming the key for an argument of the wrong type or an array of the wrong length.
json settingsFromParams(const FilterProcedure& procedure, int nparams, const GimpParam* params) {
  json settings = json::object();
  int i = 3;
  for (const InputParam& input : procedure.inputs) {
    if (i + qvgimp::pdbParamCount(input) > nparams) throw qv::ValueError(input.key + ": missing argument");
    const GimpParam& p = params[i];
    switch (input.kind) {
      case ParamKind::Number:
        settings[input.key] = p.data.d_float;
        break;
      case ParamKind::Integer:
      case ParamKind::Boolean:
        settings[input.key] = p.data.d_int32;
        break;
      case ParamKind::Color:
        settings[input.key] = json::array({p.data.d_color.r, p.data.d_color.g, p.data.d_color.b, p.data.d_color.a});
        break;
      case ParamKind::Vector:
      case ParamKind::Transform: {
        const int n = p.data.d_int32;
        const gdouble* values = params[i + 1].data.d_floatarray;
        if (n < 0 || (n > 0 && !values)) throw qv::ValueError(input.key + ": bad array length " + std::to_string(n));
        json array = json::array();
        for (int k = 0; k < n; ++k) array.push_back(values[k]);
        settings[input.key] = std::move(array);
        break;
      }
      case ParamKind::String:
      case ParamKind::Texture:
      case ParamKind::ImageFile:
        settings[input.key] = p.data.d_string ? p.data.d_string : "";
        break;
    }
    i += qvgimp::pdbParamCount(input);
  }
  return settings;
}

json rememberedSettings(const std::string& procedure) {
  const gint size = gimp_get_data_size(procedure.c_str());
  if (size <= 0) return json::object();
  std::string text(static_cast<std::size_t>(size), '\0');
  if (!gimp_get_data(procedure.c_str(), text.data())) return json::object();
  text.resize(std::strlen(text.c_str()));
  json settings = json::parse(text, nullptr, false);
  return settings.is_discarded() ? json::object() : settings;
}

void rememberSettings(const std::string& procedure, const json& settings) {
  const std::string text = settings.dump();
  gimp_set_data(procedure.c_str(), text.c_str(), static_cast<guint32>(text.size() + 1));
}

// Runs one filter procedure; returns an error message, empty on success.
GimpPDBStatusType runFilter(const FilterProcedure& procedure, int nparams, const GimpParam* params,
                            std::string& error) {
  const auto runMode = static_cast<GimpRunMode>(params[0].data.d_int32);
  const gint32 image = params[1].data.d_image, drawable = params[2].data.d_drawable;
  CIFilterRef filter;
  try {
    filter = qvgimp::makeFilter(procedure);
    // Interactive and repeated calls start from the values this procedure last ran with.
    if (runMode == GIMP_RUN_NONINTERACTIVE) {
      qvgimp::applySettings(*filter, procedure, settingsFromParams(procedure, nparams, params));
      // What the filter would silently ignore (an operation that names no filter) is an error
      // for a script, which has no one to see a warning.
      try {
        for (const std::string& warning : qv::checkFilterInputs(*filter)) throw qv::ValueError(warning);
      } catch (const std::invalid_argument& e) {
        throw qv::ValueError(e.what());
      }
    } else {
      try {
        qvgimp::applySettings(*filter, procedure, rememberedSettings(procedure.procedure));
      } catch (const qv::ValueError&) {
        filter = qvgimp::makeFilter(procedure);  // remembered values that no longer fit: the defaults
      }
    }
  } catch (const qv::ValueError& e) {
    error = procedure.procedure + ": " + e.what();
    return GIMP_PDB_CALLING_ERROR;
  }
  try {
    // The dialog previews a small copy; the whole drawable is read once the user chose OK.
    if (runMode == GIMP_RUN_INTERACTIVE && !qvgimp::runDialog(procedure, filter, drawable)) return GIMP_PDB_CANCEL;
    qvgimp::timingMark("filter and its settings");
    const qvgimp::DrawableInput input = qvgimp::drawableInput(drawable);
    qvgimp::timingMark("drawable opened");
    filter->setValue(Value(input.image), kCIInputImageKey);
    filter->setCalculatedValues();
    qvgimp::applyOutput(image, drawable, filter->outputImage(), input.rows.get());
    rememberSettings(procedure.procedure, qvgimp::settingsJSON(*filter, procedure));
    qvgimp::timingMark("settings remembered");
    if (runMode != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
  } catch (const NSException& e) {
    error = procedure.procedure + ": " + e.reason();
    return GIMP_PDB_EXECUTION_ERROR;
  } catch (const std::exception& e) {
    error = procedure.procedure + ": " + e.what();
    return GIMP_PDB_EXECUTION_ERROR;
  }
  return GIMP_PDB_SUCCESS;
}

GimpPDBStatusType runRecipe(int nparams, const GimpParam* params, std::string& error) {
  if (nparams < 4 || !params[3].data.d_string) {
    error = std::string(qvgimp::kRecipeProcedure) + ": recipe: a recipe file name is needed";
    return GIMP_PDB_CALLING_ERROR;
  }
  const gint32 image = params[1].data.d_image, drawable = params[2].data.d_drawable;
  const std::string path = params[3].data.d_string;
  try {
    qvgimp::bundleProcedures();  // loads the bundle
    qv::RecipeOptions options;
    const qvgimp::DrawableInput input = qvgimp::drawableInput(drawable);
    options.chainInput = input.image;
    const qv::RecipeGraph graph =
        qv::buildRecipe(qv::parseRecipeJSON(qv::readRecipeText(path)), qv::recipeBaseDirectory(path), options);
    qvgimp::applyOutput(image, drawable, graph.output, input.rows.get());
    if (static_cast<GimpRunMode>(params[0].data.d_int32) != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
  } catch (const qv::RecipeError& e) {
    error = std::string(qvgimp::kRecipeProcedure) + ": " + path + ": " + e.what();
    return GIMP_PDB_CALLING_ERROR;
  } catch (const NSException& e) {
    error = std::string(qvgimp::kRecipeProcedure) + ": " + e.reason();
    return GIMP_PDB_EXECUTION_ERROR;
  } catch (const std::exception& e) {
    error = std::string(qvgimp::kRecipeProcedure) + ": " + e.what();
    return GIMP_PDB_EXECUTION_ERROR;
  }
  return GIMP_PDB_SUCCESS;
}

void run(const gchar* name, gint nparams, const GimpParam* params, gint* nreturnVals, GimpParam** returnVals) {
  static GimpParam values[2];
  static std::string error;
  error.clear();
  *nreturnVals = 1;
  *returnVals = values;
  values[0].type = GIMP_PDB_STATUS;
  GimpPDBStatusType status = GIMP_PDB_CALLING_ERROR;
  qvgimp::timingMark("process start to run()");
  // The plug-in uses GEGL for its buffers alone, not for any of GEGL's operations: an empty
  // module path spares loading their modules at every call.
  g_setenv("GEGL_PATH", "", TRUE);
  // Loading babl's cache of conversion paths makes babl time its lookup tables first, about
  // half a second at every call. A call whose pixels cross unconverted needs no conversion
  // path, so it starts babl without the cache (and leaves the cache as it is).
  // Such a call also needs none of babl's extensions: it gives babl the folder of one beside the
  // plug-in (babl-0.1/, made by the build), whose start then skips timing the conversion paths
  // between all of them (about 35 ms). Without that folder babl loads its own.
  if (nparams >= 3 && static_cast<GimpRunMode>(params[0].data.d_int32) != GIMP_RUN_INTERACTIVE &&
      qvgimp::crossesUnconverted(params[1].data.d_image, params[2].data.d_drawable)) {
    g_setenv("BABL_INHIBIT_CACHE", "1", TRUE);
    const std::string extensions = qvExecutableDirectory() + "/babl-0.1";
    if (g_file_test(extensions.c_str(), G_FILE_TEST_IS_DIR)) g_setenv("BABL_PATH", extensions.c_str(), TRUE);
  }
  gegl_init(nullptr, nullptr);
  // GEGL keeps the tiles a buffer read or wrote in its cache until the buffer goes, up to the
  // cache's size: the layer's tiles behind the rows the engine already holds in bands, and the
  // output's behind the strips already sent. What passes through it needs only a band's and a
  // strip's tiles.
  g_object_set(gegl_config(), "tile-cache-size", static_cast<guint64>(32u << 20), nullptr);
  qvgimp::timingMark("gegl_init");
  if (nparams < 3) {
    error = std::string(name) + ": run-mode, image and drawable are needed";
  } else if (std::string(name) == qvgimp::kRecipeProcedure) {
    status = runRecipe(nparams, params, error);
  } else {
    error = std::string(name) + ": no such procedure in this plug-in";
    try {
      const std::vector<FilterProcedure> procedures = qvgimp::bundleProcedures();
      qvgimp::timingMark("bundle loaded, procedures");
      for (const FilterProcedure& procedure : procedures) {
        if (procedure.procedure == name) {
          error.clear();
          status = runFilter(procedure, nparams, params, error);
          break;
        }
      }
    } catch (const std::exception& e) {
      error = std::string(name) + ": " + e.what();
      status = GIMP_PDB_EXECUTION_ERROR;
    }
  }
  qvgimp::timingMark("run() done");
  values[0].data.d_status = status;
  if (!error.empty()) {
    *nreturnVals = 2;
    values[1].type = GIMP_PDB_STRING;
    values[1].data.d_string = error.data();
  }
}

}  // namespace

const GimpPlugInInfo PLUG_IN_INFO = {nullptr, nullptr, query, run};

MAIN()
