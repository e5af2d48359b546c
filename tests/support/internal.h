/*
 * internal.h - the library's internal headers, for the tests that must reach
 * below the public API (core/imgapi.h).  Every internal include of the suite
 * is here, in one place.
 */
#ifndef TRNW_TEST_INTERNAL_H
#define TRNW_TEST_INTERNAL_H

extern "C" {
#include "core/bytes.h"
#include "core/contracts.h"
#include "core/decode.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/registry.h"
#include "core/runs.h"
#include "core/save.h"
#include "platform/platform.h"
#include "codecs/bilevel/ccitt_codes.h"
#include "codecs/bilevel/ccitt_decode.h"
#include "codecs/bilevel/ccitt_encode.h"
#include "codecs/bilevel/lzw.h"
#include "codecs/bilevel/packbits.h"
#include "codecs/bilevel/tiff_read.h"
#include "codecs/bilevel/tiff_write.h"
#include "codecs/tone/bmp.h"
#include "codecs/tone/gif.h"
#include "color/default_palette.h"
#include "color/dither.h"
#include "color/palette.h"
#include "process/flip.h"
}

#endif /* TRNW_TEST_INTERNAL_H */
