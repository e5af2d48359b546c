"""trnw: the raster-imaging library libtrnw6w95 from Python, over ctypes.

    import trnw
    page = trnw.Image.open("fax.tif", page=1)    # any page, counted from 0
    print(page.width, page.height, page.depth)
    page.rotate(90).save("fax.pcx")              # type by extension
    pixels = page.array()                        # NumPy, top row first

Failures raise trnw.Error with the library's code and its text.  The
library keeps its state (image table, decode settings) per process: work in
parallel with processes, not threads.
"""
import ctypes
import os
import struct

import numpy as np

from ._library import lib

__all__ = ["Error", "Image", "version", "file_type", "page_count", "type_name", "type_extension"]

BY_EXTENSION = -1  # IMG_TYPE_BY_EXTENSION
_HEADER = struct.Struct("<IiiHHIIiiII")  # BITMAPINFOHEADER, 40 bytes


class Error(Exception):
    """A failed library call: `code` is the negative IMG_ERR_* code, `text` its meaning."""

    def __init__(self, code, what=None):
        self.code = code
        self.text = lib.IMG_error_text(code).decode()
        super().__init__(f"{what}: {self.text} (error {code})" if what else f"{self.text} (error {code})")


def _check(result, what=None):
    if result < 0:
        raise Error(result, what)
    return result


def version():
    """The library's (major, minor) version."""
    major, minor = ctypes.c_int32(), ctypes.c_int32()
    lib.IMG_ifl_version(ctypes.byref(major), ctypes.byref(minor))
    return major.value, minor.value


def file_type(path):
    """The type number of the file (IMG_TYPE_* of imgapi.h)."""
    return _check(lib.IMGLOW_get_filetype(os.fsencode(path)), path)


def page_count(path):
    """The number of pages (or images) in the file."""
    return _check(lib.IMGLOW_get_pages(os.fsencode(path)), path)


def type_name(type_number):
    """The name of a type number ("TIFF, CCITT Group 4")."""
    return lib.IMG_type_name(type_number).decode()


def type_extension(type_number):
    """The file-name extension of a type number ("tif"); "" for no type."""
    return lib.IMG_type_extension(type_number).decode()


def _stride(width, depth):
    return (width * depth + 31) // 32 * 4


def _palette_bytes(depth):
    return 1024 if depth == 16 else 4 << depth if depth <= 8 else 0


def _grey_ramp(depth):
    return np.repeat(np.linspace(0, 255, 1 << depth).round().astype(np.uint8)[:, None], 3, axis=1)


class Image:
    """An image of the library's image table.

    array() gives the pixels with the top row first: for 8, 16, 24 and 32
    bits a view of the image's own memory (writes to it change the image)
    that stays valid until the next operation; for 1 and 4 bits a copy.
    """

    def __init__(self, handle, block=None):
        self._handle = handle
        self._block = block  # the NumPy block the library works in, kept alive with the handle
        self._shared = block is not None  # whether the image's pixels are still in _block

    # ---- making images ----

    @classmethod
    def open(cls, path, page=0):
        """Decode page `page` (0 first) of the file."""
        if page == 0:
            return cls(_check(lib.IMG_decompress_bitmap(os.fsencode(path)), path))
        with open(path, "rb") as f:
            data = f.read()
        return cls(_check(lib.IMG_decompress_bitmap_mem_size(data, len(data), page), path))

    @classmethod
    def from_array(cls, array, palette=None, depth=None):
        """An image holding a copy of `array`: (h, w, 3) uint8 RGB gives 24 bits;
        (h, w) bool 1 bit (True white); (h, w) uint8 palette indices `depth`
        bits (1, 4 or 8, default 8), `palette` an (n, 3) RGB array (default a
        grey ramp)."""
        array = np.asarray(array)
        if array.dtype == bool and array.ndim == 2:
            array, depth = array.astype(np.uint8), 1
        if array.dtype != np.uint8 or array.ndim not in (2, 3) or (array.ndim == 3 and array.shape[2] != 3):
            raise ValueError("expected (h, w, 3) uint8 RGB, (h, w) uint8 indices or (h, w) bool")
        height, width = array.shape[:2]
        depth = 24 if array.ndim == 3 else depth or 8
        if depth not in (1, 4, 8, 24) or width < 1 or height < 1:
            raise ValueError(f"cannot hold a {width} x {height} image of {depth} bits")
        block = cls._new_block(width, height, depth, palette)
        rows = cls._rows(block, width, height, depth)
        if depth == 24:
            rows[:, : width * 3] = array[..., ::-1].reshape(height, -1)  # RGB to the DIB's BGR
        else:
            if array.max(initial=0) >= 1 << depth:
                raise ValueError(f"indices beyond {(1 << depth) - 1} in a {depth}-bit image")
            rows[:, : (width * depth + 7) // 8] = cls._pack(array, depth)
        return cls(_check(lib.IMG_create_handle_keep(block.ctypes.data)), block)

    @staticmethod
    def _new_block(width, height, depth, palette, dpi=(0, 0)):
        """A zeroed packed DIB with its header and palette."""
        offset = 40 + _palette_bytes(depth)
        block = np.zeros(offset + _stride(width, depth) * height, np.uint8)
        header = _HEADER.pack(40, width, height, 1, depth, 0, _stride(width, depth) * height, *dpi, 0, 0)
        block[:40] = np.frombuffer(header, np.uint8)
        if depth <= 8:
            colours = _grey_ramp(depth) if palette is None else np.asarray(palette, np.uint8).reshape(-1, 3)
            if len(colours) > 1 << depth:
                raise ValueError(f"{len(colours)} colours in a {depth}-bit palette")
            block[40 : 40 + 4 * len(colours)].reshape(-1, 4)[:, :3] = colours[:, ::-1]  # RGBQUAD: B, G, R, 0
        return block

    @staticmethod
    def _rows(block, width, height, depth):
        """The block's rows as an (h, stride) view, top row first."""
        offset = 40 + _palette_bytes(depth)
        return block[offset:].reshape(height, _stride(width, depth))[::-1]

    @staticmethod
    def _pack(indices, depth):
        if depth == 8:
            return indices
        if depth == 1:
            return np.packbits(indices, axis=1)
        if indices.shape[1] % 2:
            indices = np.pad(indices, ((0, 0), (0, 1)))
        return (indices[:, 0::2] << 4) | indices[:, 1::2]

    def close(self):
        """Deletes the image from the library's table (also done when collected)."""
        if self._handle is not None:
            # _keep: a block of ours stays ours; one the library made is freed.
            (lib.IMG_delete_bitmap_keep if self._block is not None else lib.IMG_delete_bitmap)(self._handle)
            self._handle = None

    def __del__(self):
        try:
            self.close()
        except Exception:  # interpreter shutdown: the library may be gone
            pass

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    # ---- what it is ----

    @property
    def handle(self):
        if self._handle is None:
            raise ValueError("the image is closed")
        return self._handle

    def _info(self):
        width, height, depth = ctypes.c_int32(), ctypes.c_int32(), ctypes.c_int32()
        _check(lib.IMG_bitmap_info(self.handle, ctypes.byref(width), ctypes.byref(height), ctypes.byref(depth)))
        return width.value, height.value, depth.value

    @property
    def width(self):
        return self._info()[0]

    @property
    def height(self):
        return self._info()[1]

    @property
    def depth(self):
        """Bits per pixel: 1, 4, 8, 16, 24 or 32."""
        return self._info()[2]

    def _header(self):
        """The header and palette as the library holds them."""
        buffer = np.zeros(40 + 1024, np.uint8)
        _check(lib.IMGLOW_get_bitmap_header(self.handle, buffer.ctypes.data))
        return buffer

    @property
    def dpi(self):
        """The (x, y) resolution in dots per inch; 0 where the file gave none."""
        return tuple(int(v) for v in self._header()[24:32].view("<i4"))

    @property
    def palette(self):
        """The colours as an (n, 3) RGB array (n = 2 ** depth); None from 16 bits up."""
        depth = self.depth
        if depth > 8:
            return None
        return self._header()[40 : 40 + (4 << depth)].reshape(-1, 4)[:, 2::-1].copy()

    # ---- pixels ----

    def _copy_rows(self, width, height, depth):
        """Every row through IMGLOW_get_raster: (h, stride) uint8, top first."""
        rows = np.empty((height, _stride(width, depth)), np.uint8)
        for r in range(height):
            _check(lib.IMGLOW_get_raster(self.handle, rows[r].ctypes.data, r, rows.shape[1]))
        return rows

    def _adopt(self, width, height, depth):
        """Moves the image into a NumPy block of ours, once after each operation."""
        if self._shared:
            return self._block
        header = self._header()
        block = self._new_block(width, height, depth, None)
        block[: 40 + _palette_bytes(depth)] = header[: 40 + _palette_bytes(depth)]
        block[16:20] = 0  # biCompression: plain rows
        self._rows(block, width, height, depth)[:] = self._copy_rows(width, height, depth)
        handle = _check(lib.IMG_create_handle_keep(block.ctypes.data))
        self.close()
        self._handle, self._block, self._shared = handle, block, True
        return block

    def array(self):
        """The pixels, top row first: (h, w) palette indices for 1, 4 and 8
        bits, (h, w) uint16 for 16 bits (5-5-5), (h, w, 3) RGB for 24 and 32."""
        width, height, depth = self._info()
        if depth in (1, 4):
            rows = self._copy_rows(width, height, depth)
            if depth == 1:
                return np.unpackbits(rows, axis=1)[:, :width]
            return np.stack((rows >> 4, rows & 15), axis=-1).reshape(height, -1)[:, :width]
        block = self._adopt(width, height, depth)
        stride, size = _stride(width, depth), depth // 8
        last_row = 40 + _palette_bytes(depth) + (height - 1) * stride
        if depth == 8:
            return np.ndarray((height, width), np.uint8, block, last_row, (-stride, 1))
        if depth == 16:
            return np.ndarray((height, width), "<u2", block, last_row, (-stride, 2))
        # B, G, R(, X) in the block: start at R and step back
        return np.ndarray((height, width, 3), np.uint8, block, last_row + 2, (-stride, size, -1))

    def rgb(self):
        """A copy of the pixels as (h, w, 3) RGB colours."""
        depth = self.depth
        pixels = self.array()
        if depth <= 8:
            return self.palette[pixels]
        if depth == 16:
            fives = np.stack([(pixels >> shift) & 31 for shift in (10, 5, 0)], axis=-1).astype(np.uint8)
            return (fives << 3) | (fives >> 2)
        return pixels.copy()

    # ---- saving ----

    def save(self, path, type=BY_EXTENSION):
        """Saves as type number `type`, or by the extension of `path`. A TIFF
        or DCX type appends the page to an existing file."""
        _check(lib.IMG_save_bitmap(self.handle, os.fsencode(path), type), path)
        return self

    # ---- operations: each changes the image and returns it ----

    def _apply(self, function, *arguments):
        self._shared = False  # the library may have put the pixels in a new block
        _check(function(self.handle, *arguments))
        return self

    def rotate(self, degrees):
        """Rotates clockwise by any angle (90, 270, 12.5)."""
        return self._apply(lib.IMG_rotate_bitmap, round(degrees * 100))

    def flip(self, axis):
        """Mirrors left to right ("x") or top to bottom ("y")."""
        flips = {"x": lib.IMG_flip_bitmapx, "y": lib.IMG_flip_bitmapy}
        if axis not in flips:
            raise ValueError(f"flip axis {axis!r}: 'x' or 'y'")
        return self._apply(flips[axis])

    def invert(self):
        """Complements every stored bit: the colours of 1-bit, grey and 24-bit
        images; a palette image's indices (i becomes 2 ** depth - 1 - i)."""
        return self._apply(lib.IMG_invert_bitmap)

    def dither(self, method="stucki", threshold=None):
        """Dithers to 1 bit: "bayer", "halftone", "stucki" or "threshold"
        (`threshold` 0-255, None automatic)."""
        if method == "threshold":
            return self._apply(lib.IMG_thresh_mono, -1 if threshold is None else threshold)
        methods = {"bayer": lib.IMG_bayer_mono, "halftone": lib.IMG_halftone_mono, "stucki": lib.IMG_diffusion_mono}
        if method not in methods:
            raise ValueError(f"dither method {method!r}")
        return self._apply(methods[method])

    def dither_color(self, method="diffusion"):
        """Dithers to 4-bit colour: "bayer" or "diffusion"."""
        methods = {"bayer": lib.IMG_bayer_color, "diffusion": lib.IMG_diffusion_color}
        if method not in methods:
            raise ValueError(f"colour dither method {method!r}")
        return self._apply(methods[method])

    def colors(self, method="octree", count=256, bits=8):
        """Reduces to a palette: "fixed" (3-3-2), "popularity" (the most
        popular colours) or "octree" (`count` colours in `bits` bits, 4 or 8)."""
        if method == "octree":
            return self._apply(lib.IMG_octree_color, bits, None, count)
        methods = {"fixed": lib.IMG_mediancut_color, "popularity": lib.IMG_popularity_color}
        if method not in methods:
            raise ValueError(f"palette method {method!r}")
        return self._apply(methods[method])

    def gray(self):
        """Converts to 8-bit grey."""
        return self._apply(lib.IMG_color_gray)

    def promote(self, bits):
        """Promotes to 8 or 24 bits."""
        promotions = {8: lib.IMG_promote_8, 24: lib.IMG_promote_24}
        if bits not in promotions:
            raise ValueError(f"promote to {bits} bits: 8 or 24")
        return self._apply(promotions[bits])
