/* SPDX-License-Identifier: Apache-2.0 */
/*
 * karst-emu-setup ROOT: makes a run root for programs developed against the emulator: the
 * board's directories (nv1, tmp, dev, ...), the eMMC files and the emulator's state directory.
 * Options: --help, --version; "--" ends the options, for a ROOT that begins with "-".
 */
#include "karst.h"
#include "karst_emu.h"

#include <stdio.h>
#include <string.h>

static const char USAGE[] =
    "usage: karst-emu-setup [--] ROOT\n"
    "       karst-emu-setup --help | --version\n"
    "Makes ROOT a run root for programs on the secure-world emulator: the board's directories\n"
    "(nv1, tmp, etc/defaults, dev, usr/bin), the eMMC files dev/mmcblk0 and dev/mmcblk0p2 (when\n"
    "missing), the REE data tool usr/bin/reedata_tool.sh and the emulator's state directory\n"
    "var/lib/karst-emulator.\n"
    "Programs then run with KARST_ROOT=ROOT.\n";

/* Returns the exit status: 0 after --help or --version, 2 for a usage error; -1 to go on with
 * the one operand in *root. */
static int read_arguments(int argc, char **argv, const char **root) {
    int operands = 0;
    int options_end = 0;
    for (int i = 1; i < argc; i++) {
        const char *arg = argv[i];
        if (options_end || arg[0] != '-') {
            *root = arg;
            operands++;
        } else if (strcmp(arg, "--") == 0) {
            options_end = 1;
        } else if (strcmp(arg, "--help") == 0) {
            fputs(USAGE, stdout);
            return 0;
        } else if (strcmp(arg, "--version") == 0) {
            printf("karst-emu-setup %s\n", KARST_VERSION);
            return 0;
        } else {
            fprintf(stderr, "karst-emu-setup: unknown option '%s'\n%s", arg, USAGE);
            return 2;
        }
    }
    if (operands != 1) {
        fputs(USAGE, stderr);
        return 2;
    }
    return -1;
}

int main(int argc, char **argv) {
    const char *root = NULL;
    const int status = read_arguments(argc, argv, &root);
    if (status >= 0) {
        return status;
    }
    if (karst_emu_setup(root) != 0) {
        fprintf(stderr, "karst-emu-setup: cannot set up %s\n", root);
        return 1;
    }
    return 0;
}
