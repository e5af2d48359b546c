/*
 * ccitt_codes.h - the ITU-T T.4 code lists shared by the CCITT decoder
 * and encoder: each code a string of '0' and '1',
 * first bit first.
 */
#ifndef TRNW_CCITT_CODES_H
#define TRNW_CCITT_CODES_H

extern const char *const ccittWhiteTerminating[64]; /* runs 0..63 */
extern const char *const ccittWhiteMakeUp[27];      /* runs 64, 128, ... 1728 */
extern const char *const ccittBlackTerminating[64];
extern const char *const ccittBlackMakeUp[27];
extern const char *const ccittExtendedMakeUp[13];   /* runs 1792 ... 2560, both colours */
extern const char ccittEol[];                       /* "000000000001" */

#endif /* TRNW_CCITT_CODES_H */
