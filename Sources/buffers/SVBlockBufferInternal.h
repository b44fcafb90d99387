/* SPDX-License-Identifier: Apache-2.0 */
// Block buffers inside the library: the object's layout, its pieces'
// records, and the copy routine other modules share.
#ifndef SORVEL_SOURCES_SVBLOCKBUFFERINTERNAL_H
#define SORVEL_SOURCES_SVBLOCKBUFFERINTERNAL_H

#include <CoreFoundation/CFRuntime.h>
#include <Sorvel/SVBlockBuffer.h>

#include <cstddef>
#include <cstdint>

// One heap record (calloc/free) per piece, in data order.
struct SVBlockBufferSubBlock {
    SVBlockBufferSubBlock *next;
    // Memory piece: where its bytes begin inside the memory block.
    // Reference piece: where they begin inside the referenced buffer's data.
    size_t offsetToData;
    size_t dataLength;
    uint8_t isReference;
    // A memory piece's block allocator (NULL: the default allocator; retained
    // otherwise), or a reference piece's buffer (retained).
    CFTypeRef allocatorOrBuffer;
    uint8_t hasCustomBlockSource;
    SVBlockBufferCustomBlockSource customBlockSource;
    // Memory pieces only: NULL until allocated.
    void *memoryBlock;
    size_t blockLength;
};

// Where a piece starts in the buffer's data, and, for a memory piece whose
// block is allocated, where its bytes are: a copy over many pieces then
// reads this array in order and never touches the pieces' records.
struct SVBlockBufferIndexEntry {
    size_t start;
    size_t dataLength;
    // memoryBlock + offsetToData; NULL for a reference piece or a block
    // not yet allocated (kept up to date when blocks are allocated).
    char *bytes;
    SVBlockBufferSubBlock *piece;
};

struct OpaqueSVBlockBuffer {
    CFRuntimeBase base;
    SVBlockBufferSubBlock *firstSubBlock;
    // Sum of the pieces' data lengths.
    size_t dataLength;
    // The last piece, so that appending takes constant time instead of
    // walking the list; NULL while there are no pieces.
    SVBlockBufferSubBlock *lastSubBlock;
    size_t pieceCount;
    // Buffers of many pieces also keep every piece's start in an array, so
    // that locating an offset is a binary search instead of a walk from the
    // head.  Kept up to date by the appends (which are never concurrent with
    // reads), so reads only read it; NULL for small buffers, or when memory
    // for it ran out, in which case reads walk the list with the same results.
    SVBlockBufferIndexEntry *index;
    size_t indexCapacity;
};

// Which way _SVBlockBufferCopyData moves bytes.
typedef uint32_t SVBlockBufferCopyDirection;
enum : SVBlockBufferCopyDirection {
    kSVBlockBufferCopyOutOfBuffer = 0,  // buffer bytes to memory
    kSVBlockBufferCopyIntoBuffer = 1,   // memory to buffer bytes
};

// Moves `length` bytes between `memory` and the buffer from `offset`, in
// `direction`, descending into references.  With `mayAllocate`, a buffer
// whose unallocated block is reached gets all its missing blocks allocated
// (SVBlockBufferAssureBlockMemory); without it that is
// kSVBlockBufferUnallocatedBlockErr.  Statuses as SVBlockBufferCopyDataBytes.
extern "C" __attribute__((visibility("default"))) OSStatus _SVBlockBufferCopyData(void *memory, SVBlockBufferRef buffer,
                                                                                  size_t offset, size_t length,
                                                                                  SVBlockBufferCopyDirection direction,
                                                                                  Boolean mayAllocate) noexcept;

#endif  // SORVEL_SOURCES_SVBLOCKBUFFERINTERNAL_H
