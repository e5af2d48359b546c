"""Finds and loads libtrnw6w95 and declares the calls the package makes."""
import ctypes
import ctypes.util
import os
import sys
from pathlib import Path

_WINDOWS = os.name == "nt"
_NAME = "trnw6w95.dll" if _WINDOWS else "libtrnw6w95.so"


def _candidates():
    """Where the library may be, in the order tried."""
    named = os.environ.get("TRNW_LIBRARY")
    if named:  # the caller's choice, and no other
        yield named
        return
    try:
        from ._location import LIBRARY  # written by cmake --install

        yield LIBRARY
    except ImportError:
        pass
    # The source tree's own build, for python/ used in place.
    build = Path(__file__).resolve().parents[2] / "build"
    yield str(build / ("bin" if _WINDOWS else "lib") / _NAME)
    found = ctypes.util.find_library("trnw6w95")
    if found:
        yield found


def _load():
    # 32-bit Windows: the standard calling convention (__stdcall).
    loader = ctypes.WinDLL if _WINDOWS and sys.maxsize < 2**32 else ctypes.CDLL
    failures = []
    for path in _candidates():
        try:
            return loader(path)
        except OSError as error:
            failures.append(f"{path}: {error}")
    raise ImportError("libtrnw6w95 not found (set TRNW_LIBRARY to its path): " + "; ".join(failures))


_i32 = ctypes.c_int32
_p32 = ctypes.POINTER(ctypes.c_int32)
_ptr = ctypes.c_void_p
_text = ctypes.c_char_p

# name: (result type, argument types)
_CALLS = {
    "IMG_error_text": (_text, [_i32]),
    "IMG_type_name": (_text, [_i32]),
    "IMG_type_extension": (_text, [_i32]),
    "IMG_ifl_version": (_i32, [_p32, _p32]),
    "IMGLOW_get_filetype": (_i32, [_text]),
    "IMGLOW_get_pages": (_i32, [_text]),
    "IMG_decompress_bitmap": (_i32, [_text]),
    "IMG_decompress_bitmap_mem_size": (_i32, [_ptr, ctypes.c_uint32, _i32]),
    "IMG_create_handle_keep": (_i32, [_ptr]),
    "IMG_delete_bitmap": (_i32, [_i32]),
    "IMG_delete_bitmap_keep": (_i32, [_i32]),
    "IMG_bitmap_info": (_i32, [_i32, _p32, _p32, _p32]),
    "IMGLOW_get_bitmap_header": (_i32, [_i32, _ptr]),
    "IMGLOW_get_raster": (_i32, [_i32, _ptr, _i32, _i32]),
    "IMG_save_bitmap": (_i32, [_i32, _text, _i32]),
    "IMG_rotate_bitmap": (_i32, [_i32, _i32]),
    "IMG_flip_bitmapx": (_i32, [_i32]),
    "IMG_flip_bitmapy": (_i32, [_i32]),
    "IMG_invert_bitmap": (_i32, [_i32]),
    "IMG_mediancut_color": (_i32, [_i32]),
    "IMG_popularity_color": (_i32, [_i32]),
    "IMG_octree_color": (_i32, [_i32, _i32, _ptr, _i32]),
    "IMG_bayer_mono": (_i32, [_i32]),
    "IMG_halftone_mono": (_i32, [_i32]),
    "IMG_diffusion_mono": (_i32, [_i32]),
    "IMG_thresh_mono": (_i32, [_i32, _i32]),
    "IMG_bayer_color": (_i32, [_i32]),
    "IMG_diffusion_color": (_i32, [_i32]),
    "IMG_color_gray": (_i32, [_i32]),
    "IMG_promote_8": (_i32, [_i32]),
    "IMG_promote_24": (_i32, [_i32]),
}

lib = _load()
for _name, (_result, _arguments) in _CALLS.items():
    _function = getattr(lib, _name)
    _function.restype = _result
    _function.argtypes = _arguments
