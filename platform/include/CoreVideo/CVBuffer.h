/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Buffer attachments: key-value pairs hung on a buffer, each set either to
 * propagate (copied by CVBufferPropagateAttachments) or not.
 *
 * The attachment functions work on any runtime object whose fields begin,
 * right after the runtime header, with a CVAttachmentStorage:
 *
 *     struct MyBuffer {
 *         CFRuntimeBase base;
 *         CVAttachmentStorage attachments;   // zero-filled = empty
 *         ...
 *     };
 *
 * and whose finalizer ends by handing the object to __CVBufferFinalize,
 * which releases the storage.  Zero-filled storage is valid and empty, so
 * an instance fresh from _CFRuntimeCreateInstance needs no set-up.
 *
 * The attachment functions may be called on one buffer from several threads
 * at once: the storage guards itself with a small lock (its `_lock` word)
 * held only while the dictionaries are read or changed; values replaced or
 * removed are released after the lock is dropped, so a finalizer they run
 * may use the attachment functions freely.
 *
 * Getters (CVBufferGetAttachment, CVBufferGetAttachments) return borrowed
 * references that stay valid only until the attachment (or, for
 * CVBufferGetAttachments, any attachment of that mode) is replaced or
 * removed.  Retaining what a getter returned is not enough when another
 * thread may replace or remove it: the writer's release can come between
 * the get and the retain.  A caller that shares a buffer with writers on
 * other threads uses CVBufferCopyAttachment or _CVBufferCopyAttachments,
 * which retain under the storage's lock and return an owned reference.
 *
 * The functions cannot tell whether an object really carries the storage:
 * handing them any other object is undefined.  A NULL buffer does nothing
 * (getters answer NULL).
 */
#ifndef COREVIDEO_CVBUFFER_H
#define COREVIDEO_CVBUFFER_H

#include <CoreFoundation/CoreFoundation.h>
#include <CoreVideo/CVReturn.h>

CF_EXTERN_C_BEGIN

typedef struct __CVBuffer *CVBufferRef;

/* Retain and release that accept NULL (and then do nothing).  Retain
 * returns its argument. */
CF_EXPORT CVBufferRef CVBufferRetain(CVBufferRef buffer) CF_NOEXCEPT CF_ABI_NAME(CVBufferRetain);
CF_EXPORT void CVBufferRelease(CVBufferRef buffer) CF_NOEXCEPT CF_ABI_NAME(CVBufferRelease);

/* Keys of a buffer-creation attributes dictionary: a dictionary under each
 * is set on the new buffer as attachments of that mode. */
CF_EXPORT const CFStringRef kCVBufferPropagatedAttachmentsKey CF_ABI_NAME(kCVBufferPropagatedAttachmentsKey);
CF_EXPORT const CFStringRef kCVBufferNonPropagatedAttachmentsKey CF_ABI_NAME(kCVBufferNonPropagatedAttachmentsKey);

typedef uint32_t CVAttachmentMode;
enum { kCVAttachmentMode_ShouldNotPropagate = 0, kCVAttachmentMode_ShouldPropagate = 1 };

/* Private to the attachment functions; lay it out in your object, never
 * write its fields.  `_changes` may be read (atomically, with acquire
 * order): every call that changes either dictionary raises it, after the
 * change, so an object can cache what it derives from its attachments and
 * notice when they change. */
typedef struct CVAttachmentStorage {
    CFMutableDictionaryRef _dictionaries[2]; /* indexed by mode; created on first set */
    uint32_t _lock;                          /* 0 = unlocked */
    uint32_t _changes;                       /* raised by every change */
} CVAttachmentStorage;

/* Sets `key` to `value` (both retained) in `attachmentMode`'s dictionary,
 * removing it from the other mode's.  A NULL buffer, key or value, or a mode
 * other than the two, does nothing. */
CF_EXPORT void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value,
                                     CVAttachmentMode attachmentMode) CF_NOEXCEPT CF_ABI_NAME(CVBufferSetAttachment);
/* The value for `key` or NULL; *attachmentMode (when not NULL) receives
 * the mode it was set with.  Borrowed: see above for sharing with writers. */
CF_EXPORT CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key,
                                          CVAttachmentMode *attachmentMode) CF_NOEXCEPT
    CF_ABI_NAME(CVBufferGetAttachment);
/* As CVBufferGetAttachment, but the value is retained under the storage's
 * lock and owned by the caller (release it), so it stays valid whatever
 * other threads do to the buffer.  NULL (and *attachmentMode untouched)
 * when the key is absent or the buffer or key is NULL. */
CF_EXPORT CFTypeRef CVBufferCopyAttachment(CVBufferRef buffer, CFStringRef key,
                                           CVAttachmentMode *attachmentMode) CF_NOEXCEPT
    CF_ABI_NAME(CVBufferCopyAttachment);
/* Removes `key` from whichever mode holds it; an absent key does nothing. */
CF_EXPORT void CVBufferRemoveAttachment(CVBufferRef buffer, CFStringRef key) CF_NOEXCEPT
    CF_ABI_NAME(CVBufferRemoveAttachment);
/* Removes every attachment of both modes. */
CF_EXPORT void CVBufferRemoveAllAttachments(CVBufferRef buffer) CF_NOEXCEPT CF_ABI_NAME(CVBufferRemoveAllAttachments);
/* The attachments of one mode, or NULL when there are none (also after the
 * last one was removed, and for a mode other than the two).  Borrowed: the
 * buffer's own dictionary, valid until that mode's attachments change. */
CF_EXPORT CFDictionaryRef CVBufferGetAttachments(CVBufferRef buffer, CVAttachmentMode attachmentMode) CF_NOEXCEPT
    CF_ABI_NAME(CVBufferGetAttachments);
/* Sets every entry of `theAttachments` with `attachmentMode`, as
 * CVBufferSetAttachment would one by one (under one lock).  A NULL
 * dictionary or an unknown mode does nothing. */
CF_EXPORT void CVBufferSetAttachments(CVBufferRef buffer, CFDictionaryRef theAttachments,
                                      CVAttachmentMode attachmentMode) CF_NOEXCEPT CF_ABI_NAME(CVBufferSetAttachments);
/* An immutable copy, made with `allocator` (NULL: the default), of the
 * attachments of one mode, taken under the storage's lock; NULL when there
 * are none of that mode or the copy cannot be made.  Owned by the caller. */
CF_EXPORT CFDictionaryRef _CVBufferCopyAttachments(CFAllocatorRef allocator, CVBufferRef buffer,
                                                   CVAttachmentMode attachmentMode) CF_NOEXCEPT
    CF_ABI_NAME(_CVBufferCopyAttachments);
/* Copies the source's propagating attachments onto the destination (as
 * propagating attachments; a key the destination has in the other mode
 * moves).  The source's entries are read first, under its lock only, so two
 * threads propagating in opposite directions cannot deadlock. */
CF_EXPORT void CVBufferPropagateAttachments(CVBufferRef sourceBuffer, CVBufferRef destinationBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVBufferPropagateAttachments);

/* Releases the attachment storage of `buffer`; the last step of the
 * finalizer of every object that carries attachments.  NULL does nothing. */
CF_EXPORT void __CVBufferFinalize(CFTypeRef buffer) CF_NOEXCEPT CF_ABI_NAME(__CVBufferFinalize);

CF_EXTERN_C_END

#endif /* COREVIDEO_CVBUFFER_H */
