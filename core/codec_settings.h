/*
 * codec_settings.h - the settings made through the interface that codecs
 * and format files consult: the compression quality of
 * IMGLOW_set_comp_quality, and the size the decode in progress scales its
 * image to (IMGLOW_set_decompsize, passed on by the decode pipeline).
 */
#ifndef TRNW_CODEC_SETTINGS_H
#define TRNW_CODEC_SETTINGS_H

#include <stdint.h>

/* The quality last set by IMGLOW_set_comp_quality (75 at start). */
int32_t ImgCompressionQuality(void);
void ImgSetCompressionQuality(int32_t quality);

/* The size the library's own decode in progress reduces the image to, or
 * 0 x 0 when it keeps the size (and during decodes into a caller's sinks).
 * The pipeline scales an image to it only when both sides are smaller than
 * the image's, so a reader may deliver the image already reduced as long as
 * both sides stay at or above it. */
void ImgSetDecodeTarget(int32_t width, int32_t height);
void ImgDecodeTarget(int32_t *width, int32_t *height);

#endif /* TRNW_CODEC_SETTINGS_H */
