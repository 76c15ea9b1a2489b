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

// Writes all of `content` to `fd`, retrying after signals; the errno of the
// failed write, or 0.
int WriteAll(int fd, const std::string& content) {
    const char* p = content.data();
    std::size_t left = content.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, p, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += written;
        left -= static_cast<std::size_t>(written);
    }
    return 0;
}

// A device, pipe or socket: nothing to rename over, so the content goes
// straight in.
void WriteIntoSpecialFile(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) Fail(path, "cannot open it", errno);
    const int error = WriteAll(fd, content);
    if (error != 0) {
        ::close(fd);
        Fail(path, "write failed", error);
    }
    if (::close(fd) != 0) Fail(path, "cannot close it", errno);
}

}  // namespace

void WriteFileAtomically(const std::string& given, const std::string& content) {
    if (given.empty()) throw ZKCFileWriteError("cannot write a file without a name");

    // Follow a symbolic link to the file it names; a dangling link is
    // replaced by the new file.
    std::string path = given;
    struct stat entry {};
    struct stat existing {};
    const bool exists = ::stat(given.c_str(), &existing) == 0;
    if (exists && ::lstat(given.c_str(), &entry) == 0 && S_ISLNK(entry.st_mode)) {
        if (char* resolved = ::realpath(given.c_str(), nullptr)) {
            path = resolved;
            std::free(resolved);
        }
    }
    mode_t mode = 0666 & ~CurrentUmask();
    if (exists) {
        if (S_ISDIR(existing.st_mode)) throw ZKCFileWriteError("cannot write " + given + ": it is a directory");
        if (!S_ISREG(existing.st_mode)) return WriteIntoSpecialFile(given, content);
        mode = existing.st_mode & 07777;
    }

    const std::size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") throw ZKCFileWriteError("cannot write " + given + ": not a file name");

    // A hidden temporary name beside the target, unique per call.
    std::string temp = (dir == "/" ? "" : dir) + "/." + base + ".tmp-XXXXXX";
    std::vector<char> name(temp.begin(), temp.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) Fail(given, "cannot create a temporary file beside it", errno);
    temp.assign(name.data());

    auto abandon = [&](const char* what, int error) {
        ::close(fd);
        ::unlink(temp.c_str());
        Fail(given, what, error);
    };
    if (const int error = WriteAll(fd, content)) abandon("write failed", error);
    if (::fchmod(fd, mode) != 0) abandon("cannot set its permissions", errno);
    if (::fsync(fd) != 0) abandon("cannot flush it to disk", errno);
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        Fail(given, "cannot close it", error);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        Fail(given, "cannot rename the temporary file onto it", error);
    }
}

}  // namespace KELMA_NAMESPACE
