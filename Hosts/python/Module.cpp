// qvfilter._qvfilter: the Python binding of the QVFilter hosts' core. The package around it
// (qvfilter/__init__.py) gives the friendly names; this file holds what must be native: images
// and their rendering to NumPy arrays, filters by name, recipes and batch files. Every render
// runs without the GIL, so Python threads render in parallel.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ArrayImageNode.h"
#include "Batch.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIPlugIn.h"
#include "FilterInfo.h"
#include "ImageIO/CGImageDestination.h"
#include "PlugIns.h"
#include "Recipe.h"
#include "TextureIndexFile.h"
#include "ValueParsing.h"

namespace py = pybind11;
namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

// ---- JSON <-> Python ----

py::object pythonFromJSON(const json& j) {
  switch (j.type()) {
    case json::value_t::null: return py::none();
    case json::value_t::boolean: return py::bool_(j.get<bool>());
    case json::value_t::number_integer: return py::int_(j.get<std::int64_t>());
    case json::value_t::number_unsigned: return py::int_(j.get<std::uint64_t>());
    case json::value_t::number_float: return py::float_(j.get<double>());
    case json::value_t::string: return py::str(j.get_ref<const std::string&>());
    case json::value_t::array: {
      py::list list;
      for (const auto& e : j) list.append(pythonFromJSON(e));
      return list;
    }
    case json::value_t::object: {
      py::dict dict;
      for (const auto& [k, v] : j.items()) dict[py::str(k)] = pythonFromJSON(v);
      return dict;
    }
    default: return py::none();
  }
}

std::string typeName(py::handle obj) { return py::str(py::type::of(obj).attr("__name__")).cast<std::string>(); }

// A Python value as the JSON a recipe would hold. Strings that start with "@" are literal
// strings here (images are passed as Image objects), so they are escaped as "@@".
json jsonFromPython(py::handle obj, const std::string& what, bool escapeAt) {
  if (obj.is_none()) return nullptr;
  if (py::isinstance<py::bool_>(obj)) return obj.cast<bool>();
  if (py::isinstance<py::int_>(obj)) return obj.cast<std::int64_t>();
  if (py::isinstance<py::float_>(obj)) return obj.cast<double>();
  if (py::isinstance<py::str>(obj)) {
    std::string s = obj.cast<std::string>();
    return escapeAt && !s.empty() && s[0] == '@' ? "@" + s : s;
  }
  if (py::hasattr(obj, "__fspath__")) return py::str(obj.attr("__fspath__")()).cast<std::string>();
  if (py::isinstance<py::dict>(obj)) {
    json out = json::object();
    for (auto [k, v] : obj.cast<py::dict>()) {
      if (!py::isinstance<py::str>(k)) throw py::type_error(what + ": dictionary keys must be strings");
      out[k.cast<std::string>()] = jsonFromPython(v, what, false);
    }
    return out;
  }
  if (py::isinstance<py::list>(obj) || py::isinstance<py::tuple>(obj) || py::isinstance<py::array>(obj)) {
    json out = json::array();
    for (auto item : py::iter(obj)) out.push_back(jsonFromPython(item, what, escapeAt));
    return out;
  }
  // NumPy scalars and other numbers.
  if (py::hasattr(obj, "__index__")) return py::int_(py::reinterpret_borrow<py::object>(obj)).cast<std::int64_t>();
  if (py::hasattr(obj, "__float__")) return py::float_(py::reinterpret_borrow<py::object>(obj)).cast<double>();
  throw py::type_error(what + ": cannot use a " + typeName(obj) + " as a value");
}

// ---- Images ----

struct PyImage {
  CIImage image;
};

py::tuple extentTuple(const CGRect& r) {
  if (CGRectIsInfinite(r)) {
    const double inf = std::numeric_limits<double>::infinity();
    return py::make_tuple(-inf, -inf, inf, inf);
  }
  if (CGRectIsNull(r)) return py::make_tuple(0.0, 0.0, 0.0, 0.0);
  return py::make_tuple(r.origin.x, r.origin.y, r.size.width, r.size.height);
}

CGRect rectFromPython(py::handle obj, const char* what) {
  std::vector<double> v;
  try {
    v = obj.cast<std::vector<double>>();
  } catch (const py::cast_error&) {
    throw py::type_error(std::string(what) + " must be a sequence (x, y, width, height) of numbers");
  }
  if (v.size() != 4) throw py::value_error(std::string(what) + " must be (x, y, width, height)");
  for (double d : v)
    if (!std::isfinite(d)) throw py::value_error(std::string(what) + " must be finite");
  if (v[2] <= 0 || v[3] <= 0) throw py::value_error(std::string(what) + " needs a positive width and height");
  return CGRectMake(v[0], v[1], v[2], v[3]);
}

// The integral rectangle a render or save covers, checked.
CGRect renderBounds(const PyImage& self, py::handle rect, const char* verb) {
  CGRect bounds = rect.is_none() ? self.image.extent() : rectFromPython(rect, "rect");
  if (CGRectIsInfinite(bounds)) {
    throw py::value_error(std::string("the image is infinite: give ") + verb +
                          " a rect=(x, y, width, height) to render");
  }
  bounds = CGRectIntegral(bounds);
  if (CGRectIsNull(bounds) || CGRectIsEmpty(bounds)) throw py::value_error("the image is empty: nothing to render");
  if (bounds.size.width * bounds.size.height > double(qv::kMaxOutputPixels)) {
    throw py::value_error("cannot render " + NSStringFromSize(bounds.size) + " pixels: more than the limit of " +
                          std::to_string(qv::kMaxOutputPixels));
  }
  return bounds;
}

CIContextOptions contextOptions(bool colorManagement, int threads) {
  if (threads < 0) throw py::value_error("threads must be 0 (one per core) or more");
  CIContextOptions o;
  o.colorManagement = colorManagement;
  o.threads = threads;
  return o;
}

py::array renderImage(const PyImage& self, py::handle rect, py::handle dtypeObject, bool colorManagement,
                      int threads) {
  // "uint8", np.uint8 and np.dtype("uint8") alike.
  std::string dtype;
  if (py::isinstance<py::str>(dtypeObject)) {
    dtype = dtypeObject.cast<std::string>();
  } else {
    try {
      dtype = py::str(py::module_::import("numpy").attr("dtype")(dtypeObject).attr("name")).cast<std::string>();
    } catch (const py::error_already_set&) {
      throw py::type_error("dtype must be \"uint8\", \"uint16\" or \"float32\"");
    }
  }
  const CGRect bounds = renderBounds(self, rect, "render");
  const auto width = py::ssize_t(bounds.size.width), height = py::ssize_t(bounds.size.height);
  const CIContext context(contextOptions(colorManagement, threads));
  auto run = [&](py::array array, CIRenderFormat format) {
    void* data = array.mutable_data();
    const std::ptrdiff_t rowBytes = array.strides(0);
    {
      py::gil_scoped_release release;
      context.render(self.image, data, rowBytes, bounds, format);
      if (format == CIRenderFormat::RGBAf) {
        encodeStraightRGBAfInPlace(static_cast<float*>(data), std::size_t(width * height), colorManagement);
      }
    }
    return array;
  };
  if (dtype == "uint8") return run(py::array_t<std::uint8_t>({height, width, py::ssize_t(4)}), CIRenderFormat::RGBA8);
  if (dtype == "uint16") return run(py::array_t<std::uint16_t>({height, width, py::ssize_t(4)}), CIRenderFormat::RGBA16);
  if (dtype == "float32") return run(py::array_t<float>({height, width, py::ssize_t(4)}), CIRenderFormat::RGBAf);
  throw py::value_error("dtype must be \"uint8\", \"uint16\" or \"float32\", not \"" + dtype + "\"");
}

void saveImage(const PyImage& self, const fs::path& file, double quality, py::handle rect, bool colorManagement,
               int threads) {
  const std::string path = file.string();
  if (!(quality >= 0 && quality <= 100)) throw py::value_error("quality must be a number from 0 to 100");
  if (CGImageDestinationTypeForPath(path).empty()) {
    throw py::value_error("cannot write " + path + ": unknown image type (use .png, .jpg, .jpeg or .webp)");
  }
  const CGRect bounds = renderBounds(self, rect, "save");
  const CIContext context(contextOptions(colorManagement, threads));
  std::string error;
  {
    py::gil_scoped_release release;
    try {
      context.writeToFile(self.image, path, bounds, quality / 100.0);
    } catch (const std::exception& e) {
      error = e.what();
    }
  }
  if (!error.empty()) {
    PyErr_SetString(PyExc_OSError, ("cannot write " + path + ": " + error).c_str());
    throw py::error_already_set();
  }
}

// Holds a Python object for as long as an image reads its memory; the last reference may be
// dropped on a render thread, which then takes the GIL to release it.
std::shared_ptr<const void> keepAlive(py::object obj) {
  PyObject* raw = obj.release().ptr();
  return std::shared_ptr<const void>(raw, [](const void* p) {
#if PY_VERSION_HEX >= 0x030D0000
    const bool finalizing = Py_IsFinalizing();
#else
    const bool finalizing = _Py_IsFinalizing();
#endif
    if (!Py_IsInitialized() || finalizing) return;
    py::gil_scoped_acquire gil;
    Py_DECREF(static_cast<PyObject*>(const_cast<void*>(p)));
  });
}

PyImage imageFromArray(py::handle object, bool copy) {
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error("from_array needs a NumPy array of shape (height, width, 3 or 4), not a " + typeName(object));
  }
  py::array array = py::reinterpret_borrow<py::array>(object);
  ArrayLayout layout;
  const py::dtype dtype = array.dtype();
  if (dtype.is(py::dtype::of<std::uint8_t>())) {
    layout.type = ArraySampleType::UInt8;
  } else if (dtype.is(py::dtype::of<std::uint16_t>())) {
    layout.type = ArraySampleType::UInt16;
  } else if (dtype.is(py::dtype::of<float>())) {
    layout.type = ArraySampleType::Float32;
  } else {
    throw py::type_error("from_array takes uint8, uint16 or float32 samples, not " +
                         py::str(static_cast<py::handle>(dtype)).cast<std::string>());
  }
  if (array.ndim() != 3 || (array.shape(2) != 3 && array.shape(2) != 4)) {
    std::string shape = "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i) shape += (i ? ", " : "") + std::to_string(array.shape(i));
    throw py::value_error("from_array needs shape (height, width, 3 or 4), not " + shape + (array.ndim() == 1 ? ",)" : ")"));
  }
  if (array.shape(0) == 0 || array.shape(1) == 0) throw py::value_error("from_array needs at least one pixel");
  if (!dtype.attr("isnative").cast<bool>()) throw py::type_error("from_array needs samples in native byte order");
  if (copy) array = py::module_::import("numpy").attr("array")(array, py::arg("copy") = true);
  layout.data = static_cast<const std::uint8_t*>(array.data());
  layout.height = std::size_t(array.shape(0));
  layout.width = std::size_t(array.shape(1));
  layout.channels = std::size_t(array.shape(2));
  layout.rowStride = array.strides(0);
  layout.columnStride = array.strides(1);
  layout.channelStride = array.strides(2);
  return PyImage{CIImage(std::make_shared<ArrayImageNode>(layout, keepAlive(array)))};
}

// ---- Filters ----

struct PyFilter {
  CIFilterRef filter;
  std::string name;
};

py::object pythonFromValue(const Value& v) {
  if (CIImage image = CIImage::fromValue(v)) return py::cast(PyImage{image});
  const json j = qv::jsonFromValue(v);
  // Vectors, colours and transforms come back as tuples, URLs as strings: the forms setting
  // an input accepts.
  if (j.is_object() && j.size() == 1) {
    for (const char* key : {"vector", "color", "transform"}) {
      if (j.contains(key) && j[key].is_array()) return py::tuple(pythonFromJSON(j[key]));
    }
    if (j.contains("url") && j["url"].is_string()) return py::str(j["url"].get<std::string>());
  }
  return pythonFromJSON(j);
}

// The class an input's values are read as; image inputs often declare none, and their keys say
// what they are.
std::string inputClass(const CIFilter& filter, const std::string& key) {
  std::string cls = qv::attributeClassForKey(filter, key);
  if (cls.empty() && key.size() > 5 && key.ends_with("Image")) cls = "CIImage";
  return cls;
}

[[noreturn]] void unknownInput(const PyFilter& self, const std::string& key) {
  std::string list;
  for (const auto& k : self.filter->inputKeys()) list += (list.empty() ? "" : ", ") + k;
  py::object error = py::module_::import("qvfilter._errors").attr("UnknownInputError");
  PyErr_SetObject(error.ptr(), py::str(self.name + " has no input " + key + " (input keys: " + list + ")").ptr());
  throw py::error_already_set();
}

bool hasInput(const PyFilter& self, const std::string& key) {
  const auto keys = self.filter->inputKeys();
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

void setInput(PyFilter& self, const std::string& key, py::handle value) {
  if (!hasInput(self, key)) unknownInput(self, key);
  Value v;
  const std::string cls = inputClass(*self.filter, key);
  if (py::isinstance<PyImage>(value)) {
    v = Value(value.cast<const PyImage&>().image);
  } else if (cls == "CIImage" && (py::isinstance<py::str>(value) || py::hasattr(value, "__fspath__"))) {
    // A path stands for the picture in that file, as on the command line.
    const std::string path = py::str(py::module_::import("os").attr("fspath")(value)).cast<std::string>();
    try {
      v = qv::parseValueForClass(path, cls, key);
    } catch (const qv::ValueError& e) {
      throw py::value_error(self.name + ": " + e.what());
    }
  } else {
    const json j = jsonFromPython(value, key, true);
    try {
      v = qv::valueFromJSON(j, cls, key, [](const std::string& name) -> CIImage {
        throw qv::ValueError("unknown image \"@" + name + "\" (give an qvfilter.Image)");
      });
    } catch (const qv::ValueError& e) {
      throw py::value_error(self.name + ": " + e.what());
    }
  }
  try {
    self.filter->setValue(v, key);
  } catch (const std::exception& e) {
    throw py::value_error(self.name + ": " + key + ": " + e.what());
  }
}

PyFilter makeFilter(const std::string& name) {
  qv::prepareFilterRegistry();
  CIFilterRef filter = CIFilter::filterWithName(name);
  if (!filter) throw py::key_error("no such filter: " + name);
  filter->setDefaults();
  return PyFilter{filter, name};
}

// ---- Batches ----

qv::BatchEntry entryFromPython(const py::dict& d) {
  qv::BatchEntry e;
  e.input = d.contains("input") ? py::str(d["input"]).cast<std::string>() : "";
  e.output = d.contains("output") && !d["output"].is_none() ? py::str(d["output"]).cast<std::string>() : "";
  e.error = d.contains("error") && !d["error"].is_none() ? py::str(d["error"]).cast<std::string>() : "";
  return e;
}

template <class F>
auto translateRecipeErrors(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (const qv::RecipeError& e) {
    throw py::value_error(e.what());
  } catch (const qv::ValueError& e) {
    throw py::value_error(e.what());
  }
}

void loadPlugIns() {
  // Beside the module: <package>/lib/qvfilter, in the build tree and in installs alike.
  const std::string here = qvDirectoryOfLoadedObject(reinterpret_cast<const void*>(&loadPlugIns));
  std::vector<std::string> locations;
  if (!here.empty()) locations.push_back((fs::path(here) / "lib" / "qvfilter").string());
  qvLoadPlugIns(locations);
  qv::prepareFilterRegistry();
}

}  // namespace

PYBIND11_MODULE(_qvfilter, m) {
  m.doc() = "Native core of the qvfilter package: images, filters, recipes and batch files.";
  loadPlugIns();

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const qv::RecipeError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const qv::ValueError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const CIRenderError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const qv::CatalogueError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    }
  });

  py::class_<PyImage>(m, "Image", R"doc(
A lazily evaluated image: an extent and the recipe of its pixels. Nothing is computed until
it is rendered (render, save). Images come from files (Image.open), NumPy arrays
(Image.from_array), constant colours (Image.color) and filter outputs (Filter(...).output).

Coordinates: the extent is (x, y, width, height) with the origin at the bottom-left, y up.
Arrays are (height, width, 4) with row 0 at the top, straight (un-premultiplied) RGBA, encoded
as image files are (sRGB values when colour-managed).
)doc")
      .def_property_readonly(
          "extent", [](const PyImage& self) { return extentTuple(self.image.extent()); },
          "The bounding rectangle (x, y, width, height); (-inf, -inf, inf, inf) when infinite.")
      .def_property_readonly(
          "is_infinite", [](const PyImage& self) { return CGRectIsInfinite(self.image.extent()); },
          "True for an image without bounds (a generator or a clamp): render it with a rect.")
      .def("render", &renderImage, py::arg("rect") = py::none(), py::arg("dtype") = "uint8",
           py::arg("color_management") = true, py::arg("threads") = 0, R"doc(
Renders the image, or the rectangle rect=(x, y, width, height) of it, to a NumPy array of shape
(height, width, 4): straight RGBA, row 0 at the top.

dtype: "uint8" (0-255) or "uint16" (0-65535), sRGB-encoded and rounded, as image files store
them; "float32": the same values in 0...1, not quantised. With color_management=False the
values are the working values without sRGB encoding. threads: render threads, 0 for one per
core. The GIL is released while rendering. An infinite image needs a rect (ValueError).
)doc")
      .def("save", &saveImage, py::arg("path"), py::arg("quality") = 90.0, py::arg("rect") = py::none(),
           py::arg("color_management") = true, py::arg("threads") = 0, R"doc(
Renders the image (or rect=(x, y, width, height) of it) to a PNG, JPEG or WebP file, chosen by
the extension of path. quality: 0-100 for JPEG and WebP (100 is lossless WebP). The file is
written under a temporary name and renamed when complete. OSError when it cannot be written,
ValueError for an unknown extension or an infinite image without a rect.
)doc")
      .def(
          "crop", [](const PyImage& self, py::handle rect) { return PyImage{self.image.imageByCroppingToRect(rectFromPython(rect, "rect"))}; },
          py::arg("rect"), "The part of the image inside rect=(x, y, width, height).")
      .def_static(
          "open",
          [](const fs::path& file) {
            const std::string path = file.string();
            try {
              return PyImage{qv::imageFromFile(path)};
            } catch (const qv::ValueError& e) {
              std::error_code ec;
              PyErr_SetString(fs::exists(path, ec) ? PyExc_OSError : PyExc_FileNotFoundError, e.what());
              throw py::error_already_set();
            }
          },
          py::arg("path"),
          "The image stored in a JPEG, PNG or WebP file, decoded when first rendered. OSError "
          "(FileNotFoundError for a missing file) when it cannot be opened as an image.")
      .def_static("from_array", &imageFromArray, py::arg("array"), py::arg("copy") = false, R"doc(
An image of a NumPy array of shape (height, width, 3 or 4) of uint8, uint16 or float32: straight
RGBA (three channels are opaque RGB), row 0 at the top, encoded as image files are (sRGB
values; float32 in 0...1). The extent is (0, 0, width, height).

The array is not copied, whatever its strides (C- or Fortran-ordered, slices): the image reads
it when rendered and keeps it alive, so do not change it while the image is in use, or pass
copy=True. TypeError for another type of samples, ValueError for another shape.
)doc")
      .def_static(
          "color",
          [](py::handle rgba, py::handle extent) {
            std::vector<double> c;
            try {
              c = rgba.cast<std::vector<double>>();
            } catch (const py::cast_error&) {
              throw py::type_error("color needs (red, green, blue[, alpha]) numbers in 0...1");
            }
            if (c.size() == 3) c.push_back(1.0);
            if (c.size() != 4) throw py::value_error("color needs (red, green, blue[, alpha])");
            CIImage image = CIImage::imageWithColor(CIColor::colorWithRed(c[0], c[1], c[2], c[3]));
            if (!extent.is_none()) image = image.imageByCroppingToRect(rectFromPython(extent, "extent"));
            return PyImage{image};
          },
          py::arg("rgba"), py::arg("extent") = py::none(),
          "A constant colour (red, green, blue[, alpha]) in 0...1, sRGB-encoded straight values; "
          "infinite unless extent=(x, y, width, height) is given.")
      .def("__repr__", [](const PyImage& self) {
        const CGRect e = self.image.extent();
        if (CGRectIsInfinite(e)) return std::string("<qvfilter.Image infinite>");
        return "<qvfilter.Image extent=" + qv::jsonFromRect(e).dump() + ">";
      });

  py::class_<PyFilter>(m, "_FilterHandle", "A filter created by name (use qvfilter.Filter).")
      .def(py::init(&makeFilter), py::arg("name"))
      .def_readonly("name", &PyFilter::name)
      .def("input_keys", [](const PyFilter& self) { return self.filter->inputKeys(); }, "The input keys, in order.")
      .def("output_keys", [](const PyFilter& self) { return self.filter->outputKeys(); }, "The output keys.")
      .def("has_input", &hasInput, py::arg("key"), "True when the filter has this input key.")
      .def("get", [](const PyFilter& self, const std::string& key) {
        if (!hasInput(self, key)) unknownInput(self, key);
        return pythonFromValue(self.filter->valueForKey(key));
      }, py::arg("key"), "The value of an input.")
      .def("set", &setInput, py::arg("key"), py::arg("value"), "Sets an input, read by its class.")
      .def("set_defaults", [](PyFilter& self) { self.filter->setDefaults(); }, "Resets every input to its default.")
      .def("output", [](PyFilter& self) -> py::object {
        try {
          self.filter->setCalculatedValues();
          CIImage out = self.filter->outputImage();
          if (!out) return py::none();
          return py::cast(PyImage{out});
        } catch (const std::invalid_argument& e) {
          throw py::value_error(self.name + ": " + e.what());
        } catch (const std::runtime_error& e) {
          throw py::value_error(self.name + ": " + e.what());
        }
      }, "The output image, or None.");

  m.def(
      "filters",
      [](py::handle category, bool bundleOnly) {
        std::vector<std::string> names = bundleOnly ? qvPlugInFilterNames() : std::vector<std::string>{};
        if (!bundleOnly) names = CIFilter::filterNamesInCategory(category.is_none() ? "" : category.cast<std::string>());
        else if (!category.is_none()) {
          const auto in = CIFilter::filterNamesInCategory(category.cast<std::string>());
          std::erase_if(names, [&](const std::string& n) { return std::find(in.begin(), in.end(), n) == in.end(); });
        }
        return names;
      },
      py::arg("category") = py::none(), py::arg("bundle_only") = false,
      "Registered filter names, sorted; of one category, or of the loaded bundles only.");
  m.def("info", [](const std::string& name) {
    qv::prepareFilterRegistry();
    CIFilterRef filter = CIFilter::filterWithName(name);
    if (!filter) throw py::key_error("no such filter: " + name);
    json description = qv::filterInfoJSON(name);
    json classes = json::object();
    for (const auto& key : filter->inputKeys()) {
      classes[key] = inputClass(*filter, key);
    }
    description["classes"] = classes;
    return pythonFromJSON(description);
  }, py::arg("name"), "A filter's keys, attributes and input classes as a dict.");
  m.def("info_text", [](const std::string& name) {
    qv::prepareFilterRegistry();
    if (!CIFilter::filterWithName(name)) throw py::key_error("no such filter: " + name);
    return qv::filterInfoText(name);
  }, py::arg("name"), "A filter's description as text, as `qvfilter info NAME` prints it.");
  m.def("textures", [](py::handle tag) {
    std::vector<std::string> tags;
    if (!tag.is_none()) tags.push_back(tag.cast<std::string>());
    return translateRecipeErrors([&] { return pythonFromJSON(qv::textureCatalogueJSON(tags)); });
  }, py::arg("tag") = py::none(), "The texture catalogue, or the textures carrying one tag.");
  m.def(
      "run",
      [](py::handle recipe, const std::string& baseDir, int threads) {
        const json doc = jsonFromPython(recipe, "recipe", false);
        qv::RecipeOptions options;
        options.threads = threads;
        json result;
        std::string error;
        {
          py::gil_scoped_release release;
          try {
            const qv::RecipeGraph graph = qv::buildRecipe(doc, baseDir, options);
            result = qv::renderRecipe(graph, options);
          } catch (const std::exception& e) {
            error = e.what();
          }
        }
        if (!error.empty()) throw py::value_error(error);
        return pythonFromJSON(result);
      },
      py::arg("recipe"), py::arg("base_dir") = "", py::arg("threads") = 0,
      "Runs a recipe dict and returns its result dict; the GIL is released while it renders.");
  m.def("plugin_search_path", [] {
    const std::string here = qvDirectoryOfLoadedObject(reinterpret_cast<const void*>(&loadPlugIns));
    return qvPlugInSearchPath(here.empty() ? std::vector<std::string>{}
                                           : std::vector<std::string>{(fs::path(here) / "lib" / "qvfilter").string()});
  }, "Where the plug-in bundles are looked for, in order.");
  m.def("loaded_plugins", [] { return CIPlugIn::loadedPlugIns(); }, "The paths of the loaded plug-in bundles.");

  // Batches: the same planning, per-file run and report as `qvfilter batch`.
  m.def("plan_batch", [](const std::vector<std::string>& inputs, const std::string& outputDirectory,
                         const std::string& format) {
    return translateRecipeErrors([&] {
      py::list out;
      for (const auto& e : qv::planBatch(inputs, outputDirectory, format)) {
        py::dict d;
        d["input"] = e.input;
        d["output"] = e.output;
        d["error"] = e.error.empty() ? py::object(py::none()) : py::object(py::str(e.error));
        out.append(d);
      }
      return out;
    });
  }, py::arg("inputs"), py::arg("output_dir"), py::arg("format") = "",
  "The files of a batch and their outputs, as `qvfilter batch` plans them.");
  py::class_<qv::BatchRecipe>(m, "BatchRecipe", "A recipe read once and run over many files.")
      .def(py::init([](const std::string& path) { return translateRecipeErrors([&] { return qv::BatchRecipe::fromFile(path); }); }),
           py::arg("path"))
      .def(py::init([](py::handle recipe, const std::string& baseDir, const std::string& name) {
             return translateRecipeErrors(
                 [&] { return qv::BatchRecipe(jsonFromPython(recipe, "recipe", false), baseDir, name); });
           }),
           py::arg("recipe"), py::arg("base_dir"), py::arg("name") = "")
      .def_property_readonly("name", &qv::BatchRecipe::name)
      .def_property_readonly("base_dir", &qv::BatchRecipe::baseDirectory)
      .def_property_readonly("text", [](const qv::BatchRecipe& self) { return self.recipe().dump(); })
      .def(
          "run",
          [](const qv::BatchRecipe& self, const py::dict& entry, int threads, py::handle quality, bool skipExisting) {
            qv::BatchFileOptions options;
            options.threads = threads;
            options.skipExisting = skipExisting;
            if (!quality.is_none()) {
              const double q = quality.cast<double>();
              if (!(q >= 0 && q <= 100)) throw py::value_error("quality must be a number from 0 to 100");
              options.quality = q / 100.0;
            }
            const qv::BatchEntry e = entryFromPython(entry);
            json result;
            {
              py::gil_scoped_release release;
              result = self.run(e, options);
            }
            return pythonFromJSON(result);
          },
          py::arg("entry"), py::arg("threads") = 1, py::arg("quality") = py::none(), py::arg("skip_existing") = false,
          "Runs one planned file; returns its result dict. The GIL is released meanwhile.");
  m.def("batch_not_run", [](const py::dict& entry) { return pythonFromJSON(qv::batchNotRunResult(entryFromPython(entry))); },
        py::arg("entry"), "The result of a file that was never run.");
  m.def("batch_report", [](const std::string& recipeName, const std::string& outputDirectory, py::handle files,
                           double seconds, bool interrupted) {
    std::vector<json> results;
    for (auto f : py::iter(files)) results.push_back(jsonFromPython(f, "result", false));
    return pythonFromJSON(qv::batchReport(recipeName, outputDirectory, results, seconds, interrupted));
  }, py::arg("recipe"), py::arg("output_dir"), py::arg("files"), py::arg("seconds"), py::arg("interrupted"),
  "A batch report from per-file results, with its summary.");
  m.def("write_json", [](const std::string& path, py::handle document) {
    const json doc = jsonFromPython(document, "document", false);
    try {
      qv::writeJSONFile(path, doc);
    } catch (const qv::RecipeError& e) {
      PyErr_SetString(PyExc_OSError, e.what());
      throw py::error_already_set();
    }
  }, py::arg("path"), py::arg("document"), "Writes a JSON document atomically (a temporary file renamed).");
}
