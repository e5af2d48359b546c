/*
 * image_table.h - the image table: the slots behind the image handles of the
 * public interface.
 */
#ifndef TRNW_IMAGE_TABLE_H
#define TRNW_IMAGE_TABLE_H

#include <stdint.h>

#include "core/descriptor.h"


/* Allocation of a handle: the lowest free slot, the table grown when
 * full.  Returns the handle (its descriptor zeroed) or -1. */
int ImgTableAllocate(void);
/* The descriptor of a valid handle, or NULL (the caller returns -13). */
ImgDescriptor *ImgTableGet(int32_t handle);
/* Deletion: frees the descriptor (and the dib unless keepDib, and the row
 * index of a coded image), empties the slot, shrinks the table. */
void ImgTableDelete(int32_t handle, int keepDib);
/* tableCount, for tests and diagnostics. */
int32_t ImgTableCount(void);

#endif /* TRNW_IMAGE_TABLE_H */
