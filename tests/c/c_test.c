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

static void onStartElement(const char* name, const char** attributes, const char* cdata,
                           void* ctx) {
        if (strcmp(name, "a") || strcmp(XMLParser_getAttribute("X", attributes), "1") || cdata)
                (*(int*)ctx)++;
}

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
        Config_init();
        Config_addMimeType("HTML", "Text/HTML");
        Config_addWelcomeFile("docs/Index.HTML");
        CHECK(strcmp(Config_getMimeType("a/b.html"), "text/html") == 0 &&
              Config_getMimeType("b.HTML") == NULL && Config_getMimeType("README") == NULL);
        CHECK(List_length(Config_getWelcomeFiles()) == 1 &&
              strcmp((const char*)Config_getWelcomeFiles()->head->e, "index.html") == 0);
        Config_destroy();
        Command_T cmd = Command_new();
        Command_vSetEnv(cmd, "A=%d;B=two", 1);
        CHECK(strcmp(Command_getEnv(cmd, "A"), "1") == 0 &&
              strcmp(Command_getEnv(cmd, "B"), "two") == 0);
        Command_free(&cmd);
        CHECK(cmd == NULL);
        {
                Cache_T cache = Cache_new(8, Str_cmp, Str_hash);
                int value = 7;
                CHECK(Cache_put(cache, "k", &value) == NULL);
                void** entry = Cache_get(cache, "k");
                CHECK(entry && *entry == &value);
                Cache_return(cache, entry);
                CHECK(Cache_remove(cache, "k") == &value && Cache_size(cache) == 0);
                Cache_free(&cache);
                CHECK(cache == NULL);
        }
        {
                FileCache_T files = FileCache_getInstance();
                FileCache_setMaxSize(files, 1);
                CHECK(FileCache_getMaxSize(files) == 1024000 && FileCache_files(files) == 0);
                FileCache_free();
        }
        {
                XMLParser_T xml = XMLParser_createFromBuffer("<a x='1'/>", &failures);
                XMLParser_setStartElementHandler(xml, onStartElement);
                CHECK(XMLParser_parse(xml));
                XMLParser_free(&xml);
                CHECK(xml == NULL);
        }
        {
                Arena_T a = Arena_new();
                Cookie_T cookie = Cookie_alloc(a, "a", "b");
                Cookie_setPath(cookie, "");
                CHECK(strcmp(Cookie_toString(cookie), "a=b; Path=/") == 0);
                CHECK(strcmp(HttpResponse_status(404), "Not Found") == 0);
                Arena_dispose(&a);
        }
        {
                URL_T url = URL_new("http://user@example.com:8080/a%20b?x=1");
                CHECK(url && URL_getPort(url) == 8080 && strcmp(URL_getPath(url), "/a b") == 0);
                CHECK(strcmp(URL_getParameter(url, "x"), "1") == 0);
                URL_free(&url);
                CHECK(url == NULL);
                char path[] = "/a/../../b";
                CHECK(strcmp(URL_normalize(path), "/b") == 0);
        }
        Bit_T bits = Bit_new();
        CHECK(Bit_put(bits, 42) == 1 && Bit_member(bits, 42) && Bit_length(bits) == 1);
        Bit_free(&bits);
        CHECK(bits == NULL);
        Seq_T seq = Seq_seq("a", "b", NULL);
        CHECK(Seq_length(seq) == 2 && strcmp(Seq_get(seq, 1), "b") == 0);
        Seq_free(&seq);
        char date[30];
        CHECK(strcmp(Time_gmtstring(784111777, date), "Sun, 06 Nov 1994 08:49:37 GMT") == 0);
        {
                Chain_T chain = Chain_new();
                Chain_print(chain, "%s %d", "streams", 1);
                CHECK(Chain_size(chain) == 9);
                Chain_free(&chain);
                CHECK(chain == NULL);
                CHECK(Net_getIPVersion(NULL) == -1);
        }
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
        {
                List_T l = List_new();
                Vector_T v = Vector_new(0);
                List_append(l, "x");
                Vector_push(v, "y");
                CHECK(List_length(l) == 1 && strcmp((char*)l->head->e, "x") == 0);
                CHECK(strcmp((char*)Vector_get(v, 0), "y") == 0);
                List_free(&l);
                Vector_free(&v);
                CHECK(l == NULL && v == NULL);
        }
        {
                Table_T t = Table_new(0, Str_cmp, Str_hash);
                Map_T m = Map_new();
                CHECK(Table_put(t, "k", "1") == NULL);
                CHECK(strcmp((char*)Table_put(t, "k", "2"), "1") == 0);
                Map_put(m, "Content-Type", "text/html");
                CHECK(strcmp(Map_get(m, "content-type"), "text/html") == 0);
                Table_free(&t);
                Map_free(&m);
                CHECK(t == NULL && m == NULL);
        }

        printf("%d passed, %d failed\n", failures ? 0 : 1, failures ? 1 : 0);
        return failures != 0;
}
