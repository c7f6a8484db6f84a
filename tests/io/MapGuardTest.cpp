#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "support/TempDir.hpp"
#include "io/MapGuard.hpp"

// A mapping of three pages whose file was then cut to ten bytes: the first page still
// reads, the others are gone.
TEST(MapGuardDeathTest, OnlyACopyFromMissingPagesIsStopped) {
        TempDir dir;
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        int fd = open(dir.write("cut", std::string(3 * page, 'x')).c_str(), O_RDWR);
        auto map = static_cast<char*>(mmap(nullptr, 3 * page, PROT_READ, MAP_PRIVATE, fd, 0));
        ASSERT_NE(map, MAP_FAILED);
        ASSERT_EQ(ftruncate(fd, 10), 0);
        close(fd);
        std::string to(page, '?');
        auto copies = [&] {
                for (int i = 0; i < 20; i++) {
                        EXPECT_TRUE(MapGuard_copy(to.data(), map, page));
                        errno = 0;
                        EXPECT_FALSE(MapGuard_copy(to.data(), map + page / 2, page));
                        EXPECT_EQ(errno, EFAULT);
                }
        };
        std::thread other(copies);
        copies();
        other.join();
        ASSERT_TRUE(MapGuard_copy(to.data(), map, page));
        EXPECT_TRUE(to == std::string(10, 'x') + std::string(page - 10, '\0'));
        // A read of the same pages outside a copy is a bug, and still ends the process.
        EXPECT_DEATH(fprintf(stderr, "%d\n", *static_cast<volatile char*>(map + page)), "");
        munmap(map, 3 * page);
}
