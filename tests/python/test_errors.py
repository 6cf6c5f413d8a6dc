"""Wrong types and unknown names raise the Python exception that fits, with the host's
message."""
import numpy as np
import pytest

import qvfilter


def test_unknown_filter_is_a_key_error():
    with pytest.raises(KeyError, match="no such filter: NoSuchFilter"):
        qvfilter.Filter("NoSuchFilter")
    with pytest.raises(KeyError):
        qvfilter.info("NoSuchFilter")
    with pytest.raises(TypeError):
        qvfilter.Filter(42)


def test_unknown_input_is_a_key_and_attribute_error():
    f = qvfilter.Filter("CIGaussianBlur")
    with pytest.raises(KeyError, match="has no input inputNope"):
        f.inputNope = 1
    with pytest.raises(AttributeError):
        f.inputNope
    assert not hasattr(f, "inputNope") and getattr(f, "inputNope", 7) == 7
    with pytest.raises(qvfilter.UnknownInputError, match="input keys: inputImage, inputRadius"):
        qvfilter.Filter("CIGaussianBlur", inputNope=1)


def test_values_that_do_not_fit():
    f = qvfilter.Filter("CIGaussianBlur")
    with pytest.raises(ValueError, match="inputRadius"):
        f.inputRadius = "wide"
    with pytest.raises(TypeError, match="cannot use a object"):
        f.inputRadius = object()
    b = qvfilter.Filter("QVFilterBorder")
    with pytest.raises(ValueError, match="inputColor"):
        b.inputColor = (1, 2)
    with pytest.raises(ValueError, match="no such file|cannot read"):
        b.inputImage = "/no/such/picture.png"


def test_arrays_of_the_wrong_kind():
    with pytest.raises(TypeError, match="uint8, uint16 or float32"):
        qvfilter.Image.from_array(np.zeros((4, 4, 4), np.int64))
    with pytest.raises(TypeError, match="NumPy array"):
        qvfilter.Image.from_array([[[0, 0, 0]]])
    with pytest.raises(ValueError, match=r"shape \(height, width, 3 or 4\), not \(4, 4, 2\)"):
        qvfilter.Image.from_array(np.zeros((4, 4, 2), np.uint8))
    with pytest.raises(ValueError, match="shape"):
        qvfilter.Image.from_array(np.zeros((4, 4), np.uint8))
    with pytest.raises(ValueError, match="at least one pixel"):
        qvfilter.Image.from_array(np.zeros((0, 4, 4), np.uint8))
    image = qvfilter.Image.from_array(np.zeros((4, 4, 4), np.uint8))
    with pytest.raises(ValueError, match="dtype"):
        image.render(dtype="int32")
    with pytest.raises(ValueError, match="width and height"):
        image.render(rect=(0, 0, 0, 4))
    with pytest.raises(TypeError, match="rect"):
        image.render(rect="all")


def test_files():
    with pytest.raises(FileNotFoundError, match="/no/such/file.png"):
        qvfilter.Image.open("/no/such/file.png")
    with pytest.raises(OSError, match="not a JPEG, PNG or WebP image"):
        qvfilter.Image.open(__file__)


def test_recipes():
    with pytest.raises(ValueError, match="unknown filter \"Nope\""):
        qvfilter.run({"chain": [{"filter": "Nope"}]})
    with pytest.raises(ValueError, match="unknown key"):
        qvfilter.run({"chain": [], "bogus": 1})
    with pytest.raises(TypeError):
        qvfilter.run("not a dict")
