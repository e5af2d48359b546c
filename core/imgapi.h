/*
 * imgapi.h - the one public header of trnw (libtrnw6w95.so, trnw6w95.dll).
 *
 * Every exported function returns a signed 32-bit result: 0 or a positive
 * value on success, a negative IMG_ERR_* code on failure.  Rows are
 * addressed with 0 at the top.  Image handles are small non-negative
 * integers naming a slot of the library's image table.
 *
 * Only the functions declared here are exported.  Functions marked
 * "extension" were added by this library to the long-standing interface;
 * docs/API.md lists them.
 */
#ifndef TRNW_IMGAPI_H
#define TRNW_IMGAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Calling conventions: exported functions and the progress callback use the
 * standard Windows convention on 32-bit Windows; caller I/O functions use the
 * C convention. */
#if defined(_WIN32) && !defined(_WIN64)
#define IMGAPI __stdcall
#define IMGCDECL __cdecl
#else
#define IMGAPI
#define IMGCDECL
#endif

#if defined(_WIN32)
#if defined(TRNW_BUILDING_DLL)
#define IMGEXPORT __declspec(dllexport)
#else
#define IMGEXPORT
#endif
#elif defined(__GNUC__)
#define IMGEXPORT __attribute__((visibility("default")))
#else
#define IMGEXPORT
#endif

/* ---- Error codes (IMG_error_text gives each in words) ---- */
#define IMG_ERR_MEMORY          (-1)  /* out of memory, or the image has no pixel block */
#define IMG_ERR_OPEN            (-2)  /* the named file could not be opened */
#define IMG_ERR_INVALID         (-3)  /* invalid image data or unsupported variant */
#define IMG_ERR_CREATE          (-6)  /* an output or temporary file could not be created */
#define IMG_ERR_TYPE            (-7)  /* unknown file type, or a parameter out of range */
#define IMG_ERR_GDI             (-8)  /* a GDI bitmap or metafile handed in is not usable */
#define IMG_ERR_WRITE           (-9)  /* a write stored fewer bytes than asked */
#define IMG_ERR_DISPLAY_RECT    (-10) /* display rectangle width or height below 1 */
#define IMG_ERR_PAGE            (-11) /* the requested page does not exist */
#define IMG_ERR_READ            (-12) /* short read, or data not of the expected format */
#define IMG_ERR_HANDLE          (-13) /* invalid image handle */
#define IMG_ERR_SCAN_SOURCE     (-16) /* scanner data source could not be opened or driven */
#define IMG_ERR_SCAN_MANAGER    (-17) /* scanner source manager not found */
#define IMG_ERR_STOPPED         (-18) /* decoding stopped on purpose after the header */
#define IMG_ERR_DEPTH           (-21) /* bit depth not supported by this writer or operation */
#define IMG_ERR_INTERP_PALETTE  (-22) /* 8-bit colour-palette image cannot be interpolated */
#define IMG_ERR_NO_TRANSPARENT  (-26) /* no transparent colour is set */
#define IMG_ERR_COMPRESSION     (-27) /* compression scheme not supported */
#define IMG_ERR_SCAN_CAPABILITY (-28) /* a scanner capability could not be set */

/* ---- Type numbers (IMG_type_name gives each its name) ---- */
#define IMG_TYPE_BY_EXTENSION     (-1) /* save: choose the type by the path's extension */
#define IMG_TYPE_TIFF             0    /* TIFF, uncompressed */
#define IMG_TYPE_BMP              1    /* Windows bitmap, uncompressed */
#define IMG_TYPE_PCX              2
#define IMG_TYPE_TGA              3
#define IMG_TYPE_GIF              4    /* GIF, not interlaced */
#define IMG_TYPE_WPG              5
#define IMG_TYPE_WMF              6
#define IMG_TYPE_TIFF_HUFFMAN     7    /* TIFF, CCITT modified Huffman (compression 2) */
#define IMG_TYPE_TIFF_G3          8    /* TIFF, CCITT Group 3 (compression 3) */
#define IMG_TYPE_TIFF_LZW         9    /* TIFF, LZW (compression 5) */
#define IMG_TYPE_TIFF_G4          10   /* TIFF, CCITT Group 4 (compression 4) */
#define IMG_TYPE_DCX              11
#define IMG_TYPE_BMP_COMPRESSED   12   /* Windows bitmap with non-zero biCompression */
#define IMG_TYPE_JPG              13
#define IMG_TYPE_EPS              14
#define IMG_TYPE_PCT              15
#define IMG_TYPE_TIFF_PACKBITS    16   /* TIFF, PackBits (compression 32773) */
#define IMG_TYPE_TIFF_G3_2D       17   /* TIFF, two-dimensional Group 3 */
#define IMG_TYPE_CALS             18
#define IMG_TYPE_LSD              19
#define IMG_TYPE_XBM              20
#define IMG_TYPE_MAC              21
#define IMG_TYPE_GX2              22
#define IMG_TYPE_KFX              23
#define IMG_TYPE_ICA              24
#define IMG_TYPE_ICO              25
#define IMG_TYPE_IFF              26
#define IMG_TYPE_CLP              27
#define IMG_TYPE_IMG              28   /* GEM image */
#define IMG_TYPE_BTR              29
#define IMG_TYPE_MSP              30
#define IMG_TYPE_CUT              31
#define IMG_TYPE_TGA2             32   /* second Targa variant (writer only) */
#define IMG_TYPE_FAX_G3           33   /* raw CCITT Group 3 (writer only) */
#define IMG_TYPE_FAX_G4           34   /* raw CCITT Group 4, 1-bit only (writer only) */
#define IMG_TYPE_XPM              35
#define IMG_TYPE_XWD              36
#define IMG_TYPE_RAS              37   /* Sun raster */
#define IMG_TYPE_TXT              38   /* plain text rendered as an image */
#define IMG_TYPE_PCD              39   /* Photo CD */
#define IMG_TYPE_TIFF_JPEG        40   /* TIFF, JPEG (compression 6) */
#define IMG_TYPE_PSD              41
#define IMG_TYPE_IMT              42
#define IMG_TYPE_PNG              43
#define IMG_TYPE_GIF_INTERLACED   44
#define IMG_TYPE_TIFF_32010       46   /* TIFF, compression 32010 */
#define IMG_TYPE_TIFF_32008       47   /* TIFF, compression 32008 */
#define IMG_TYPE_DIB              48   /* bitmap without file header */
#define IMG_TYPE_MCA              49   /* writer only */
#define IMG_TYPE_TIFF_51          51   /* further TIFF variant of the writer family */
#define IMG_TYPE_FAX_G4_B         52   /* raw CCITT Group 4, second variant */
#define IMG_TYPE_FAX_G3_B         53   /* raw CCITT Group 3, second variant */

/* ---- Caller call-backs ---- */
/* Caller I/O (IMGLOW_set_fileio): C calling convention, the same three
 * arguments as the library's own primitives. */
typedef int32_t(IMGCDECL *IMG_READ_FUNC)(int32_t handle, void *buffer, int32_t count);
typedef int32_t(IMGCDECL *IMG_WRITE_FUNC)(int32_t handle, void *buffer, int32_t count);
typedef int32_t(IMGCDECL *IMG_SEEK_FUNC)(int32_t handle, int32_t offset, int32_t whence);

/* Progress callback (IMG_set_statusbar): standard Windows convention; it
 * receives the value given with it and the total row count; a negative
 * result aborts the operation. */
typedef int32_t(IMGAPI *IMG_STATUS_FUNC)(int32_t value, int32_t total);

/* Caller-supplied sinks and source of IMGLOW_decompress_bitmap and
 * IMGLOW_save_bitmap (C convention). */
typedef int32_t(IMGCDECL *IMG_HEADER_SINK)(const uint8_t *headerAndPalette, void *sinkContext);
typedef int32_t(IMGCDECL *IMG_ROW_SINK)(const uint8_t *row, void *sinkContext, int32_t rowIndex,
                                        int32_t rowBytes);
typedef int32_t(IMGCDECL *IMG_ROW_SOURCE)(void *sourceContext, uint8_t *buffer, int32_t rowIndex,
                                          int32_t rowBytes);

/* extension: the meaning of an error code in words; "unknown error" for a
 * code the library does not return */
IMGEXPORT const char *IMGAPI IMG_error_text(int32_t code);

/* ---- Images: handles, descriptors, raster access ---- */
IMGEXPORT int32_t IMGAPI IMG_create_handle(void *memory);
IMGEXPORT int32_t IMGAPI IMG_create_handle_shell(const void *bitmapinfo);
IMGEXPORT int32_t IMGAPI IMGLOW_get_fileinfo(const char *path, void *info);
IMGEXPORT int32_t IMGAPI IMG_create_handle_keep(void *dib);
IMGEXPORT int32_t IMGAPI IMG_delete_bitmap(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_delete_bitmap_keep(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_bitmap_info(int32_t handle, int32_t *width, int32_t *height,
                                         int32_t *bitsPerPixel);
IMGEXPORT int32_t IMGAPI IMGLOW_get_bitmap_header(int32_t handle, void *buffer);
IMGEXPORT int32_t IMGAPI IMGLOW_get_palette(int32_t handle, void *buffer);
IMGEXPORT int32_t IMGAPI IMGLOW_put_palette(int32_t handle, const void *buffer);
IMGEXPORT int32_t IMGAPI IMGLOW_get_raster(int32_t handle, void *buffer, int32_t row,
                                           int32_t byteCount);
IMGEXPORT int32_t IMGAPI IMGLOW_put_raster(int32_t handle, const void *buffer, int32_t row,
                                           int32_t byteCount);
IMGEXPORT int32_t IMGAPI IMG_get_croprect(int32_t handle, int32_t *x, int32_t *y,
                                          int32_t *width, int32_t *height);
IMGEXPORT int32_t IMGAPI IMG_set_croprect(int32_t handle, int32_t x, int32_t y,
                                          int32_t width, int32_t height);
IMGEXPORT int32_t IMGAPI IMGLOW_set_rop(int32_t handle, uint32_t rop);
IMGEXPORT int32_t IMGAPI IMG_set_gamma(int32_t handle, uint32_t gamma);
IMGEXPORT int32_t IMGAPI IMG_set_lut(int32_t handle, int32_t contrast, int32_t brightness);
IMGEXPORT int32_t IMGAPI IMGLOW_set_transp_color(int32_t handle, uint32_t colour);
IMGEXPORT int32_t IMGAPI IMGLOW_get_transp_color(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_set_display_angle(int32_t handle, int32_t angle);
IMGEXPORT int32_t IMGAPI IMG_ifl_version(int32_t *major, int32_t *minor);
IMGEXPORT int32_t IMGAPI IMG_dib_to_runs(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_runs_to_dib(int32_t handle);

/* ---- Caller I/O and the bitmap name texts ---- */
IMGEXPORT int32_t IMGAPI IMGLOW_set_fileio(IMG_READ_FUNC read, IMG_WRITE_FUNC write,
                                           IMG_SEEK_FUNC seek);
IMGEXPORT int32_t IMGAPI IMGLOW_get_bitmap_name(char *text, char *date);
IMGEXPORT int32_t IMGAPI IMGLOW_set_bitmap_name(const char *text, const char *date);

/* ---- Detection and type queries ---- */
IMGEXPORT int32_t IMGAPI IMGLOW_get_filetype(const char *path);
IMGEXPORT int32_t IMGAPI IMGLOW_get_filetype_fd(int32_t fileHandle);
IMGEXPORT int32_t IMGAPI IMGLOW_get_filetype_mem(void *memory);
/* extension: the memory image with its size (0 = unknown) */
IMGEXPORT int32_t IMGAPI IMGLOW_get_filetype_mem_size(void *memory, uint32_t size);
IMGEXPORT int32_t IMGAPI IMGLOW_set_auto_detect(int32_t type);
IMGEXPORT int32_t IMGAPI IMGLOW_unset_auto_detect(int32_t type);
IMGEXPORT int32_t IMGAPI IMGLOW_get_auto_detect(int32_t type);
/* extension: the name of a file or save type number ("TIFF, CCITT Group 4");
 * "unknown" for a number that names no type */
IMGEXPORT const char *IMGAPI IMG_type_name(int32_t type);
/* extension: 1 when saves of this type append pages to an existing file
 * (TIFF, DCX, MCA), else 0 */
IMGEXPORT int32_t IMGAPI IMG_type_multipage(int32_t type);
/* extension: the file-name extension of a type's format, without the dot
 * ("tif" for every TIFF type, "dib" for 48); "" for a number that names no
 * type */
IMGEXPORT const char *IMGAPI IMG_type_extension(int32_t type);

/* ---- Decoding ---- */
IMGEXPORT int32_t IMGAPI IMG_decompress_bitmap(const char *path);
IMGEXPORT int32_t IMGAPI IMG_decompress_bitmap_fd(int32_t fileHandle, uint32_t offset, int32_t page);
IMGEXPORT int32_t IMGAPI IMG_decompress_bitmap_mem(void *memory, int32_t page);
/* extension: the memory image with its size (0 = unknown) */
IMGEXPORT int32_t IMGAPI IMG_decompress_bitmap_mem_size(void *memory, uint32_t size, int32_t page);
/* A headerless CCITT stream (type 4: Group 4; 2: two-dimensional
 * Group 3; other: one-dimensional, 3 with EOLs) into a new image. */
IMGEXPORT int32_t IMGAPI IMG_decompress_fax(int32_t handle, int32_t width, int32_t height,
                                            int32_t type, int32_t fillOrder);
IMGEXPORT int32_t IMGAPI IMG_decompress_fax_mem(void *memory, int32_t width, int32_t height,
                                                int32_t type, int32_t fillOrder);
/* extension: the memory stream with its size (0 = unknown) */
IMGEXPORT int32_t IMGAPI IMG_decompress_fax_mem_size(void *memory, uint32_t size, int32_t width,
                                                     int32_t height, int32_t type,
                                                     int32_t fillOrder);
IMGEXPORT int32_t IMGAPI IMGLOW_decompress_bitmap(int32_t fileHandle, uint32_t offset, int32_t page,
                                                  IMG_ROW_SINK rowSink, void *sinkContext,
                                                  IMG_HEADER_SINK headerSink);
IMGEXPORT int32_t IMGAPI IMGLOW_decompress_bitmap_mem(void *memory, int32_t page,
                                                      IMG_ROW_SINK rowSink, void *sinkContext,
                                                      IMG_HEADER_SINK headerSink);
IMGEXPORT int32_t IMGAPI IMGLOW_get_pages(const char *path);
IMGEXPORT int32_t IMGAPI IMGLOW_get_pages_fd(int32_t fileHandle);
/* The orientation stored in a ".tif" file (0, 90, 180, 270 or the
 * tag's raw value); -2 when it cannot be opened, -7 for other names. */
IMGEXPORT int32_t IMGAPI IMGLOW_get_image_orientation(const char *path);
IMGEXPORT int32_t IMGAPI IMGLOW_set_decomp_reduction(int32_t bits);
IMGEXPORT int32_t IMGAPI IMGLOW_set_decompsize(int32_t width, int32_t height);
IMGEXPORT int32_t IMGAPI IMGLOW_set_decomp_rect(int32_t left, int32_t top, int32_t width,
                                                int32_t height);
IMGEXPORT int32_t IMGAPI IMG_set_statusbar(int32_t value, IMG_STATUS_FUNC callback, int32_t enable);
IMGEXPORT int32_t IMGAPI IMGLOW_set_dispfunc(void *callback, int32_t value);
/* extension: a decode fails with IMG_ERR_MEMORY, before allocating it, when
 * its image would take more than `megabytes` MiB (header, palette and rows;
 * a run-coded 1-bit image counts its coded rows, as they grow, and its row
 * index); 0 = no limit, the setting at start; a negative value gives
 * IMG_ERR_TYPE.  Returns the previous limit. */
IMGEXPORT int32_t IMGAPI IMGLOW_set_decode_limit(int32_t megabytes);
/* extension: the colour (0x00RRGGBB) that decodes composite alpha over (a
 * PNG's alpha channel or partly transparent palette entries); white,
 * 0xFFFFFF, at start.  Returns the previous colour; a value above 0xFFFFFF
 * gives IMG_ERR_TYPE and keeps it. */
IMGEXPORT int32_t IMGAPI IMGLOW_set_alpha_background(uint32_t colour);

/* ---- Saving ---- */
IMGEXPORT int32_t IMGAPI IMG_save_bitmap(int32_t handle, const char *path, int32_t type);
IMGEXPORT int32_t IMGAPI IMG_save_bitmap_fd(int32_t handle, int32_t fileHandle, int32_t type);
IMGEXPORT int32_t IMGAPI IMG_save_bitmap_mem(int32_t handle, void *memory, int32_t type);
/* extension: the memory image with its size (0 = unknown) */
IMGEXPORT int32_t IMGAPI IMG_save_bitmap_mem_size(int32_t handle, void *memory, uint32_t size,
                                                  int32_t type);
IMGEXPORT int32_t IMGAPI IMGLOW_save_bitmap(int32_t fileHandle, uint8_t *header, int32_t type,
                                            IMG_ROW_SOURCE rowSource, void *sourceContext);
IMGEXPORT int32_t IMGAPI IMGLOW_save_bitmap_mem(void *memory, uint8_t *header, int32_t type,
                                                IMG_ROW_SOURCE rowSource, void *sourceContext);
IMGEXPORT int32_t IMGAPI IMGLOW_set_comp_quality(int32_t quality);
/* extension: on (non-zero), a save to a path writes a new file in the
 * target's folder, a copy of the target first when the type appends pages,
 * and renames it over the target only once the save has succeeded: a failed
 * save leaves an existing file byte for byte as it was.  Off at start (a
 * failed save then deletes its output).  Returns the previous setting, 0 or 1. */
IMGEXPORT int32_t IMGAPI IMGLOW_set_safe_save(int32_t on);

/* ---- Rotate, flip and invert ---- */
IMGEXPORT int32_t IMGAPI IMG_rotate_bitmap(int32_t handle, int32_t angle);
IMGEXPORT int32_t IMGAPI IMG_flip_bitmapx(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_flip_bitmapy(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_invert_bitmap(int32_t handle);

/* ---- Palette selection ---- */
IMGEXPORT int32_t IMGAPI IMG_mediancut_color(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_popularity_color(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_octree_color(int32_t handle, int32_t bits, const void *colours,
                                          int32_t count);
/* ---- Dithering and colour conversion ---- */
IMGEXPORT int32_t IMGAPI IMG_bayer_mono(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_halftone_mono(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_diffusion_mono(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_thresh_mono(int32_t handle, int32_t threshold);
IMGEXPORT int32_t IMGAPI IMG_bayer_color(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_diffusion_color(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_color_gray(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_promote_8(int32_t handle);
IMGEXPORT int32_t IMGAPI IMG_promote_24(int32_t handle);
IMGEXPORT int32_t IMGAPI IMGLOW_set_dithermode(int32_t mode);

/* ---- Display and print ----
 * `hdc` is a device context: on Windows an HDC (screen, memory, printer or
 * metafile context) or a portable one; elsewhere a portable one
 * (IMGLOW_create_dc).  `hwnd` is a window (HWND) whose scroll bars follow
 * the crop position, or null.  Rectangles are in the context's logical
 * units.  A device context that is neither gives IMG_ERR_GDI. */
IMGEXPORT int32_t IMGAPI IMG_display_bitmap(int32_t handle, void *hdc, int32_t x, int32_t y,
                                            int32_t width, int32_t height);
/* 32-bit images as premultiplied alpha blended over the device */
IMGEXPORT int32_t IMGAPI IMG_display_bitmap_pma(int32_t handle, void *hdc, int32_t x, int32_t y,
                                                int32_t width, int32_t height);
/* pixels of `colour` (a palette index below 16 bits, else 0x00BBGGRR) leave
 * the device as it was */
IMGEXPORT int32_t IMGAPI IMG_display_bitmap_transp(int32_t handle, void *hdc, int32_t x, int32_t y,
                                                   int32_t width, int32_t height, uint32_t colour);
/* zoom in percent, or 0: fitted with the aspect kept */
IMGEXPORT int32_t IMGAPI IMG_display_bitmap_aspect(int32_t handle, void *hdc, void *hwnd, int32_t x,
                                                   int32_t y, int32_t width, int32_t height,
                                                   int32_t zoom);
/* stores the display rectangle only; the other arguments are not used */
IMGEXPORT int32_t IMGAPI IMG_display_bitmap_iac(int32_t handle, void *unused1, void *unused2,
                                                int32_t x, int32_t y, int32_t width, int32_t height,
                                                int32_t unused3);
IMGEXPORT int32_t IMGAPI IMG_print_bitmap(int32_t handle, void *hdc, int32_t x, int32_t y,
                                          int32_t width, int32_t height);
/* the crop rectangle in one transfer, scaled by the device, where it can */
IMGEXPORT int32_t IMGAPI IMG_print_bitmap_fast(int32_t handle, void *hdc, int32_t x, int32_t y,
                                               int32_t width, int32_t height);
IMGEXPORT int32_t IMGAPI IMG_bitmap_palette(int32_t handle, void *hdc);
/* 0 off, 1 anti-aliased bilevel display, 2 grey display of 1-bit images */
IMGEXPORT int32_t IMGAPI IMGLOW_set_alias(int32_t mode);
IMGEXPORT int32_t IMGAPI IMGLOW_autocolor(int32_t on);
/* decodes a file into a new image, drawing its rows as they arrive (after
 * every `rowsBetweenDraws` rows; 0 or less: every sixteenth of the height,
 * at least 32 rows) and the rest at the end; returns the handle */
IMGEXPORT int32_t IMGAPI IMG_decompress_bitmap_display(const char *path, void *hdc, int32_t x,
                                                       int32_t y, int32_t width, int32_t height,
                                                       int32_t rowsBetweenDraws);
/* extension: a portable device context over a white surface of width x
 * height pixels of 24-bit colour, into *dc.  `colours` is the colour count it
 * reports (0: true colour, reported as -1; 2, 16 or 256): a context of 2
 * colours is dithered for.  Sides up to 32767, at most 1 GiB of pixels, else
 * IMG_ERR_TYPE. */
IMGEXPORT int32_t IMGAPI IMGLOW_create_dc(int32_t width, int32_t height, int32_t colours, void **dc);
/* extension: the surface's pixels, rows top first, R, G, B bytes each, into
 * `buffer` (`size` bytes); returns the byte count (width x height x 3), also
 * with a null buffer; IMG_ERR_TYPE when size is smaller */
IMGEXPORT int32_t IMGAPI IMGLOW_read_dc(void *dc, void *buffer, uint32_t size);
/* extension */
IMGEXPORT int32_t IMGAPI IMGLOW_delete_dc(void *dc);

#ifdef __cplusplus
}
#endif

#endif /* TRNW_IMGAPI_H */
