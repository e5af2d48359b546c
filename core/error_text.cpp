/*
 * error_text.cpp - IMG_error_text: each error code of the interface in words.
 */
#include "core/imgapi.h"

const char *IMGAPI IMG_error_text(int32_t code)
{
    switch (code) {
    case IMG_ERR_MEMORY: return "out of memory";
    case IMG_ERR_OPEN: return "the file could not be opened";
    case IMG_ERR_INVALID: return "invalid image data, or a variant of the format that is not handled";
    case IMG_ERR_CREATE: return "the output file could not be created";
    case IMG_ERR_TYPE: return "unknown or unsupported file type, or a parameter out of range";
    case IMG_ERR_GDI: return "the GDI object is not usable";
    case IMG_ERR_WRITE: return "a write stored fewer bytes than asked (disk full?)";
    case IMG_ERR_DISPLAY_RECT: return "the display rectangle is empty";
    case IMG_ERR_PAGE: return "the requested page does not exist";
    case IMG_ERR_READ: return "the file is truncated or not of the expected format";
    case IMG_ERR_HANDLE: return "invalid image handle";
    case IMG_ERR_SCAN_SOURCE: return "the scanner source could not be opened";
    case IMG_ERR_SCAN_MANAGER: return "the scanner source manager was not found";
    case IMG_ERR_STOPPED: return "decoding stopped";
    case IMG_ERR_DEPTH: return "the image's bit depth is not supported by this output or operation";
    case IMG_ERR_INTERP_PALETTE: return "a colour-palette image cannot be resized with interpolation";
    case IMG_ERR_NO_TRANSPARENT: return "no transparent colour is set";
    case IMG_ERR_COMPRESSION: return "the file's compression scheme is not supported";
    case IMG_ERR_SCAN_CAPABILITY: return "a scanner capability could not be set";
    default: return "unknown error";
    }
}
