/*
 * The demo's worker: one step of the tour per run, so that each step is a process of its own,
 * as the controller's programs are.
 *
 *   karst_demo env-set NAME VALUE   set a U-Boot variable
 *   karst_demo env-get NAME         read it back and print NAME=VALUE
 */
#include <karst.h>

#include <stdio.h>
#include <string.h>

static int demo_usage(void) {
    fprintf(stderr, "usage: karst_demo env-set NAME VALUE | env-get NAME\n");
    return 2;
}

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "env-set") == 0) {
        return pta20_ubootenv_set(argv[2], argv[3]) == 0 ? 0 : 1;
    }
    if (argc == 3 && strcmp(argv[1], "env-get") == 0) {
        static char value[32768];
        if (pta20_ubootenv_get(argv[2], value, sizeof value) != 0) {
            return 1;
        }
        printf("%s=%s\n", argv[2], value);
        return 0;
    }
    return demo_usage();
}
