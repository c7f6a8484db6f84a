/* The library's C face: a plain C11 program includes vesk.h and uses it. */
#include <stdio.h>
#include <string.h>

#include <vesk/vesk.h>

static int failures;

#define CHECK(cond)                                                                              \
        do {                                                                                     \
                if (!(cond)) {                                                                   \
                        fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
                        failures++;                                                              \
                }                                                                                \
        } while (0)

int main(void) {
        Arena_T arena = Arena_new();
        char* s = ARENA_ALLOC(arena, 6);
        memcpy(s, "hello", 6);
        CHECK(strcmp(s, "hello") == 0);
        Arena_dispose(&arena);
        CHECK(arena == NULL);

        char* p = ALLOC(10);
        FREE(p);
        CHECK(p == NULL);
        CHECK(strcmp(AssertException.name, "AssertException") == 0);
        /* @checks@ */
        {
                char md[MD_SIZE], b64[16];
                CHECK(strcmp(Crypto_md5("", md), "D41D8CD98F00B204E9800998ECF8427E") == 0);
                CHECK(Base64_encode(b64, "f", 1) == 4 && strcmp(b64, "Zg==") == 0);
                File_T f = File_new("%s", "/");
                CHECK(File_exist(f) && File_getType(f) == 'd');
                File_free(&f);
                CHECK(f == NULL);
        }
        {
                char text[] = "  Hello  ";
                CHECK(strcmp(Str_trim(text), "Hello") == 0);
                CHECK(Str_isEqual("vesk", "VESK"));
                char* joined = Str_cat("%s/%d", "a", 1);
                CHECK(strcmp(joined, "a/1") == 0);
                FREE(joined);
        }

        printf("%d passed, %d failed\n", failures ? 0 : 1, failures ? 1 : 0);
        return failures != 0;
}
