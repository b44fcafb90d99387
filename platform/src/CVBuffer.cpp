// SPDX-License-Identifier: Apache-2.0
// Buffer attachments: two dictionaries per buffer (propagating and not),
// kept in the CVAttachmentStorage that every attachment-bearing object lays
// out right after its runtime header.
//
// The storage guards itself with a spinlock in its `_lock` word (0 =
// unlocked, so zero-filled storage needs no set-up).  The lock is held only
// for dictionary reads and writes, never while an object may be finalized:
// values that a change displaces are retained under the lock and released
// after it is dropped, because their finalizers may run arbitrary code,
// including attachment calls on this very buffer.
//
// The dictionaries come from the system allocator rather than the buffer's:
// attachments are set long after creation, and a buffer made with a
// special-purpose allocator should not have them depend on it.

#include <new>
#include <thread>
#include <vector>

#include "CVInternal.h"

#define CF_SOURCE_PATH "CoreVideo/CVBuffer"

const CFStringRef kCVBufferPropagatedAttachmentsKey = CFSTR("kCVBufferPropagatedAttachmentsKey");
const CFStringRef kCVBufferNonPropagatedAttachmentsKey = CFSTR("kCVBufferNonPropagatedAttachmentsKey");

namespace {

constexpr CVAttachmentMode kModeCount = 2;

CVAttachmentStorage *storageOf(CFTypeRef buffer) {
    auto *bytes = static_cast<char *>(const_cast<void *>(buffer));
    return reinterpret_cast<CVAttachmentStorage *>(bytes + sizeof(CFRuntimeBase));
}

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// Test-and-test-and-set: spin briefly (the critical sections are a few
// hash-table operations), then yield so a preempted holder can finish.
class StorageLock {
public:
    explicit StorageLock(CVAttachmentStorage *storage) : word_(&storage->_lock) {
        for (unsigned spins = 0;; ++spins) {
            if (__atomic_load_n(word_, __ATOMIC_RELAXED) == 0 && __atomic_exchange_n(word_, 1u, __ATOMIC_ACQUIRE) == 0)
                return;
            if (spins < 64)
                cpuRelax();
            else
                std::this_thread::yield();
        }
    }
    ~StorageLock() { __atomic_store_n(word_, 0u, __ATOMIC_RELEASE); }
    StorageLock(const StorageLock &) = delete;
    StorageLock &operator=(const StorageLock &) = delete;

private:
    uint32_t *word_;
};

// Raises the change count; lock held, after the change.
void noteChangeLocked(CVAttachmentStorage *storage) {
    __atomic_store_n(&storage->_changes, storage->_changes + 1, __ATOMIC_RELEASE);
}

// Objects to release once the lock is dropped.  Room is reserved before
// the lock is taken, so nothing is allocated while it is held.
class Graveyard {
public:
    bool reserve(size_t count) {
        try {
            objects_.reserve(count);
            return true;
        } catch (const std::bad_alloc &) {
            return false;
        }
    }
    void bury(CFTypeRef object) { objects_.push_back(object); }  // within the reserved room
    ~Graveyard() {
        for (CFTypeRef object : objects_) CFRelease(object);
    }

private:
    std::vector<CFTypeRef> objects_;
};

CFMutableDictionaryRef createDictionary() {
    return CFDictionaryCreateMutable(kCFAllocatorSystemDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                     &kCFTypeDictionaryValueCallBacks);
}

// Takes `key` out of `dictionary` (if there), handing its value to the
// graveyard.  Needs one slot of room.  Lock held.
void removeKeyLocked(CFMutableDictionaryRef dictionary, CFTypeRef key, Graveyard &graveyard) {
    if (dictionary == nullptr) return;
    const void *old = CFDictionaryGetValue(dictionary, key);
    if (old == nullptr) return;
    graveyard.bury(CFRetain(old));
    CFDictionaryRemoveValue(dictionary, key);
}

// Sets one entry in `mode`, taking the key out of the other mode.  Needs
// two slots of room.  Lock held; the dictionary of `mode` exists.
void setLocked(CVAttachmentStorage *storage, CFTypeRef key, CFTypeRef value, CVAttachmentMode mode,
               Graveyard &graveyard) {
    CFMutableDictionaryRef dictionary = storage->_dictionaries[mode];
    const void *old = CFDictionaryGetValue(dictionary, key);
    if (old != nullptr) graveyard.bury(CFRetain(old));
    CFDictionarySetValue(dictionary, key, value);
    removeKeyLocked(storage->_dictionaries[1 - mode], key, graveyard);
}

// Sets `count` entries with one mode.  The dictionary of the mode is made
// before the lock is taken, so the lock never covers an allocation of it.
void setEntries(CFTypeRef buffer, const void *const *keys, const void *const *values, size_t count,
                CVAttachmentMode mode) {
    Graveyard graveyard;
    if (count == 0 || !graveyard.reserve(2 * count)) return;
    CVAttachmentStorage *storage = storageOf(buffer);
    CFMutableDictionaryRef fresh = nullptr;
    for (;;) {
        if (fresh == nullptr && __atomic_load_n(&storage->_dictionaries[mode], __ATOMIC_ACQUIRE) == nullptr) {
            fresh = createDictionary();
            if (fresh == nullptr) return;
        }
        StorageLock lock(storage);
        if (storage->_dictionaries[mode] == nullptr) {
            if (fresh == nullptr) continue;  // emptied since we looked: make one and try again
            __atomic_store_n(&storage->_dictionaries[mode], fresh, __ATOMIC_RELEASE);
            fresh = nullptr;
        }
        for (size_t i = 0; i < count; ++i) {
            if (keys[i] == nullptr || values[i] == nullptr) continue;
            setLocked(storage, keys[i], values[i], mode, graveyard);
        }
        noteChangeLocked(storage);
        break;
    }
    if (fresh != nullptr) CFRelease(fresh);  // another thread made the dictionary first
}

// Retained copies of a dictionary's keys and values, released on scope exit.
struct Entries {
    std::vector<const void *> keys;
    std::vector<const void *> values;
    ~Entries() {
        for (const void *key : keys) CFRelease(key);
        for (const void *value : values) CFRelease(value);
    }
    bool take(CFDictionaryRef dictionary) {
        CFIndex count = CFDictionaryGetCount(dictionary);
        try {
            keys.resize(static_cast<size_t>(count));
            values.resize(static_cast<size_t>(count));
        } catch (const std::bad_alloc &) {
            keys.clear();
            values.clear();
            return false;
        }
        CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        for (CFIndex i = 0; i < count; ++i) {
            CFRetain(keys[i]);
            CFRetain(values[i]);
        }
        return true;
    }
};

bool validMode(CVAttachmentMode mode) {
    return mode < kModeCount;
}

// The value stored under `key` in the first mode that has one, and that
// mode; storage lock held.
CFTypeRef findAttachmentLocked(const CVAttachmentStorage *storage, CFStringRef key, CVAttachmentMode *attachmentMode) {
    for (CVAttachmentMode mode = 0; mode < kModeCount; ++mode) {
        CFMutableDictionaryRef dictionary = storage->_dictionaries[mode];
        const void *value = dictionary != nullptr ? CFDictionaryGetValue(dictionary, key) : nullptr;
        if (value != nullptr) {
            if (attachmentMode != nullptr) *attachmentMode = mode;
            return value;
        }
    }
    return nullptr;
}

}  // namespace

CVBufferRef CVBufferRetain(CVBufferRef buffer) noexcept {
    if (buffer != nullptr) CFRetain(buffer);
    return buffer;
}

void CVBufferRelease(CVBufferRef buffer) noexcept {
    if (buffer != nullptr) CFRelease(buffer);
}

void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value,
                           CVAttachmentMode attachmentMode) noexcept {
    if (buffer == nullptr || key == nullptr || value == nullptr || !validMode(attachmentMode)) return;
    const void *keys[1] = {key};
    const void *values[1] = {value};
    setEntries(buffer, keys, values, 1, attachmentMode);
}

CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode *attachmentMode) noexcept {
    if (buffer == nullptr || key == nullptr) return nullptr;
    CVAttachmentStorage *storage = storageOf(buffer);
    StorageLock lock(storage);
    return findAttachmentLocked(storage, key, attachmentMode);
}

void CVBufferRemoveAttachment(CVBufferRef buffer, CFStringRef key) noexcept {
    if (buffer == nullptr || key == nullptr) return;
    Graveyard graveyard;
    if (!graveyard.reserve(kModeCount)) return;
    CVAttachmentStorage *storage = storageOf(buffer);
    StorageLock lock(storage);
    for (CVAttachmentMode mode = 0; mode < kModeCount; ++mode)
        removeKeyLocked(storage->_dictionaries[mode], key, graveyard);
    noteChangeLocked(storage);
}

void CVBufferRemoveAllAttachments(CVBufferRef buffer) noexcept {
    if (buffer == nullptr) return;
    CVAttachmentStorage *storage = storageOf(buffer);
    CFMutableDictionaryRef doomed[kModeCount];
    {
        StorageLock lock(storage);
        for (CVAttachmentMode mode = 0; mode < kModeCount; ++mode) {
            doomed[mode] = storage->_dictionaries[mode];
            __atomic_store_n(&storage->_dictionaries[mode], nullptr, __ATOMIC_RELEASE);
        }
        noteChangeLocked(storage);
    }
    for (CFMutableDictionaryRef dictionary : doomed)
        if (dictionary != nullptr) CFRelease(dictionary);
}

CFDictionaryRef CVBufferGetAttachments(CVBufferRef buffer, CVAttachmentMode attachmentMode) noexcept {
    if (buffer == nullptr || !validMode(attachmentMode)) return nullptr;
    CVAttachmentStorage *storage = storageOf(buffer);
    StorageLock lock(storage);
    CFMutableDictionaryRef dictionary = storage->_dictionaries[attachmentMode];
    if (dictionary == nullptr || CFDictionaryGetCount(dictionary) == 0) return nullptr;
    return dictionary;
}

void CVBufferSetAttachments(CVBufferRef buffer, CFDictionaryRef theAttachments,
                            CVAttachmentMode attachmentMode) noexcept {
    if (buffer == nullptr || theAttachments == nullptr || !validMode(attachmentMode)) return;
    // The caller's dictionary is read outside the lock: it may be this
    // buffer's own (SetAttachments(b, GetAttachments(b, 0), 1)), and its
    // entries must survive their removal from the other mode.
    Entries entries;
    if (!entries.take(theAttachments)) return;
    setEntries(buffer, entries.keys.data(), entries.values.data(), entries.keys.size(), attachmentMode);
}

CFDictionaryRef _CVBufferCopyAttachments(CFAllocatorRef allocator, CVBufferRef buffer,
                                         CVAttachmentMode attachmentMode) noexcept {
    if (buffer == nullptr || !validMode(attachmentMode)) return nullptr;
    CVAttachmentStorage *storage = storageOf(buffer);
    StorageLock lock(storage);
    CFMutableDictionaryRef dictionary = storage->_dictionaries[attachmentMode];
    if (dictionary == nullptr || CFDictionaryGetCount(dictionary) == 0) return nullptr;
    // Copying retains the entries and may allocate, but releases nothing.
    return CFDictionaryCreateCopy(allocator, dictionary);
}

void CVBufferPropagateAttachments(CVBufferRef sourceBuffer, CVBufferRef destinationBuffer) noexcept {
    if (sourceBuffer == nullptr || destinationBuffer == nullptr || sourceBuffer == destinationBuffer) return;
    Entries entries;
    {
        CVAttachmentStorage *source = storageOf(sourceBuffer);
        StorageLock lock(source);
        CFMutableDictionaryRef dictionary = source->_dictionaries[kCVAttachmentMode_ShouldPropagate];
        if (dictionary == nullptr || CFDictionaryGetCount(dictionary) == 0) return;
        // Retains only; the entries are released after the lock is gone.
        if (!entries.take(dictionary)) return;
    }
    setEntries(destinationBuffer, entries.keys.data(), entries.values.data(), entries.keys.size(),
               kCVAttachmentMode_ShouldPropagate);
}

CFTypeRef CVBufferCopyAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode *attachmentMode) noexcept {
    if (buffer == nullptr || key == nullptr) return nullptr;
    CVAttachmentStorage *storage = storageOf(buffer);
    // The retain happens under the lock: a writer's release of the old
    // value, which comes after its own locked section, cannot come first.
    StorageLock lock(storage);
    CFTypeRef value = findAttachmentLocked(storage, key, attachmentMode);
    return value != nullptr ? CFRetain(value) : nullptr;
}

CFTypeRef __CVBufferCopyAttachment(CFTypeRef buffer, CFStringRef key) {
    return CVBufferCopyAttachment(static_cast<CVBufferRef>(const_cast<void *>(buffer)), key, nullptr);
}

void __CVBufferFinalize(CFTypeRef buffer) noexcept {
    if (buffer == nullptr) return;
    // The last reference is gone: nobody else can hold the lock.
    CVAttachmentStorage *storage = storageOf(buffer);
    for (CVAttachmentMode mode = 0; mode < kModeCount; ++mode) {
        CFMutableDictionaryRef dictionary = storage->_dictionaries[mode];
        storage->_dictionaries[mode] = nullptr;
        if (dictionary != nullptr) CFRelease(dictionary);
    }
}
