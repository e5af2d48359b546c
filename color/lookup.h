/*
 * lookup.h - the brightness, contrast and gamma table that the save
 * pipeline applies to the rows or palette it writes and the display to the
 * palette it realises.
 */
#ifndef TRNW_LOOKUP_H
#define TRNW_LOOKUP_H

#include <stdint.h>

/* The 256-entry table for gamma (percent; 0 means 100), brightness and
 * contrast, computed in double precision throughout. */
void ImgBuildLookupTable(uint32_t gamma, int32_t brightness, int32_t contrast, uint8_t *table);

#endif /* TRNW_LOOKUP_H */
