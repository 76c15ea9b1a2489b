#include "kelma/common/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

namespace KELMA_NAMESPACE {

ZKCFileWriteError::ZKCFileWriteError(const std::string& message) : std::runtime_error(message) {}
ZKCFileWriteError::~ZKCFileWriteError() = default;

namespace {

// The process umask without changing it (umask() would, for a moment, for
// every thread): Linux reports it in /proc/self/status; 022 when it cannot.
mode_t CurrentUmask() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "Umask:") == 0) return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    }
    return 022;
}

[[noreturn]] void Fail(const std::string& path, const char* what, int error) {
    throw ZKCFileWriteError("cannot write " + path + ": " + what + " (" + std::strerror(error) + ")");
}

}  // namespace

void WriteFileAtomically(const std::string& path, const std::string& content) {
    if (path.empty()) throw ZKCFileWriteError("cannot write a file without a name");
    const std::size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") throw ZKCFileWriteError("cannot write " + path + ": not a file name");

    struct stat existing {};
    mode_t mode = 0666 & ~CurrentUmask();
    if (::stat(path.c_str(), &existing) == 0) {
        if (S_ISDIR(existing.st_mode)) throw ZKCFileWriteError("cannot write " + path + ": it is a directory");
        mode = existing.st_mode & 07777;
    }

    // A hidden temporary name beside the target, unique per call.
    std::string temp = (dir == "/" ? "" : dir) + "/." + base + ".tmp-XXXXXX";
    std::vector<char> name(temp.begin(), temp.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) Fail(path, "cannot create a temporary file beside it", errno);
    temp.assign(name.data());

    auto abandon = [&](const char* what, int error) {
        ::close(fd);
        ::unlink(temp.c_str());
        Fail(path, what, error);
    };
    const char* p = content.data();
    std::size_t left = content.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, p, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            abandon("write failed", errno);
        }
        p += written;
        left -= static_cast<std::size_t>(written);
    }
    if (::fchmod(fd, mode) != 0) abandon("cannot set its permissions", errno);
    if (::fsync(fd) != 0) abandon("cannot flush it to disk", errno);
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        Fail(path, "cannot close it", error);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        Fail(path, "cannot rename the temporary file onto it", error);
    }
}

}  // namespace KELMA_NAMESPACE
