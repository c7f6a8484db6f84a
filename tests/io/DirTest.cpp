#include <gtest/gtest.h>

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include <vesk/Dir.h>
#include <vesk/File.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

std::set<std::string> names(Dir_T d) {
        std::set<std::string> s;
        while (File_T f = Dir_next(d))
                s.insert(File_getPath(f));
        return s;
}

// Runs the test body with the working directory changed, and goes back afterwards.
struct InDirectory {
        char saved[PATH_MAX + 1];
        explicit InDirectory(const std::string& path) {
                Dir_cwd(saved, sizeof saved);
                EXPECT_TRUE(Dir_chdir(path.c_str()));
        }
        ~InDirectory() { Dir_chdir(saved); }
};

void countFiles(File_T f, void* ap) {
        if (File_isaFile(f) == 1)
                ++*static_cast<int*>(ap);
}

}  // namespace

TEST(Dir, ListsEveryEntryWithFullPaths) {
        TempDir tmp;
        tmp.write("a.txt", "a");
        tmp.write("b.txt", "bb");
        ASSERT_TRUE(Dir_mkdir((tmp / "sub").c_str(), 0));
        const std::string base = tmp.path() + "/";
        const std::set<std::string> expected = {base + ".", base + "..", base + "a.txt",
                                                base + "b.txt", base + "sub"};

        Dir_T d = Dir_new("%s", tmp.path().c_str());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(Dir_getPath(d), base);
        EXPECT_EQ(names(d), expected);
        EXPECT_EQ(Dir_next(d), nullptr);
        EXPECT_EQ(Dir_pos(d), 5);

        int files = 0;
        Dir_next(d);
        Dir_map(d, countFiles, &files);
        EXPECT_EQ(files, 2) << "map walks the whole list from the start";
        EXPECT_EQ(Dir_pos(d), 0);
        EXPECT_EQ(names(d).size(), 5u) << "map leaves the directory rewound";
        Dir_free(&d);

        // A base given with its separator keeps one; a relative one is made absolute.
        d = Dir_new("%s/", tmp.path().c_str());
        EXPECT_EQ(Dir_getPath(d), base);
        Dir_free(&d);
        InDirectory in(tmp.path());
        d = Dir_new("sub");
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(Dir_getPath(d), base + "sub/");
        EXPECT_EQ(names(d), (std::set<std::string>{base + "sub/.", base + "sub/.."}));
        Dir_free(&d);
}

TEST(Dir, GlobListsMatches) {
        TempDir tmp;
        tmp.write("a.txt", "a");
        tmp.write("b.txt", "bb");
        tmp.write("c.html", "c");
        const std::string base = tmp.path() + "/";

        Dir_T d = Dir_glob("%s/*.txt", tmp.path().c_str());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(Dir_getPath(d), base);
        EXPECT_EQ(names(d), (std::set<std::string>{base + "a.txt", base + "b.txt"}));
        int files = 0;
        Dir_map(d, countFiles, &files);
        EXPECT_EQ(files, 2);
        Dir_free(&d);

        InDirectory in(tmp.path());
        d = Dir_glob("*.html");
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(Dir_getPath(d), base);
        File_T f = Dir_next(d);
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(File_getPath(f), base + "c.html");
        Dir_free(&d);

        errno = 0;
        EXPECT_EQ(Dir_glob("%s/*.none", tmp.path().c_str()), nullptr);
        EXPECT_NE(errno, 0);
}

TEST(Dir, FailuresAndChecks) {
        TempDir tmp;
        errno = 0;
        EXPECT_EQ(Dir_new("%s/missing", tmp.path().c_str()), nullptr);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(Dir_new("%s", tmp.write("file", "x").c_str()), nullptr);
        EXPECT_EQ(errno, ENOTDIR);

        std::string longest = "/" + std::string(4094, 'd');
        std::string tooLong = longest + "d";
        EXPECT_EQ(assertion([&] { Dir_new("%s", tooLong.c_str()); }), "path too long");
        EXPECT_EQ(assertion([&] { Dir_glob("%s", tooLong.c_str()); }), "path too long");
        EXPECT_EQ(assertion([&] { EXPECT_EQ(Dir_new("%s", longest.c_str()), nullptr); }), "");
}

TEST(Dir, ProcessWideFunctions) {
        TempDir tmp;
        std::string sub = tmp / "sub";
        EXPECT_TRUE(Dir_mkdir(sub.c_str(), 0750));
        EXPECT_EQ(File_mod(sub.c_str()) & 0777, 0750);
        errno = 0;
        EXPECT_FALSE(Dir_mkdir(sub.c_str(), 0));
        EXPECT_EQ(errno, EINVAL) << "the real cause is replaced";

        {
                InDirectory in(sub);
                char cwd[PATH_MAX + 1];
                EXPECT_EQ(Dir_cwd(cwd, sizeof cwd), cwd);
                EXPECT_EQ(cwd, sub);
                EXPECT_EQ(Dir_cwd(cwd, 2), nullptr);
        }
        EXPECT_FALSE(Dir_chdir((tmp / "missing").c_str()));

        EXPECT_TRUE(Dir_delete(sub.c_str()));
        EXPECT_FALSE(File_isDirectory(sub.c_str()));
}
