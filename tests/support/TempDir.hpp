// A fresh directory under /tmp for one test, removed with everything in it afterwards.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

// The whole content of a file, or "" if it cannot be read.
inline std::string readFile(const std::string& path) {
        std::string s;
        if (FILE* f = fopen(path.c_str(), "r")) {
                char buffer[4096];
                while (size_t n = fread(buffer, 1, sizeof buffer, f))
                        s.append(buffer, n);
                fclose(f);
        }
        return s;
}

class TempDir {
public:
        TempDir() {
                char name[] = "/tmp/vesk-test-XXXXXX";
                if (mkdtemp(name))
                        path_ = name;
        }
        ~TempDir() {
                if (!path_.empty())
                        nftw(path_.c_str(), removeOne, 16, FTW_DEPTH | FTW_PHYS);
        }
        TempDir(const TempDir&) = delete;
        TempDir& operator=(const TempDir&) = delete;

        const std::string& path() const { return path_; }
        // The full path of name inside the directory.
        std::string operator/(const std::string& name) const { return path_ + "/" + name; }
        // Creates name with the given content and returns its full path.
        std::string write(const std::string& name, const std::string& content) const {
                std::string full = *this / name;
                if (FILE* f = fopen(full.c_str(), "w")) {
                        fwrite(content.data(), 1, content.size(), f);
                        fclose(f);
                }
                return full;
        }

private:
        static int removeOne(const char* path, const struct stat*, int, struct FTW*) {
                return remove(path);
        }
        std::string path_;
};
