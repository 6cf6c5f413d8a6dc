"""QVFilter image filters for Python.

Filters are created by name, take their inputs as keyword arguments or attributes, and hand
out lazily evaluated images that render to NumPy arrays or files::

    import qvfilter
    photo = qvfilter.Image.open("photo.jpg")
    border = qvfilter.Filter("QVFilterBorder", inputImage=photo, inputWidth=20)
    border.inputColor = (0.1, 0.1, 0.1, 1)
    pixels = border.output.render()            # (height, width, 4) uint8
    border.output.save("framed.jpg", quality=90)

    qvfilter.filters("CICategoryBlur")          # names of the registered filters
    qvfilter.info("QVFilterBorder")             # input keys, attributes, defaults
    qvfilter.run({"images": ..., "chain": [...], "output": {...}})   # a JSON recipe
    qvfilter.textures(tag="mask")               # the texture catalogue

The plug-in bundle is found as the qvfilter command finds it: in the directories of
QV_PLUGIN_PATH, then in lib/qvfilter/ beside this package. Errors are ValueError (a bad value
or recipe), KeyError (an unknown filter or input), TypeError (a Python object that cannot be a
value) and OSError (files), with the messages of the qvfilter command.
"""

import os as _os

from . import _qvfilter
from ._errors import UnknownInputError
from ._qvfilter import Image

__all__ = ["Filter", "Image", "UnknownInputError", "filters", "info", "run", "textures"]


def filters(category=None, bundle_only=False):
    """The names of the registered filters, sorted.

    category: only the filters carrying this category (e.g. "CICategoryBlur").
    bundle_only: only the filters of the loaded plug-in bundles, not the built-ins.
    """
    return _qvfilter.filters(category, bundle_only)


def info(name):
    """A filter's description: a dict with "name", "inputKeys", "outputKeys", "attributes"
    (per input key: class, default, ranges... in the JSON form of recipes), "classes" (input
    key -> the class its values are read as, e.g. "NSNumber", "CIColor", "CIImage") and
    "defaults" (input key -> default value). KeyError for an unknown filter."""
    description = _qvfilter.info(name)
    attributes = description.get("attributes", {})
    description["defaults"] = {
        key: attributes[key]["CIAttributeDefault"]
        for key in description.get("inputKeys", [])
        if isinstance(attributes.get(key), dict) and "CIAttributeDefault" in attributes[key]
    }
    return description


def textures(tag=None):
    """The texture catalogue of the plug-in: a list of dicts with "identifier", "key",
    "displayName", "tags", "fileName", "width" and "height"; only those carrying `tag` when
    given (ValueError when none does)."""
    return _qvfilter.textures(tag)


def run(recipe, base_dir=None, threads=0):
    """Runs a recipe (a dict, as `qvfilter run` reads from JSON) and returns its result dict:
    {"extent": ..., "file": ..., "probes": [...]}. Relative paths are relative to base_dir
    (default: the current directory). The GIL is released while it renders. ValueError with
    the recipe's error otherwise."""
    if not isinstance(recipe, dict):
        raise TypeError("run needs a recipe dict, not a " + type(recipe).__name__)
    return _qvfilter.run(recipe, _os.fspath(base_dir) if base_dir is not None else "", threads)


_FILTER_CLASSES = {}


def _filter_doc(name):
    """The docstring of a filter's class: how to use it, and its inputs as `info` gives them."""
    text = _qvfilter.info_text(name)
    return (
        f"The filter {name}. Set inputs as attributes or keyword arguments; read .output.\n\n"
        + text
    )


class Filter:
    """A filter created by name, with its inputs set to their defaults.

        blur = qvfilter.Filter("CIGaussianBlur", inputImage=image, inputRadius=8)
        blur.inputRadius = 12          # inputs are attributes
        out = blur.output              # a lazy qvfilter.Image, or None without an input image

    Values by the input's class: numbers (int, float, bool); vectors, colours and transforms
    as tuples ((x, y), (r, g, b, a), (a, b, c, d, tx, ty)) or as the strings of the command
    line ("0.1 0.2 0.3 1"); images as qvfilter.Image or a file path; strings and URLs as str.
    Reading an input gives the same forms back.

    help(qvfilter.Filter("NAME")) describes that filter's inputs, with their defaults and
    ranges; qvfilter.info(NAME) gives the same as a dict. KeyError for an unknown filter
    name, qvfilter.UnknownInputError (a KeyError and an AttributeError) for an unknown input,
    ValueError for a value that does not fit its input, TypeError for a Python object that
    cannot be a value.
    """

    __slots__ = ("_handle",)

    def __new__(cls, name, **inputs):
        if cls is Filter:
            if not isinstance(name, str):
                raise TypeError("a filter name must be a str, not " + type(name).__name__)
            sub = _FILTER_CLASSES.get(name)
            if sub is None:
                handle = _qvfilter._FilterHandle(name)  # KeyError for an unknown name
                sub = type(name, (Filter,), {"__slots__": (), "__doc__": _filter_doc(name),
                                             "__module__": "qvfilter"})
                _FILTER_CLASSES[name] = sub
                obj = object.__new__(sub)
                object.__setattr__(obj, "_handle", handle)
                return obj
            cls = sub
        obj = object.__new__(cls)
        object.__setattr__(obj, "_handle", _qvfilter._FilterHandle(name))
        return obj

    def __init__(self, name, **inputs):
        for key, value in inputs.items():
            self._handle.set(key, value)

    @property
    def name(self):
        """The filter's name (its class name)."""
        return self._handle.name

    @property
    def input_keys(self):
        """The filter's input keys, in order."""
        return self._handle.input_keys()

    @property
    def inputs(self):
        """The current value of every input, as a dict."""
        return {key: self._handle.get(key) for key in self._handle.input_keys()}

    @property
    def output(self):
        """The output image (a lazy qvfilter.Image, rebuilt from the current inputs on every
        read), or None when the filter produces nothing (e.g. without an input image)."""
        return self._handle.output()

    def set_defaults(self):
        """Resets every input to its default."""
        self._handle.set_defaults()

    def __getattr__(self, key):
        if key.startswith("_"):
            raise AttributeError(key)
        return self._handle.get(key)

    def __setattr__(self, key, value):
        if key.startswith("_"):
            raise AttributeError(f"cannot set {key}")
        self._handle.set(key, value)

    def __dir__(self):
        return sorted(set(super().__dir__()) | set(self._handle.input_keys()))

    def __repr__(self):
        return f"<qvfilter.Filter {self.name}>"
