/*
 * progress.h - progress reporting through the caller's status callback
 * (IMG_set_statusbar), shared by the readers, the pipelines and the image
 * operations; and the watcher that sees a decode's rows as they are stored.
 */
#ifndef TRNW_PROGRESS_H
#define TRNW_PROGRESS_H

#include <stdint.h>

/* Calls the status callback with its value and `total` when reporting is on;
 * the callback's result when negative (the caller stops), else 0. */
int ImgReportProgress(int32_t total);

/* Whether reporting is on, and switching it: an operation that runs another
 * one inside (dithering during a decode) saves and restores it. */
int ImgStatusEnabled(void);
void ImgSetStatusEnabled(int enabled);

/* A watcher of the rows a decode stores, so that they can be drawn as they
 * arrive: told the image's handle and the row (top 0) each time a row lands
 * where it stays.  A negative result stops the decode with that code.  None
 * at start; IMG_decompress_bitmap_display sets one for its decode. */
typedef int (*ImgRowWatcher)(void *context, int32_t handle, int32_t row);
void ImgSetRowWatcher(ImgRowWatcher watcher, void *context);
/* Whether a watcher is set: it may draw any row of the image while the
 * decode runs. */
bool ImgRowWatched(void);
/* Tells the watcher, if any; its result when negative, else 0. */
int ImgRowStored(int32_t handle, int32_t row);

#endif /* TRNW_PROGRESS_H */
