/* Uses the public interface from plain C99. */
#include <libtrel.h>

#include <stdio.h>
#include <string.h>

static int check(int ok, const char *what) {
    if (!ok) fprintf(stderr, "FAILED: %s\n", what);
    return ok ? 0 : 1;
}

int main(void) {
    int failures = 0;
    size_t i;
    const char *hash = trel_git_hash;
    buffer *b;
    char text[32];

    failures += check(strncmp(hash, "trel_git_hash=<", 15) == 0, "hash prefix");
    failures += check(strlen(hash) == 15 + 40 + 1 && hash[55] == '>', "hash length");
    for (i = 15; i < 55; i++) failures += check(strchr("0123456789abcdef", hash[i]) != NULL, "hex");
    failures += check(strncmp(trel_git_tag, "trel_git_tag=<", 14) == 0, "tag prefix");
    failures += check(trel_git_tag[strlen(trel_git_tag) - 1] == '>', "tag end");

    b = buffer_create();
    failures += check(b != NULL, "buffer");
    if (b != NULL) {
        b->printf(b, "%s=%d", "x", 7);
        failures += check(b->length(b) == 3, "buffer length");
        b->read(b, text, 3);
        failures += check(memcmp(text, "x=7", 3) == 0, "buffer read");
        buffer_destroy(b);
    }
    failures += check(libtrel_log_level == 4, "log level");
    printf("%s\n", failures ? "c_api: FAILED" : "c_api: ok");
    return failures != 0;
}
