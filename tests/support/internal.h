/*
 * internal.h - the library's internal headers, for the tests that must reach
 * below the public API (core/imgapi.h).  Every internal include of the suite
 * is here, in one place.
 */
#ifndef TRNW_TEST_INTERNAL_H
#define TRNW_TEST_INTERNAL_H

#include "codecs/ccitt_codes.h"
#include "codecs/ccitt_decode.h"
#include "codecs/ccitt_encode.h"
#include "codecs/jpeg.h"
#include "codecs/lzw.h"
#include "codecs/packbits.h"
#include "color/default_palette.h"
#include "color/dither.h"
#include "color/palette.h"
#include "core/bytes.h"
#include "core/contracts.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/progress.h"
#include "core/runs.h"
#include "formats/bmp.h"
#include "formats/cals.h"
#include "formats/eps.h"
#include "formats/fax.h"
#include "formats/gif.h"
#include "formats/tiff_read.h"
#include "formats/tiff_write.h"
#include "pipeline/decode.h"
#include "pipeline/detect.h"
#include "pipeline/save.h"
#include "platform/platform.h"
#include "process/flip.h"

#endif /* TRNW_TEST_INTERNAL_H */
