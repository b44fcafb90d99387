// SPDX-License-Identifier: Apache-2.0
// Reads a child's standard output and standard error together, so that a
// chatty child never blocks on a full pipe while the other is read.
#ifndef SORVEL_TOOLS_SORVEL_TESTS_PIPEREADER_H
#define SORVEL_TOOLS_SORVEL_TESTS_PIPEREADER_H

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

namespace sorvel::test {

// Appends what comes on `outFd` and `errFd` to `out` and `err` until both
// close.  `giveUp`, asked about once a second, ends the reading early when
// it returns true.  The descriptors are left open.
inline void readBoth(int outFd, int errFd, std::string &out, std::string &err,
                     const std::function<bool()> &giveUp = nullptr) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string *sinks[2] = {&out, &err};
    int open = 2;
    while (open > 0) {
        if (giveUp && giveUp()) break;
        if (poll(fds, 2, 1000) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace sorvel::test

#endif  // SORVEL_TOOLS_SORVEL_TESTS_PIPEREADER_H
