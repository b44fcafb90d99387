/* SPDX-License-Identifier: Apache-2.0 */
/*
 * XPLog: leveled logging, fatal stops and mutexes for Sorvel's platform layer.
 *
 * Levels run from 0 (nothing) to 5 (everything); the library itself uses 2
 * (only just before a fatal abort), 3 (a failed call) and 4 (notices).  A
 * message is emitted when its level is at most the module's threshold.
 *
 * Each source module owns one zero-initialised XPLogModule record.  The
 * threshold cached in it is 0 until XPLogDetermineLogLevel fills it in;
 * callers test the cached value themselves and only ask the library while it
 * is 0.  The process-wide threshold is 3 unless the environment variable
 * XPLOG_LEVEL (0 to 5, read once, at the first determination; any other
 * text is ignored) or XPLogSetThreshold says otherwise.
 *
 * The library links every record it sees into a list that lives as long as
 * the process, so a record must have static storage duration.
 *
 * All calls are thread-safe.
 */
#ifndef XPLOG_XPLOG_H
#define XPLOG_XPLOG_H

#include <pthread.h>
#include <stdint.h>

#if defined(__cplusplus)
#define XP_EXTERN_C_BEGIN extern "C" {
#define XP_EXTERN_C_END }
#define XP_NOEXCEPT noexcept
#else
#define XP_EXTERN_C_BEGIN
#define XP_EXTERN_C_END
#define XP_NOEXCEPT
#endif

#define XP_EXPORT extern __attribute__((visibility("default")))
/* Binary names carry the library's own prefix, as in CoreFoundation/CFBase.h. */
#define XP_ABI_NAME(name) __asm__("SorvelPlatform_" #name)

XP_EXTERN_C_BEGIN

/* Per-module record, zero at load.  `_link` belongs to the log library (it
 * chains every record it has seen so that XPLogSetThreshold can reset them);
 * `threshold` is the module's cached threshold, 0 while undetermined. */
typedef struct XPLogModule {
    void *_link;
    int32_t threshold;
} XPLogModule;

/* Decides and caches `module`'s threshold; returns 1 when a message of
 * `level` is to be emitted, 0 otherwise.  `module` may be NULL (nothing is
 * cached).  Many threads may determine one record at the same moment. */
XP_EXPORT int XPLogDetermineLogLevel(int level, XPLogModule *module, const char *sourcePath, const char *functionName,
                                     int line) XP_NOEXCEPT XP_ABI_NAME(XPLogDetermineLogLevel);

/* Emits one printf-style message as "LEVEL function [sourcePath:line] message"
 * on standard error (one write, so lines from several threads do not mix),
 * or hands it to the installed sink.  The message is never truncated.  NULL
 * function or source path read as "".  The caller has already applied the
 * level gate. */
XP_EXPORT void XPLogS(int level, XPLogModule *module, const char *functionName, const char *sourcePath, int line,
                      const char *format, ...) XP_NOEXCEPT XP_ABI_NAME(XPLogS) __attribute__((format(printf, 6, 7)));

/* Emits `message` unconditionally, to standard error and to any sink.  Used
 * only just before a fatal abort. */
XP_EXPORT void XPLogX(int level, const char *functionName, const char *sourcePath, int line,
                      const char *message) XP_NOEXCEPT XP_ABI_NAME(XPLogX);

/* Prints a symbolised backtrace of the calling thread to standard error and
 * aborts the process.  Never returns. */
XP_EXPORT void XPAbortWithBacktrace(void) XP_NOEXCEPT XP_ABI_NAME(XPAbortWithBacktrace) __attribute__((noreturn));

/* Size of the buffer that _XPFormatOSStatus writes to, terminator included. */
#define XP_OSSTATUS_STRING_SIZE 16

/* Renders `status` into `buffer` (at least XP_OSSTATUS_STRING_SIZE bytes):
 * as its four characters in quotes ('wat?') when all four bytes are
 * printable ASCII, as its decimal number otherwise.  Returns `buffer`. */
XP_EXPORT const char *_XPFormatOSStatus(char *buffer, int32_t status) XP_NOEXCEPT XP_ABI_NAME(_XPFormatOSStatus);

/* Sets the process-wide threshold (clamped to 0...5) and resets the
 * threshold cached in every module record seen so far to 0 (undetermined),
 * so the next message of each module asks again and the change takes effect
 * at once.  Overrides XPLOG_LEVEL. */
XP_EXPORT void XPLogSetThreshold(int threshold) XP_NOEXCEPT XP_ABI_NAME(XPLogSetThreshold);

/* The process-wide threshold now in force. */
XP_EXPORT int XPLogGetThreshold(void) XP_NOEXCEPT XP_ABI_NAME(XPLogGetThreshold);

typedef void (*XPLogSinkFunction)(int level, const char *function, const char *sourcePath, int line,
                                  const char *message, void *context);

/* Routes emitted lines to `sink` instead of standard error (NULL restores
 * standard error).  The sink may be called from any thread, one line at a
 * time; it must not log through XPLog itself (should it do so anyway, the
 * nested line goes to standard error).  Once this call returns, the previous
 * sink is not running and will not be called again. */
XP_EXPORT void XPLogSetSink(XPLogSinkFunction sink, void *context) XP_NOEXCEPT XP_ABI_NAME(XPLogSetSink);

/* Mutexes.  An XPMutex may live on the heap (XPMutexCreateNR / XPMutexFree,
 * not recursive) or inside an object that owns its storage
 * (XPMutexInitRecursive / XPMutexDestroy).  Acquire and release work on both.
 * A failing pthread call, or a NULL mutex, is a fatal stop.  XPMutexFree
 * accepts NULL. */
typedef struct XPMutex {
    pthread_mutex_t _mutex;
} XPMutex;
typedef XPMutex *XPMutexRef;

XP_EXPORT XPMutexRef XPMutexCreateNR(void) XP_NOEXCEPT XP_ABI_NAME(XPMutexCreateNR);
XP_EXPORT void XPMutexFree(XPMutexRef mutex) XP_NOEXCEPT XP_ABI_NAME(XPMutexFree);
XP_EXPORT void XPMutexInitRecursive(XPMutex *storage) XP_NOEXCEPT XP_ABI_NAME(XPMutexInitRecursive);
XP_EXPORT void XPMutexDestroy(XPMutex *storage) XP_NOEXCEPT XP_ABI_NAME(XPMutexDestroy);
XP_EXPORT void XPMutexAcquire(XPMutexRef mutex) XP_NOEXCEPT XP_ABI_NAME(XPMutexAcquire);
XP_EXPORT void XPMutexRelease(XPMutexRef mutex) XP_NOEXCEPT XP_ABI_NAME(XPMutexRelease);

XP_EXTERN_C_END

#endif /* XPLOG_XPLOG_H */
