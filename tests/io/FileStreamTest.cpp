#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <vesk/File.h>
#include <vesk/FileInputStream.h>
#include <vesk/FileOutputStream.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

// A File object that frees itself.
struct FileObject {
        File_T f;
        explicit FileObject(const std::string& path) : f(File_new("%s", path.c_str())) {}
        ~FileObject() { File_free(&f); }
};

}  // namespace

TEST(FileInputStream, ReadsBytesAndLines) {
        TempDir dir;
        FileObject file(dir.write("lines", "first\nsecond\nlast"));
        FileInputStream_T in = FileInputStream_new(file.f);
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(FileInputStream_read(in), 'f');
        char line[64];
        EXPECT_STREQ(FileInputStream_readLine(in, line, sizeof line), "irst\n");
        EXPECT_STREQ(FileInputStream_readLine(in, line, sizeof line), "second\n");
        EXPECT_EQ(FileInputStream_pos(in), 17) << "the descriptor stands after the buffered bytes";
        char bytes[64];
        EXPECT_EQ(FileInputStream_readBytes(in, bytes, sizeof bytes), 4);
        EXPECT_EQ(std::string(bytes, 4), "last");
        EXPECT_EQ(FileInputStream_read(in), -1);
        EXPECT_EQ(FileInputStream_readLine(in, line, sizeof line), nullptr);
        EXPECT_FALSE(FileInputStream_isClosed(in)) << "the end of a file is no failure";

        EXPECT_TRUE(FileInputStream_rewind(in));
        EXPECT_EQ(FileInputStream_pos(in), 0);
        EXPECT_EQ(FileInputStream_read(in), 'f');

        FileInputStream_free(&in);
}

TEST(FileInputStream, SeeksNeverPastTheEnd) {
        TempDir dir;
        FileObject file(dir.write("digits", "0123456789"));
        FileInputStream_T in = FileInputStream_new(file.f);
        EXPECT_EQ(FileInputStream_seek(in, 0, 'e'), 10);
        EXPECT_EQ(FileInputStream_seek(in, 4, 'a'), 4);
        EXPECT_EQ(FileInputStream_read(in), '4');
        // The stream read ahead to the end; 'c' counts from the descriptor's position.
        EXPECT_EQ(FileInputStream_seek(in, -3, 'c'), 7);
        EXPECT_EQ(FileInputStream_read(in), '7') << "seeking empties the buffer";
        EXPECT_EQ(FileInputStream_seek(in, -2, 'e'), 8);
        EXPECT_EQ(FileInputStream_read(in), '8');
        EXPECT_EQ(FileInputStream_seek(in, 5, 'e'), 10);

        EXPECT_EQ(FileInputStream_seek(in, 50, 'a'), 10);
        EXPECT_EQ(FileInputStream_read(in), -1);

        FileInputStream_seek(in, 2, 'a');
        errno = 0;
        EXPECT_EQ(FileInputStream_seek(in, 1, 'x'), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(FileInputStream_pos(in), 10) << "an unknown whence leaves the end";
        FileInputStream_free(&in);
}

TEST(FileInputStream, FailuresRaiseOrGiveNull) {
        TempDir dir;
        FileObject missing(dir / "missing");
        errno = 0;
        EXPECT_EQ(FileInputStream_new(missing.f), nullptr);
        EXPECT_EQ(errno, ENOENT);

        // A directory opens but cannot be read.
        FileObject directory(dir.path());
        FileInputStream_T in = FileInputStream_new(directory.f);
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(raised([&] { FileInputStream_read(in); }),
                  std::string("IOException: ") + strerror(EISDIR));
        EXPECT_TRUE(FileInputStream_isClosed(in));

        // Closing twice raises the second time, and freeing a closed stream frees it anyway.
        FileInputStream_close(in);
        EXPECT_EQ(raised([&] { FileInputStream_close(in); }),
                  std::string("IOException: ") + strerror(EBADF));
        EXPECT_EQ(raised([&] { FileInputStream_free(&in); }),
                  std::string("IOException: ") + strerror(EBADF));
        EXPECT_EQ(in, nullptr);
}

TEST(FileOutputStream, AppendsToWhatIsThere) {
        TempDir dir;
        std::string path = dir.write("log", "old\n");
        FileObject file(path);
        FileOutputStream_T out = FileOutputStream_new(file.f);
        ASSERT_NE(out, nullptr);
        FileOutputStream_print(out, "%s %d\n", "line", 1);
        const char* empty = "";
        FileOutputStream_print(out, empty, 0);
        FileOutputStream_print(out, nullptr);
        FileOutputStream_write(out, "raw", 3);
        FileOutputStream_write(out, nullptr, 3);
        FileOutputStream_write(out, "ignored", 0);
        EXPECT_EQ(readFile(path), "old\n") << "output is buffered";
        EXPECT_EQ(FileOutputStream_size(out), 14);
        EXPECT_EQ(readFile(path), "old\nline 1\nraw");
        EXPECT_EQ(FileOutputStream_flush(out), 0);

        FileOutputStream_setBufferSize(out, 8);
        FileOutputStream_write(out, "0123456789", 10);
        EXPECT_EQ(readFile(path), "old\nline 1\nraw0123456789") << "a full buffer is written out";

        FileOutputStream_write(out, "!", 1);
        FileOutputStream_close(out);
        EXPECT_EQ(readFile(path), "old\nline 1\nraw0123456789!");
        FileOutputStream_free(&out);

        // A new file is created; free writes out what is left.
        FileObject fresh(dir / "fresh");
        out = FileOutputStream_new(fresh.f);
        FileOutputStream_print(out, "kept");
        FileOutputStream_free(&out);
        EXPECT_EQ(readFile(dir / "fresh"), "kept");
}

TEST(FileOutputStream, CompressesOnlyAnEmptyFile) {
        TempDir dir;
        FileObject file(dir.write("data.gz", ""));
        FileOutputStream_T out = FileOutputStream_new(file.f);
        FileOutputStream_startCompress(out, 6);
        EXPECT_TRUE(FileOutputStream_isCompressed(out));
        for (int i = 0; i < 100; i++)
                FileOutputStream_print(out, "the same text again and again\n");
        FileOutputStream_close(out);
        FileOutputStream_free(&out);
        std::string gz = readFile(dir / "data.gz");
        ASSERT_GT(gz.size(), 10u);
        EXPECT_LT(gz.size(), 3000u);
        EXPECT_EQ(gz.substr(0, 2), "\x1f\x8b");

        out = FileOutputStream_new(file.f);
        EXPECT_EQ(raised([&] { FileOutputStream_startCompress(out, 6); }),
                  "IOException: File not empty. Compress append is not supported");
        EXPECT_FALSE(FileOutputStream_isCompressed(out));
        FileOutputStream_free(&out);
}

TEST(FileOutputStream, FailuresRaiseOrGiveNull) {
        TempDir dir;
        FileObject missing(dir / "no/such/dir");
        EXPECT_EQ(FileOutputStream_new(missing.f), nullptr);

        FileObject file(dir / "out");
        FileOutputStream_T out = FileOutputStream_new(file.f);
        FileOutputStream_close(out);
        EXPECT_EQ(raised([&] { FileOutputStream_close(out); }),
                  std::string("IOException: ") + strerror(EBADF));
        EXPECT_EQ(raised([&] { FileOutputStream_free(&out); }), "")
            << "a closed stream is not closed again";

        // Writing to a full device fails when the buffer goes out.
        FileObject full("/dev/full");
        out = FileOutputStream_new(full.f);
        ASSERT_NE(out, nullptr);
        FileOutputStream_print(out, "lost");
        EXPECT_EQ(raised([&] { FileOutputStream_flush(out); }),
                  std::string("IOException: ") + strerror(ENOSPC));
        EXPECT_TRUE(FileOutputStream_isClosed(out));
        EXPECT_NE(raised([&] { FileOutputStream_free(&out); }), "");
        EXPECT_EQ(out, nullptr);
}
