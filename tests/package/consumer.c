/*
 * A program built outside the source tree against an installed trnw (through
 * pkg-config, find_package, or the Windows SDK's import library): decodes the
 * first page of IN and saves it as OUT, the type chosen by OUT's extension.
 * Usage: consumer IN OUT
 */
#include <stdio.h>

#include "imgapi.h"

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: consumer IN OUT\n");
        return 2;
    }
    int32_t handle = IMG_decompress_bitmap(argv[1]);
    if (handle < 0) {
        fprintf(stderr, "consumer: %s: %s\n", argv[1], IMG_error_text(handle));
        return 1;
    }
    int32_t width = 0, height = 0, bits = 0;
    IMG_bitmap_info(handle, &width, &height, &bits);
    int32_t result = IMG_save_bitmap(handle, argv[2], IMG_TYPE_BY_EXTENSION);
    IMG_delete_bitmap(handle);
    if (result < 0) {
        fprintf(stderr, "consumer: %s: %s\n", argv[2], IMG_error_text(result));
        return 1;
    }
    printf("consumer: %s (%d x %d, %d bits) saved as %s\n", argv[1], (int)width, (int)height, (int)bits,
           argv[2]);
    return 0;
}
