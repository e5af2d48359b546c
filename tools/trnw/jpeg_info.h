/*
 * jpeg_info.h - what `trnw info` says of a JPEG stream's coding, read from
 * its markers (the library decodes the pixels; this looks at the header).
 */
#ifndef TRNW_TOOL_JPEG_INFO_H
#define TRNW_TOOL_JPEG_INFO_H

#include <cstdint>
#include <string>
#include <vector>

/* "progressive, 3 components, YCbCr, sampling 2x2 1x1 1x1" for the stream
 * that `data` starts with; "" when no frame header comes before the first
 * scan. */
std::string JpegDetails(const std::vector<uint8_t> &data);

#endif /* TRNW_TOOL_JPEG_INFO_H */
