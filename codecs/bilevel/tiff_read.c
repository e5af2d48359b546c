/*
 * tiff_read.c - Part 2.3: the TIFF reader.  So far: the header and IFD
 * parsing shared by the reader and the three queries, and the subtype query
 * of IMGLOW_get_filetype (Part 1.3).
 *
 * Hostile offsets and counts (docs/DEVIATIONS.md, Part 1.3): every read goes
 * through TiffReadAt into a buffer of the caller's size, zeroed first (the
 * memory image claims success past its end without copying), positions are
 * computed without overflow, and at most TIFF_MAX_ENTRIES entries are held.
 */
#include "tiff_read.h"

#include <string.h>

#include "../../core/bytes.h"
#include "../../core/imgapi.h"
#include "../../core/imgio.h"

uint16_t TiffGet16(const TiffFile *file, const uint8_t *p)
{
    return file->bigEndian ? GetBE16(p) : GetLE16(p);
}

uint32_t TiffGet32(const TiffFile *file, const uint8_t *p)
{
    return file->bigEndian ? GetBE32(p) : GetLE32(p);
}

int TiffReadAt(const TiffFile *file, uint32_t offset, uint8_t *buffer, uint32_t count)
{
    uint64_t position = (uint64_t)file->base + offset;
    if (position > INT32_MAX)
        return IMG_ERR_INVALID;
    memset(buffer, 0, count);
    ImgSeek(file->handle, (int32_t)position, 0);
    int32_t got = ImgRead(file->handle, buffer, count);
    if (got < 0)
        return got;
    return (uint32_t)got < count ? IMG_ERR_READ : 0;
}

int TiffReadHeader(int handle, uint32_t base, TiffFile *file)
{
    uint8_t header[8] = {0};
    ImgSeek(handle, (int32_t)base, 0);
    int32_t got = ImgRead(handle, header, sizeof header);
    if (got < 0)
        return got;
    if (got < (int32_t)sizeof header)
        return IMG_ERR_INVALID;
    if (!(header[0] == 'I' && header[1] == 'I') && !(header[0] == 'M' && header[1] == 'M'))
        return IMG_ERR_TYPE;
    file->handle = handle;
    file->base = base;
    file->bigEndian = header[0] == 'M';
    file->version = TiffGet16(file, header + 2);
    file->firstIfd = TiffGet32(file, header + 4);
    return 0;
}

int TiffReadEntryCount(const TiffFile *file, uint32_t offset, int *count)
{
    uint8_t bytes[2];
    int result = TiffReadAt(file, offset, bytes, sizeof bytes);
    if (result < 0)
        return result;
    *count = (int16_t)TiffGet16(file, bytes);
    return 0;
}

static void DecodeEntry(const TiffFile *file, const uint8_t *bytes, TiffEntry *entry)
{
    entry->tag = TiffGet16(file, bytes);
    entry->type = TiffGet16(file, bytes + 2);
    entry->count = TiffGet32(file, bytes + 4);
    memcpy(entry->value, bytes + 8, 4);
}

int TiffReadEntries(const TiffFile *file, uint32_t offset, int count, TiffIfd *ifd)
{
    uint8_t bytes[TIFF_MAX_ENTRIES * TIFF_ENTRY_SIZE];
    if (count < 0 || count > TIFF_MAX_ENTRY_COUNT)
        return IMG_ERR_INVALID;
    ifd->declaredCount = count;
    ifd->count = count < TIFF_MAX_ENTRIES ? count : TIFF_MAX_ENTRIES;
    ifd->nextOffset = 0;
    /* offset + 2 + 550 * 12 + 4 stays far below 2^32 only when offset does:
     * compute in 64 bits and let TiffReadAt refuse what does not fit. */
    uint64_t entriesAt = (uint64_t)offset + 2;
    uint64_t nextAt = entriesAt + (uint64_t)count * TIFF_ENTRY_SIZE;
    if (nextAt + 4 > UINT32_MAX)
        return IMG_ERR_INVALID;
    int result = TiffReadAt(file, (uint32_t)entriesAt, bytes, (uint32_t)ifd->count * TIFF_ENTRY_SIZE);
    if (result < 0)
        return result;
    for (int i = 0; i < ifd->count; i++)
        DecodeEntry(file, bytes + i * TIFF_ENTRY_SIZE, &ifd->entries[i]);
    uint8_t next[4];
    if (TiffReadAt(file, (uint32_t)nextAt, next, sizeof next) == 0)
        ifd->nextOffset = TiffGet32(file, next);
    return 0;
}

int TiffReadIfd(const TiffFile *file, uint32_t offset, TiffIfd *ifd)
{
    int count;
    int result = TiffReadEntryCount(file, offset, &count);
    if (result < 0)
        return result;
    return TiffReadEntries(file, offset, count, ifd);
}

uint32_t TiffValueField(const TiffFile *file, const TiffEntry *entry)
{
    return TiffGet32(file, entry->value);
}

/* Reads one number of `size` bytes at a value offset. */
static int ReadNumberAt(const TiffFile *file, uint32_t offset, int size, uint32_t *value)
{
    uint8_t bytes[4];
    int result = TiffReadAt(file, offset, bytes, (uint32_t)size);
    if (result < 0)
        return result;
    *value = size == 1 ? bytes[0] : size == 2 ? TiffGet16(file, bytes) : TiffGet32(file, bytes);
    return 0;
}

int TiffTagValue(const TiffFile *file, const TiffEntry *entry, uint32_t *value)
{
    uint32_t offset = TiffValueField(file, entry);
    *value = 0;
    switch (entry->type) {
    case TIFF_BYTE:
    case TIFF_ASCII: /* types 1-5 are read; ASCII, like BYTE, by the byte */
        if (entry->count > 4)
            return ReadNumberAt(file, offset, 1, value);
        *value = entry->value[0];
        return 0;
    case TIFF_SHORT:
        if (entry->count > 2)
            return ReadNumberAt(file, offset, 2, value);
        *value = TiffGet16(file, entry->value);
        return 0;
    case TIFF_LONG:
        if (entry->count != 1)
            return ReadNumberAt(file, offset, 4, value);
        *value = offset;
        return 0;
    case TIFF_RATIONAL:
        return ReadNumberAt(file, offset, 4, value);
    default:
        return 0;
    }
}

int TiffRationalDenominator(const TiffFile *file, const TiffEntry *entry, uint32_t *value)
{
    uint32_t offset = TiffValueField(file, entry);
    *value = 0;
    if (offset > UINT32_MAX - 4)
        return IMG_ERR_INVALID;
    return ReadNumberAt(file, offset + 4, 4, value);
}

int TiffCompressionType(uint32_t compression, uint32_t t4Options)
{
    switch (compression) {
    case 1:
        return IMG_TYPE_TIFF;
    case 2:
        return IMG_TYPE_TIFF_HUFFMAN;
    case 3:
        return (t4Options & 1) ? IMG_TYPE_TIFF_G3_2D : IMG_TYPE_TIFF_G3;
    case 4:
        return IMG_TYPE_TIFF_G4;
    case 5:
        return IMG_TYPE_TIFF_LZW;
    case 6:
        return IMG_TYPE_TIFF_JPEG;
    case 32773:
        return IMG_TYPE_TIFF_PACKBITS;
    case 32010:
        return IMG_TYPE_TIFF_32010;
    case 32008:
        return IMG_TYPE_TIFF_32008;
    default:
        return IMG_ERR_TYPE;
    }
}

int TiffSubtype(int handle, uint32_t base)
{
    TiffFile file;
    TiffIfd ifd;
    int result = TiffReadHeader(handle, base, &file);
    if (result < 0)
        return result;
    result = TiffReadIfd(&file, file.firstIfd, &ifd);
    if (result < 0)
        return result;
    uint32_t compression = 1, t4Options = 0;
    for (int i = 0; i < ifd.count && result == 0; i++) {
        const TiffEntry *entry = &ifd.entries[i];
        if (entry->tag == TIFF_TAG_COMPRESSION)
            result = TiffTagValue(&file, entry, &compression);
        else if (entry->tag == TIFF_TAG_T4_OPTIONS)
            result = TiffTagValue(&file, entry, &t4Options);
    }
    if (result < 0)
        return result;
    return TiffCompressionType(compression, t4Options);
}
