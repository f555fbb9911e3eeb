/* What the C library says, for cases that must not pin one library's words: `strerror ENOENT`
 * (or ENOTTY, EISDIR) prints that error's text; `getopt NAME:HAS_ARG,... -- ARGS` runs
 * getopt_long_only over ARGS with those long options, its complaints on standard error and
 * under argv[0], so run it under the tool's name. */
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
    static const char* const names[] = {"ENOENT", "ENOTTY", "EISDIR"};
    static const int codes[] = {ENOENT, ENOTTY, EISDIR};
    struct option options[16];
    int n = 0;
    if (argc == 3 && strcmp(argv[1], "strerror") == 0) {
        for (size_t i = 0; i < sizeof codes / sizeof codes[0]; i++)
            if (strcmp(argv[2], names[i]) == 0)
                return puts(strerror(codes[i])) < 0;
        return 2;
    }
    if (argc < 4 || strcmp(argv[1], "getopt") != 0 || strcmp(argv[3], "--") != 0)
        return 2;
    memset(options, 0, sizeof options);
    for (char* s = strtok(argv[2], ","); s != NULL && n < 15; s = strtok(NULL, ","), n++) {
        char* colon = strchr(s, ':');
        if (colon == NULL)
            return 2;
        *colon = '\0';
        options[n].name = s;
        options[n].has_arg = atoi(colon + 1);
        options[n].val = 256 + n;
    }
    argv[3] = argv[0];
    while (getopt_long_only(argc - 3, argv + 3, "", options, NULL) != -1) {
    }
    return 0;
}
