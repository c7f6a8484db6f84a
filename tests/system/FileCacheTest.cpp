#include <gtest/gtest.h>
#include <dirent.h>
#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Container.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/Net.h>
#include <vesk/Time.h>

#include "support/Gzip.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

#include <vesk/assert.h>
#include "system/FileCache.hpp"

namespace {

// Content that differs at every position, so that a shifted or mixed-up byte shows.
std::string content(size_t n, char seed = 'a') {
        std::string s(n, 0);
        for (size_t i = 0; i < n; i++)
                s[i] = static_cast<char>(seed + (i * 7 + i / 251) % 26);
        return s;
}

std::string bytes(FileMap_T map) {
        return std::string(static_cast<const char*>(FileMap_getAddress(map)),
                           static_cast<size_t>(FileMap_getSize(map)));
}

std::string gunzip(FileMap_T map) {
        return ::gunzip(FileMap_getAddress(map), static_cast<size_t>(FileMap_getSize(map)));
}

// Entries of a directory other than "." and "..".
int entries(const std::string& dir) {
        int n = 0;
        if (DIR* d = opendir(dir.c_str())) {
                while (struct dirent* e = readdir(d))
                        n += e->d_name[0] != '.';
                closedir(d);
        }
        return n;
}

// Writes content to path as a new file (a new inode, as a deploy does) with mtime.
void replace(const TempDir& dir, const std::string& path, const std::string& text, time_t mtime) {
        std::string fresh = dir.write("fresh.tmp", text);
        struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
        utimes(fresh.c_str(), times);
        rename(fresh.c_str(), path.c_str());
}

// Each test starts and ends with no cache, and compresses into its own work directory.
struct FileCacheFixture : ::testing::Test {
        TempDir dir;
        TempDir work;
        const char* savedWorkDir = Container_WorkDir;
        FileCache_T F;
        FileCacheFixture() {
                FileCache_free();
                Container_WorkDir = work.path().c_str();
                F = FileCache_getInstance();
        }
        ~FileCacheFixture() override {
                FileCache_free();
                Container_WorkDir = savedWorkDir;
        }
};

}  // namespace

TEST_F(FileCacheFixture, MapsPlainAndWritable) {
        std::string text = content(5000);
        std::string path = dir.write("plain.txt", text);
        File_T file = File_new("%s", path.c_str());
        FileMap_T map = File_map(file, "r");
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(bytes(map), text);
        EXPECT_EQ(FileMap_getFile(map), file);
        EXPECT_FALSE(FileMap_isCompressed(map));
        EXPECT_EQ(FileMap_getMtime(map), Time_gmt(File_mtime(path.c_str())));
        EXPECT_EQ(File_map(file, "r"), map);  // mapped already
        EXPECT_TRUE(File_unmap(file));
        EXPECT_TRUE(File_unmap(file));  // nothing mapped

        map = File_map(file, "r+");
        ASSERT_NE(map, nullptr);
        static_cast<char*>(FileMap_getAddress(map))[0] = 'Z';
        File_free(&file);
        text[0] = 'Z';
        File_T again = File_new("%s", path.c_str());
        EXPECT_EQ(bytes(File_map(again, "r")), text);
        File_free(&again);
}

// The event loop's look-up: it hands out what is cached, per form, and never maps.
TEST_F(FileCacheFixture, FindGivesWhatIsCachedAndNeverMaps) {
        std::string path = dir.write("page.txt", content(5000));
        EXPECT_EQ(FileCache_find(F, 0, path.c_str()), nullptr);
        EXPECT_EQ(FileCache_files(F), 0);
        FileMap_T map = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(FileCache_find(F, 1, path.c_str()), nullptr);
        FileMap_T found = FileCache_find(F, 0, path.c_str());
        EXPECT_EQ(found, map);
        EXPECT_EQ(FileMap_getRefcount(map), 2);
        FileCache_return(F, found);
        // A discarded mapping is found no more, though its holder still reads it.
        FileCache_discard(F, map);
        EXPECT_EQ(FileCache_find(F, 0, path.c_str()), nullptr);
        EXPECT_EQ(bytes(map), content(5000));
        FileCache_return(F, map);
        EXPECT_EQ(FileCache_files(F), 0);
}

TEST_F(FileCacheFixture, MappingRefusesWhatItCannotMap) {
        std::string empty = dir.write("empty", "");
        std::string plain = dir.write("plain", "x");
        struct Case {
                std::string path;
                const char* mode;
                int error;
        } cases[] = {{dir / "missing", "r", ENOENT}, {empty, "r", ENODATA},
                     {dir.path(), "r", EINVAL},      {plain, "w", EINVAL},
                     {plain, nullptr, EINVAL},       {plain, "", EINVAL}};
        for (const Case& c : cases) {
                File_T file = File_new("%s", c.path.c_str());
                errno = 0;
                EXPECT_EQ(File_map(file, c.mode), nullptr) << c.path;
                EXPECT_EQ(errno, c.error) << c.path;
                EXPECT_TRUE(File_unmap(file));
                File_free(&file);
        }
}

TEST_F(FileCacheFixture, GzipFormDecompressesToTheFileAndLeavesNoTemporary) {
        std::string text = content(200000);
        std::string path = dir.write("big.html", text);
        File_T file = File_new("%s", path.c_str());
        FileMap_T map = File_map(file, "rz");
        ASSERT_NE(map, nullptr);
        EXPECT_TRUE(FileMap_isCompressed(map));
        EXPECT_LT(FileMap_getSize(map), static_cast<int>(text.size()));
        EXPECT_EQ(gunzip(map), text);
        EXPECT_EQ(FileMap_getMtime(map), Time_gmt(File_mtime(path.c_str())));
        EXPECT_EQ(entries(work.path()), 0);
        File_free(&file);

        // A work directory that cannot be written: the mapping fails with EIO.
        Container_WorkDir = "/no/such/dir";
        file = File_new("%s", path.c_str());
        errno = 0;
        EXPECT_EQ(File_map(file, "rz"), nullptr);
        EXPECT_EQ(errno, EIO);
        EXPECT_TRUE(File_unmap(file));
        File_free(&file);
}

TEST_F(FileCacheFixture, LimitIsRaisedToTheSmallestAndZeroStays) {
        EXPECT_EQ(FileCache_getMaxSize(F), 10240000);
        FileCache_setMaxSize(F, 1);
        EXPECT_EQ(FileCache_getMaxSize(F), 1024000);
        FileCache_setMaxSize(F, 0);
        EXPECT_EQ(FileCache_getMaxSize(F), 0);
        FileCache_setMaxSize(F, 5000000);
        EXPECT_EQ(FileCache_getMaxSize(F), 5000000);
        EXPECT_EQ(FileCache_getInstance(), F);
}

TEST_F(FileCacheFixture, OneMappingIsSharedByItsHolders) {
        std::string text = content(3000);
        std::string path = dir.write("shared.css", text);
        FileMap_T a = FileCache_get(F, 0, path.c_str());
        FileMap_T b = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a, b);
        EXPECT_EQ(FileMap_getRefcount(a), 2);
        EXPECT_EQ(FileCache_files(F), 1);
        EXPECT_EQ(FileCache_size(F), 3000);

        // The compressed form is a second entry with its own File and size.
        FileMap_T z = FileCache_get(F, 1, path.c_str());
        ASSERT_NE(z, nullptr);
        EXPECT_NE(z, a);
        EXPECT_NE(FileMap_getFile(z), FileMap_getFile(a));
        EXPECT_EQ(gunzip(z), text);
        EXPECT_EQ(FileCache_files(F), 2);
        EXPECT_EQ(FileCache_size(F), 3000 + FileMap_getSize(z));

        FileCache_return(F, a);
        FileCache_return(F, b);
        FileCache_return(F, z);
        // Idle mappings stay cached for the next request.
        EXPECT_EQ(FileMap_getRefcount(a), 0);
        EXPECT_EQ(FileCache_files(F), 2);
        EXPECT_EQ(FileCache_get(F, 0, path.c_str()), a);
        FileCache_return(F, a);
}

TEST_F(FileCacheFixture, WithoutALimitAMappingLivesWhileHeld) {
        FileCache_setMaxSize(F, 0);
        std::string path = dir.write("once.js", content(4000));
        FileMap_T a = FileCache_get(F, 0, path.c_str());
        FileMap_T b = FileCache_get(F, 0, path.c_str());
        ASSERT_EQ(a, b);
        EXPECT_TRUE(FileMap_isPurged(a));
        FileCache_return(F, a);
        EXPECT_EQ(FileCache_files(F), 1);
        FileCache_return(F, b);
        EXPECT_EQ(FileCache_files(F), 0);
        EXPECT_EQ(FileCache_size(F), 0);
}

TEST_F(FileCacheFixture, TheLimitHoldsWhileEveryFileIsStillServed) {
        FileCache_setMaxSize(F, 1024000);
        const int kFiles = 12, kSize = 300000;
        std::vector<std::string> paths, texts;
        for (int i = 0; i < kFiles; i++) {
                texts.push_back(content(kSize, static_cast<char>('a' + i)));
                paths.push_back(dir.write("f" + std::to_string(i), texts.back()));
        }
        for (int round = 0; round < 2; round++)
                for (int i = 0; i < kFiles; i++) {
                        FileMap_T map = FileCache_get(F, 0, paths[i].c_str());
                        ASSERT_NE(map, nullptr);
                        EXPECT_EQ(bytes(map), texts[i]);
                        FileCache_return(F, map);
                        EXPECT_LE(FileCache_size(F), FileCache_getMaxSize(F));
                        EXPECT_EQ(FileCache_size(F),
                                  static_cast<int64_t>(FileCache_files(F)) * kSize);
                }
        EXPECT_EQ(FileCache_files(F), 3);
}

TEST_F(FileCacheFixture, MappingsInUseAreNeverEvicted) {
        FileCache_setMaxSize(F, 1024000);
        std::vector<FileMap_T> held;
        for (int i = 0; i < 5; i++) {
                std::string path = dir.write("h" + std::to_string(i), content(300000));
                held.push_back(FileCache_get(F, 0, path.c_str()));
                ASSERT_NE(held.back(), nullptr);
        }
        // All five admitted although they exceed the limit, and each still reads.
        EXPECT_EQ(FileCache_files(F), 5);
        EXPECT_EQ(FileCache_size(F), 1500000);
        for (FileMap_T map : held) {
                EXPECT_EQ(bytes(map), content(300000));
                FileCache_return(F, map);
        }
        // A file above the limit is admitted too, once the idle ones have made room.
        std::string huge = dir.write("huge", content(1100000));
        FileMap_T map = FileCache_get(F, 0, huge.c_str());
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(FileCache_files(F), 1);
        EXPECT_GT(FileCache_size(F), FileCache_getMaxSize(F));
        FileCache_return(F, map);
}

TEST_F(FileCacheFixture, ChangedFileIsServedFreshWhileOldHoldersReadIntact) {
        std::string old = content(10000, 'a');
        std::string path = dir.write("page.html", old);
        struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
        utimes(path.c_str(), times);

        FileMap_T first = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(first, nullptr);
        std::string fresh = content(8000, 'k');
        replace(dir, path, fresh, 1000000100);

        // The next request still gets the cached mapping; it sees the stale time and marks it.
        FileMap_T second = FileCache_get(F, 0, path.c_str());
        ASSERT_EQ(second, first);
        ASSERT_NE(FileMap_getMtime(second), Time_gmt(File_mtime(path.c_str())));
        FileMap_purge(second);
        FileCache_return(F, second);
        EXPECT_EQ(FileCache_files(F), 1);
        EXPECT_EQ(bytes(first), old);
        FileCache_return(F, first);
        EXPECT_EQ(FileCache_files(F), 0);

        FileMap_T third = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(third, nullptr);
        EXPECT_EQ(bytes(third), fresh);
        EXPECT_EQ(FileMap_getMtime(third), Time_gmt(File_mtime(path.c_str())));
        FileCache_return(F, third);
}

TEST_F(FileCacheFixture, DiscardedMappingLeavesAtOnceWhileItsHoldersReadIt) {
        std::string old = content(10000, 'a'), fresh = content(8000, 'k');
        std::string path = dir.write("page.html", old);
        FileMap_T held = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(held, nullptr);
        replace(dir, path, fresh, 1000000100);
        FileCache_discard(F, held);
        FileCache_discard(F, held);  // once out, it stays out
        FileMap_T next = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(next, held);
        EXPECT_EQ(bytes(next), fresh);
        EXPECT_EQ(bytes(held), old);
        EXPECT_EQ(FileCache_size(F), 18000);
        FileCache_return(F, held);
        EXPECT_EQ(FileCache_size(F), 8000);

        // A send that meets the missing pages of a file cut short fails, and the mapping
        // goes at once, although it was idle.
        FileCache_return(F, next);
        ASSERT_EQ(truncate(path.c_str(), 10), 0);
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        off_t offset = 4096;
        EXPECT_EQ(Net_sendfile(path.c_str(), pair[0], 0, &offset, 100), -1);
        EXPECT_EQ(errno, EFAULT);
        close(pair[0]);
        close(pair[1]);
        EXPECT_EQ(FileCache_files(F), 0);

        // Freeing the cache frees what is still held out of it.
        FileCache_discard(F, FileCache_get(F, 1, path.c_str()));
        EXPECT_EQ(FileCache_files(F), 1);
}

TEST_F(FileCacheFixture, FailureIsLoggedAndNotRemembered) {
        std::string path = dir.write("empty.txt", "");
        testing::internal::CaptureStderr();
        errno = 0;
        EXPECT_EQ(FileCache_get(F, 0, path.c_str()), nullptr);
        int error = errno;
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(error, ENODATA);
        EXPECT_NE(log.find("FileCache: cannot cache file '" + path + "' -- " + strerror(ENODATA)),
                  std::string::npos)
            << log;
        EXPECT_EQ(FileCache_files(F), 0);
        dir.write("empty.txt", "now");
        FileMap_T map = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(bytes(map), "now");
        FileCache_return(F, map);
}

TEST_F(FileCacheFixture, PercentInAPathNamesThatFile) {
        std::string path = dir.write("100%sure%d.txt", "percent");
        FileMap_T map = FileCache_get(F, 0, path.c_str());
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(bytes(map), "percent");
        EXPECT_STREQ(File_getPath(FileMap_getFile(map)), path.c_str());
        FileCache_return(F, map);
}

TEST_F(FileCacheFixture, ReferenceCountsHoldUnderConcurrentUse) {
        // A small limit keeps eviction busy, and purge marks send the last holders through
        // the locked path, while the threads fetch and return the same few files.
        FileCache_setMaxSize(F, 1024000);
        const int kFiles = 6, kSize = 250000;
        std::vector<std::string> paths, texts;
        for (int i = 0; i < kFiles; i++) {
                texts.push_back(content(kSize, static_cast<char>('a' + i)));
                paths.push_back(dir.write("c" + std::to_string(i), texts.back()));
        }
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
                threads.emplace_back([&, t] {
                        for (int i = 0; i < 400; i++) {
                                int k = (i * 5 + t) % kFiles;
                                FileMap_T a = FileCache_get(F, 0, paths[k].c_str());
                                FileMap_T b = FileCache_get(F, 0, paths[(k + 1) % kFiles].c_str());
                                if (!a || !b) {
                                        wrong++;
                                        continue;
                                }
                                if (i % 7 == 0)
                                        FileMap_purge(a);
                                const char* p = static_cast<const char*>(FileMap_getAddress(a));
                                if (p[kSize / 2] != texts[k][kSize / 2] ||
                                    p[kSize - 1] != texts[k][kSize - 1])
                                        wrong++;
                                FileCache_return(F, a);
                                FileCache_return(F, b);
                        }
                });
        for (auto& t : threads)
                t.join();
        EXPECT_EQ(wrong, 0);
        EXPECT_LE(FileCache_files(F), kFiles);
        EXPECT_EQ(FileCache_size(F), static_cast<int64_t>(FileCache_files(F)) * kSize);
        // Every mapping left is idle.
        for (const std::string& path : paths) {
                FileMap_T map = FileCache_get(F, 0, path.c_str());
                ASSERT_NE(map, nullptr);
                EXPECT_EQ(FileMap_getRefcount(map), 1) << path;
                FileCache_return(F, map);
        }
}

TEST_F(FileCacheFixture, NetSendsAFileFromItsMapping) {
        std::string text = content(200000);
        std::string path = dir.write("send.bin", text);
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        std::string got;
        std::thread reader([&] {
                char buf[65536];
                ssize_t n;
                while (got.size() < text.size() && (n = read(pair[1], buf, sizeof buf)) > 0)
                        got.append(buf, static_cast<size_t>(n));
        });
        EXPECT_EQ(Net_sendfileb(path.c_str(), pair[0]), static_cast<ssize_t>(text.size()));
        reader.join();
        EXPECT_EQ(got, text);

        // The step form: each call writes from the offset and moves it on.
        std::string small = content(3000, 'q');
        std::string smallPath = dir.write("step.bin", small);
        off_t offset = 0;
        EXPECT_EQ(Net_sendfile(smallPath.c_str(), pair[0], 0, &offset, 1000), 1000);
        EXPECT_EQ(Net_sendfile(smallPath.c_str(), pair[0], 0, &offset, 2000), 2000);
        EXPECT_EQ(offset, 3000);
        char buf[3000];
        size_t have = 0;
        while (have < sizeof buf) {
                ssize_t n = read(pair[1], buf + have, sizeof buf - have);
                if (n <= 0)
                        break;
                have += static_cast<size_t>(n);
        }
        EXPECT_EQ(std::string(buf, have), small);

        // Both gave their mappings back.
        for (const std::string& p : {path, smallPath}) {
                FileMap_T map = FileCache_get(F, 0, p.c_str());
                EXPECT_EQ(FileMap_getRefcount(map), 1);
                FileCache_return(F, map);
        }
        EXPECT_EQ(Net_sendfile((dir / "missing").c_str(), pair[0], 0, &offset, 10), -1);
        close(pair[0]);
        close(pair[1]);
}
