/*
 * lookup.cpp - the brightness, contrast and gamma table (lookup.h).
 */
#include "color/lookup.h"

#include <math.h>

void ImgBuildLookupTable(uint32_t gamma, int32_t brightness, int32_t contrast, uint8_t *table)
{
    double g = gamma ? (double)gamma : 100.0;
    double exponent = 1.0 / (g * 0.01);
    uint32_t c = (uint32_t)contrast + 128u;
    double f = (c & 0x7FFFFFFFu) ? (double)((c & 0x7FFFFFu) * 2u) : 0.0;
    for (int i = 0; i < 256; i++) {
        double v = pow(i / 255.0, exponent) * 255.0 + brightness;
        v = v * f / 255.0;
        double t = trunc(v) - contrast;
        table[i] = (uint8_t)(t < 0 ? 0 : t > 255 ? 255 : t);
    }
}
