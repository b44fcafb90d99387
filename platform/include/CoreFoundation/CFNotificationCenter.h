/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The local notification center: observers register for a name and/or an
 * object (NULL matches any) and are called synchronously, on the posting
 * thread, for every matching post.  An observer may remove itself, remove
 * others, add observers or post again from inside its callback; removal
 * takes effect at once (a removed observer is not called again, even by a
 * post already in progress), and an observer added during a post is first
 * called by the next post.  All calls are thread-safe.
 *
 * Removal and delivery across threads: once CFNotificationCenterRemoveObserver
 * or CFNotificationCenterRemoveEveryObserver returns, no call to the removed
 * registrations is in progress on any other thread and none will start, so
 * the observer may be freed at once.  To give that, removal waits for calls
 * already running on other threads to return.  It never waits for calls on
 * its own thread (an observer removing itself or another observer from
 * inside a callback, however deeply posts nest): those are its own callers.
 * The rules that follow, as for joining a thread:
 *   - do not remove an observer while holding a lock that its callback may
 *     take on another thread;
 *   - two callbacks running on two threads must not each remove the
 *     other's observer (each would wait for the other to return).
 * The center's own lock is never held while a callback runs.
 */
#ifndef COREFOUNDATION_CFNOTIFICATIONCENTER_H
#define COREFOUNDATION_CFNOTIFICATIONCENTER_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

CF_EXTERN_C_BEGIN

typedef struct __CFNotificationCenter *CFNotificationCenterRef;
typedef CFStringRef CFNotificationName;

typedef void (*CFNotificationCallback)(CFNotificationCenterRef center, void *observer, CFNotificationName name,
                                       const void *object, CFDictionaryRef userInfo);

/* Recorded for each observer; the local center delivers every post at once,
 * so the behaviour has no other effect. */
typedef CFIndex CFNotificationSuspensionBehavior;
enum {
    CFNotificationSuspensionBehaviorDrop = 1,
    CFNotificationSuspensionBehaviorCoalesce = 2,
    CFNotificationSuspensionBehaviorHold = 3,
    CFNotificationSuspensionBehaviorDeliverImmediately = 4
};

enum { kCFNotificationDeliverImmediately = (1UL << 0), kCFNotificationPostToAllSessions = (1UL << 1) };

CF_EXPORT CFTypeID CFNotificationCenterGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFNotificationCenterGetTypeID);
CF_EXPORT CFNotificationCenterRef CFNotificationCenterGetLocalCenter(void) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterGetLocalCenter);

/* `name` (retained while registered) and `object` (compared by address,
 * never retained) filter the posts delivered; NULL matches any.  The same
 * observer may register several times with different filters. */
CF_EXPORT void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void *observer,
                                               CFNotificationCallback callBack, CFStringRef name, const void *object,
                                               CFNotificationSuspensionBehavior suspensionBehavior) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterAddObserver);
/* Removes `observer`'s registrations that match `name` and `object` (NULL
 * matches any registration), then waits until no call to them is in
 * progress on another thread (see above). */
CF_EXPORT void CFNotificationCenterRemoveObserver(CFNotificationCenterRef center, const void *observer,
                                                  CFNotificationName name, const void *object) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterRemoveObserver);
CF_EXPORT void CFNotificationCenterRemoveEveryObserver(CFNotificationCenterRef center, const void *observer) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterRemoveEveryObserver);

/* Calls every matching observer before returning, in registration order. */
CF_EXPORT void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                                    const void *object, CFDictionaryRef userInfo,
                                                    Boolean deliverImmediately) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterPostNotification);
CF_EXPORT void CFNotificationCenterPostNotificationWithOptions(CFNotificationCenterRef center, CFNotificationName name,
                                                               const void *object, CFDictionaryRef userInfo,
                                                               CFOptionFlags options) CF_NOEXCEPT
    CF_ABI_NAME(CFNotificationCenterPostNotificationWithOptions);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFNOTIFICATIONCENTER_H */
