/*
 * codec_settings.cpp - the compression quality and the decode target
 * (core/codec_settings.h): process-wide, like every setting of the interface.
 */
#include "core/codec_settings.h"

namespace {
int32_t compressionQuality = 75;
int32_t targetWidth, targetHeight;
} // namespace

int32_t ImgCompressionQuality(void)
{
    return compressionQuality;
}

void ImgSetCompressionQuality(int32_t quality)
{
    compressionQuality = quality;
}

void ImgSetDecodeTarget(int32_t width, int32_t height)
{
    targetWidth = width;
    targetHeight = height;
}

void ImgDecodeTarget(int32_t *width, int32_t *height)
{
    *width = targetWidth;
    *height = targetHeight;
}
