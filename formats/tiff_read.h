/*
 * tiff_read.h - the TIFF reader (TiffRead), its page counter
 * (TiffCountPages), the subtype query (TiffSubtype) and the
 * orientation query (TiffOrientation), with the header and IFD parsing
 * they share.
 *
 * Every offset in a TIFF is relative to `base`, the image's start in the
 * byte source, so a TIFF inside a larger file or memory image reads correctly.
 */
#ifndef TRNW_TIFF_READ_H
#define TRNW_TIFF_READ_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

#define TIFF_MAX_ENTRIES 300     /* the 3600-byte entry buffer holds 300 entries */
#define TIFF_MAX_ENTRY_COUNT 550 /* a first entry count above this is invalid (-3) */
#define TIFF_ENTRY_SIZE 12

/* Field types. */
#define TIFF_BYTE 1
#define TIFF_ASCII 2
#define TIFF_SHORT 3
#define TIFF_LONG 4
#define TIFF_RATIONAL 5

/* Tags used so far. */
#define TIFF_TAG_COMPRESSION 259
#define TIFF_TAG_T4_OPTIONS 292

/* The file header as read at `base`. */
typedef struct {
    int handle;
    uint32_t base;
    int bigEndian;     /* 1 for "MM", 0 for "II" */
    uint16_t version;  /* read, never compared with 42 */
    uint32_t firstIfd; /* relative to base */
} TiffFile;

/* One 12-byte IFD entry; tag, type and count in host order, the value field
 * as the four bytes stored in the file (decoded by type when it is used). */
typedef struct {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint8_t value[4];
} TiffEntry;

/* One IFD: at most TIFF_MAX_ENTRIES of its entries and the next IFD's offset. */
typedef struct {
    int declaredCount; /* the entry count in the file */
    int count;         /* entries held: min(declaredCount, TIFF_MAX_ENTRIES) */
    TiffEntry entries[TIFF_MAX_ENTRIES];
    uint32_t nextOffset; /* 0: no next IFD */
} TiffIfd;

/* 16- and 32-bit numbers in the file's byte order. */
uint16_t TiffGet16(const TiffFile *file, const uint8_t *p);
uint32_t TiffGet32(const TiffFile *file, const uint8_t *p);

/* Seeks to base + offset and reads count bytes (the buffer zeroed first).
 * 0; -3 when the position does not fit a 32-bit file offset; -12 when fewer
 * bytes came; a negative read result as it is. */
int TiffReadAt(const TiffFile *file, uint32_t offset, uint8_t *buffer, uint32_t count);

/* The first stage of opening a page: seeks to base and reads the 8-byte header.
 * 0; -3 when fewer than 8 bytes came; -7 when the byte order is neither
 * "II" nor "MM". */
int TiffReadHeader(int handle, uint32_t base, TiffFile *file);

/* Reads the 16-bit entry count of the IFD at offset, as a signed number.
 * 0 or a negative code of TiffReadAt. */
int TiffReadEntryCount(const TiffFile *file, uint32_t offset, int *count);

/* Reads the entries of the IFD at offset whose entry count is count (already
 * read; 0 to TIFF_MAX_ENTRY_COUNT): the first TIFF_MAX_ENTRIES of them and the
 * next-IFD offset that follows all count entries (0 when it cannot be read).
 * 0; -3 for a count out of range; -12 when the entries are cut short. */
int TiffReadEntries(const TiffFile *file, uint32_t offset, int count, TiffIfd *ifd);

/* TiffReadEntryCount, the range check (below 0 or above 550: -3) and
 * TiffReadEntries. */
int TiffReadIfd(const TiffFile *file, uint32_t offset, TiffIfd *ifd);

/* The value field as one LONG in the file's byte order. */
uint32_t TiffValueField(const TiffFile *file, const TiffEntry *entry);

/* The value of a tag by its type: BYTE (and
 * ASCII) the low byte of the field, or the byte at the value offset when
 * count > 4; SHORT the first SHORT of the field, or the first at the value
 * offset when count > 2; LONG the field, or the first at the value offset
 * when count is not 1; RATIONAL the numerator at the value offset; any other
 * type 0.  0 or a negative code of TiffReadAt. */
int TiffTagValue(const TiffFile *file, const TiffEntry *entry, uint32_t *value);

/* The denominator of a RATIONAL tag (the 4 bytes after its numerator). */
int TiffRationalDenominator(const TiffFile *file, const TiffEntry *entry, uint32_t *value);

/* The subtype mapping: 1 -> 0, 2 -> 7, 3 -> 8 (17 with T4Options bit 0),
 * 5 -> 9, 4 -> 10, 32773 -> 16, 6 and 7 (JPEG) -> 40, 32010 -> 46,
 * 32008 -> 47, else -7. */
int TiffCompressionType(uint32_t compression, uint32_t t4Options);

/* The subtype query of IMGLOW_get_filetype: reads the header at base and the
 * first IFD and returns the type number of its compression, or a negative
 * code (-3 short header or bad entry count, -7 byte order or unknown
 * compression, -12 cut-short IFD). */
int TiffSubtype(int handle, uint32_t base);

/* The module-wide TIFF info record;
 * the defaults are set before each IFD is parsed. */
typedef struct TiffInfo {
    int32_t height, width, rowsPerStrip, stripOffsets, stripByteCounts;
    int32_t samplesPerPixel, bitsPerSample, compression, photometric, colorMapOffset;
    int32_t xResolution, yResolution, fillOrder, planarConfig, predictor;
    int32_t grayResponseCurve, grayResponseUnit;
    int32_t jpegInterchangeFormat, jpegQTables, jpegDCTables, jpegACTables;
    int32_t ycbcrSubsampling, tiled, orientation;
    int32_t jpegTables, jpegTablesBytes; /* 347 JPEGTables: offset and count */
} TiffInfo;

/* The record as the last TIFF opened, page count or query left it. */
const TiffInfo *TiffCurrentInfo(void);

/* Opening a page: reads the header at base, walks the
 * IFD chain to page `page` (0-based) and leaves the info record filled
 * (T4Options, the photometric XOR for CCITT and ResolutionUnit applied).
 * 0; -3, -7 (header), -11 (no such page), -12 or -1. */
int TiffOpenPage(int handle, uint32_t base, int page);

/* The reader (registered for "tif").  start: the image's offset,
 * or IMG_PAGE_FLAG | page with the source positioned at the image.  1 on
 * success, or a negative code. */
int TiffRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle);

/* The page counter: the number of IFDs of the TIFF at the current position
 * (at least 1), or -1 when memory fails. */
int TiffCountPages(int handle);

/* The orientation query over the TIFF at base: 0 for Orientation 1 (or no
 * tag), 90 for 6, 180 for 3, 270 for 8, the tag's raw value otherwise; or a
 * negative code of TiffOpenPage. */
int TiffOrientation(int handle, uint32_t base);

extern const ImgFormat kTiffFormat; /* file types 0, 7, 8, 9, 10, 16, 17, 40, 46, 47 */

#endif /* TRNW_TIFF_READ_H */
