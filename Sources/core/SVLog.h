/* SPDX-License-Identifier: Apache-2.0 */
// Logging and fatal stops for Sorvel's modules.
//
// Each module declares one static log-module record with its source path,
// "Sorvel/Sources/SVTimebase" form:
//
//     SV_LOG_MODULE("Sorvel/Sources/SVTimebase");
//
// and logs a failed call with
//
//     SV_LOG(3, "SVTimebaseSetRate", __LINE__, "rate %g is not allowed", rate);
//     SV_LOG_STATUS(3, "SVSampleBufferCreate", __LINE__, status, "failed: %s", ...);
//
// Every site runs the same gate: read the module's cached threshold; while
// it is 0 ask XPLogDetermineLogLevel (which caches it), otherwise emit only
// when the threshold is at least the message's level.  Formatting, and the
// rendering of an OSStatus (passed as the format's first %s), happen only
// for messages that are emitted.  Logging never changes a result.
//
// Fatal stops: SV_BUG and SV_NOT_YET_IMPLEMENTED write their message with
// XPLogX at level 2 and abort with a backtrace; SV_FATAL logs a message of
// its own through the gate at level 2 and then aborts.
#ifndef SORVEL_SOURCES_SVLOG_H
#define SORVEL_SOURCES_SVLOG_H

#include <XPLog/XPLog.h>

namespace sorvel {

struct SVLogModule {
    XPLogModule record;
    const char *sourcePath;
};

inline bool SVLogEnabled(SVLogModule &module, const char *sourcePath, int level, const char *function,
                         int line) noexcept {
    int32_t threshold = __atomic_load_n(&module.record.threshold, __ATOMIC_RELAXED);
    if (threshold == 0) return XPLogDetermineLogLevel(level, &module.record, sourcePath, function, line) == 1;
    return threshold >= level;
}

[[noreturn]] inline void SVFatalStop(const char *function, const char *sourcePath, int line,
                                     const char *message) noexcept {
    XPLogX(2, function, sourcePath, line, message);
    XPAbortWithBacktrace();
}

}  // namespace sorvel

// Defines the current module's record.  One per source module, at namespace
// scope.
#define SV_LOG_MODULE(sourcePath) static ::sorvel::SVLogModule gSVLogModule = {{nullptr, 0}, sourcePath}

// The same, with an explicit source path for sites that must report a
// different one than their module's.
#define SV_LOG_AT(path, level, function, line, ...)                                         \
    do {                                                                                    \
        if (::sorvel::SVLogEnabled(gSVLogModule, (path), (level), (function), (line)))      \
            XPLogS((level), &gSVLogModule.record, (function), (path), (line), __VA_ARGS__); \
    } while (0)

#define SV_LOG(level, function, line, ...) SV_LOG_AT(gSVLogModule.sourcePath, level, function, line, __VA_ARGS__)

#define SV_LOG_STATUS_AT(path, level, function, line, status, format, ...)               \
    do {                                                                                 \
        if (::sorvel::SVLogEnabled(gSVLogModule, (path), (level), (function), (line))) { \
            char svStatusText_[XP_OSSTATUS_STRING_SIZE];                                 \
            _XPFormatOSStatus(svStatusText_, (status));                                  \
            XPLogS((level), &gSVLogModule.record, (function), (path), (line), format,    \
                   svStatusText_ __VA_OPT__(, ) __VA_ARGS__);                            \
        }                                                                                \
    } while (0)

#define SV_LOG_STATUS(level, function, line, status, format, ...) \
    SV_LOG_STATUS_AT(gSVLogModule.sourcePath, level, function, line, status, format __VA_OPT__(, ) __VA_ARGS__)

#define SV_BUG(function, line) ::sorvel::SVFatalStop((function), gSVLogModule.sourcePath, (line), "BUG")
#define SV_NOT_YET_IMPLEMENTED(function, line) \
    ::sorvel::SVFatalStop((function), gSVLogModule.sourcePath, (line), "NOT YET IMPLEMENTED")

// A fatal misuse with a message of its own: logged through the gate at
// level 2, then the process ends.
#define SV_FATAL(function, line, ...)           \
    do {                                        \
        SV_LOG(2, function, line, __VA_ARGS__); \
        XPAbortWithBacktrace();                 \
    } while (0)

// ---- where a line says it comes from ------------------------------------------
//
// A log line names a function and a source line.  One rule decides where
// each site takes them from:
//
// - A site inside the exported function whose name it logs lets the
//   compiler give both: SV_LOG_HERE, SV_LOG_STATUS_HERE, SV_FATAL_HERE,
//   SV_BUG_HERE, SV_NOT_YET_IMPLEMENTED_HERE (__func__ and __LINE__).
// - A helper that logs on behalf of its public caller is handed the
//   caller's identity, which the caller captures the same way: SV_HERE (its
//   name and line) or __func__ alone when the helper reports its own line
//   (SV_LOG_FOR, SV_LOG_STATUS_FOR).
// - Every identity the compiler cannot give (a name that is not the
//   enclosing C function's, such as an internal name or a site inside a
//   block, or a line number the behaviour fixes) is written once, in the
//   module's table of SVLogSite entries, and logged with the _SITE macros.
//   A table entry with line 0 reports the site's own line.

namespace sorvel {

struct SVLogSite {
    const char *function;
    int line;  // 0: the line of the site that logs
};

constexpr int SVLogSiteLine(const SVLogSite &site, int here) noexcept {
    return site.line != 0 ? site.line : here;
}

}  // namespace sorvel

#define SV_HERE (::sorvel::SVLogSite{__func__, __LINE__})

#define SV_LOG_HERE(level, ...) SV_LOG(level, __func__, __LINE__, __VA_ARGS__)
#define SV_LOG_HERE_AT(path, level, ...) SV_LOG_AT(path, level, __func__, __LINE__, __VA_ARGS__)
#define SV_LOG_STATUS_HERE(level, status, format, ...) \
    SV_LOG_STATUS(level, __func__, __LINE__, status, format __VA_OPT__(, ) __VA_ARGS__)
#define SV_FATAL_HERE(...) SV_FATAL(__func__, __LINE__, __VA_ARGS__)
#define SV_BUG_HERE() SV_BUG(__func__, __LINE__)
#define SV_NOT_YET_IMPLEMENTED_HERE() SV_NOT_YET_IMPLEMENTED(__func__, __LINE__)

#define SV_LOG_FOR(function, level, ...) SV_LOG(level, function, __LINE__, __VA_ARGS__)
#define SV_LOG_STATUS_FOR(function, level, status, format, ...) \
    SV_LOG_STATUS(level, function, __LINE__, status, format __VA_OPT__(, ) __VA_ARGS__)

#define SV_LOG_SITE(site, level, ...) \
    SV_LOG(level, (site).function, ::sorvel::SVLogSiteLine((site), __LINE__), __VA_ARGS__)
#define SV_LOG_SITE_AT(path, site, level, ...) \
    SV_LOG_AT(path, level, (site).function, ::sorvel::SVLogSiteLine((site), __LINE__), __VA_ARGS__)
#define SV_LOG_STATUS_SITE(site, level, status, format, ...)                                 \
    SV_LOG_STATUS(level, (site).function, ::sorvel::SVLogSiteLine((site), __LINE__), status, \
                  format __VA_OPT__(, ) __VA_ARGS__)
#define SV_LOG_STATUS_SITE_AT(path, site, level, status, format, ...)                                 \
    SV_LOG_STATUS_AT(path, level, (site).function, ::sorvel::SVLogSiteLine((site), __LINE__), status, \
                     format __VA_OPT__(, ) __VA_ARGS__)
#define SV_FATAL_SITE(site, ...) SV_FATAL((site).function, ::sorvel::SVLogSiteLine((site), __LINE__), __VA_ARGS__)
#define SV_BUG_SITE(site) SV_BUG((site).function, ::sorvel::SVLogSiteLine((site), __LINE__))
#define SV_NOT_YET_IMPLEMENTED_SITE(site) \
    SV_NOT_YET_IMPLEMENTED((site).function, ::sorvel::SVLogSiteLine((site), __LINE__))

#endif  // SORVEL_SOURCES_SVLOG_H
