/* SPDX-License-Identifier: Apache-2.0 */
// Captures XPLog lines for a test's lifetime: installs a sink, records every
// emitted line, and restores the previous threshold and standard error when
// it goes out of scope.
#ifndef SORVEL_TESTS_SUPPORT_LOGCAPTURE_H
#define SORVEL_TESTS_SUPPORT_LOGCAPTURE_H

#include <XPLog/XPLog.h>

#include <mutex>
#include <string>
#include <vector>

namespace sorvel_test {

struct LogLine {
    int level;
    std::string function;
    std::string path;
    int line;
    std::string message;
};

class LogCapture {
public:
    // `threshold` is the process threshold while capturing (3 is the
    // default, at which levels 2 and 3 are emitted).
    explicit LogCapture(int threshold = 3) : saved_(XPLogGetThreshold()) {
        XPLogSetThreshold(threshold);
        XPLogSetSink(sink, this);
    }
    ~LogCapture() {
        XPLogSetSink(nullptr, nullptr);
        XPLogSetThreshold(saved_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }
    size_t count() const {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_.size();
    }
    // True when some line's message contains `text`.
    bool contains(const std::string &text) const {
        std::lock_guard<std::mutex> guard(lock_);
        for (const LogLine &line : lines_)
            if (line.message.find(text) != std::string::npos) return true;
        return false;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.clear();
    }

private:
    static void sink(int level, const char *function, const char *path, int line, const char *message, void *context) {
        auto *self = static_cast<LogCapture *>(context);
        std::lock_guard<std::mutex> guard(self->lock_);
        self->lines_.push_back({level, function ? function : "", path ? path : "", line, message ? message : ""});
    }

    mutable std::mutex lock_;
    std::vector<LogLine> lines_;
    int saved_;
};

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_LOGCAPTURE_H
