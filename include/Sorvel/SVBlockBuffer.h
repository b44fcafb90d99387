/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVBlockBuffer: a reference-counted run of bytes, numbered from 0 to its
 * data length, stitched together from pieces without copying.
 *
 * A piece is either
 * - a memory piece: part of a memory block that the buffer owns.  The block
 *   comes from the caller (and is then freed by the buffer through the block
 *   allocator it was given), from a CFAllocatorRef, or from a caller-supplied
 *   custom block source.  It may stay unallocated until something needs it
 *   (see "Allocation" below); or
 * - a reference piece: a range of another block buffer, which is retained.
 *   References are never flattened: a reference always points at the very
 *   buffer that was named, reads descend through chains of references, and
 *   a reference's length is fixed when it is made (a later append to the
 *   referenced buffer does not lengthen it).
 *
 * A buffer only grows: pieces are appended, never removed or reordered.
 *
 * Allocation.  kSVBlockBufferAssureMemoryNowFlag allocates a memory piece's
 * block at append time.  Otherwise the block stays unallocated until
 * SVBlockBufferAssureBlockMemory or SVBlockBufferReplaceDataBytes (or the
 * buffer is the destination of SVBlockBufferCreateContiguous).  Reads never
 * allocate: they report kSVBlockBufferUnallocatedBlockErr instead.
 *
 * Ownership of memory blocks.  When the buffer is finalized, every allocated
 * block is given back through FreeBlock of its custom block source when one
 * was given, else through CFAllocatorDeallocate with its block allocator.  A
 * NULL block allocator means the default allocator, so memory the caller
 * hands over with a NULL allocator IS freed by the default allocator; a
 * caller who keeps ownership passes kCFAllocatorNull.  The buffer retains a
 * non-NULL block allocator for as long as the piece exists.
 *
 * Errors.  Calls that can fail return an OSStatus: kSVBlockBufferNoErr (0)
 * or one of the codes below.  A failed append leaves the buffer as it was;
 * a failed create releases what it had made.  A copy, replace or fill that
 * fails midway leaves the bytes already moved in place.  Only the two
 * zero-length refusals of the memory-block calls are logged (level 3).
 *
 * Threads.  No call takes a lock.  A buffer that is only read may be shared
 * by any number of threads; appending (or allocating through Assure or
 * Replace) while another thread reads or appends is not supported.
 *
 * A buffer that references itself, directly or through others, is not
 * refused, but reading it never ends.
 *
 * Arguments.  Every call that takes a block buffer treats an object that is
 * not a block buffer exactly like NULL: the answer each call gives below
 * for a NULL buffer.
 */
#ifndef SORVEL_SVBLOCKBUFFER_H
#define SORVEL_SVBLOCKBUFFER_H

#include <Sorvel/SVBase.h>
#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVBlockBuffer *SVBlockBufferRef;

/* Status codes. */
enum {
    kSVBlockBufferNoErr = 0,
    /* The buffer object itself (or a piece's record) could not be allocated. */
    kSVBlockBufferStructureAllocationFailedErr = -12700,
    /* A memory block could not be allocated. */
    kSVBlockBufferBlockAllocationFailedErr = -12701,
    /* Offset at or beyond the data length, or a buffer without pieces. */
    kSVBlockBufferBadOffsetParameterErr = -12703,
    /* Zero length where one is required, offset plus length beyond the
     * data length, or an append that would take the data length past
     * SIZE_MAX. */
    kSVBlockBufferBadLengthParameterErr = -12704,
    /* A required buffer or output pointer is NULL. */
    kSVBlockBufferBadPointerParameterErr = -12705,
    /* A memory piece's block is not allocated and the call does not
     * allocate. */
    kSVBlockBufferUnallocatedBlockErr = -12707
};

/* Flags of the create and append calls.  No other bit is interpreted; the
 * reference-making calls ignore their flags entirely. */
typedef uint32_t SVBlockBufferFlags;
enum {
    /* Allocate a memory piece's block at once when no block is given. */
    kSVBlockBufferAssureMemoryNowFlag = 1u << 0,
    /* Make SVBlockBufferCreateContiguous copy even when the source range is
     * already contiguous. */
    kSVBlockBufferAlwaysCopyDataFlag = 1u << 1
};

/* A caller-supplied source of memory blocks.  It is copied into the piece
 * (never referenced afterwards) and never validated; `version` is stored
 * and not checked.  AllocateBlock returns a block of at least `sizeInBytes`
 * bytes or NULL (a missing AllocateBlock counts as NULL); FreeBlock gets
 * back every block that the buffer owns (a missing FreeBlock leaves the
 * block to the caller). */
typedef struct SVBlockBufferCustomBlockSource {
    uint32_t version;
    void *(*AllocateBlock)(void *refCon, size_t sizeInBytes);
    void (*FreeBlock)(void *refCon, void *doomedMemoryBlock, size_t sizeInBytes);
    void *refCon;
} SVBlockBufferCustomBlockSource;

/* The block buffer class's type identifier (the class is registered on
 * first use). */
SV_EXPORT CFTypeID SVBlockBufferGetTypeID(void) SV_NOEXCEPT;

/* Creates a buffer without pieces (data length 0).  `subBlockCapacity` and
 * `flags` are accepted and ignored.  Returns kSVBlockBufferBadPointerParameterErr
 * for a NULL `blockBufferOut`, kSVBlockBufferStructureAllocationFailedErr
 * when the object cannot be made (`*blockBufferOut` is then left as it was).
 * The caller owns the new buffer. */
SV_EXPORT OSStatus SVBlockBufferCreateEmpty(CFAllocatorRef structureAllocator, uint32_t subBlockCapacity,
                                            SVBlockBufferFlags flags, SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* Creates a buffer of one memory piece: `dataLength` bytes starting
 * `offsetToData` bytes into the memory block (which is `blockLength` bytes
 * long).  `memoryBlock` may be NULL: the block is then allocated at once
 * with kSVBlockBufferAssureMemoryNowFlag, later otherwise, through
 * `customBlockSource` when given (copied), else `blockAllocator` (NULL: the
 * default allocator).  Nothing checks that the data lies inside the block.
 * Statuses: those of SVBlockBufferAppendMemoryBlock, plus
 * kSVBlockBufferBadPointerParameterErr for a NULL `blockBufferOut` and
 * kSVBlockBufferStructureAllocationFailedErr.  On failure `*blockBufferOut`
 * is left as it was and a given `memoryBlock` still belongs to the caller. */
SV_EXPORT OSStatus SVBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void *memoryBlock,
                                                      size_t blockLength, CFAllocatorRef blockAllocator,
                                                      const SVBlockBufferCustomBlockSource *customBlockSource,
                                                      size_t offsetToData, size_t dataLength, SVBlockBufferFlags flags,
                                                      SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* Creates a buffer of one reference piece to `dataLength` bytes of
 * `referencedBlockBuffer` from `offsetToData` (0 = to its end).  `flags` is
 * ignored.  `*blockBufferOut` is cleared first.  Statuses:
 * kSVBlockBufferBadPointerParameterErr (NULL out pointer or referenced
 * buffer), kSVBlockBufferStructureAllocationFailedErr,
 * kSVBlockBufferBadOffsetParameterErr (offset not below the referenced
 * buffer's length, so an empty buffer cannot be referenced),
 * kSVBlockBufferBadLengthParameterErr (range beyond its end). */
SV_EXPORT OSStatus SVBlockBufferCreateWithBufferReference(CFAllocatorRef structureAllocator,
                                                          SVBlockBufferRef referencedBlockBuffer, size_t offsetToData,
                                                          size_t dataLength, SVBlockBufferFlags flags,
                                                          SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* Creates a buffer whose `dataLength` bytes (0 = to the end of the source)
 * from `offsetToData` of `sourceBuffer` are contiguous.  When that range is
 * already contiguous in the source and kSVBlockBufferAlwaysCopyDataFlag is
 * not given, the new buffer references the source and nothing is copied;
 * otherwise it holds one memory piece, allocated at once through
 * `customBlockSource` or `blockAllocator`, into which the range is copied.
 * `*blockBufferOut` is cleared first and stays NULL on failure.  Statuses:
 * kSVBlockBufferBadPointerParameterErr (NULL out pointer or source; with
 * kSVBlockBufferAlwaysCopyDataFlag and no length, a NULL source reports the
 * zero length first), the offset and length codes,
 * kSVBlockBufferUnallocatedBlockErr (the source has an unallocated block in
 * the range), the allocation codes. */
SV_EXPORT OSStatus SVBlockBufferCreateContiguous(CFAllocatorRef structureAllocator, SVBlockBufferRef sourceBuffer,
                                                 CFAllocatorRef blockAllocator,
                                                 const SVBlockBufferCustomBlockSource *customBlockSource,
                                                 size_t offsetToData, size_t dataLength, SVBlockBufferFlags flags,
                                                 SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* Appends a memory piece (see SVBlockBufferCreateWithMemoryBlock for the
 * arguments).  Statuses, tested in this order:
 * kSVBlockBufferBadPointerParameterErr (NULL buffer);
 * kSVBlockBufferBadLengthParameterErr for a zero `dataLength`, then for a
 * zero `blockLength` (each logged at level 3), then when the buffer's data
 * length plus `dataLength` would exceed SIZE_MAX (logged at level 3);
 * kSVBlockBufferStructureAllocationFailedErr when the piece's record cannot
 * be allocated; kSVBlockBufferBlockAllocationFailedErr when the block had to
 * be allocated at once and could not be.  On failure the buffer is unchanged
 * and a given `memoryBlock` still belongs to the caller; on success the
 * buffer owns it. */
SV_EXPORT OSStatus SVBlockBufferAppendMemoryBlock(SVBlockBufferRef theBuffer, void *memoryBlock, size_t blockLength,
                                                  CFAllocatorRef blockAllocator,
                                                  const SVBlockBufferCustomBlockSource *customBlockSource,
                                                  size_t offsetToData, size_t dataLength,
                                                  SVBlockBufferFlags flags) SV_NOEXCEPT;

/* Appends a reference to `dataLength` bytes of `targetBBuf` from
 * `offsetToData` (0 = to its end); the target is retained.  `flags` is
 * ignored.  Statuses: kSVBlockBufferBadPointerParameterErr (NULL buffer or
 * target), kSVBlockBufferBadOffsetParameterErr (offset not below the
 * target's length), kSVBlockBufferBadLengthParameterErr (range beyond its
 * end, or a data length that would exceed SIZE_MAX, logged at level 3),
 * kSVBlockBufferStructureAllocationFailedErr.  Referencing the buffer
 * itself is not refused (see the top of this file). */
SV_EXPORT OSStatus SVBlockBufferAppendBufferReference(SVBlockBufferRef theBuffer, SVBlockBufferRef targetBBuf,
                                                      size_t offsetToData, size_t dataLength,
                                                      SVBlockBufferFlags flags) SV_NOEXCEPT;

/* Allocates every unallocated memory block of the buffer, descending into
 * referenced buffers.  Stops at the first failure
 * (kSVBlockBufferBlockAllocationFailedErr), keeping the blocks allocated so
 * far.  kSVBlockBufferBadPointerParameterErr for a NULL buffer. */
SV_EXPORT OSStatus SVBlockBufferAssureBlockMemory(SVBlockBufferRef theBuffer) SV_NOEXCEPT;

/* Points `*dataPointerOut` at `length` contiguous bytes of the buffer from
 * `offset`: into the buffer itself when the range is contiguous there, else
 * at `temporaryBlock` (at least `length` bytes; required even when it is
 * not used) after copying the range into it.  `*dataPointerOut` is cleared
 * first.  Statuses: kSVBlockBufferBadPointerParameterErr (NULL out pointer,
 * buffer or temporary block), kSVBlockBufferBadLengthParameterErr (zero
 * length or range beyond the end), kSVBlockBufferBadOffsetParameterErr,
 * kSVBlockBufferUnallocatedBlockErr.  Never allocates. */
SV_EXPORT OSStatus SVBlockBufferAccessDataBytes(SVBlockBufferRef theBuffer, size_t offset, size_t length,
                                                void *temporaryBlock, char **dataPointerOut) SV_NOEXCEPT;

/* Copies `dataLength` bytes from `offsetToData` of the buffer to
 * `destination`.  Statuses: kSVBlockBufferBadPointerParameterErr (NULL
 * buffer or destination), kSVBlockBufferBadOffsetParameterErr (offset not
 * below the data length), kSVBlockBufferBadLengthParameterErr (zero length
 * or range beyond the end), kSVBlockBufferUnallocatedBlockErr.  Never
 * allocates. */
SV_EXPORT OSStatus SVBlockBufferCopyDataBytes(SVBlockBufferRef theSourceBuffer, size_t offsetToData, size_t dataLength,
                                              void *destination) SV_NOEXCEPT;

/* Copies `dataLength` bytes from `sourceBytes` into the buffer from
 * `offsetIntoDestination`, writing through references into the buffers
 * they name.  Allocates the unallocated blocks of a buffer it writes into
 * (kSVBlockBufferBlockAllocationFailedErr when that fails); otherwise the
 * statuses of SVBlockBufferCopyDataBytes. */
SV_EXPORT OSStatus SVBlockBufferReplaceDataBytes(const void *sourceBytes, SVBlockBufferRef destinationBuffer,
                                                 size_t offsetIntoDestination, size_t dataLength) SV_NOEXCEPT;

/* Sets `dataLength` bytes of the buffer from `offsetIntoDestination` to
 * `fillByte`.  A `dataLength` of 0 fills the contiguous run that begins at
 * the offset (to the end of that piece, not of the buffer).  Statuses:
 * kSVBlockBufferBadPointerParameterErr, kSVBlockBufferBadOffsetParameterErr
 * (offset not below the data length), kSVBlockBufferBadLengthParameterErr
 * (range beyond the end), kSVBlockBufferUnallocatedBlockErr (fill never
 * allocates). */
SV_EXPORT OSStatus SVBlockBufferFillDataBytes(char fillByte, SVBlockBufferRef destinationBuffer,
                                              size_t offsetIntoDestination, size_t dataLength) SV_NOEXCEPT;

/* Locates `offset`: `*lengthAtOffsetOut` receives the number of contiguous
 * bytes from there, `*dataPointerOut` a pointer to them, `*totalLengthOut`
 * the buffer's data length.  Every output is optional; each one given is
 * cleared first, and the total length is stored even when the call then
 * fails.  Statuses: kSVBlockBufferBadPointerParameterErr (NULL buffer),
 * kSVBlockBufferBadOffsetParameterErr (no pieces, or offset not below the
 * data length), kSVBlockBufferUnallocatedBlockErr. */
SV_EXPORT OSStatus SVBlockBufferGetDataPointer(SVBlockBufferRef theBuffer, size_t offset, size_t *lengthAtOffsetOut,
                                               size_t *totalLengthOut, char **dataPointerOut) SV_NOEXCEPT;

/* The buffer's data length; 0 for NULL. */
SV_EXPORT size_t SVBlockBufferGetDataLength(SVBlockBufferRef theBuffer) SV_NOEXCEPT;

/* True when the `length` bytes (0 = to the end of the buffer) from `offset`
 * are contiguous.  False for NULL, for an offset that cannot be located and
 * for a range with an unallocated block at the offset. */
SV_EXPORT Boolean SVBlockBufferIsRangeContiguous(SVBlockBufferRef theBuffer, size_t offset, size_t length) SV_NOEXCEPT;

/* True when the buffer's data length is 0; false for NULL. */
SV_EXPORT Boolean SVBlockBufferIsEmpty(SVBlockBufferRef theBuffer) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVBLOCKBUFFER_H */
