/*
 * progress.h - progress reporting through the caller's status callback
 * (IMG_set_statusbar), shared by the readers, the pipelines and the image
 * operations.
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

#endif /* TRNW_PROGRESS_H */
