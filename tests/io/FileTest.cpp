#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <vesk/Crypto.h>
#include <vesk/File.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

std::string dirname(std::string s) {
        return File_dirname(s.data());
}

std::string noExtension(std::string s) {
        return File_noExtension(s.data());
}

std::string trimmed(std::string s) {
        return File_removeTrailingSeparator(s.data());
}

}  // namespace

TEST(File, ObjectOfAnExistingFile) {
        TempDir dir;
        std::string path = dir.write("index.html", "hello");
        File_T f = File_new("%s/%s", dir.path().c_str(), "index.html");
        EXPECT_EQ(File_getPath(f), path);
        EXPECT_TRUE(File_exist(f));
        EXPECT_EQ(File_getSize(f), 5);
        EXPECT_EQ(File_isaFile(f), 1);
        EXPECT_EQ(File_getType(f), 'r');
        std::string etag = "\"" + std::to_string(File_getMtime(f)) + "-5\"";
        EXPECT_EQ(File_etag(f), etag);

        EXPECT_TRUE(File_setMod(f, 0600));
        EXPECT_EQ(File_getMod(f) & 0777, 0600);
        EXPECT_EQ(File_isaFile(f), 1) << "the type bits stay";

        // Growing the file shows after an update, which also renews the ETag.
        dir.write("index.html", "hello, world");
        EXPECT_EQ(File_getSize(f), 5);
        File_update(f);
        EXPECT_EQ(File_getSize(f), 12);
        EXPECT_NE(File_etag(f), etag);

        File_reset(f, "%s", dir.path().c_str());
        EXPECT_EQ(File_getType(f), 'd');
        EXPECT_EQ(File_isaFile(f), 0);
        File_free(&f);
}

TEST(File, ObjectOfAMissingFile) {
        TempDir dir;
        File_T f = File_new("%s/missing", dir.path().c_str());
        EXPECT_FALSE(File_exist(f));
        EXPECT_EQ(File_getSize(f), -1);
        EXPECT_EQ(File_isaFile(f), -1);
        EXPECT_EQ(File_getType(f), '?');
        EXPECT_STREQ(File_etag(f), "");
        EXPECT_FALSE(File_setMod(f, 0644));
        File_free(&f);
}

TEST(File, FunctionsOnAPath) {
        TempDir dir;
        std::string file = dir.write("a.txt", "abc");
        const char* p = file.c_str();
        EXPECT_EQ(File_size(p), 3);
        EXPECT_EQ(File_type(p), 'r');
        EXPECT_EQ(File_type("/dev/null"), 'c');
        EXPECT_FALSE(File_isDirectory(p));
        EXPECT_TRUE(File_isDirectory(dir.path().c_str()));
        EXPECT_FALSE(File_isExecutable(p));
        EXPECT_TRUE(File_chmod(p, 0700));
        EXPECT_TRUE(File_isExecutable(p));

        char real[PATH_MAX + 1];
        std::string indirect = dir.path() + "/./../" + dir.path().substr(5) + "/a.txt";
        EXPECT_STREQ(File_getRealPath(indirect.c_str(), real), p);

        std::string moved = dir / "b.txt";
        EXPECT_TRUE(File_rename(p, moved.c_str()));
        EXPECT_FALSE(File_existFile(p));
        EXPECT_TRUE(File_delete(moved.c_str()));
        EXPECT_FALSE(File_delete(moved.c_str()));
        EXPECT_EQ(errno, ENOENT);
}

TEST(File, FailureValuesOnAPath) {
        TempDir dir;
        std::string missing = dir / "missing";
        for (const char* p : {static_cast<const char*>(nullptr), missing.c_str()}) {
                EXPECT_EQ(File_size(p), -1);
                EXPECT_EQ(File_mtime(p), -1);
                EXPECT_EQ(File_type(p), '?');
                EXPECT_FALSE(File_existFile(p));
                EXPECT_FALSE(File_isReadable(p));
        }
        char real[PATH_MAX + 1];
        EXPECT_EQ(File_getRealPath(missing.c_str(), real), nullptr);
        errno = 0;
        EXPECT_FALSE(File_delete(nullptr));
        EXPECT_EQ(errno, ENOENT);
        errno = 0;
        EXPECT_FALSE(File_chmod(nullptr, 0644));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_STREQ(File_getLastError(), strerror(EINVAL));
}

TEST(File, TextOfAPath) {
        EXPECT_TRUE(File_isPathAbsolute("/a"));
        EXPECT_FALSE(File_isPathAbsolute("a/b"));
        EXPECT_FALSE(File_isPathAbsolute(nullptr));

        EXPECT_STREQ(File_extension("archive.tar.gz"), "gz");
        EXPECT_EQ(File_extension("README"), nullptr);
        EXPECT_STREQ(File_extension("a."), "");

        EXPECT_STREQ(File_basename("/a/b.txt"), "b.txt");
        EXPECT_STREQ(File_basename("b"), "b");
        EXPECT_STREQ(File_basename("/a/"), "");

        EXPECT_EQ(dirname("/a/b"), "/a/");
        EXPECT_EQ(dirname("b"), ".");
        EXPECT_EQ(dirname("/"), "/");
        EXPECT_EQ(dirname("a/b/c/"), "a/b/c/");

        EXPECT_EQ(noExtension("/a/b.txt"), "b");
        EXPECT_EQ(noExtension("x.tar.gz"), "x.tar");
        EXPECT_EQ(noExtension("plain"), "plain");
        EXPECT_EQ(noExtension(std::string(300, 'n') + ".c"), std::string(255, 'n'));

        EXPECT_EQ(trimmed("/a/"), "/a");
        EXPECT_EQ(trimmed("/"), "/");
        EXPECT_EQ(trimmed("/a// \t\n"), "/a");
        EXPECT_EQ(trimmed("///"), "/");
}

TEST(File, OpenModes) {
        TempDir dir;
        std::string path = dir / "log";
        const char* p = path.c_str();

        EXPECT_EQ(File_open(p, "r"), -1) << "reading does not create";
        int fd = File_open(p, "w");
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(write(fd, "first", 5), 5);
        char c;
        EXPECT_EQ(read(fd, &c, 1), -1) << "\"w\" opens for writing only";
        EXPECT_TRUE(File_close(fd));

        fd = File_open(p, "a");
        EXPECT_EQ(write(fd, "+more", 5), 5);
        File_close(fd);
        EXPECT_EQ(readFile(p), "first+more");

        fd = File_open(p, "r+");
        EXPECT_EQ(write(fd, "F", 1), 1);
        File_close(fd);
        EXPECT_EQ(readFile(p), "First+more");

        fd = File_open(p, "rz");
        char buffer[16] = {};
        EXPECT_EQ(read(fd, buffer, sizeof buffer), 10) << "later mode characters are ignored";
        EXPECT_EQ(write(fd, "x", 1), -1);
        File_close(fd);

        mode_t saved = File_setUmask(027);
        EXPECT_EQ(File_umask(), 027u);
        std::string fresh = dir / "fresh";
        fd = File_open(fresh.c_str(), "a+");
        File_close(fd);
        EXPECT_EQ(File_mod(fresh.c_str()) & 0777, 0640);
        File_setUmask(saved);

        for (const char* mode : {"x", "", "+r"}) {
                errno = 0;
                EXPECT_EQ(File_open(p, mode), -1) << mode;
                EXPECT_EQ(errno, EINVAL);
        }
        EXPECT_FALSE(File_close(-1));
}

TEST(File, DigestOfTheContent) {
        TempDir dir;
        File_T f = File_new("%s", dir.write("page", "abc").c_str());
        const char* md = File_md(f, "sha1");
        EXPECT_EQ(md, reinterpret_cast<const char*>(f)) << "the text is at the object's address";
        EXPECT_STREQ(md, "A9993E364706816ABA3E25717850C26C9CD0D89D");

        errno = 0;
        EXPECT_EQ(File_md(f, "no-such-digest"), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_STREQ(reinterpret_cast<const char*>(f), "") << "a failed digest clears the text";
        EXPECT_STREQ(File_md(f, "md5"), "900150983CD24FB0D6963F7D28E17F72");

        File_reset(f, "%s", (dir / "missing").c_str());
        errno = 0;
        EXPECT_EQ(File_md(f, "md5"), nullptr);
        EXPECT_EQ(errno, ENOENT);
        File_free(&f);
}
