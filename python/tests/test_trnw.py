"""The Python package against Pillow: Pillow writes files the package must
decode to Pillow's own pixels, and reads the files the package writes; the
operations are checked against NumPy's rearrangements of the same pixels."""
import numpy as np
import pytest
from PIL import Image as Pil

import trnw

RNG = np.random.default_rng(7)


def pil_picture(mode, height=37, width=45):
    """A Pillow picture of `mode` with varied pixels."""
    if mode == "1":
        return Pil.fromarray(RNG.random((height, width)) > 0.5)
    if mode == "L":
        return Pil.fromarray(RNG.integers(0, 256, (height, width), dtype=np.uint8))
    colour = Pil.fromarray(RNG.integers(0, 256, (height, width, 3), dtype=np.uint8))
    return colour.quantize(200) if mode == "P" else colour


def pil_rgb(path):
    return np.asarray(Pil.open(path).convert("RGB"))


# Pillow's mode, the file's name and Pillow's save options.
WRITTEN_BY_PILLOW = [
    ("1", "g4.tif", {"compression": "group4"}),
    ("1", "g3.tif", {"compression": "group3"}),
    ("1", "bilevel.bmp", {}),
    ("L", "grey.tif", {"compression": "tiff_lzw"}),
    ("P", "palette.bmp", {}),
    ("P", "palette.pcx", {}),
    ("P", "palette.gif", {}),
    ("RGB", "colour.tif", {"compression": "packbits"}),
    ("RGB", "colour.tga", {}),
]


@pytest.mark.parametrize("mode, name, options", WRITTEN_BY_PILLOW, ids=[c[1] for c in WRITTEN_BY_PILLOW])
def test_decode_matches_pillow(tmp_path, mode, name, options):
    path = tmp_path / name
    pil_picture(mode).save(path, **options)
    assert np.array_equal(trnw.Image.open(path).rgb(), pil_rgb(path))


def test_every_page_of_a_multipage_tiff(tmp_path):
    path = tmp_path / "pages.tif"
    pages = [pil_picture("1"), pil_picture("RGB", 20, 30), pil_picture("L", 9, 50)]
    pages[0].save(path, save_all=True, append_images=pages[1:])
    assert trnw.page_count(path) == 3
    for number, page in enumerate(pages):
        assert np.array_equal(trnw.Image.open(path, page=number).rgb(), np.asarray(page.convert("RGB")))


PALETTE = RNG.integers(0, 256, (16, 3), dtype=np.uint8)
# What from_array gets, the colours it stands for, and the save: a path's
# extension or a type number.
BILEVEL = RNG.random((23, 41)) > 0.5
INDICES = RNG.integers(0, 16, (23, 41), dtype=np.uint8)
COLOUR = RNG.integers(0, 256, (23, 41, 3), dtype=np.uint8)
WRITES = [
    ("bilevel-g4", dict(array=BILEVEL), np.where(BILEVEL, 255, 0)[..., None].repeat(3, 2), "tif", 10),
    ("bilevel-bmp", dict(array=BILEVEL), np.where(BILEVEL, 255, 0)[..., None].repeat(3, 2), "bmp", None),
    ("4bit-pcx", dict(array=INDICES, palette=PALETTE, depth=4), PALETTE[INDICES], "pcx", None),
    ("8bit-gif", dict(array=INDICES, palette=PALETTE), PALETTE[INDICES], "gif", None),
    ("colour-lzw", dict(array=COLOUR), COLOUR, "tif", 9),
    ("colour-bmp", dict(array=COLOUR), COLOUR, "bmp", None),
]


@pytest.mark.parametrize("arguments, colours, extension, type_number", [w[1:] for w in WRITES],
                         ids=[w[0] for w in WRITES])
def test_saved_files_read_by_pillow(tmp_path, arguments, colours, extension, type_number):
    path = tmp_path / f"saved.{extension}"
    image = trnw.Image.from_array(**arguments)
    image.save(path) if type_number is None else image.save(path, type_number)
    assert np.array_equal(pil_rgb(path), colours)


def test_pixels_shared_from_8_bits_up_copied_below(tmp_path):
    colour = trnw.Image.from_array(COLOUR)
    colour.array()[0, 0] = (1, 2, 3)  # writes through to the image
    colour.save(tmp_path / "written.bmp")
    assert Pil.open(tmp_path / "written.bmp").getpixel((0, 0)) == (1, 2, 3)

    pil_picture("P").save(tmp_path / "palette.bmp")
    decoded = trnw.Image.open(tmp_path / "palette.bmp")  # moved into NumPy memory once
    assert np.shares_memory(decoded.array(), decoded.array())

    bilevel = trnw.Image.from_array(BILEVEL)
    bilevel.array()[:] = 0  # a copy: the image keeps its pixels
    assert np.array_equal(bilevel.array(), BILEVEL)


def fax_page(tmp_path):
    """A run-coded page: a Group 4 TIFF by Pillow, decoded."""
    pil_picture("1", 40, 70).save(tmp_path / "fax.tif", compression="group4")
    return trnw.Image.open(tmp_path / "fax.tif")


SOURCES = {
    "colour": lambda tmp_path: trnw.Image.from_array(COLOUR),
    "palette": lambda tmp_path: trnw.Image.from_array(INDICES, palette=PALETTE),
    "bilevel": lambda tmp_path: trnw.Image.from_array(BILEVEL),
    "fax": fax_page,
}
# Each operation and what it makes of the stored pixels (array()).
OPERATIONS = {
    "rotate90": (lambda image: image.rotate(90), lambda pixels: np.rot90(pixels, -1)),  # clockwise
    "rotate180": (lambda image: image.rotate(180), lambda pixels: pixels[::-1, ::-1]),
    "rotate270": (lambda image: image.rotate(270), lambda pixels: np.rot90(pixels, 1)),
    "flip-x": (lambda image: image.flip("x"), lambda pixels: pixels[:, ::-1]),
    "flip-y": (lambda image: image.flip("y"), lambda pixels: pixels[::-1]),
    # every stored bit complemented: palette indices too, not the palette
    "invert": (lambda image: image.invert(), lambda pixels: (1 if pixels.max() == 1 else 255) - pixels),
}


@pytest.mark.parametrize("source", SOURCES)
@pytest.mark.parametrize("operation", OPERATIONS)
def test_operations_rearrange_the_pixels(tmp_path, source, operation):
    image = SOURCES[source](tmp_path)
    before = image.array().copy()
    apply, expected = OPERATIONS[operation]
    assert np.array_equal(apply(image).array(), expected(before))


def test_depth_changing_operations():
    grey = RNG.integers(0, 256, (19, 33), dtype=np.uint8)
    image = trnw.Image.from_array(grey).dither("threshold", 100)  # white above the threshold
    assert image.depth == 1 and np.array_equal(image.array(), grey > 100)

    sixteen = trnw.Image.from_array(PALETTE[INDICES]).colors("octree", count=16, bits=4)
    assert sixteen.depth == 4 and np.array_equal(sixteen.rgb(), PALETTE[INDICES])  # 16 colours kept

    promoted = trnw.Image.from_array(INDICES, palette=PALETTE).promote(24)
    assert promoted.depth == 24 and np.array_equal(promoted.array(), PALETTE[INDICES])


def test_errors_carry_the_code_and_its_text(tmp_path):
    corrupt = tmp_path / "corrupt.tif"
    corrupt.write_bytes(b"II*\0\xff\xff\xff\x7f")  # first directory past the end
    fax = fax_page(tmp_path)
    failures = [
        (lambda: trnw.Image.open(tmp_path / "missing.bmp"), -2),
        (lambda: trnw.Image.open(tmp_path / "fax.tif", page=1), -11),
        (lambda: trnw.Image.open(corrupt), -7),
        (lambda: fax.save(tmp_path / "fax.unknown"), -7),
        (lambda: fax.promote(8).colors("octree", bits=5), -7),
    ]
    for call, code in failures:
        with pytest.raises(trnw.Error) as caught:
            call()
        assert caught.value.code == code
        assert caught.value.text in str(caught.value)
