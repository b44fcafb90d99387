// SPDX-License-Identifier: Apache-2.0
#include "OutputFile.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

namespace sorvel::tool {
namespace {

// The temporary file a signal handler removes; one output at a time.
char gTemporary[PATH_MAX];
std::atomic<bool> gHaveTemporary{false};

void removeTemporaryAndDie(int signal) {
    if (gHaveTemporary.load()) unlink(gTemporary);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

void watchSignals(bool on) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        struct sigaction action = {};
        action.sa_handler = on ? removeTemporaryAndDie : SIG_DFL;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, nullptr);
    }
}

}  // namespace

OutputFile::~OutputFile() {
    discard();
}

void OutputFile::discard() {
    if (stream_ && stream_ != stdout) fclose(stream_);
    stream_ = nullptr;
    if (!temporary_.empty()) {
        gHaveTemporary = false;
        unlink(temporary_.c_str());
        watchSignals(false);
        temporary_.clear();
    }
}

bool OutputFile::open(const std::string &path, const std::string &input, bool overwrite, ToolError &error) {
    path_ = path;
    overwrite_ = overwrite;
    if (path == "-") {
        if (isatty(STDOUT_FILENO)) {
            error = {kExitUsage, "refusing to write a binary stream to a terminal; name an output file"};
            return false;
        }
        stream_ = stdout;
        return true;
    }
    struct stat out, in;
    if (stat(path.c_str(), &out) == 0) {
        // stat follows symbolic links; device and inode see through hard ones.
        if (!input.empty() && stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
            error = {kExitUsage, format("%s is the input file; name another output", path.c_str())};
            return false;
        }
        if (S_ISDIR(out.st_mode)) {
            error = {kExitFailure, format("%s: is a directory", path.c_str())};
            return false;
        }
        if (!overwrite) {
            error = {kExitFailure, format("%s exists; -y (--overwrite) replaces it", path.c_str())};
            return false;
        }
    } else if (lstat(path.c_str(), &out) == 0 && !overwrite) {
        error = {kExitFailure, format("%s exists (a dangling link); -y (--overwrite) replaces it", path.c_str())};
        return false;
    }
    // Beside the output, so that the rename stays on one file system.
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pattern = directory + "." + name + ".sorvel-XXXXXX";
    if (pattern.size() >= sizeof gTemporary) {
        error = {kExitFailure, format("%s: %s", path.c_str(), strerror(ENAMETOOLONG))};
        return false;
    }
    watchSignals(true);
    const int fd = mkstemp(pattern.data());
    if (fd < 0) {
        watchSignals(false);
        error = {kExitFailure, format("%s: %s", path.c_str(), strerror(errno))};
        return false;
    }
    temporary_ = pattern;
    memcpy(gTemporary, pattern.c_str(), pattern.size() + 1);
    gHaveTemporary = true;
    // mkstemp makes 0600; the output gets what a plain create would give.
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(fd, 0666 & ~mask) != 0 || !(stream_ = fdopen(fd, "wb"))) {
        const int why = errno;
        if (!stream_) close(fd);
        discard();
        error = {kExitFailure, format("%s: %s", path.c_str(), strerror(why))};
        return false;
    }
    constexpr size_t kBufferBytes = 1 << 20;
    buffer_.reset(new (std::nothrow) char[kBufferBytes]);
    if (buffer_) setvbuf(stream_, buffer_.get(), _IOFBF, kBufferBytes);
    return true;
}

void OutputFile::preallocate(off_t bytes) {
    if (isStandardOutput() || !stream_ || bytes <= 0 || fflush(stream_) != 0) return;
    // Mode 0 (the size grows to `bytes` now): the blocks are taken in one
    // go instead of one reservation per page as the writes arrive.
    preallocated_ = fallocate(fileno(stream_), 0, 0, bytes) == 0;
}

bool OutputFile::commit(ToolError &error) {
    if (isStandardOutput()) {
        if (fflush(stdout) != 0) {
            error = {kExitFailure, format("standard output: %s", strerror(errno))};
            return false;
        }
        return true;
    }
    FILE *stream = std::exchange(stream_, nullptr);
    // A preallocated file is cut back to the bytes written.
    if (stream && preallocated_) {
        const off_t end = fflush(stream) == 0 ? lseek(fileno(stream), 0, SEEK_CUR) : -1;
        if (end < 0 || ftruncate(fileno(stream), end) != 0) {
            error = {kExitFailure, format("%s: %s", path_.c_str(), strerror(errno))};
            fclose(stream);
            discard();
            return false;
        }
    }
    // Made durable before it replaces a file, so that a crash leaves the old
    // one or the whole new one; a new name has nothing to lose, and the sync
    // of a large output costs as much as the rest of a conversion.
    if (!stream || fflush(stream) != 0 || (overwrite_ && fsync(fileno(stream)) != 0) || fclose(stream) != 0) {
        error = {kExitFailure, format("%s: %s", path_.c_str(), strerror(errno))};
        discard();
        return false;
    }
    int status = 0;
    if (overwrite_) {
        status = rename(temporary_.c_str(), path_.c_str());
    } else {
        // Never replace a file that appeared while we were writing.
        status = renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
        if (status != 0 && (errno == EINVAL || errno == ENOSYS)) {
            status = link(temporary_.c_str(), path_.c_str());
            if (status == 0) unlink(temporary_.c_str());
        }
    }
    if (status != 0) {
        error = {kExitFailure, format("%s: %s", path_.c_str(), strerror(errno))};
        discard();
        return false;
    }
    gHaveTemporary = false;
    watchSignals(false);
    temporary_.clear();
    return true;
}

}  // namespace sorvel::tool
