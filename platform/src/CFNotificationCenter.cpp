// SPDX-License-Identifier: Apache-2.0
// The local notification center.
//
// Registrations form a list in registration order, guarded by the center's
// mutex.  The mutex is never held while an observer's callback runs:
// callbacks may add or remove observers or post again on the same thread,
// and holding it would deadlock them (and serialise unrelated posts).
//
// A post therefore takes a snapshot of the matching registrations under the
// mutex, each with a reference so that it outlives its removal, and calls
// them after unlocking.  Just before each call it takes the mutex again,
// skips the registration if it has been removed, and otherwise counts the
// call in the registration's `deliveries`; it uncounts it (and wakes any
// remover) once the callback returns.
//
// Removal unlinks a registration and marks it removed under the mutex, so
// no call starts afterwards, and then waits, on the center's condition
// variable, until every call in progress has ended, so that the observer
// may be freed as soon as removal returns (a timebase child released while
// its master posts on another thread, say).  Calls in progress on the
// removing thread itself are its callers, further up its own stack: it
// cannot wait for them, and need not, since they make no further use of the
// observer once its callback returns.  Each thread therefore keeps a stack
// of the deliveries it is inside, and removal waits only for the others.
//
// The center is a static immortal instance whose state is constant-
// initialised, so it works before and after static constructors and
// destructors run.

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "CFInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFNotificationCenter"

namespace {

struct Registration {
    const void *observer;
    CFNotificationCallback callback;
    CFStringRef name;    // retained; NULL matches any name
    const void *object;  // never retained; NULL matches any object
    CFNotificationSuspensionBehavior suspensionBehavior;
    // Registrations come from the thread's default allocator at the time of
    // adding, so a failing default allocator reaches the failure path.
    CFAllocatorRef allocator;  // retained
    Registration *next;        // the center's list; guarded by its mutex
    bool removed;              // guarded by the center's mutex
    uint32_t deliveries;       // calls in progress, on any thread; guarded likewise
    // One for the list, one per post snapshot holding it.
    std::atomic<uint32_t> references;
};

}  // namespace

struct __CFNotificationCenter {
    CFRuntimeBase base;
    XPMutex lock;
    pthread_cond_t deliveryEnded;  // with `lock`: a removed registration's call ended
    Registration *head;
    Registration *tail;
};

namespace {

__CFNotificationCenter gLocalCenter = {{0, kCFNotificationCenterTypeID | kCFInfoImmortal, 0},
                                       {PTHREAD_MUTEX_INITIALIZER},
                                       PTHREAD_COND_INITIALIZER,
                                       nullptr,
                                       nullptr};

XPLogModule gNotificationLog;

// The deliveries the current thread is inside, innermost first; each frame
// lives on the stack of the post that makes the call.
struct ActiveDelivery {
    const Registration *registration;
    const ActiveDelivery *outer;
};
thread_local const ActiveDelivery *tActiveDeliveries = nullptr;

uint32_t deliveriesOnThisThread(const Registration *registration) {
    uint32_t count = 0;
    for (const ActiveDelivery *frame = tActiveDeliveries; frame != nullptr; frame = frame->outer)
        if (frame->registration == registration) ++count;
    return count;
}

void releaseRegistration(Registration *registration) {
    if (registration->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (registration->name != nullptr) CFRelease(registration->name);
    CFAllocatorRef allocator = registration->allocator;
    registration->~Registration();
    CFAllocatorDeallocate(allocator, registration);
    CFRelease(allocator);
}

// A filter given to RemoveObserver: NULL matches every registration,
// anything else only registrations made with an equal name or the same
// object.
bool removalMatches(const Registration *registration, const void *observer, CFStringRef name, const void *object) {
    if (registration->observer != observer) return false;
    if (name != nullptr && (registration->name == nullptr || !CFEqual(registration->name, name))) return false;
    return object == nullptr || registration->object == object;
}

// A registration's own filters: NULL matches every post.
bool postMatches(const Registration *registration, CFStringRef name, const void *object) {
    if (registration->name != nullptr && registration->name != name && !CFEqual(registration->name, name)) return false;
    return registration->object == nullptr || registration->object == object;
}

// Unlinks every registration `matches` accepts, waits until no call to
// any of them is in progress on another thread, and releases the list's
// references once the mutex is dropped (the last release may free a name
// string, which need not happen under the lock).
template <typename Predicate>
void removeRegistrations(CFNotificationCenterRef center, Predicate matches) {
    Registration *unlinked = nullptr;
    XPMutexAcquire(&center->lock);
    Registration *previous = nullptr;
    for (Registration *registration = center->head; registration != nullptr;) {
        Registration *next = registration->next;
        if (matches(registration)) {
            registration->removed = true;
            if (previous != nullptr)
                previous->next = next;
            else
                center->head = next;
            if (center->tail == registration) center->tail = previous;
            registration->next = unlinked;
            unlinked = registration;
        } else {
            previous = registration;
        }
        registration = next;
    }
    for (Registration *registration = unlinked; registration != nullptr; registration = registration->next) {
        const uint32_t own = deliveriesOnThisThread(registration);
        while (registration->deliveries > own) pthread_cond_wait(&center->deliveryEnded, &center->lock._mutex);
    }
    XPMutexRelease(&center->lock);
    while (unlinked != nullptr) {
        Registration *next = unlinked->next;
        releaseRegistration(unlinked);
        unlinked = next;
    }
}

// The matching registrations of one post, each holding a reference.  Most
// posts reach a handful of observers, so the first few live on the stack.
class Snapshot {
public:
    Snapshot() = default;
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;
    ~Snapshot() {
        for (size_t i = 0; i < count_; ++i) releaseRegistration(items_[i]);
        if (items_ != inline_) std::free(items_);
    }

    void add(Registration *registration) {
        if (count_ == capacity_) grow();
        registration->references.fetch_add(1, std::memory_order_relaxed);
        items_[count_++] = registration;
    }
    size_t count() const { return count_; }
    Registration *operator[](size_t index) const { return items_[index]; }

private:
    void grow() {
        size_t capacity = capacity_ * 2;
        void *grown = items_ == inline_ ? std::malloc(capacity * sizeof(Registration *))
                                        : std::realloc(items_, capacity * sizeof(Registration *));
        if (grown == nullptr)
            __CFFatal("CFNotificationCenterPostNotification", CF_SOURCE_PATH, __LINE__,
                      "out of memory collecting %zu observers", capacity);
        if (items_ == inline_) std::memcpy(grown, inline_, count_ * sizeof(Registration *));
        items_ = static_cast<Registration **>(grown);
        capacity_ = capacity;
    }

    Registration *inline_[16];
    Registration **items_ = inline_;
    size_t count_ = 0;
    size_t capacity_ = 16;
};

// Counts one call to `registration` unless it has been removed; the
// count keeps a remover on another thread waiting until the call ends.
bool beginDelivery(CFNotificationCenterRef center, Registration *registration) {
    XPMutexAcquire(&center->lock);
    const bool live = !registration->removed;
    if (live) ++registration->deliveries;
    XPMutexRelease(&center->lock);
    return live;
}

void endDelivery(CFNotificationCenterRef center, Registration *registration) {
    XPMutexAcquire(&center->lock);
    --registration->deliveries;
    // Only removers wait, and only for removed registrations.
    if (registration->removed) pthread_cond_broadcast(&center->deliveryEnded);
    XPMutexRelease(&center->lock);
}

void post(CFNotificationCenterRef center, CFNotificationName name, const void *object, CFDictionaryRef userInfo) {
    Snapshot snapshot;
    XPMutexAcquire(&center->lock);
    for (Registration *registration = center->head; registration != nullptr; registration = registration->next)
        if (postMatches(registration, name, object)) snapshot.add(registration);
    XPMutexRelease(&center->lock);
    for (size_t i = 0; i < snapshot.count(); ++i) {
        Registration *registration = snapshot[i];
        if (!beginDelivery(center, registration)) continue;
        const ActiveDelivery frame{registration, tActiveDeliveries};
        tActiveDeliveries = &frame;
        registration->callback(center, const_cast<void *>(registration->observer), name, object, userInfo);
        tActiveDeliveries = frame.outer;
        endDelivery(center, registration);
    }
}

}  // namespace

// Immortal: no finalize; identity equality and address hash are the defaults.
const CFRuntimeClass __CFNotificationCenterClass = {
    0, "CFNotificationCenter", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};

extern "C" {

CFTypeID CFNotificationCenterGetTypeID(void) noexcept {
    return kCFNotificationCenterTypeID;
}

CFNotificationCenterRef CFNotificationCenterGetLocalCenter(void) noexcept {
    return &gLocalCenter;
}

void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void *observer,
                                     CFNotificationCallback callBack, CFStringRef name, const void *object,
                                     CFNotificationSuspensionBehavior suspensionBehavior) noexcept {
    CF_VALIDATE(center, kCFNotificationCenterTypeID);
    CF_REQUIRE(callBack, "callBack");
    if (name != nullptr) CF_VALIDATE(name, kCFStringTypeID);
    CFAllocatorRef allocator = __CFResolveAllocator(nullptr);
    void *memory = CFAllocatorAllocate(allocator, sizeof(Registration), 0);
    if (memory == nullptr) {
        __CFLogError(&gNotificationLog, CF_SOURCE_PATH, __func__, __LINE__,
                     "out of memory: observer %p is not registered", observer);
        return;
    }
    auto *registration = new (memory) Registration{};
    registration->observer = observer;
    registration->callback = callBack;
    registration->name = name != nullptr ? static_cast<CFStringRef>(CFRetain(name)) : nullptr;
    registration->object = object;
    registration->suspensionBehavior = suspensionBehavior;
    registration->allocator = static_cast<CFAllocatorRef>(CFRetain(allocator));
    registration->references.store(1, std::memory_order_relaxed);

    XPMutexAcquire(&center->lock);
    if (center->tail != nullptr)
        center->tail->next = registration;
    else
        center->head = registration;
    center->tail = registration;
    XPMutexRelease(&center->lock);
}

void CFNotificationCenterRemoveObserver(CFNotificationCenterRef center, const void *observer, CFNotificationName name,
                                        const void *object) noexcept {
    CF_VALIDATE(center, kCFNotificationCenterTypeID);
    if (name != nullptr) CF_VALIDATE(name, kCFStringTypeID);
    removeRegistrations(
        center, [&](const Registration *registration) { return removalMatches(registration, observer, name, object); });
}

void CFNotificationCenterRemoveEveryObserver(CFNotificationCenterRef center, const void *observer) noexcept {
    CF_VALIDATE(center, kCFNotificationCenterTypeID);
    removeRegistrations(center, [&](const Registration *registration) { return registration->observer == observer; });
}

void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name, const void *object,
                                          CFDictionaryRef userInfo, Boolean deliverImmediately) noexcept {
    CF_VALIDATE(center, kCFNotificationCenterTypeID);
    CF_REQUIRE(name, "name");
    post(center, name, object, userInfo);
}

void CFNotificationCenterPostNotificationWithOptions(CFNotificationCenterRef center, CFNotificationName name,
                                                     const void *object, CFDictionaryRef userInfo,
                                                     CFOptionFlags options) noexcept {
    CF_VALIDATE(center, kCFNotificationCenterTypeID);
    CF_REQUIRE(name, "name");
    post(center, name, object, userInfo);
}

}  // extern "C"
