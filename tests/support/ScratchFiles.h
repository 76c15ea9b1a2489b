// Scratch directories for tests that write files, inside the build tree.
// KELMA_TEST_SCRATCH_DIR is defined for every test binary (tests/CMakeLists.txt).
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kelma_test {

// A fresh, empty directory `name` of this process only: CTest runs each test
// binary more than once at a time (once per kernel variant).
inline std::string ScratchDir(const std::string& name) {
    const std::string root = KELMA_TEST_SCRATCH_DIR;
    ::mkdir(root.c_str(), 0755);
    const std::string dir = root + "/" + name + "." + std::to_string(::getpid());
    std::system(("rm -rf '" + dir + "'").c_str());
    ::mkdir(dir.c_str(), 0755);
    return dir;
}

// Every entry of `dir` but "." and "..", hidden ones included (a temporary
// file left behind is one), sorted.
inline std::vector<std::string> DirEntries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kelma_test
