"""Images from and to NumPy arrays: round trips in every dtype, with and without alpha, in C
and Fortran order; rendering rectangles; infinite images; saving."""
import threading

import numpy as np
import pytest

import qvfilter

H, W = 37, 53


def random_pixels(dtype, channels, seed=1):
    rng = np.random.default_rng(seed)
    if dtype == np.uint8:
        a = rng.integers(0, 256, (H, W, channels), dtype=np.uint8)
    elif dtype == np.uint16:
        a = rng.integers(0, 65536, (H, W, channels), dtype=np.uint16)
    else:
        a = rng.random((H, W, channels), dtype=np.float32)
    if channels == 4:
        # A fully transparent pixel has no colour once premultiplied: keep alpha above zero.
        top = {np.uint8: 255, np.uint16: 65535}.get(dtype, 1.0)
        low = {np.uint8: 1, np.uint16: 1}.get(dtype, 0.02)
        a[..., 3] = np.maximum(a[..., 3], low)
        a[0, 0, 3] = top
    return a


def expected_rgba(a):
    if a.shape[2] == 4:
        return a
    top = {np.dtype(np.uint8): 255, np.dtype(np.uint16): 65535}.get(a.dtype, 1.0)
    return np.concatenate([a, np.full(a.shape[:2] + (1,), top, a.dtype)], axis=2)


@pytest.mark.parametrize("order", ["C", "F"])
@pytest.mark.parametrize("channels", [3, 4])
@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.float32], ids=["uint8", "uint16", "float32"])
def test_round_trip(dtype, channels, order):
    a = np.asarray(random_pixels(dtype, channels), order=order)
    assert a.flags.f_contiguous == (order == "F")
    image = qvfilter.Image.from_array(a)
    assert image.extent == (0, 0, W, H)
    back = image.render(dtype=np.dtype(dtype).name if order == "C" else dtype)
    assert back.shape == (H, W, 4) and back.dtype == dtype and back.flags.c_contiguous
    want = expected_rgba(a)
    if dtype == np.uint8:
        np.testing.assert_array_equal(back, want)  # 8-bit pictures come back unchanged
    elif dtype == np.uint16:
        assert np.abs(back.astype(np.int64) - want.astype(np.int64)).max() <= 1
    else:
        np.testing.assert_allclose(back, want, atol=2e-5)


def test_uint8_survives_every_alpha_but_zero():
    values = np.arange(256, dtype=np.uint8)
    a = np.zeros((256, 256, 4), np.uint8)
    a[..., 0] = values[None, :]
    a[..., 1] = values[::-1][None, :]
    a[..., 2] = 128
    a[..., 3] = np.maximum(values[:, None], 1)
    np.testing.assert_array_equal(qvfilter.Image.from_array(a).render(), a)


def test_arrays_are_read_in_place():
    a = random_pixels(np.uint8, 4)
    image = qvfilter.Image.from_array(a)
    a[:] = 0
    a[..., 3] = 255
    assert image.render().max(axis=(0, 1)).tolist() == [0, 0, 0, 255]
    copied = qvfilter.Image.from_array(random_pixels(np.uint8, 4), copy=True)
    source = random_pixels(np.uint8, 4)
    np.testing.assert_array_equal(copied.render(), source)


def test_strided_views_and_keeping_the_array_alive():
    big = random_pixels(np.uint8, 4)
    view = big[::2, ::-1, :]  # every other row, mirrored columns
    image = qvfilter.Image.from_array(view)
    expected = np.array(view)
    del big, view
    np.testing.assert_array_equal(image.render(), expected)
    bgr_view = np.ascontiguousarray(random_pixels(np.uint8, 4))[..., [2, 1, 0, 3]]
    np.testing.assert_array_equal(qvfilter.Image.from_array(bgr_view).render(), bgr_view)


def test_render_rect_and_orientation():
    a = random_pixels(np.uint8, 4)
    image = qvfilter.Image.from_array(a)
    # The extent's origin is bottom-left: (x, y) = (5, 0) is the bottom rows of the array.
    part = image.render(rect=(5, 0, 10, 4))
    np.testing.assert_array_equal(part, a[H - 4:, 5:15])
    outside = image.render(rect=(W, H, 3, 2))
    assert outside.shape == (2, 3, 4) and not outside.any()


def test_color_images_and_infinite_extents():
    red = qvfilter.Image.color((1, 0, 0))
    assert red.is_infinite and red.extent[2] == float("inf")
    with pytest.raises(ValueError, match="infinite"):
        red.render()
    pixels = red.render(rect=(0, 0, 2, 3), dtype="float32")
    assert pixels.shape == (3, 2, 4)
    np.testing.assert_allclose(pixels, np.broadcast_to([1, 0, 0, 1], (3, 2, 4)), atol=1e-6)
    square = qvfilter.Image.color((0, 0, 1, 0.5), extent=(0, 0, 4, 4))
    assert not square.is_infinite and square.render()[0, 0].tolist() == [0, 0, 255, 128]
    assert square.crop((1, 1, 2, 2)).extent == (1, 1, 2, 2)


def test_save_and_open(tmp_path):
    a = random_pixels(np.uint8, 4)
    image = qvfilter.Image.from_array(a)
    image.save(str(tmp_path / "a.png"))
    np.testing.assert_array_equal(qvfilter.Image.open(str(tmp_path / "a.png")).render(), a)
    image.save(str(tmp_path / "a.jpg"), quality=95)
    opened = qvfilter.Image.open(tmp_path / "a.jpg")
    assert opened.extent == (0, 0, W, H)
    with pytest.raises(ValueError, match="unknown image type"):
        image.save(str(tmp_path / "a.gif"))
    with pytest.raises(OSError):
        image.save(str(tmp_path / "missing-dir" / "a.png"))


def test_renders_in_threads_give_the_same_pixels():
    a = random_pixels(np.uint8, 3)
    blur = qvfilter.Filter("CIGaussianBlur", inputImage=qvfilter.Image.from_array(a), inputRadius=4).output
    expected = blur.render(rect=(0, 0, W, H))
    results = [None] * 4

    def work(i):
        results[i] = blur.render(rect=(0, 0, W, H), threads=1)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for r in results:
        np.testing.assert_array_equal(r, expected)
