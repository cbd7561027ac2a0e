/* A program outside the project, built against an installed libzfx. */
#include <stdio.h>
#include <string.h>

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
    kvdb_store *store = kvdb_open("mem:consumer", NULL);
    printf("%s %d\n", text, store == NULL);
    return strcmp(text, "1-5,9") != 0;
}
