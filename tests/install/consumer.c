/* A program outside the project, built against an installed libzfx: the check compares what it
 * prints, "1-5,9 1" (no store was ever written at that location). */
#include <stdio.h>

#include "platform/kvdb.h"
#include "vsan_bitset.h"
#include "zfx_ascii_cfg.h"

int main(void) {
    vsan_bitset set;
    char text[VSAN_BITSET_TEXT_SIZE];
    vsan_bitset_init(&set);
    vsan_bitset_set_range(&set, 1, 5);
    vsan_bitset_set_bit(&set, 9);
    vsan_bitset_sprintf(text, &set);
    printf("%s %d\n", text, kvdb_open("mem:consumer", NULL) == NULL);
    return 0;
}
