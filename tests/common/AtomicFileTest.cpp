// WriteFileAtomically: whole files or none, exactly the name given, and the
// targets that cannot be renamed over (devices, links, directories).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kelma/common/AtomicFile.h"
#include "tests/support/ScratchFiles.h"

using namespace kelma;
using kelma_test::DirEntries;
using kelma_test::ScratchDir;

namespace {

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string FailureText(const std::string& path, const std::string& content) {
    try {
        WriteFileAtomically(path, content);
    } catch (const ZKCFileWriteError& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(AtomicFile, WritesExactlyTheNameGivenAndKeepsPermissions) {
    const std::string dir = ScratchDir("atomic-name");
    WriteFileAtomically(dir + "/model", "first");
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"model"});  // no extension added
    EXPECT_EQ(Read(dir + "/model"), "first");

    ::chmod((dir + "/model").c_str(), 0640);
    WriteFileAtomically(dir + "/model", std::string(100000, 'x'));
    struct stat st {};
    ASSERT_EQ(::stat((dir + "/model").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(Read(dir + "/model"), std::string(100000, 'x'));
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"model"});
}

TEST(AtomicFile, FailuresNameTheFileAndLeaveTheTargetAsItWas) {
    const std::string dir = ScratchDir("atomic-fail");
    WriteFileAtomically(dir + "/kept", "earlier");

    EXPECT_NE(FailureText(dir, "x").find("it is a directory"), std::string::npos);
    EXPECT_NE(FailureText(dir + "/missing/f", "x").find(dir + "/missing/f"), std::string::npos);
    EXPECT_NE(FailureText("", "x").find("without a name"), std::string::npos);

    // A disk that fills up part way (a file-size limit, in a child so that
    // the limit and its SIGXFSZ stay there): the earlier file is intact and
    // no temporary file is left.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const std::string text = FailureText(dir + "/kept", std::string(100000, 'y'));
        std::_Exit(text.find("cannot write " + dir + "/kept: write failed") == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(Read(dir + "/kept"), "earlier");
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"kept"});
}

TEST(AtomicFile, DevicesAreWrittenIntoAndLinksFollowed) {
    // Devices and pipes of the test's own, so that a regression replaces
    // nothing of the machine's: a full device (the same device as /dev/full
    // where the test may make device nodes) reports the full device, a pipe
    // passes the content to its reader; both stay what they were.
    const std::string dir = ScratchDir("atomic-special");
    std::string full = "/dev/full";
    if (::geteuid() == 0) {
        full = dir + "/full";
        ASSERT_EQ(::mknod(full.c_str(), S_IFCHR | 0666, makedev(1, 7)), 0);
    }
    EXPECT_EQ(FailureText(full, "x"), "cannot write " + full + ": write failed (No space left on device)");
    struct stat st {};
    ASSERT_EQ(::stat(full.c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    const std::string fifo = dir + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    WriteFileAtomically(fifo, "through the pipe");
    char buffer[64] = {};
    EXPECT_EQ(::read(reader, buffer, sizeof buffer), 16);
    EXPECT_STREQ(buffer, "through the pipe");
    ::close(reader);
    ASSERT_EQ(::stat(fifo.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));

    // A link to a file: the file is replaced, the link stays a link.
    WriteFileAtomically(dir + "/real", "old");
    ASSERT_EQ(::symlink("real", (dir + "/link").c_str()), 0);
    WriteFileAtomically(dir + "/link", "new");
    EXPECT_EQ(Read(dir + "/real"), "new");
    struct stat link {};
    ASSERT_EQ(::lstat((dir + "/link").c_str(), &link), 0);
    EXPECT_TRUE(S_ISLNK(link.st_mode));
    std::vector<std::string> expected{"fifo", "link", "real"};
    if (full != "/dev/full") expected.insert(expected.begin() + 1, "full");
    EXPECT_EQ(DirEntries(dir), expected);
}
