// SPDX-License-Identifier: Apache-2.0
/*
 * XPLog: the process threshold and the module records that cache it, the
 * emitters (XPLogS, XPLogX) and the sink hook, the symbolised fatal stop,
 * status formatting and the mutex wrappers.
 *
 * Threshold model.  The process threshold starts "unset" and is settled the
 * first time anyone asks: from XPLOG_LEVEL if that holds 0...5, else 3.
 * XPLogSetThreshold overrides it at any time.  Every module record that
 * XPLogDetermineLogLevel sees is pushed once onto an intrusive, push-only
 * list threaded through the record's `_link` word, so XPLogSetThreshold can
 * walk the list and zero every cached threshold; callers then ask again on
 * their next message and pick up the new value.  Records are never unlinked,
 * which is why they must live for the whole process.
 */
#include <XPLog/XPLog.h>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr const char *kSourcePath = "Sorvel/platform/XPLog";

constexpr int kMinThreshold = 0;
constexpr int kMaxThreshold = 5;
constexpr int kDefaultThreshold = 3;
constexpr int kThresholdUnset = -1;

// Accessed only through __atomic builtins.
int gThreshold = kThresholdUnset;

// Head of the list of module records seen so far.  The list ends in a
// sentinel rather than NULL so that a NULL `_link` always means "not linked".
char gModuleListEnd;
void *const kModuleListEnd = &gModuleListEnd;
void *gModuleList = kModuleListEnd;

// The sink and its context change together under gSinkLock, and the sink is
// called with the lock held: lines reach it one at a time, and once
// XPLogSetSink returns the previous sink is neither running nor called again.
pthread_mutex_t gSinkLock = PTHREAD_MUTEX_INITIALIZER;
XPLogSinkFunction gSink = nullptr;
void *gSinkContext = nullptr;

// Set while this thread is inside the sink.  A fatal stop raised from within
// the sink must still reach standard error instead of deadlocking on
// gSinkLock, so nested emissions skip the sink.
thread_local bool tInsideSink = false;

int thresholdFromEnvironment() {
    const char *text = getenv("XPLOG_LEVEL");
    if (text == nullptr || text[0] == '\0') return kDefaultThreshold;
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < kMinThreshold || value > kMaxThreshold) return kDefaultThreshold;
    return static_cast<int>(value);
}

int processThreshold() {
    int threshold = __atomic_load_n(&gThreshold, __ATOMIC_SEQ_CST);
    if (threshold != kThresholdUnset) return threshold;
    int fromEnvironment = thresholdFromEnvironment();
    int expected = kThresholdUnset;
    // Losing the race means another thread settled it first (or
    // XPLogSetThreshold ran); its value wins.
    if (__atomic_compare_exchange_n(&gThreshold, &expected, fromEnvironment, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        return fromEnvironment;
    return expected;
}

// Pushes `module` onto the record list unless it is already there.  Claiming
// the record is the CAS of its `_link` from NULL, so of several threads
// determining one record at the same moment exactly one pushes it.
void linkModule(XPLogModule *module) {
    if (__atomic_load_n(&module->_link, __ATOMIC_SEQ_CST) != nullptr) return;
    void *head = __atomic_load_n(&gModuleList, __ATOMIC_SEQ_CST);
    void *unlinked = nullptr;
    if (!__atomic_compare_exchange_n(&module->_link, &unlinked, head, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        return;
    // The record is ours now; only this thread writes its `_link`.
    while (!__atomic_compare_exchange_n(&gModuleList, &head, module, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        __atomic_store_n(&module->_link, head, __ATOMIC_SEQ_CST);
}

const char *orEmpty(const char *text) {
    return text != nullptr ? text : "";
}

// Writes the whole iovec array, resuming after short writes and EINTR.  One
// writev normally carries the line, so lines from several threads do not
// interleave.
void writeAll(int fd, iovec *vector, int count) {
    while (count > 0) {
        ssize_t written = writev(fd, vector, count);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        size_t remaining = static_cast<size_t>(written);
        while (count > 0 && remaining >= vector->iov_len) {
            remaining -= vector->iov_len;
            ++vector;
            --count;
        }
        if (count > 0) {
            vector->iov_base = static_cast<char *>(vector->iov_base) + remaining;
            vector->iov_len -= remaining;
        }
    }
}

void writeLineToStandardError(int level, const char *function, const char *sourcePath, int line, const char *message) {
    char levelText[16];
    int levelLength = snprintf(levelText, sizeof levelText, "%d ", level);
    char lineText[24];
    int lineLength = snprintf(lineText, sizeof lineText, ":%d] ", line);
    char open[] = " [";
    char newline[] = "\n";
    iovec vector[] = {
        {levelText, static_cast<size_t>(levelLength)},
        {const_cast<char *>(function), strlen(function)},
        {open, 2},
        {const_cast<char *>(sourcePath), strlen(sourcePath)},
        {lineText, static_cast<size_t>(lineLength)},
        {const_cast<char *>(message), strlen(message)},
        {newline, 1},
    };
    writeAll(STDERR_FILENO, vector, static_cast<int>(sizeof vector / sizeof vector[0]));
}

// Hands the line to the sink if one is installed and this thread is not
// already inside it.  Returns whether the sink took it.
bool deliverToSink(int level, const char *function, const char *sourcePath, int line, const char *message) {
    if (tInsideSink) return false;
    bool delivered = false;
    pthread_mutex_lock(&gSinkLock);
    if (gSink != nullptr) {
        tInsideSink = true;
        gSink(level, function, sourcePath, line, message, gSinkContext);
        tInsideSink = false;
        delivered = true;
    }
    pthread_mutex_unlock(&gSinkLock);
    return delivered;
}

// ---- Backtraces ----

constexpr unsigned char kNativeClass = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;

struct LoadedObject {
    uintptr_t address;
    const char *path;
    uintptr_t bias;
    bool found;
};

int findLoadedObject(dl_phdr_info *info, size_t, void *data) {
    auto *object = static_cast<LoadedObject *>(data);
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD) continue;
        uintptr_t start = info->dlpi_addr + segment.p_vaddr;
        if (object->address >= start && object->address - start < segment.p_memsz) {
            object->path = info->dlpi_name;
            object->bias = info->dlpi_addr;
            object->found = true;
            return 1;
        }
    }
    return 0;
}

// Symbols are hidden by default, so most of our own frames (and every frame
// of an executable not linked with -rdynamic) are missing from the dynamic
// symbol table that dladdr reads.  The full symbol table is still in the
// file unless it was stripped, so look the address up there.  Copies the
// symbol name into `name` and returns the symbol's run-time address, or 0.
uintptr_t lookUpInSymbolTable(uintptr_t address, char *name, size_t nameSize) {
    LoadedObject object = {address, nullptr, 0, false};
    dl_iterate_phdr(findLoadedObject, &object);
    if (!object.found) return 0;
    // The main program reports an empty name.
    const char *path = (object.path == nullptr || object.path[0] == '\0') ? "/proc/self/exe" : object.path;

    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    struct stat status;
    if (fstat(fd, &status) != 0 || static_cast<size_t>(status.st_size) < sizeof(ElfW(Ehdr))) {
        close(fd);
        return 0;
    }
    size_t size = static_cast<size_t>(status.st_size);
    void *mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED) return 0;

    const auto *bytes = static_cast<const uint8_t *>(mapping);
    const auto *header = static_cast<const ElfW(Ehdr) *>(mapping);
    uintptr_t found = 0;
    uintptr_t offset = address - object.bias;
    bool valid = memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 && header->e_ident[EI_CLASS] == kNativeClass &&
                 header->e_shentsize == sizeof(ElfW(Shdr)) && header->e_shoff < size &&
                 (size - header->e_shoff) / sizeof(ElfW(Shdr)) >= header->e_shnum;
    const auto *sections = valid ? reinterpret_cast<const ElfW(Shdr) *>(bytes + header->e_shoff) : nullptr;
    for (ElfW(Half) s = 0; valid && s < header->e_shnum && found == 0; ++s) {
        const ElfW(Shdr) &table = sections[s];
        if (table.sh_type != SHT_SYMTAB || table.sh_link >= header->e_shnum || table.sh_offset > size ||
            size - table.sh_offset < table.sh_size)
            continue;
        const ElfW(Shdr) &strings = sections[table.sh_link];
        if (strings.sh_offset > size || size - strings.sh_offset < strings.sh_size) continue;
        const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(bytes + table.sh_offset);
        size_t symbolCount = table.sh_size / sizeof(ElfW(Sym));
        for (size_t i = 0; i < symbolCount; ++i) {
            const ElfW(Sym) &symbol = symbols[i];
            int type = ELF64_ST_TYPE(symbol.st_info);
            if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_shndx == SHN_UNDEF) continue;
            if (offset < symbol.st_value || offset - symbol.st_value >= symbol.st_size) continue;
            if (symbol.st_name >= strings.sh_size) break;
            const char *text = reinterpret_cast<const char *>(bytes + strings.sh_offset + symbol.st_name);
            size_t length = strnlen(text, strings.sh_size - symbol.st_name);
            if (length >= nameSize) length = nameSize - 1;
            memcpy(name, text, length);
            name[length] = '\0';
            found = object.bias + symbol.st_value;
            break;
        }
    }
    munmap(mapping, size);
    return found;
}

void printFrame(int index, void *frame) {
    uintptr_t address = reinterpret_cast<uintptr_t>(frame);
    // Every frame but the innermost holds a return address, which for a call
    // to a noreturn function may already lie in the next function; look up
    // the call instruction instead.
    uintptr_t lookup = index > 0 ? address - 1 : address;

    Dl_info info = {};
    const char *module = "?";
    const char *symbol = nullptr;
    uintptr_t symbolAddress = 0;
    if (dladdr(reinterpret_cast<void *>(lookup), &info) != 0) {
        if (info.dli_fname != nullptr && info.dli_fname[0] != '\0') module = info.dli_fname;
        if (info.dli_sname != nullptr) {
            symbol = info.dli_sname;
            symbolAddress = reinterpret_cast<uintptr_t>(info.dli_saddr);
        }
    }
    char tableName[512];
    if (symbol == nullptr) {
        symbolAddress = lookUpInSymbolTable(lookup, tableName, sizeof tableName);
        if (symbolAddress != 0) symbol = tableName;
    }

    char text[1024];
    int length;
    if (symbol != nullptr) {
        int status = 0;
        char *demangled = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
        length = snprintf(text, sizeof text, "  #%-3d 0x%016zx %s: %s + %zu\n", index, static_cast<size_t>(address),
                          module, status == 0 && demangled != nullptr ? demangled : symbol,
                          static_cast<size_t>(address - symbolAddress));
        free(demangled);
    } else {
        length = snprintf(text, sizeof text, "  #%-3d 0x%016zx %s\n", index, static_cast<size_t>(address), module);
    }
    if (length < 0) return;
    if (static_cast<size_t>(length) >= sizeof text) {
        length = sizeof text - 1;
        text[length - 1] = '\n';
    }
    iovec vector = {text, static_cast<size_t>(length)};
    writeAll(STDERR_FILENO, &vector, 1);
}

[[noreturn]] void fatalNullMutex(const char *function, int line) {
    XPLogX(2, function, kSourcePath, line, "BUG: called with a NULL mutex");
    XPAbortWithBacktrace();
}

[[noreturn]] void fatalPthreadError(const char *function, int line, const char *call, int error) {
    char reason[128];
    const char *description = strerror_r(error, reason, sizeof reason);
    char message[256];
    snprintf(message, sizeof message, "BUG: %s failed with error %d (%s)", call, error, description);
    XPLogX(2, function, kSourcePath, line, message);
    XPAbortWithBacktrace();
}

}  // namespace

// ---- Thresholds ----

extern "C" int XPLogDetermineLogLevel(int level, XPLogModule *module, const char *sourcePath, const char *functionName,
                                      int line) noexcept {
    int threshold = processThreshold();
    if (module != nullptr) {
        // Link before caching: XPLogSetThreshold stores the new process
        // threshold before walking the list, so either its walk sees this
        // record and resets it after our store, or the re-read below sees
        // the new value and we cache that instead.
        linkModule(module);
        for (;;) {
            __atomic_store_n(&module->threshold, threshold, __ATOMIC_SEQ_CST);
            int current = __atomic_load_n(&gThreshold, __ATOMIC_SEQ_CST);
            if (current == threshold) break;
            threshold = current;
        }
    }
    return level <= threshold ? 1 : 0;
}

extern "C" void XPLogSetThreshold(int threshold) noexcept {
    if (threshold < kMinThreshold) threshold = kMinThreshold;
    if (threshold > kMaxThreshold) threshold = kMaxThreshold;
    __atomic_store_n(&gThreshold, threshold, __ATOMIC_SEQ_CST);
    void *record = __atomic_load_n(&gModuleList, __ATOMIC_SEQ_CST);
    while (record != kModuleListEnd) {
        auto *module = static_cast<XPLogModule *>(record);
        __atomic_store_n(&module->threshold, 0, __ATOMIC_SEQ_CST);
        record = __atomic_load_n(&module->_link, __ATOMIC_SEQ_CST);
    }
}

extern "C" int XPLogGetThreshold(void) noexcept {
    return processThreshold();
}

// ---- Emitters ----

extern "C" void XPLogSetSink(XPLogSinkFunction sink, void *context) noexcept {
    pthread_mutex_lock(&gSinkLock);
    gSink = sink;
    gSinkContext = sink != nullptr ? context : nullptr;
    pthread_mutex_unlock(&gSinkLock);
}

extern "C" void XPLogS(int level, XPLogModule *module, const char *functionName, const char *sourcePath, int line,
                       const char *format, ...) noexcept {
    (void)module;
    functionName = orEmpty(functionName);
    sourcePath = orEmpty(sourcePath);

    char stackBuffer[1024];
    char *heapBuffer = nullptr;
    const char *message = stackBuffer;
    if (format == nullptr) {
        message = "";
    } else {
        va_list arguments;
        va_start(arguments, format);
        va_list again;
        va_copy(again, arguments);
        int length = vsnprintf(stackBuffer, sizeof stackBuffer, format, arguments);
        va_end(arguments);
        if (length < 0) {
            // An unrepresentable conversion; the raw format still says where
            // the line came from.
            message = format;
        } else if (static_cast<size_t>(length) >= sizeof stackBuffer) {
            heapBuffer = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
            // Out of memory: the truncated stack copy is the best left.
            if (heapBuffer != nullptr) {
                vsnprintf(heapBuffer, static_cast<size_t>(length) + 1, format, again);
                message = heapBuffer;
            }
        }
        va_end(again);
    }

    if (!deliverToSink(level, functionName, sourcePath, line, message))
        writeLineToStandardError(level, functionName, sourcePath, line, message);
    free(heapBuffer);
}

extern "C" void XPLogX(int level, const char *functionName, const char *sourcePath, int line,
                       const char *message) noexcept {
    functionName = orEmpty(functionName);
    sourcePath = orEmpty(sourcePath);
    message = orEmpty(message);
    // Standard error first: the sink might be what is about to fail.
    writeLineToStandardError(level, functionName, sourcePath, line, message);
    deliverToSink(level, functionName, sourcePath, line, message);
}

extern "C" void XPAbortWithBacktrace(void) noexcept {
    static const char heading[] = "Backtrace:\n";
    iovec vector = {const_cast<char *>(heading), sizeof heading - 1};
    writeAll(STDERR_FILENO, &vector, 1);

    void *frames[128];
    int count = backtrace(frames, static_cast<int>(sizeof frames / sizeof frames[0]));
    for (int i = 0; i < count; ++i) printFrame(i, frames[i]);
    abort();
}

extern "C" const char *_XPFormatOSStatus(char *buffer, int32_t status) noexcept {
    uint32_t bits = static_cast<uint32_t>(status);
    char characters[4];
    bool printable = true;
    for (int i = 0; i < 4; ++i) {
        characters[i] = static_cast<char>((bits >> (24 - 8 * i)) & 0xff);
        unsigned char byte = static_cast<unsigned char>(characters[i]);
        printable = printable && byte >= 0x20 && byte <= 0x7e;
    }
    if (printable)
        snprintf(buffer, XP_OSSTATUS_STRING_SIZE, "'%c%c%c%c'", characters[0], characters[1], characters[2],
                 characters[3]);
    else
        snprintf(buffer, XP_OSSTATUS_STRING_SIZE, "%d", static_cast<int>(status));
    return buffer;
}

// ---- Mutexes ----

extern "C" XPMutexRef XPMutexCreateNR(void) noexcept {
    auto *mutex = static_cast<XPMutex *>(malloc(sizeof(XPMutex)));
    if (mutex == nullptr) fatalPthreadError("XPMutexCreateNR", __LINE__, "malloc", ENOMEM);
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) fatalPthreadError("XPMutexCreateNR", __LINE__, "pthread_mutexattr_init", error);
    error = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_NORMAL);
    if (error != 0) fatalPthreadError("XPMutexCreateNR", __LINE__, "pthread_mutexattr_settype", error);
    error = pthread_mutex_init(&mutex->_mutex, &attributes);
    if (error != 0) fatalPthreadError("XPMutexCreateNR", __LINE__, "pthread_mutex_init", error);
    pthread_mutexattr_destroy(&attributes);
    return mutex;
}

extern "C" void XPMutexFree(XPMutexRef mutex) noexcept {
    if (mutex == nullptr) return;
    int error = pthread_mutex_destroy(&mutex->_mutex);
    if (error != 0) fatalPthreadError("XPMutexFree", __LINE__, "pthread_mutex_destroy", error);
    free(mutex);
}

extern "C" void XPMutexInitRecursive(XPMutex *storage) noexcept {
    if (storage == nullptr) fatalNullMutex("XPMutexInitRecursive", __LINE__);
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) fatalPthreadError("XPMutexInitRecursive", __LINE__, "pthread_mutexattr_init", error);
    error = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (error != 0) fatalPthreadError("XPMutexInitRecursive", __LINE__, "pthread_mutexattr_settype", error);
    error = pthread_mutex_init(&storage->_mutex, &attributes);
    if (error != 0) fatalPthreadError("XPMutexInitRecursive", __LINE__, "pthread_mutex_init", error);
    pthread_mutexattr_destroy(&attributes);
}

extern "C" void XPMutexDestroy(XPMutex *storage) noexcept {
    if (storage == nullptr) fatalNullMutex("XPMutexDestroy", __LINE__);
    int error = pthread_mutex_destroy(&storage->_mutex);
    if (error != 0) fatalPthreadError("XPMutexDestroy", __LINE__, "pthread_mutex_destroy", error);
}

extern "C" void XPMutexAcquire(XPMutexRef mutex) noexcept {
    if (mutex == nullptr) fatalNullMutex("XPMutexAcquire", __LINE__);
    int error = pthread_mutex_lock(&mutex->_mutex);
    if (error != 0) fatalPthreadError("XPMutexAcquire", __LINE__, "pthread_mutex_lock", error);
}

extern "C" void XPMutexRelease(XPMutexRef mutex) noexcept {
    if (mutex == nullptr) fatalNullMutex("XPMutexRelease", __LINE__);
    int error = pthread_mutex_unlock(&mutex->_mutex);
    if (error != 0) fatalPthreadError("XPMutexRelease", __LINE__, "pthread_mutex_unlock", error);
}
