"""Every filter of the plug-in bundle gives, through the Python module, exactly what the
command line gives for the same recipe. The list comes from the registry, so filters added to
the bundle later are covered without touching this file."""
import json
import subprocess

import numpy as np
import pytest

import qvfilter

RECT = (0, 0, 96, 64)
BUNDLE_FILTERS = qvfilter.filters(bundle_only=True)


def test_the_bundle_is_loaded():
    assert len(BUNDLE_FILTERS) >= 20
    assert "QVFilterBorder" in BUNDLE_FILTERS
    assert all(name in qvfilter.filters() for name in BUNDLE_FILTERS)


def assert_same_pixels(actual, expected):
    """Equal alpha, and colours equal once premultiplied (to within one 8-bit step): a file holds
    unpremultiplied 8-bit values, so the colour of a nearly transparent pixel read back from it
    cannot be exact, while what it contributes to a composite is."""
    np.testing.assert_array_equal(actual[..., 3], expected[..., 3])
    alpha = expected[..., 3:4].astype(np.float64) / 255.0
    difference = np.abs(actual[..., :3].astype(np.float64) - expected[..., :3].astype(np.float64)) * alpha
    assert difference.max(initial=0.0) <= 1.0, f"premultiplied colours differ by up to {difference.max()}"
    # Opaque pixels are exact.
    opaque = expected[..., 3] == 255
    np.testing.assert_array_equal(actual[opaque], expected[opaque])


def image_inputs(name):
    classes = qvfilter.info(name)["classes"]
    return [key for key, cls in classes.items() if cls == "CIImage"]


def recipe_for(name, pictures, output):
    inputs = {key: "@photo" if key == "inputImage" else "@other" for key in image_inputs(name)}
    return {
        "images": {"photo": {"file": str(pictures / "photo.png")}, "other": {"file": str(pictures / "other.png")}},
        "chain": [{"filter": name, "inputs": inputs}],
        "output": {"file": str(output), "rect": list(RECT)},
    }


@pytest.mark.parametrize("name", BUNDLE_FILTERS)
def test_filter_matches_the_command_line(name, pictures, cli, tmp_path):
    recipe = recipe_for(name, pictures, tmp_path / "cli.png")
    (tmp_path / "recipe.json").write_text(json.dumps(recipe))
    done = subprocess.run([cli, "run", str(tmp_path / "recipe.json")], capture_output=True, text=True)

    images = {"inputImage": qvfilter.Image.open(str(pictures / "photo.png"))}
    other = qvfilter.Image.open(str(pictures / "other.png"))
    f = qvfilter.Filter(name, **{key: images.get(key, other) for key in image_inputs(name)})
    out = f.output
    if done.returncode != 0:
        # The command line refuses only a filter without output; Python then has none either.
        assert "nil" in done.stderr, done.stderr
        assert out is None
        return
    assert out is not None
    expected = qvfilter.Image.open(str(tmp_path / "cli.png")).render()
    assert_same_pixels(out.render(rect=RECT), expected)

    # The recipe run through the module writes the same file.
    recipe["output"]["file"] = str(tmp_path / "py.png")
    result = qvfilter.run(recipe)
    assert result["file"] == str(tmp_path / "py.png")
    np.testing.assert_array_equal(qvfilter.Image.open(str(tmp_path / "py.png")).render(), expected)


def test_info_describes_inputs_and_defaults():
    info = qvfilter.info("QVFilterBorder")
    assert info["name"] == "QVFilterBorder"
    assert "inputWidth" in info["inputKeys"] and "outputImage" in info["outputKeys"]
    assert info["classes"]["inputImage"] == "CIImage"
    assert info["defaults"]["inputWidth"] == qvfilter.Filter("QVFilterBorder").inputWidth
    assert info["attributes"]["inputWidth"]["CIAttributeClass"] == "NSNumber"


def test_filters_by_category():
    blurs = qvfilter.filters("CICategoryBlur")
    assert "CIGaussianBlur" in blurs and "QVFilterBorder" not in blurs
    assert set(qvfilter.filters("CICategoryBlur", bundle_only=True)) <= set(BUNDLE_FILTERS)


def test_filter_inputs_are_attributes(pictures):
    photo = qvfilter.Image.open(str(pictures / "photo.png"))
    f = qvfilter.Filter("CIGaussianBlur", inputImage=photo, inputRadius=3)
    assert f.inputRadius == 3
    f.inputRadius = 6.5
    assert f.inputRadius == 6.5
    assert "inputRadius" in dir(f)
    assert f.inputs["inputRadius"] == 6.5
    assert f.output.extent != photo.extent  # the blur spreads beyond the picture
    b = qvfilter.Filter("QVFilterBorder", inputColor="0.5 0.25 0 1")
    assert b.inputColor == pytest.approx((0.5, 0.25, 0, 1))
    b.inputColor = (1, 0, 0, 1)
    assert b.inputColor == (1.0, 0.0, 0.0, 1.0)
    assert b.output is None  # no input image, no output
    b.inputImage = str(pictures / "photo.png")  # a path stands for the picture
    assert b.output.extent == (0, 0, 96, 64)


def test_help_describes_the_filter():
    f = qvfilter.Filter("QVFilterBorder")
    assert type(f).__name__ == "QVFilterBorder" and isinstance(f, qvfilter.Filter)
    assert "inputWidth" in type(f).__doc__
    assert "attribute" in qvfilter.Filter.__doc__
    for fn in (qvfilter.filters, qvfilter.info, qvfilter.run, qvfilter.textures, qvfilter.Image.render,
               qvfilter.Image.save, qvfilter.Image.from_array, qvfilter.Image.open, qvfilter.Image.color):
        assert fn.__doc__ and len(fn.__doc__) > 40, fn
    from qvfilter import _qvfilter, batch
    native = [getattr(_qvfilter, n) for n in dir(_qvfilter) if not n.startswith("__")]
    for cls in (_qvfilter.Image, _qvfilter._FilterHandle, _qvfilter.BatchRecipe):
        native += [getattr(cls, n) for n in dir(cls) if not n.startswith("_") and callable(getattr(cls, n))]
    python = [getattr(m, n) for m in (qvfilter, batch) for n in dir(m)
              if callable(getattr(m, n)) and getattr(getattr(m, n), "__module__", "").startswith("qvfilter")]
    for fn in native + python:
        assert (fn.__doc__ or "").strip(), fn


def test_textures():
    everything = qvfilter.textures()
    assert everything and all(t["identifier"].startswith("x-qvfilter-texture://") for t in everything)
    masks = qvfilter.textures("mask")
    assert masks and all("mask" in t["tags"] for t in masks) and len(masks) < len(everything)
    with pytest.raises(ValueError, match="no texture carries"):
        qvfilter.textures("no-such-tag")


def test_run_gives_probes():
    result = qvfilter.run({"images": {"c": {"color": [1, 0, 0, 1], "extent": [0, 0, 4, 4]}},
                           "output": {"image": "@c", "probes": [[1, 1], [9, 9]]}})
    assert result["extent"] == [0, 0, 4, 4]
    assert result["probes"][0]["rgba"] == pytest.approx([1, 0, 0, 1])
    assert result["probes"][1]["rgba"] == [0, 0, 0, 0]
