/*
 * format.h - the format descriptor: everything the pipelines need to know
 * about one file format.  Each format file defines one; formats/formats.cpp
 * lists them in probe order.
 */
#ifndef TRNW_FORMAT_H
#define TRNW_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "core/contracts.h"

constexpr int kDetectBytes = 10; /* bytes read at the start for detection */
constexpr int kNeverDetected = -1;

/* The bytes a probe looks at: the first ten of the source.  A probe that
 * needs bytes further on reads them into the same buffer (the PICT and
 * MacPaint probes), so later probes see what it read. */
struct ImgDetectBytes {
    int handle;
    uint8_t b[kDetectBytes];
};

/* Whether the bytes are this format's signature. */
using ImgProbe = bool (*)(ImgDetectBytes &bytes);

/* The type number of the image that starts at `start`, with the source
 * positioned there (a negative code when the header cannot be read). */
using ImgRefine = int (*)(int handle, uint32_t start);

/* One type number of a format: its name, and the writer of its save type
 * (nullptr where the type is only detected, or not written yet). */
struct ImgTypeEntry {
    int32_t type;
    const char *name;
    ImgWriter writer;
};

struct ImgFormat {
    const char *extension;     /* the detection word ("tif"); a path's extension for reading */
    const char *saveExtension; /* the path tail that selects types[0] on save; nullptr: none */
    int autoDetectIndex;       /* the flag that enables the probe; kNeverDetected */
    ImgProbe probe;            /* nullptr: found by extension only */
    ImgRefine refine;          /* nullptr: detection reports types[0] */
    ImgReader reader;          /* nullptr: not read yet */
    ImgPageCounter pageCounter; /* nullptr: one page */
    bool multiPage;            /* saves append pages to an existing file */
    std::span<const ImgTypeEntry> types; /* types[0] is the format's own type */
};

#endif /* TRNW_FORMAT_H */
