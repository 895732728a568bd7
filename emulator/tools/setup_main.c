/*
 * karst-emu-setup ROOT: makes a run root for programs developed against the emulator: the
 * board's directories (nv1, tmp, dev, ...), the eMMC files and the emulator's state directory.
 */
#include "karst_emu.h"

#include <stdio.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: karst-emu-setup ROOT\n");
        return 2;
    }
    if (karst_emu_setup(argv[1]) != 0) {
        fprintf(stderr, "karst-emu-setup: cannot set up %s\n", argv[1]);
        return 1;
    }
    return 0;
}
