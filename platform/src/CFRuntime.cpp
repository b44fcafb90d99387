// SPDX-License-Identifier: Apache-2.0
// The object runtime: class registration, instance creation and
// destruction, reference counting, the polymorphic calls (CFEqual, CFHash,
// CFCopyDescription...), allocators and the null singleton.
//
// Instances are laid out as
//
//     [allocator prefix, 16 bytes, only when not made with the system default]
//     CFRuntimeBase { _cfisa, _cfinfo, _rc }
//     the type's own fields
//
// _cfisa is 0 for every instance the runtime makes; the compiler's constant
// strings put the address of __CFConstantStringClassReference there, so a
// non-zero _cfisa is how they are told apart.  _rc is the retain count, updated atomically.  Static
// instances (booleans, the static allocators, kCFNull) carry the immortal bit
// in _cfinfo and are never counted.

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "CFInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFRuntime"

namespace {

XPLogModule gRuntimeLog;
#define LOG_ERROR(...) __CFLogError(&gRuntimeLog, CF_SOURCE_PATH, __func__, __LINE__, __VA_ARGS__)

}  // namespace

// ---------------------------------------------------------------------------
// Fatal stops, validation, hashing

void __CFFatal(const char *function, const char *sourcePath, int line, const char *format, ...) {
    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    XPLogX(2, function, sourcePath, line, message);
    XPAbortWithBacktrace();
}

void __CFValidateFailed(CFTypeRef cf, CFTypeID typeID, const char *function) {
    const CFRuntimeClass *expected = _CFRuntimeGetClassWithTypeID(typeID);
    const char *expectedName = expected ? expected->className : "object";
    if (cf == nullptr)
        __CFFatal(function, "CoreFoundation", __LINE__, "NULL passed where a %s is required", expectedName);
    const CFRuntimeClass *actual = _CFRuntimeGetClassWithTypeID(__CFTypeIDOf(cf));
    __CFFatal(function, "CoreFoundation", __LINE__, "object %p is a %s, not a %s", cf,
              actual ? actual->className : "(unknown type)", expectedName);
}

void __CFLogError(XPLogModule *module, const char *sourcePath, const char *function, int line, const char *format,
                  ...) {
    int threshold = __atomic_load_n(&module->threshold, __ATOMIC_RELAXED);
    if (threshold == 0 ? !XPLogDetermineLogLevel(3, module, sourcePath, function, line) : threshold < 3) return;
    char message[512];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    XPLogS(3, module, function, sourcePath, line, "%s", message);
}

void __CFCheckCapacity(CFIndex capacity, CFIndex count, const char *what, const char *function) {
    if (capacity < 0) __CFFatal(function, "CoreFoundation", __LINE__, "capacity (%ld) must not be negative", capacity);
    if (capacity > 0 && capacity < count)
        __CFFatal(function, "CoreFoundation", __LINE__, "capacity (%ld) is less than the count (%ld) of the %s to copy",
                  capacity, count, what);
}

CFHashCode __CFHashBytes(const uint8_t *bytes, size_t length) {
    // Eight bytes per step, each word mixed before it is folded in, so
    // similar inputs (keys that differ in one character) spread well.
    uint64_t h = 0x9E3779B97F4A7C15ULL ^ (static_cast<uint64_t>(length) * 0xC2B2AE3D27D4EB4FULL);
    while (length >= 8) {
        uint64_t word;
        std::memcpy(&word, bytes, 8);
        h = (h ^ __CFHashMix(word)) * 0x9E3779B97F4A7C15ULL;
        h ^= h >> 29;
        bytes += 8;
        length -= 8;
    }
    if (length > 0) {
        uint64_t word = 0;
        std::memcpy(&word, bytes, length);
        h = (h ^ __CFHashMix(word ^ (static_cast<uint64_t>(length) << 56))) * 0x9E3779B97F4A7C15ULL;
    }
    return __CFHashMix(h);
}

// ---------------------------------------------------------------------------
// Allocators

struct __CFAllocator {
    CFRuntimeBase base;
    // The allocator this one's storage came from (retained), or NULL when it
    // allocated itself through its own context (kCFAllocatorUseContext).
    CFAllocatorRef parent;
    CFAllocatorContext context;
};

namespace {

void *mallocAllocate(CFIndex size, CFOptionFlags, void *) {
    return std::malloc(static_cast<size_t>(size));
}
void *mallocReallocate(void *ptr, CFIndex size, CFOptionFlags, void *) {
    return std::realloc(ptr, static_cast<size_t>(size));
}
void mallocDeallocate(void *ptr, void *) {
    std::free(ptr);
}
void *nullAllocate(CFIndex, CFOptionFlags, void *) {
    return nullptr;
}
void *nullReallocate(void *, CFIndex, CFOptionFlags, void *) {
    return nullptr;
}

constexpr CFRuntimeBase staticBase(CFTypeID typeID) {
    return CFRuntimeBase{0, typeID | kCFInfoImmortal, 0};
}

constexpr CFAllocatorContext kMallocContext = {
    0, nullptr, nullptr, nullptr, nullptr, mallocAllocate, mallocReallocate, mallocDeallocate, nullptr};
constexpr CFAllocatorContext kNullContext = {0,       nullptr, nullptr, nullptr, nullptr, nullAllocate, nullReallocate,
                                             nullptr, nullptr};

__CFAllocator gSystemDefaultAllocator = {staticBase(kCFAllocatorTypeID), nullptr, kMallocContext};
__CFAllocator gMallocAllocator = {staticBase(kCFAllocatorTypeID), nullptr, kMallocContext};
__CFAllocator gNullAllocator = {staticBase(kCFAllocatorTypeID), nullptr, kNullContext};
// Only its address matters: CFAllocatorCreate recognises it.  It allocates
// nothing if used as an ordinary allocator.
__CFAllocator gUseContextAllocator = {staticBase(kCFAllocatorTypeID), nullptr, kNullContext};

// The calling thread's default, retained; NULL means the system default.
// The holder gives the reference back when the thread ends.
struct DefaultAllocatorHolder {
    CFAllocatorRef allocator = nullptr;
    ~DefaultAllocatorHolder() {
        if (allocator) CFRelease(allocator);
    }
};
thread_local DefaultAllocatorHolder tDefaultAllocator;

inline const __CFAllocator *asAllocator(CFAllocatorRef allocator) {
    return reinterpret_cast<const __CFAllocator *>(allocator);
}

}  // namespace

extern "C" {
CF_EXPORT const CFAllocatorRef kCFAllocatorDefault = nullptr;
CF_EXPORT const CFAllocatorRef kCFAllocatorSystemDefault = reinterpret_cast<CFAllocatorRef>(&gSystemDefaultAllocator);
CF_EXPORT const CFAllocatorRef kCFAllocatorMalloc = reinterpret_cast<CFAllocatorRef>(&gMallocAllocator);
CF_EXPORT const CFAllocatorRef kCFAllocatorMallocZone = reinterpret_cast<CFAllocatorRef>(&gMallocAllocator);
CF_EXPORT const CFAllocatorRef kCFAllocatorNull = reinterpret_cast<CFAllocatorRef>(&gNullAllocator);
CF_EXPORT const CFAllocatorRef kCFAllocatorUseContext = reinterpret_cast<CFAllocatorRef>(&gUseContextAllocator);
}

CFAllocatorRef __CFResolveAllocator(CFAllocatorRef allocator) {
    if (allocator) return allocator;
    CFAllocatorRef current = tDefaultAllocator.allocator;
    return current ? current : kCFAllocatorSystemDefault;
}

static CFStringRef allocatorCopyDescription(CFTypeRef cf) {
    const __CFAllocator *allocator = asAllocator(static_cast<CFAllocatorRef>(cf));
    const void *info = allocator->context.info;
    CFStringRef infoDescription = nullptr;
    if (allocator->context.copyDescription) infoDescription = allocator->context.copyDescription(info);
    CFStringRef result =
        infoDescription
            ? CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr, CFSTR("<CFAllocator %p [%p]>{info = %@}"),
                                       cf, CFGetAllocator(cf), infoDescription)
            : CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr, CFSTR("<CFAllocator %p [%p]>{info = %p}"),
                                       cf, CFGetAllocator(cf), info);
    if (infoDescription) CFRelease(infoDescription);
    return result;
}

static void allocatorFinalize(CFTypeRef cf) {
    // Allocators that allocated themselves are torn down in
    // allocatorDestroySelfAllocated instead, since their context must outlive
    // their own storage.
    auto *allocator = reinterpret_cast<__CFAllocator *>(const_cast<void *>(cf));
    if (allocator->context.release) allocator->context.release(allocator->context.info);
}

const CFRuntimeClass __CFAllocatorClass = {
    0, "CFAllocator", nullptr, nullptr, allocatorFinalize, nullptr, nullptr, nullptr, allocatorCopyDescription,
};

static void allocatorDestroySelfAllocated(__CFAllocator *allocator) {
    CFAllocatorContext context = allocator->context;
    if (context.deallocate) context.deallocate(allocator, context.info);
    if (context.release) context.release(context.info);
}

extern "C" {

CFTypeID CFAllocatorGetTypeID(void) noexcept {
    return kCFAllocatorTypeID;
}

void CFAllocatorSetDefault(CFAllocatorRef allocator) noexcept {
    if (allocator) CF_VALIDATE(allocator, kCFAllocatorTypeID);
    if (allocator == kCFAllocatorSystemDefault) allocator = nullptr;
    if (allocator) CFRetain(allocator);
    CFAllocatorRef previous = tDefaultAllocator.allocator;
    tDefaultAllocator.allocator = allocator;
    if (previous) CFRelease(previous);
}

CFAllocatorRef CFAllocatorGetDefault(void) noexcept {
    return __CFResolveAllocator(nullptr);
}

CFAllocatorRef CFAllocatorCreate(CFAllocatorRef allocator, CFAllocatorContext *context) noexcept {
    CF_REQUIRE(context, "context");
    __CFAllocator *result;
    if (allocator == kCFAllocatorUseContext) {
        if (!context->allocate) return nullptr;
        void *memory = context->allocate(sizeof(__CFAllocator), 0, context->info);
        if (!memory) return nullptr;
        std::memset(memory, 0, sizeof(__CFAllocator));
        result = static_cast<__CFAllocator *>(memory);
        result->base._cfinfo = kCFAllocatorTypeID;
        result->base._rc = 1;
        result->parent = nullptr;
    } else {
        CFIndex extra = sizeof(__CFAllocator) - sizeof(CFRuntimeBase);
        result = static_cast<__CFAllocator *>(
            const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFAllocatorTypeID, extra, nullptr)));
        if (!result) return nullptr;
        result->parent = __CFResolveAllocator(allocator);
    }
    result->context = *context;
    result->context.version = 0;
    if (context->retain) result->context.info = const_cast<void *>(context->retain(context->info));
    return reinterpret_cast<CFAllocatorRef>(result);
}

void *CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint) noexcept {
    allocator = __CFResolveAllocator(allocator);
    if (size <= 0) return nullptr;
    const __CFAllocator *a = asAllocator(allocator);
    if (a == &gSystemDefaultAllocator) return std::malloc(static_cast<size_t>(size));
    CF_VALIDATE(allocator, kCFAllocatorTypeID);
    return a->context.allocate ? a->context.allocate(size, hint, a->context.info) : nullptr;
}

void *CFAllocatorReallocate(CFAllocatorRef allocator, void *ptr, CFIndex newsize, CFOptionFlags hint) noexcept {
    allocator = __CFResolveAllocator(allocator);
    CF_VALIDATE(allocator, kCFAllocatorTypeID);
    const __CFAllocator *a = asAllocator(allocator);
    if (ptr == nullptr) return newsize > 0 ? CFAllocatorAllocate(allocator, newsize, hint) : nullptr;
    if (newsize <= 0) {
        if (a->context.deallocate) a->context.deallocate(ptr, a->context.info);
        return nullptr;
    }
    return a->context.reallocate ? a->context.reallocate(ptr, newsize, hint, a->context.info) : nullptr;
}

void CFAllocatorDeallocate(CFAllocatorRef allocator, void *ptr) noexcept {
    allocator = __CFResolveAllocator(allocator);
    if (ptr == nullptr) return;
    const __CFAllocator *a = asAllocator(allocator);
    if (a == &gSystemDefaultAllocator) return std::free(ptr);
    CF_VALIDATE(allocator, kCFAllocatorTypeID);
    if (a->context.deallocate) a->context.deallocate(ptr, a->context.info);
}

CFIndex CFAllocatorGetPreferredSizeForSize(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint) noexcept {
    allocator = __CFResolveAllocator(allocator);
    CF_VALIDATE(allocator, kCFAllocatorTypeID);
    const __CFAllocator *a = asAllocator(allocator);
    if (size <= 0 || !a->context.preferredSize) return size;
    CFIndex preferred = a->context.preferredSize(size, hint, a->context.info);
    return preferred < size ? size : preferred;
}

void CFAllocatorGetContext(CFAllocatorRef allocator, CFAllocatorContext *context) noexcept {
    allocator = __CFResolveAllocator(allocator);
    CF_VALIDATE(allocator, kCFAllocatorTypeID);
    CF_REQUIRE(context, "context");
    *context = asAllocator(allocator)->context;
}

}  // extern "C"

// ---------------------------------------------------------------------------
// The null singleton

struct __CFNull {
    CFRuntimeBase base;
};

static __CFNull gNull = {staticBase(kCFNullTypeID)};

static CFStringRef nullCopyDescription(CFTypeRef cf) {
    return CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr, CFSTR("<CFNull %p [%p]>"), cf,
                                    kCFAllocatorSystemDefault);
}
static CFStringRef nullCopyFormattingDescription(CFTypeRef, CFDictionaryRef) {
    return static_cast<CFStringRef>(CFRetain(CFSTR("<null>")));
}

const CFRuntimeClass __CFNullClass = {
    0, "CFNull", nullptr, nullptr, nullptr, nullptr, nullptr, nullCopyFormattingDescription, nullCopyDescription,
};

extern "C" {
CF_EXPORT const CFNullRef kCFNull = &gNull;
CFTypeID CFNullGetTypeID(void) noexcept {
    return kCFNullTypeID;
}
}

// ---------------------------------------------------------------------------
// Class table and instances

extern "C" {
// The compiler's constant strings point here; its contents are never read.
CF_EXPORT const int __CFConstantStringClassReference[24] = {0};
}

namespace {

// Filled at compile time for the built-in types; registration appends.
// Readers load with acquire so a class's record is complete once its
// identifier is visible.
std::atomic<const CFRuntimeClass *> gClassTable[kCFMaxTypeID] = {
    nullptr,
    nullptr,
    &__CFAllocatorClass,
    &__CFStringClass,
    &__CFNullClass,
    &__CFBooleanClass,
    &__CFNumberClass,
    &__CFDataClass,
    &__CFArrayClass,
    &__CFDictionaryClass,
    &__CFSetClass,
    &__CFNotificationCenterClass,
};
std::atomic<uint32_t> gNextTypeID{kCFFirstDynamicTypeID};

inline const CFRuntimeClass *classOf(CFTypeID typeID) {
    return typeID < kCFMaxTypeID ? gClassTable[typeID].load(std::memory_order_acquire) : nullptr;
}

inline CFRuntimeBase *baseOf(CFTypeRef cf) {
    return reinterpret_cast<CFRuntimeBase *>(const_cast<void *>(cf));
}

constexpr size_t kAllocatorPrefixSize = 16;
static_assert(sizeof(CFAllocatorRef) <= kAllocatorPrefixSize, "allocator prefix too small");
static_assert(sizeof(CFRuntimeBase) == 16, "the header must match the compiler's constant strings");

// The count reported for objects that are never freed.
constexpr CFIndex kImmortalRetainCount = LONG_MAX;

void deallocateInstance(CFTypeRef cf) {
    CFRuntimeBase *base = baseOf(cf);
    CFTypeID typeID = base->_cfinfo & kCFInfoTypeIDMask;
    if (typeID == kCFAllocatorTypeID && reinterpret_cast<__CFAllocator *>(base)->parent == nullptr) {
        allocatorDestroySelfAllocated(reinterpret_cast<__CFAllocator *>(base));
        return;
    }
    const CFRuntimeClass *cls = classOf(typeID);
    if (cls && cls->finalize) cls->finalize(cf);
    if (base->_cfinfo & kCFInfoHasAllocatorPrefix) {
        void *memory = reinterpret_cast<uint8_t *>(base) - kAllocatorPrefixSize;
        CFAllocatorRef allocator = *static_cast<CFAllocatorRef *>(memory);
        CFAllocatorDeallocate(allocator, memory);
        CFRelease(allocator);
    } else {
        std::free(base);
    }
}

}  // namespace

extern "C" {

CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls) noexcept {
    if (cls == nullptr || cls->className == nullptr) {
        LOG_ERROR("class record or its name is NULL");
        return _kCFRuntimeNotATypeID;
    }
    if (cls->init != nullptr || cls->copy != nullptr) {
        LOG_ERROR("class %s: init and copy callbacks are not supported", cls->className);
        return _kCFRuntimeNotATypeID;
    }
    uint32_t typeID = gNextTypeID.fetch_add(1, std::memory_order_relaxed);
    if (typeID >= kCFMaxTypeID) {
        gNextTypeID.store(kCFMaxTypeID, std::memory_order_relaxed);
        LOG_ERROR("class table is full; cannot register %s", cls->className);
        return _kCFRuntimeNotATypeID;
    }
    gClassTable[typeID].store(cls, std::memory_order_release);
    return typeID;
}

const CFRuntimeClass *_CFRuntimeGetClassWithTypeID(CFTypeID typeID) noexcept {
    return classOf(typeID);
}

namespace {

CFTypeRef createInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes, CFIndex clearedBytes) {
    if (classOf(typeID) == nullptr) {
        LOG_ERROR("type %u is not registered", static_cast<unsigned>(typeID));
        return nullptr;
    }
    if (extraBytes < 0 || static_cast<size_t>(extraBytes) > (SIZE_MAX >> 2)) return nullptr;
    if (clearedBytes < 0 || clearedBytes > extraBytes) return nullptr;
    allocator = __CFResolveAllocator(allocator);
    const bool usesPrefix = allocator != kCFAllocatorSystemDefault;
    const size_t prefix = usesPrefix ? kAllocatorPrefixSize : 0;
    const size_t size = prefix + sizeof(CFRuntimeBase) + static_cast<size_t>(extraBytes);
    void *memory = usesPrefix ? CFAllocatorAllocate(allocator, static_cast<CFIndex>(size), 0) : std::malloc(size);
    if (memory == nullptr) return nullptr;
    // Only the part the type reads before writing is cleared: for a large
    // uncleared tail the pages are never touched here.
    std::memset(memory, 0, prefix + sizeof(CFRuntimeBase) + static_cast<size_t>(clearedBytes));
    if (usesPrefix) *static_cast<CFAllocatorRef *>(memory) = static_cast<CFAllocatorRef>(CFRetain(allocator));
    auto *base = reinterpret_cast<CFRuntimeBase *>(static_cast<uint8_t *>(memory) + prefix);
    base->_cfinfo = typeID | (usesPrefix ? kCFInfoHasAllocatorPrefix : 0);
    base->_rc = 1;
    return base;
}

}  // namespace

CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                                   unsigned char *category) noexcept {
    (void)category;
    return createInstance(allocator, typeID, extraBytes, extraBytes);
}

CFTypeRef _CFRuntimeCreateInstanceWithUnclearedTail(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                                                    CFIndex clearedBytes) noexcept {
    return createInstance(allocator, typeID, extraBytes, clearedBytes);
}

void _CFRuntimeInitStaticInstance(void *memory, CFTypeID typeID) noexcept {
    CF_REQUIRE(memory, "memory");
    if (classOf(typeID) == nullptr) CF_FATAL("type %u is not registered", static_cast<unsigned>(typeID));
    auto *base = static_cast<CFRuntimeBase *>(memory);
    base->_cfisa = 0;
    base->_cfinfo = typeID | kCFInfoImmortal;
    base->_rc = 0;
}

CFTypeID CFGetTypeID(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    return __CFTypeIDOf(cf);
}

CFStringRef CFCopyTypeIDDescription(CFTypeID typeID) noexcept {
    const CFRuntimeClass *cls = classOf(typeID);
    return cls ? CFStringCreateWithCString(kCFAllocatorSystemDefault, cls->className, kCFStringEncodingUTF8) : nullptr;
}

CFTypeRef CFRetain(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    if (__CFIsImmortal(cf)) return cf;
    // Relaxed is enough: a new reference can only be made from an existing
    // one, which already keeps the object alive.
    uint32_t previous = __atomic_fetch_add(&baseOf(cf)->_rc, 1, __ATOMIC_RELAXED);
    if (__builtin_expect(previous == 0 || previous == UINT32_MAX, 0)) {
        CF_FATAL(previous == 0 ? "object %p was already freed" : "retain count of %p overflowed", cf);
    }
    return cf;
}

void CFRelease(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    if (__CFIsImmortal(cf)) return;
    // Release ordering publishes this thread's writes to the thread that
    // finalizes; the acquire on the last release makes them visible there.
    uint32_t previous = __atomic_fetch_sub(&baseOf(cf)->_rc, 1, __ATOMIC_ACQ_REL);
    if (__builtin_expect(previous == 1, 0)) {
        deallocateInstance(cf);
    } else if (__builtin_expect(previous == 0, 0)) {
        CF_FATAL("object %p was released more often than it was retained", cf);
    }
}

CFIndex CFGetRetainCount(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    if (__CFIsImmortal(cf)) return kImmortalRetainCount;
    return static_cast<CFIndex>(__atomic_load_n(&baseOf(cf)->_rc, __ATOMIC_RELAXED));
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) noexcept {
    if (cf1 == nullptr || cf2 == nullptr) CF_FATAL("called with NULL");
    if (cf1 == cf2) return true;
    CFTypeID typeID = __CFTypeIDOf(cf1);
    if (typeID != __CFTypeIDOf(cf2)) return false;
    const CFRuntimeClass *cls = classOf(typeID);
    return cls && cls->equal ? cls->equal(cf1, cf2) : false;
}

CFHashCode CFHash(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    const CFRuntimeClass *cls = classOf(__CFTypeIDOf(cf));
    return cls && cls->hash ? cls->hash(cf) : reinterpret_cast<CFHashCode>(cf);
}

CFStringRef CFCopyDescription(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    const CFRuntimeClass *cls = classOf(__CFTypeIDOf(cf));
    if (cls && cls->copyDebugDesc) {
        if (CFStringRef description = cls->copyDebugDesc(cf)) return description;
    }
    return CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr, CFSTR("<%s %p [%p]>"),
                                    cls ? cls->className : "CFType", cf, CFGetAllocator(cf));
}

CFAllocatorRef CFGetAllocator(CFTypeRef cf) noexcept {
    if (cf == nullptr) CF_FATAL("called with NULL");
    if (__CFIsImmortal(cf)) return kCFAllocatorSystemDefault;
    const CFRuntimeBase *base = baseOf(cf);
    if ((base->_cfinfo & kCFInfoTypeIDMask) == kCFAllocatorTypeID) {
        CFAllocatorRef parent = reinterpret_cast<const __CFAllocator *>(base)->parent;
        return parent ? parent : static_cast<CFAllocatorRef>(cf);
    }
    if (base->_cfinfo & kCFInfoHasAllocatorPrefix) {
        const uint8_t *prefix = reinterpret_cast<const uint8_t *>(base) - kAllocatorPrefixSize;
        return *reinterpret_cast<const CFAllocatorRef *>(prefix);
    }
    return kCFAllocatorSystemDefault;
}

void CFShow(CFTypeRef obj) noexcept {
    std::string text;
    if (obj == nullptr) {
        text = "(null)";
    } else if (__CFTypeIDOf(obj) == kCFStringTypeID) {
        __CFStringAppendUTF8(text, static_cast<CFStringRef>(obj));
    } else {
        CFStringRef description = CFCopyDescription(obj);
        __CFStringAppendUTF8(text, description);
        if (description) CFRelease(description);
    }
    text += '\n';
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

}  // extern "C"

CFStringRef __CFCopyValueDescription(const void *value, CFStringRef (*copyDescription)(const void *)) {
    if (copyDescription) {
        if (CFStringRef description = copyDescription(value)) return description;
    }
    return CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr, CFSTR("<%p>"), value);
}
