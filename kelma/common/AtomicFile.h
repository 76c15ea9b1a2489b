// Writing a whole file so that readers see either the old file or the new one,
// never a part: the content goes to a temporary file beside the target (same
// directory, so the same file system), is flushed to disk, and the temporary
// file is then renamed over the target.
#pragma once

#include <stdexcept>
#include <string>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Thrown when a file cannot be written; what() names the file and the reason.
class KELMA_API ZKCFileWriteError : public std::runtime_error {
public:
    explicit ZKCFileWriteError(const std::string& message);
    ~ZKCFileWriteError() override;
};

// Writes `content` to exactly `path` (no extension is added). A new file gets
// the permissions 0666 less the process umask; an existing file keeps its
// permissions. On failure the target is left as it was, the temporary file is
// removed and ZKCFileWriteError is thrown.
//
// A symbolic link at `path` is followed: the file it names is replaced (its
// temporary file beside that one), the link stays. A target that is not a
// regular file (a device such as /dev/null or /dev/full, a pipe, a terminal)
// cannot be replaced and is written straight into; its write errors (a full
// device) are reported all the same. A directory is refused.
KELMA_API void WriteFileAtomically(const std::string& path, const std::string& content);

}  // namespace KELMA_NAMESPACE
