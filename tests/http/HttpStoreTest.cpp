#include <gtest/gtest.h>
#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <vesk/Container.h>
#include <vesk/File.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpStore.h>
#include <vesk/List.h>
#include <vesk/Part.h>

#include "support/Gzip.hpp"
#include "support/HttpSupport.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

constexpr int kLimit = 64;

// A request whose head declared a body of the given content type.
struct Upload : Connection {
        explicit Upload(const std::string& type = "application/x-www-form-urlencoded") {
                EXPECT_EQ(parse("POST / HTTP/1.0\r\nContent-Length: 1\r\nContent-Type: " + type +
                                "\r\n\r\n"),
                          200);
        }
        HttpStore_T store(const std::string& body, int kind = 0, long declared = -1) {
                HttpStore_T s =
                    HttpStore_alloc(inet, kind, declared < 0 ? body.size() : declared, kLimit, 0);
                EXPECT_NE(s, nullptr);
                EXPECT_TRUE(HttpStore_write(s, body.data(), static_cast<int>(body.size())));
                HttpStore_close(s);
                HttpRequest_setStore(request, s);
                return s;
        }
};

std::string content(Part_T p) {
        size_t size;
        const char* c = Part_getContent(p, &size);
        return std::string(c, size);
}

const char* kNotMultipart = "preamble is not allowed here";

}  // namespace

TEST(HttpStore, MemoryUpToTheLimitFileAbove) {
        Upload u;
        std::string exact(kLimit, 'a');
        exact.replace(0, 2, "k=");
        HttpStore_T m = u.store(exact);
        EXPECT_EQ(HttpStore_getStoredDataSize(m), kLimit);
        // More than declared within the last read: the memory store refuses it.
        EXPECT_FALSE(HttpStore_write(m, "x", 1));
        HttpRequest_parseStore(u.request);
        EXPECT_EQ(std::string(HttpRequest_getParameter(u.request, "k")), exact.substr(2));
        HttpRequest_end(u.request);

        Upload f;
        std::string over = "k=" + std::string(kLimit - 1, 'b');
        HttpStore_T s = HttpStore_alloc(f.inet, 0, static_cast<long>(over.size()), kLimit, 0);
        ASSERT_NE(s, nullptr);
        EXPECT_TRUE(HttpStore_write(s, over.data(), 10));
        EXPECT_TRUE(HttpStore_write(s, over.data() + 10, static_cast<int>(over.size() - 10)));
        // A file store takes a surplus.
        EXPECT_TRUE(HttpStore_write(s, "&z=1", 4));
        HttpStore_close(s);
        HttpRequest_setStore(f.request, s);
        HttpRequest_parseStore(f.request);
        EXPECT_EQ(std::string(HttpRequest_getParameter(f.request, "k")),
                  std::string(kLimit - 1, 'b'));
        EXPECT_STREQ(HttpRequest_getParameter(f.request, "z"), "1");
        HttpRequest_end(f.request);
}

TEST(HttpStore, TemporaryFileIsRemoved) {
        Upload u;
        std::string body(kLimit + 1, 'x');
        HttpStore_T s = u.store(body, 2);
        List_T parts = HttpRequest_getParts(u.request);
        ASSERT_EQ(parts->length, 1);
        Part_T xml = static_cast<Part_T>(parts->head->e);
        EXPECT_STREQ(Part_getFileName(xml), "XML");
        EXPECT_EQ(content(xml), body);
        // Parsed once only.
        EXPECT_EQ(HttpRequest_getParts(u.request)->length, 1);
        std::string dir = Container_WorkDir;
        auto count = [&] {
                int n = 0;
                std::string prefix = std::string(Container_Name) + "-postdata-";
                if (DIR* d = opendir(dir.c_str())) {
                        while (struct dirent* e = readdir(d))
                                n += std::string(e->d_name).rfind(prefix, 0) == 0;
                        closedir(d);
                }
                return n;
        };
        int before = count();
        EXPECT_GE(before, 1);
        HttpStore_remove(s);
        EXPECT_EQ(count(), before - 1);
}

TEST(HttpStore, GzipBodiesAreInflated) {
        std::string text;
        for (int i = 0; text.size() < 40000; i++)
                text += "v" + std::to_string(i) + "=row+of+text&";
        text += "end=1";
        std::string z = gzip(text);
        for (long limit : {static_cast<long>(z.size()), 16L}) {
                Upload u;
                HttpStore_T s = HttpStore_alloc(u.inet, 0, static_cast<long>(z.size()), limit, 1);
                ASSERT_NE(s, nullptr);
                size_t half = z.size() / 2;
                EXPECT_TRUE(HttpStore_write(s, z.data(), static_cast<int>(half)));
                EXPECT_TRUE(HttpStore_write(s, z.data() + half, static_cast<int>(z.size() - half)));
                EXPECT_EQ(HttpStore_getUploadedDataSize(s), static_cast<int>(z.size()));
                EXPECT_EQ(HttpStore_getStoredDataSize(s), static_cast<int>(text.size()));
                HttpStore_close(s);
                HttpRequest_setStore(u.request, s);
                HttpRequest_parseStore(u.request);
                EXPECT_STREQ(HttpRequest_getParameter(u.request, "v0"), "row of text");
                EXPECT_STREQ(HttpRequest_getParameter(u.request, "end"), "1");
                HttpRequest_end(u.request);
        }
        Upload bad;
        HttpStore_T s = HttpStore_alloc(bad.inet, 0, 10, kLimit, 1);
        ASSERT_NE(s, nullptr);
        EXPECT_FALSE(HttpStore_write(s, "not gzip!!", 10));
        HttpStore_destroy(s);
}

TEST(HttpStore, MultipartFieldsAndFiles) {
        const std::string body =
            "\r\n--XyZ\r\n"
            "Content-Disposition: form-data; name=\"field\"\r\n\r\n"
            "value one\r\n"
            "--XyZ\r\n"
            "content-disposition: form-data; name=\"upload\"; filename=\"a.txt\"\r\n"
            "Content-Type: application/octet-stream \r\n\r\n"
            "line\r\n--not the boundary\r\nmore\r\n"
            "--XyZ\r\n"
            "Content-Disposition: form-data; name=\"empty\"; filename=\"\"\r\n\r\n"
            "\r\n"
            "--XyZ\r\n"
            "Content-Disposition: form-data; NAME=\"caps\"\r\n\r\n"
            "x\r\n"
            "--XyZ--\r\n";
        Upload u("multipart/form-data; boundary=\"XyZ\"");
        u.store(body, 1);
        Part_T field = HttpRequest_getPart(u.request, "FIELD");
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(content(field), "value one");
        EXPECT_EQ(Part_getFileName(field), nullptr);
        EXPECT_FALSE(Part_isaFile(field));
        EXPECT_STREQ(Part_getContentType(field), "text/plain");
        Part_T file = HttpRequest_getPart(u.request, "upload");
        ASSERT_NE(file, nullptr);
        EXPECT_TRUE(Part_isaFile(file));
        EXPECT_STREQ(Part_getFileName(file), "a.txt");
        EXPECT_STREQ(Part_getContentType(file), "application/octet-stream");
        EXPECT_STREQ(Part_getContentAsString(file), "line\r\n--not the boundary\r\nmore");
        EXPECT_EQ(HttpRequest_getPart(u.request, "empty"), nullptr);
        EXPECT_EQ(HttpRequest_getParts(u.request)->length, 2);
        // Multipart fields are parts, not parameters.
        EXPECT_EQ(HttpRequest_getParameter(u.request, "field"), nullptr);
        HttpRequest_end(u.request);
}

TEST(HttpStore, BadMultipartGivesNoParts) {
        for (const char* type : {"multipart/form-data", "multipart/form-data; boundary=b"}) {
                Upload u(type);
                u.store(kNotMultipart, 1);
                EXPECT_EQ(HttpRequest_getParts(u.request)->length, 0) << type;
                HttpRequest_end(u.request);
        }
        Upload m("multipart/form-data; boundary=b");
        m.store("--b\r\nContent-Type: multipart/mixed; boundary=c\r\n\r\nx\r\n--b--\r\n", 1);
        EXPECT_EQ(HttpRequest_getParts(m.request)->length, 0);
        HttpRequest_end(m.request);
}

TEST(Part, WriteStaysInTheLogsDirectory) {
        TempDir home;
        ASSERT_EQ(mkdir((home / "logs").c_str(), 0700), 0);
        const char* saved = Container_Home;
        Container_Home = home.path().c_str();
        Upload u("multipart/form-data; boundary=b");
        u.store(
            "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"x\"\r\n\r\n"
            "data\r\n--b--\r\n",
            1);
        Part_T p = HttpRequest_getPart(u.request, "f");
        ASSERT_NE(p, nullptr);
        Part_write(p, "../%s", "x");
        std::ifstream in(home / "logs/x");
        std::stringstream got;
        got << in.rdbuf();
        EXPECT_EQ(got.str(), "data");
        Part_write(p, "%s", (home / "abs").c_str());
        EXPECT_TRUE(File_isFile((home / "abs").c_str()));
        EXPECT_EQ(raised([&] { Part_write(p, "/nonexistent-dir/x"); }),
                  "IOException: Part_write: Cannot write to '/nonexistent-dir/x' -- No such "
                  "file or directory");
        Part_reset(p);
        EXPECT_EQ(Part_getName(p), nullptr);
        HttpRequest_end(u.request);
        Container_Home = saved;
}
