// SPDX-License-Identifier: Apache-2.0
// Block buffers: a run of bytes stitched from memory pieces and references
// to other buffers, kept as a singly linked list of piece records in data
// order.
//
// Every read locates bytes by finding the piece that holds them (a walk
// from the head, or a binary search in the piece index that buffers of
// many pieces keep), descending into referenced buffers; references are
// never flattened, so a chain of references costs one step per level.
// Pieces never have a zero data length (appends refuse it, and a reference
// without a length runs to the end of a non-empty target), which the
// searches below rely on.

#include <Sorvel/SVBlockBuffer.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "buffers/SVBlockBufferInternal.h"
#include "core/SVLog.h"
#include "core/SVObject.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVBlockBuffer");

using sorvel::SVRetained;
using sorvel::SVRuntimeClass;

using Buffer = OpaqueSVBlockBuffer;
using SubBlock = SVBlockBufferSubBlock;

void blockBufferFinalize(CFTypeRef cf) noexcept;

const CFRuntimeClass kSVBlockBufferClass = {
    0, "SVBlockBuffer", nullptr, nullptr, blockBufferFinalize, nullptr, nullptr, nullptr, nullptr,
};
constinit SVRuntimeClass<Buffer> gSVBlockBufferClass{kSVBlockBufferClass};

// Log identities the behaviour fixes (see core/SVLog.h).
constexpr struct { sorvel::SVLogSite copyRanOffTheEnd{"_SVBlockBufferCopyData", 190}; } kLogSites;

void *allocateBlock(const SubBlock &piece) noexcept {
    if (piece.hasCustomBlockSource) {
        auto allocate = piece.customBlockSource.AllocateBlock;
        return allocate ? allocate(piece.customBlockSource.refCon, piece.blockLength) : nullptr;
    }
    // CFAllocator sizes are signed; a length that does not fit cannot be
    // allocated.
    if (piece.blockLength > static_cast<size_t>(INTPTR_MAX)) return nullptr;
    return CFAllocatorAllocate(static_cast<CFAllocatorRef>(piece.allocatorOrBuffer),
                               static_cast<CFIndex>(piece.blockLength), 0);
}

void freeBlock(const SubBlock &piece) noexcept {
    if (piece.hasCustomBlockSource) {
        if (piece.customBlockSource.FreeBlock)
            piece.customBlockSource.FreeBlock(piece.customBlockSource.refCon, piece.memoryBlock, piece.blockLength);
    } else {
        CFAllocatorDeallocate(static_cast<CFAllocatorRef>(piece.allocatorOrBuffer), piece.memoryBlock);
    }
}

// Buffers with at least this many pieces keep an index of them.
constexpr size_t kIndexedPieceCount = 16;

// Where a memory piece's data lies; NULL for a reference or a block not
// yet allocated.
char *dataAddress(const SubBlock *piece) noexcept {
    return !piece->isReference && piece->memoryBlock ? static_cast<char *>(piece->memoryBlock) + piece->offsetToData
                                                     : nullptr;
}

SVBlockBufferIndexEntry indexEntry(SubBlock *piece, size_t start) noexcept {
    return {start, piece->dataLength, dataAddress(piece), piece};
}

// Adds the newest piece to the index, making the index when the buffer
// grows large enough.  A failure to allocate only costs speed: the index is
// dropped, and made again when the piece count next reaches a power of two.
void indexNewPiece(Buffer *buffer, SubBlock *piece, size_t start) noexcept {
    const size_t count = buffer->pieceCount;
    if (buffer->index && count > buffer->indexCapacity) {
        auto *grown = static_cast<SVBlockBufferIndexEntry *>(
            std::realloc(buffer->index, 2 * buffer->indexCapacity * sizeof(SVBlockBufferIndexEntry)));
        if (!grown) {
            std::free(buffer->index);
            buffer->index = nullptr;
            return;
        }
        buffer->index = grown;
        buffer->indexCapacity *= 2;
    }
    if (buffer->index) {
        buffer->index[count - 1] = indexEntry(piece, start);
        return;
    }
    if (count < kIndexedPieceCount || (count & (count - 1)) != 0) return;
    auto *index = static_cast<SVBlockBufferIndexEntry *>(std::malloc(2 * count * sizeof(SVBlockBufferIndexEntry)));
    if (!index) return;
    size_t i = 0, at = 0;
    for (SubBlock *p = buffer->firstSubBlock; p; at += p->dataLength, p = p->next) index[i++] = indexEntry(p, at);
    buffer->index = index;
    buffer->indexCapacity = 2 * count;
}

void link(Buffer *buffer, SubBlock *piece) noexcept {
    if (buffer->lastSubBlock)
        buffer->lastSubBlock->next = piece;
    else
        buffer->firstSubBlock = piece;
    buffer->lastSubBlock = piece;
    const size_t start = buffer->dataLength;
    buffer->dataLength += piece->dataLength;
    buffer->pieceCount++;
    indexNewPiece(buffer, piece, start);
}

// The piece that holds `offset` (the first one whose end lies beyond it),
// and where it starts (and, for an indexed buffer, its position in the
// index); NULL when there is none.
SubBlock *findPiece(const Buffer *buffer, size_t offset, size_t *startOut, size_t *positionOut = nullptr) noexcept {
    if (const SVBlockBufferIndexEntry *index = buffer->index) {
        if (offset >= buffer->dataLength) return nullptr;
        // The last piece that starts at or before the offset.
        size_t low = 0, high = buffer->pieceCount;
        while (high - low > 1) {
            const size_t middle = low + (high - low) / 2;
            if (index[middle].start <= offset)
                low = middle;
            else
                high = middle;
        }
        *startOut = index[low].start;
        if (positionOut) *positionOut = low;
        return index[low].piece;
    }
    SubBlock *piece = buffer->firstSubBlock;
    size_t start = 0;
    while (piece && piece->dataLength <= offset - start) {
        start += piece->dataLength;
        piece = piece->next;
    }
    *startOut = start;
    return piece;
}

void blockBufferFinalize(CFTypeRef cf) noexcept {
    Buffer *buffer = SVRuntimeClass<Buffer>::cast(cf);
    SubBlock *piece = buffer->firstSubBlock;
    while (piece) {
        SubBlock *next = piece->next;
        // A record belongs to this buffer alone: a buffer that refers to
        // this one makes a record of its own and retains this buffer, so no
        // count guards the record and it is disposed of here, its block or
        // its reference given back first.
        if (piece->isReference) {
            CFRelease(piece->allocatorOrBuffer);
        } else {
            if (piece->memoryBlock) freeBlock(*piece);
            if (piece->allocatorOrBuffer) CFRelease(piece->allocatorOrBuffer);
        }
        std::free(piece);
        piece = next;
    }
    buffer->firstSubBlock = nullptr;
    buffer->lastSubBlock = nullptr;
    std::free(buffer->index);
    buffer->index = nullptr;
}

// Whether `dataLength` more bytes keep the buffer's total length within
// size_t.  Every append checks this before it changes anything, so a
// buffer's length never wraps (pieces left unallocated could otherwise add
// up past the largest size and report a small length).
bool growthFits(const Buffer *buffer, size_t dataLength, sorvel::SVLogSite site) noexcept {
    if (dataLength <= SIZE_MAX - buffer->dataLength) return true;
    SV_LOG_SITE(site, 3, "appending %zu bytes to a buffer of %zu bytes would overflow its data length.", dataLength,
                buffer->dataLength);
    return false;
}

OSStatus appendReference(Buffer *buffer, Buffer *target, size_t offsetToData, size_t dataLength,
                         const char *function) noexcept {
    if (!gSVBlockBufferClass.checked(buffer) || !gSVBlockBufferClass.checked(target))
        return kSVBlockBufferBadPointerParameterErr;
    const size_t targetLength = target->dataLength;
    if (offsetToData >= targetLength) return kSVBlockBufferBadOffsetParameterErr;
    if (dataLength == 0)
        dataLength = targetLength - offsetToData;
    else if (dataLength > targetLength - offsetToData)
        return kSVBlockBufferBadLengthParameterErr;
    if (!growthFits(buffer, dataLength, {function, __LINE__})) return kSVBlockBufferBadLengthParameterErr;

    auto *piece = static_cast<SubBlock *>(std::calloc(1, sizeof(SubBlock)));
    if (!piece) return kSVBlockBufferStructureAllocationFailedErr;
    // Zero-filled: a reference piece has no memory block of its own.
    piece->isReference = 1;
    piece->allocatorOrBuffer = CFRetain(target);
    piece->offsetToData = offsetToData;
    piece->dataLength = dataLength;
    link(buffer, piece);
    return kSVBlockBufferNoErr;
}

// Finds the bytes at `offset`, descending through references.  `*runOut`
// is the number of contiguous bytes there, clipped by the end of the piece
// at every level (the same answer as recursing and taking the smaller run
// on the way back, without the recursion).
OSStatus locate(const Buffer *buffer, size_t offset, size_t *runOut, char **pointerOut) noexcept {
    size_t run = SIZE_MAX;
    for (;;) {
        size_t start;
        const SubBlock *piece = findPiece(buffer, offset, &start);
        if (!piece) return kSVBlockBufferBadOffsetParameterErr;
        const size_t r = offset - start;
        if (piece->dataLength - r < run) run = piece->dataLength - r;
        if (!piece->isReference) {
            if (!piece->memoryBlock) return kSVBlockBufferUnallocatedBlockErr;
            *runOut = run;
            *pointerOut = static_cast<char *>(piece->memoryBlock) + piece->offsetToData + r;
            return kSVBlockBufferNoErr;
        }
        buffer = static_cast<const Buffer *>(piece->allocatorOrBuffer);
        offset = piece->offsetToData + r;
    }
}

// Consecutive runs that lie end to end in memory, as the slices of one
// read do, are visited as one when the visit allows it (mergeable(run, n,
// done)): one memmove instead of many.  The visit says no where merging
// could change what it does (a copy whose other side overlaps the run).
struct PendingRun {
    char *bytes = nullptr;
    size_t length = 0, done = 0;
    template <typename Visit>
    void flush(Visit &visit) noexcept {
        if (length != 0) visit(bytes, length, done);
        length = 0;
    }
    template <typename Visit>
    void add(Visit &visit, char *run, size_t n, size_t runDone) noexcept {
        if (length != 0 && bytes + length == run && visit.mergeable(bytes, length + n, done)) {
            length += n;
            return;
        }
        flush(visit);
        bytes = run;
        length = n;
        done = runDone;
    }
};

// Calls visit(bytes, n, done) for each contiguous run of an already checked
// range, in order; `done` counts the bytes visited before.  A reached
// memory piece without a block is kSVBlockBufferUnallocatedBlockErr, or,
// with mayAllocate, allocates every missing block of the buffer being
// walked first.  The runs before it are visited either way.
template <typename Visit>
OSStatus walkRange(Buffer *buffer, size_t offset, size_t length, bool mayAllocate, size_t doneBefore,
                   Visit &visit) noexcept {
    PendingRun pending;
    size_t done = 0;
    size_t start = 0;
    size_t position = 0;
    SubBlock *piece = findPiece(buffer, offset, &start, &position);
    // With an index, the pieces are read from the array rather than from
    // the list (same pieces, same order), and the loads of successive
    // entries do not wait on one another.
    const SVBlockBufferIndexEntry *entry = nullptr, *end = nullptr;
    if (buffer->index && piece) {
        entry = buffer->index + position;
        end = buffer->index + buffer->pieceCount;
    }
    for (size_t r = offset - start; piece; r = 0) {
        // Allocated memory pieces, the common case, in a loop of their own
        // that reads nothing but their entries.
        for (; entry && entry->bytes; r = 0) {
            const size_t remaining = length - done;
            const size_t n = entry->dataLength - r < remaining ? entry->dataLength - r : remaining;
            pending.add(visit, entry->bytes + r, n, doneBefore + done);
            if (n == remaining) {
                pending.flush(visit);
                return kSVBlockBufferNoErr;
            }
            done += n;
            if (++entry == end) SV_BUG_SITE(kLogSites.copyRanOffTheEnd);
        }
        // Anything else from its record.
        if (entry) piece = entry->piece;
        const size_t remaining = length - done;
        const size_t n = piece->dataLength - r < remaining ? piece->dataLength - r : remaining;
        if (piece->isReference) {
            pending.flush(visit);
            OSStatus status = walkRange(static_cast<Buffer *>(const_cast<void *>(piece->allocatorOrBuffer)),
                                        piece->offsetToData + r, n, mayAllocate, doneBefore + done, visit);
            if (status != kSVBlockBufferNoErr) return status;
        } else {
            if (!piece->memoryBlock) {
                pending.flush(visit);
                if (!mayAllocate) return kSVBlockBufferUnallocatedBlockErr;
                OSStatus status = SVBlockBufferAssureBlockMemory(buffer);
                if (status != kSVBlockBufferNoErr) return status;
            }
            pending.add(visit, static_cast<char *>(piece->memoryBlock) + piece->offsetToData + r, n, doneBefore + done);
        }
        if (n == remaining) {
            pending.flush(visit);
            return kSVBlockBufferNoErr;
        }
        done += n;
        if (entry)
            piece = ++entry < end ? entry->piece : nullptr;
        else
            piece = piece->next;
    }
    // The range was checked against the data length, which is the sum of
    // the pieces' lengths: the list cannot run out first.
    SV_BUG_SITE(kLogSites.copyRanOffTheEnd);
}

OSStatus checkRange(const Buffer *buffer, size_t offset, size_t length) noexcept {
    if (offset >= buffer->dataLength) return kSVBlockBufferBadOffsetParameterErr;
    if (length == 0 || length > buffer->dataLength - offset) return kSVBlockBufferBadLengthParameterErr;
    return kSVBlockBufferNoErr;
}

}  // namespace

extern "C" {

CFTypeID SVBlockBufferGetTypeID(void) noexcept {
    return gSVBlockBufferClass.typeID();
}

OSStatus _SVBlockBufferCopyData(void *memory, SVBlockBufferRef buffer, size_t offset, size_t length,
                                SVBlockBufferCopyDirection direction, Boolean mayAllocate) noexcept {
    if (!memory || !gSVBlockBufferClass.checked(buffer)) return kSVBlockBufferBadPointerParameterErr;
    if (OSStatus status = checkRange(buffer, offset, length); status != kSVBlockBufferNoErr) return status;
    // memmove: the caller's memory may lie inside the buffer's own blocks.
    // Then runs are not merged, since one memmove over several runs could
    // read bytes that copying them one by one had already overwritten.
    struct Copy {
        char *bytes;
        bool in;
        void operator()(char *run, size_t n, size_t done) const noexcept {
            if (in)
                std::memmove(run, bytes + done, n);
            else
                std::memmove(bytes + done, run, n);
        }
        bool mergeable(const char *run, size_t n, size_t done) const noexcept {
            const char *other = bytes + done;
            return other + n <= run || run + n <= other;
        }
    } visit{static_cast<char *>(memory), direction == kSVBlockBufferCopyIntoBuffer};
    return walkRange(buffer, offset, length, mayAllocate, 0, visit);
}

OSStatus SVBlockBufferCreateEmpty(CFAllocatorRef structureAllocator, uint32_t subBlockCapacity,
                                  SVBlockBufferFlags flags, SVBlockBufferRef *blockBufferOut) noexcept {
    // The capacity hint has no observable effect: pieces are records of a
    // list, not slots of an array.
    if (!blockBufferOut) return kSVBlockBufferBadPointerParameterErr;
    Buffer *buffer = gSVBlockBufferClass.create(structureAllocator);
    if (!buffer) return kSVBlockBufferStructureAllocationFailedErr;
    *blockBufferOut = buffer;
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferAppendMemoryBlock(SVBlockBufferRef theBuffer, void *memoryBlock, size_t blockLength,
                                        CFAllocatorRef blockAllocator,
                                        const SVBlockBufferCustomBlockSource *customBlockSource, size_t offsetToData,
                                        size_t dataLength, SVBlockBufferFlags flags) noexcept {
    if (!gSVBlockBufferClass.checked(theBuffer)) return kSVBlockBufferBadPointerParameterErr;
    if (dataLength == 0) {
        SV_LOG_HERE(3, "dataLength must be a positive non-zero number.");
        return kSVBlockBufferBadLengthParameterErr;
    }
    if (blockLength == 0) {
        SV_LOG_HERE(3, "blockLength must be a positive non-zero number.");
        return kSVBlockBufferBadLengthParameterErr;
    }
    if (!growthFits(theBuffer, dataLength, SV_HERE)) return kSVBlockBufferBadLengthParameterErr;
    // Deliberately unchecked: that the data lies inside the block.  The
    // caller is trusted.
    auto *piece = static_cast<SubBlock *>(std::calloc(1, sizeof(SubBlock)));
    if (!piece) return kSVBlockBufferStructureAllocationFailedErr;
    piece->memoryBlock = memoryBlock;
    piece->blockLength = blockLength;
    piece->allocatorOrBuffer = blockAllocator;
    piece->offsetToData = offsetToData;
    piece->dataLength = dataLength;
    if (customBlockSource) {
        piece->hasCustomBlockSource = 1;
        piece->customBlockSource = *customBlockSource;
    }
    if ((flags & kSVBlockBufferAssureMemoryNowFlag) && !memoryBlock) {
        piece->memoryBlock = allocateBlock(*piece);
        if (!piece->memoryBlock) {
            std::free(piece);
            return kSVBlockBufferBlockAllocationFailedErr;
        }
    }
    // The piece will give its block back through this allocator, so it must
    // outlive the caller's reference.
    if (blockAllocator) CFRetain(blockAllocator);
    link(theBuffer, piece);
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void *memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const SVBlockBufferCustomBlockSource *customBlockSource,
                                            size_t offsetToData, size_t dataLength, SVBlockBufferFlags flags,
                                            SVBlockBufferRef *blockBufferOut) noexcept {
    if (!blockBufferOut) return kSVBlockBufferBadPointerParameterErr;
    SVRetained<SVBlockBufferRef> buffer(gSVBlockBufferClass.create(structureAllocator));
    if (!buffer) return kSVBlockBufferStructureAllocationFailedErr;
    OSStatus status = SVBlockBufferAppendMemoryBlock(buffer.get(), memoryBlock, blockLength, blockAllocator,
                                                     customBlockSource, offsetToData, dataLength, flags);
    if (status != kSVBlockBufferNoErr) return status;
    *blockBufferOut = buffer.release();
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferAppendBufferReference(SVBlockBufferRef theBuffer, SVBlockBufferRef targetBBuf,
                                            size_t offsetToData, size_t dataLength, SVBlockBufferFlags flags) noexcept {
    return appendReference(theBuffer, targetBBuf, offsetToData, dataLength, __func__);
}

OSStatus SVBlockBufferCreateWithBufferReference(CFAllocatorRef structureAllocator,
                                                SVBlockBufferRef referencedBlockBuffer, size_t offsetToData,
                                                size_t dataLength, SVBlockBufferFlags flags,
                                                SVBlockBufferRef *blockBufferOut) noexcept {
    if (!blockBufferOut) return kSVBlockBufferBadPointerParameterErr;
    *blockBufferOut = nullptr;
    SVRetained<SVBlockBufferRef> buffer(gSVBlockBufferClass.create(structureAllocator));
    if (!buffer) return kSVBlockBufferStructureAllocationFailedErr;
    OSStatus status = appendReference(buffer.get(), referencedBlockBuffer, offsetToData, dataLength, __func__);
    if (status != kSVBlockBufferNoErr) return status;
    *blockBufferOut = buffer.release();
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferCreateContiguous(CFAllocatorRef structureAllocator, SVBlockBufferRef sourceBuffer,
                                       CFAllocatorRef blockAllocator,
                                       const SVBlockBufferCustomBlockSource *customBlockSource, size_t offsetToData,
                                       size_t dataLength, SVBlockBufferFlags flags,
                                       SVBlockBufferRef *blockBufferOut) noexcept {
    if (!blockBufferOut) return kSVBlockBufferBadPointerParameterErr;
    *blockBufferOut = nullptr;
    SVRetained<SVBlockBufferRef> buffer(gSVBlockBufferClass.create(structureAllocator));
    if (!buffer) return kSVBlockBufferStructureAllocationFailedErr;

    if (!gSVBlockBufferClass.checked(sourceBuffer)) sourceBuffer = nullptr;
    const size_t length = dataLength ? dataLength : (sourceBuffer ? sourceBuffer->dataLength : 0) - offsetToData;
    OSStatus status;
    if (!(flags & kSVBlockBufferAlwaysCopyDataFlag)) {
        if (!sourceBuffer) return kSVBlockBufferBadPointerParameterErr;
        size_t run;
        char *pointer;
        status = locate(sourceBuffer, offsetToData, &run, &pointer);
        if (status != kSVBlockBufferNoErr) return status;
        if (run >= length) {
            // Already contiguous: share the source's bytes instead of copying.
            status = appendReference(buffer.get(), sourceBuffer, offsetToData, length, __func__);
            if (status != kSVBlockBufferNoErr) return status;
            *blockBufferOut = buffer.release();
            return kSVBlockBufferNoErr;
        }
    }
    status = SVBlockBufferAppendMemoryBlock(buffer.get(), nullptr, length, blockAllocator, customBlockSource, 0, length,
                                            kSVBlockBufferAssureMemoryNowFlag);
    if (status != kSVBlockBufferNoErr) return status;
    status = _SVBlockBufferCopyData(buffer.get()->firstSubBlock->memoryBlock, sourceBuffer, offsetToData, length,
                                    kSVBlockBufferCopyOutOfBuffer, false);
    if (status != kSVBlockBufferNoErr) return status;
    *blockBufferOut = buffer.release();
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferAssureBlockMemory(SVBlockBufferRef theBuffer) noexcept {
    if (!gSVBlockBufferClass.checked(theBuffer)) return kSVBlockBufferBadPointerParameterErr;
    size_t position = 0;
    for (SubBlock *piece = theBuffer->firstSubBlock; piece; piece = piece->next, ++position) {
        if (piece->isReference) {
            OSStatus status = SVBlockBufferAssureBlockMemory(
                static_cast<SVBlockBufferRef>(const_cast<void *>(piece->allocatorOrBuffer)));
            if (status != kSVBlockBufferNoErr) return status;
        } else if (!piece->memoryBlock) {
            piece->memoryBlock = allocateBlock(*piece);
            if (!piece->memoryBlock) return kSVBlockBufferBlockAllocationFailedErr;
            if (theBuffer->index) theBuffer->index[position].bytes = dataAddress(piece);
        }
    }
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferAccessDataBytes(SVBlockBufferRef theBuffer, size_t offset, size_t length, void *temporaryBlock,
                                      char **dataPointerOut) noexcept {
    if (!dataPointerOut) return kSVBlockBufferBadPointerParameterErr;
    *dataPointerOut = nullptr;
    if (!gSVBlockBufferClass.checked(theBuffer) || !temporaryBlock) return kSVBlockBufferBadPointerParameterErr;
    if (length == 0) return kSVBlockBufferBadLengthParameterErr;
    size_t run;
    char *pointer;
    OSStatus status = locate(theBuffer, offset, &run, &pointer);
    if (status != kSVBlockBufferNoErr) return status;
    if (run >= length) {
        *dataPointerOut = pointer;
        return kSVBlockBufferNoErr;
    }
    status = _SVBlockBufferCopyData(temporaryBlock, theBuffer, offset, length, kSVBlockBufferCopyOutOfBuffer, false);
    if (status != kSVBlockBufferNoErr) return status;
    *dataPointerOut = static_cast<char *>(temporaryBlock);
    return kSVBlockBufferNoErr;
}

OSStatus SVBlockBufferCopyDataBytes(SVBlockBufferRef theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void *destination) noexcept {
    return _SVBlockBufferCopyData(destination, theSourceBuffer, offsetToData, dataLength, kSVBlockBufferCopyOutOfBuffer,
                                  false);
}

OSStatus SVBlockBufferReplaceDataBytes(const void *sourceBytes, SVBlockBufferRef destinationBuffer,
                                       size_t offsetIntoDestination, size_t dataLength) noexcept {
    return _SVBlockBufferCopyData(const_cast<void *>(sourceBytes), destinationBuffer, offsetIntoDestination, dataLength,
                                  kSVBlockBufferCopyIntoBuffer, true);
}

OSStatus SVBlockBufferFillDataBytes(char fillByte, SVBlockBufferRef destinationBuffer, size_t offsetIntoDestination,
                                    size_t dataLength) noexcept {
    if (!gSVBlockBufferClass.checked(destinationBuffer)) return kSVBlockBufferBadPointerParameterErr;
    if (offsetIntoDestination >= destinationBuffer->dataLength) return kSVBlockBufferBadOffsetParameterErr;
    if (dataLength > destinationBuffer->dataLength - offsetIntoDestination) return kSVBlockBufferBadLengthParameterErr;
    if (dataLength == 0) {
        // Deliberately: no length fills the contiguous run at the offset.
        size_t run;
        char *pointer;
        OSStatus status = locate(destinationBuffer, offsetIntoDestination, &run, &pointer);
        if (status != kSVBlockBufferNoErr) return status;
        std::memset(pointer, fillByte, run);
        return kSVBlockBufferNoErr;
    }
    // One pass over the pieces fills the same runs, in the same order and up
    // to the same first unallocated block, as locating each run from the
    // head would; fill never allocates.
    struct Fill {
        char byte;
        void operator()(char *run, size_t n, size_t) const noexcept { std::memset(run, byte, n); }
        bool mergeable(const char *, size_t, size_t) const noexcept { return true; }
    } visit{fillByte};
    return walkRange(destinationBuffer, offsetIntoDestination, dataLength, false, 0, visit);
}

OSStatus SVBlockBufferGetDataPointer(SVBlockBufferRef theBuffer, size_t offset, size_t *lengthAtOffsetOut,
                                     size_t *totalLengthOut, char **dataPointerOut) noexcept {
    if (lengthAtOffsetOut) *lengthAtOffsetOut = 0;
    if (totalLengthOut) *totalLengthOut = 0;
    if (dataPointerOut) *dataPointerOut = nullptr;
    if (!gSVBlockBufferClass.checked(theBuffer)) return kSVBlockBufferBadPointerParameterErr;
    if (totalLengthOut) *totalLengthOut = theBuffer->dataLength;
    size_t run;
    char *pointer;
    OSStatus status = locate(theBuffer, offset, &run, &pointer);
    if (status != kSVBlockBufferNoErr) return status;
    if (lengthAtOffsetOut) *lengthAtOffsetOut = run;
    if (dataPointerOut) *dataPointerOut = pointer;
    return kSVBlockBufferNoErr;
}

size_t SVBlockBufferGetDataLength(SVBlockBufferRef theBuffer) noexcept {
    return gSVBlockBufferClass.checked(theBuffer) ? theBuffer->dataLength : 0;
}

Boolean SVBlockBufferIsRangeContiguous(SVBlockBufferRef theBuffer, size_t offset, size_t length) noexcept {
    if (!gSVBlockBufferClass.checked(theBuffer)) return false;
    size_t run;
    char *pointer;
    if (locate(theBuffer, offset, &run, &pointer) != kSVBlockBufferNoErr) return false;
    if (length) return run >= length;
    return theBuffer->dataLength - offset == run;
}

Boolean SVBlockBufferIsEmpty(SVBlockBufferRef theBuffer) noexcept {
    return gSVBlockBufferClass.checked(theBuffer) ? theBuffer->dataLength == 0 : false;
}

}  // extern "C"
