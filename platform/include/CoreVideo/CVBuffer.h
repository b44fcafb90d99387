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
 * at once: the storage guards itself.  Getters return borrowed references
 * that stay valid until the attachment is replaced or removed.
 */
#ifndef COREVIDEO_CVBUFFER_H
#define COREVIDEO_CVBUFFER_H

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN

typedef struct __CVBuffer *CVBufferRef;

typedef uint32_t CVAttachmentMode;
enum {
    kCVAttachmentMode_ShouldNotPropagate = 0,
    kCVAttachmentMode_ShouldPropagate = 1
};

/* Private to the attachment functions; lay it out in your object, never
 * touch its fields. */
typedef struct CVAttachmentStorage {
    CFMutableDictionaryRef _dictionaries[2]; /* indexed by mode; created on first set */
    uint32_t _lock;                          /* 0 = unlocked */
    uint32_t _reserved;
} CVAttachmentStorage;

/* Sets `key` to `value` (both retained) in `attachmentMode`'s dictionary,
 * removing it from the other mode's.  A NULL buffer, key or value, or a mode
 * other than the two, does nothing. */
CF_EXPORT void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value,
                                     CVAttachmentMode attachmentMode) CF_NOEXCEPT;
/* The value for `key` or NULL; *attachmentMode (when not NULL) receives
 * the mode it was set with. */
CF_EXPORT CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key,
                                          CVAttachmentMode *attachmentMode) CF_NOEXCEPT;
CF_EXPORT void CVBufferRemoveAttachment(CVBufferRef buffer, CFStringRef key) CF_NOEXCEPT;
CF_EXPORT void CVBufferRemoveAllAttachments(CVBufferRef buffer) CF_NOEXCEPT;
/* The attachments of one mode, or NULL when there are none.  Borrowed. */
CF_EXPORT CFDictionaryRef CVBufferGetAttachments(CVBufferRef buffer, CVAttachmentMode attachmentMode) CF_NOEXCEPT;
/* Sets every entry of `theAttachments` with `attachmentMode`. */
CF_EXPORT void CVBufferSetAttachments(CVBufferRef buffer, CFDictionaryRef theAttachments,
                                      CVAttachmentMode attachmentMode) CF_NOEXCEPT;
/* Copies the source's propagating attachments onto the destination. */
CF_EXPORT void CVBufferPropagateAttachments(CVBufferRef sourceBuffer, CVBufferRef destinationBuffer) CF_NOEXCEPT;

/* Releases the attachment storage of `buffer`; the last step of the
 * finalizer of every object that carries attachments.  NULL does nothing. */
CF_EXPORT void __CVBufferFinalize(CFTypeRef buffer) CF_NOEXCEPT;

CF_EXTERN_C_END

#endif /* COREVIDEO_CVBUFFER_H */
