// SPDX-License-Identifier: Apache-2.0
// Block buffers: pieces and references, every call's statuses, the two
// logged refusals, allocation on demand and ownership of blocks.

#include <Sorvel/SVBlockBuffer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "buffers/SVBlockBufferInternal.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

constexpr OSStatus kOK = kSVBlockBufferNoErr;
constexpr OSStatus kBadOffset = kSVBlockBufferBadOffsetParameterErr;
constexpr OSStatus kBadLength = kSVBlockBufferBadLengthParameterErr;
constexpr OSStatus kBadPointer = kSVBlockBufferBadPointerParameterErr;
constexpr OSStatus kUnallocated = kSVBlockBufferUnallocatedBlockErr;

// Owns one reference for the test's scope.
struct Buf {
    SVBlockBufferRef ref = nullptr;
    ~Buf() { reset(); }
    void reset() {
        if (ref) CFRelease(ref);
        ref = nullptr;
    }
    operator SVBlockBufferRef() const { return ref; }
};

// A buffer of allocated memory pieces with the given lengths; byte i of
// the buffer holds `first + i`.
void makePieces(Buf &buffer, std::initializer_list<size_t> lengths, unsigned char first = 0) {
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
    for (size_t length : lengths)
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, length, nullptr, nullptr, 0, length,
                                                 kSVBlockBufferAssureMemoryNowFlag),
                  kOK);
    std::vector<unsigned char> bytes(SVBlockBufferGetDataLength(buffer));
    for (size_t i = 0; i < bytes.size(); i++) bytes[i] = static_cast<unsigned char>(first + i);
    if (!bytes.empty()) ASSERT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), buffer, 0, bytes.size()), kOK);
}

std::string contents(SVBlockBufferRef buffer) {
    std::string bytes(SVBlockBufferGetDataLength(buffer), '\0');
    EXPECT_EQ(SVBlockBufferCopyDataBytes(buffer, 0, bytes.size(), bytes.data()), kOK);
    return bytes;
}

// A custom block source that counts its calls and can refuse.
struct CountingSource {
    int allocations = 0, frees = 0;
    bool refuse = false;
    size_t lastFreedSize = 0;
    SVBlockBufferCustomBlockSource source() {
        return {0,
                [](void *refCon, size_t size) -> void * {
                    auto *me = static_cast<CountingSource *>(refCon);
                    if (me->refuse) return nullptr;
                    me->allocations++;
                    return std::malloc(size);
                },
                [](void *refCon, void *block, size_t size) {
                    auto *me = static_cast<CountingSource *>(refCon);
                    me->frees++;
                    me->lastFreedSize = size;
                    std::free(block);
                },
                this};
    }
};

TEST(SVBlockBuffer, EmptyBufferRefusesEveryRead) {
    Buf empty, other;
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &empty.ref), kOK);
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 8, 0, &other.ref), kOK);
    CFStringRef name = CFCopyTypeIDDescription(SVBlockBufferGetTypeID());
    EXPECT_TRUE(CFEqual(name, CFSTR("SVBlockBuffer")));
    CFRelease(name);
    EXPECT_FALSE(CFEqual(empty, other)) << "no equality callback: identity";
    char byte = 0, *pointer = &byte;
    size_t total = 99;
    EXPECT_EQ(SVBlockBufferGetDataLength(empty), 0u);
    EXPECT_TRUE(SVBlockBufferIsEmpty(empty));
    EXPECT_FALSE(SVBlockBufferIsEmpty(nullptr));
    EXPECT_EQ(SVBlockBufferGetDataLength(nullptr), 0u);
    EXPECT_EQ(SVBlockBufferGetDataPointer(empty, 0, nullptr, &total, &pointer), kBadOffset);
    EXPECT_EQ(total, 0u);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(SVBlockBufferCopyDataBytes(empty, 0, 1, &byte), kBadOffset);
    EXPECT_EQ(SVBlockBufferFillDataBytes(0, empty, 0, 0), kBadOffset);
    EXPECT_EQ(SVBlockBufferAppendBufferReference(other, empty, 0, 0, 0), kBadOffset);
    EXPECT_FALSE(SVBlockBufferIsRangeContiguous(empty, 0, 0));
    EXPECT_TRUE(SVBlockBufferIsEmpty(other)) << "a refused reference leaves the buffer as it was";
    SVBlockBufferRef out = reinterpret_cast<SVBlockBufferRef>(&byte);
    EXPECT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, empty, 0, 0, 0, &out), kBadOffset);
    EXPECT_EQ(out, nullptr);
}

// The two zero-length refusals: the data length is tested first, each is
// logged once at level 3, a NULL buffer is refused before either.
TEST(SVBlockBuffer, ZeroLengthsAreRefusedAndLogged) {
    struct Case {
        bool nullBuffer;
        size_t blockLength, dataLength;
        OSStatus status;
        const char *message;
    };
    const Case cases[] = {
        {false, 0, 0, kBadLength, "dataLength must be a positive non-zero number."},
        {false, 8, 0, kBadLength, "dataLength must be a positive non-zero number."},
        {false, 0, 8, kBadLength, "blockLength must be a positive non-zero number."},
        {true, 0, 0, kBadPointer, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "block " << c.blockLength << ", data " << c.dataLength);
        Buf buffer;
        ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
        LogCapture capture;
        EXPECT_EQ(SVBlockBufferAppendMemoryBlock(c.nullBuffer ? nullptr : buffer.ref, nullptr, c.blockLength, nullptr,
                                                 nullptr, 0, c.dataLength, 0),
                  c.status);
        EXPECT_TRUE(SVBlockBufferIsEmpty(buffer));
        ASSERT_EQ(capture.count(), c.message ? 1u : 0u);
        if (!c.message) continue;
        const auto line = capture.lines()[0];
        EXPECT_EQ(line.level, 3);
        EXPECT_EQ(line.function, "SVBlockBufferAppendMemoryBlock");
        EXPECT_EQ(line.path, "Sorvel/Sources/SVBlockBuffer");
        EXPECT_EQ(line.message, c.message);
    }
}

// Unallocated pieces cost nothing, so their lengths can add up past
// SIZE_MAX; every append refuses the piece that would wrap the total, logs
// why, and leaves the buffer as it was.
TEST(SVBlockBuffer, AppendsThatWouldWrapTheLengthAreRefused) {
    constexpr size_t kHalf = SIZE_MAX / 2 + 1;  // two of these wrap to 0
    Buf small;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 16, nullptr, nullptr, 0, 16, 0, &small.ref), kOK);
    struct Case {
        const char *name;
        size_t lengthBefore;  // made of unallocated pieces of at most kHalf
        size_t append;        // 0: append a reference to all of `small`
        const char *function;
        OSStatus status;
    };
    const Case cases[] = {
        {"half + half", kHalf, kHalf, "SVBlockBufferAppendMemoryBlock", kBadLength},
        {"max + 1", SIZE_MAX, 1, "SVBlockBufferAppendMemoryBlock", kBadLength},
        {"max - 16 + reference of 16", SIZE_MAX - 15, 0, "SVBlockBufferAppendBufferReference", kBadLength},
        {"max - 1 + 1 fits", SIZE_MAX - 1, 1, nullptr, kOK},
        {"max - 16 + reference of 16 fits", SIZE_MAX - 16, 0, nullptr, kOK},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Buf buffer;
        ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
        for (size_t left = c.lengthBefore; left > 0;) {
            const size_t piece = left < kHalf ? left : kHalf;
            ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, piece, nullptr, nullptr, 0, piece, 0), kOK);
            left -= piece;
        }
        LogCapture capture;
        const OSStatus status =
            c.append ? SVBlockBufferAppendMemoryBlock(buffer, nullptr, c.append, nullptr, nullptr, 0, c.append, 0)
                     : SVBlockBufferAppendBufferReference(buffer, small, 0, 0, 0);
        EXPECT_EQ(status, c.status);
        const size_t added = c.append ? c.append : 16;
        EXPECT_EQ(SVBlockBufferGetDataLength(buffer), c.status == kOK ? c.lengthBefore + added : c.lengthBefore);
        if (c.status == kOK) {
            EXPECT_EQ(capture.count(), 0u);
            continue;
        }
        ASSERT_EQ(capture.count(), 1u);
        EXPECT_EQ(capture.lines()[0].level, 3);
        EXPECT_EQ(capture.lines()[0].function, c.function);
        EXPECT_NE(capture.lines()[0].message.find("overflow"), std::string::npos);
    }
    // The refused reference did not keep the target.
    EXPECT_EQ(CFGetRetainCount(small), 1);
}

TEST(SVBlockBuffer, CreateWithMemoryBlockFailuresLeaveNothingBehind) {
    TestAllocator structure;
    char sentinel;
    SVBlockBufferRef out = reinterpret_cast<SVBlockBufferRef>(&sentinel);
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 8, nullptr, nullptr, 0, 8, 0, nullptr), kBadPointer);
    {
        LogCapture capture;
        EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(structure.get(), nullptr, 8, nullptr, nullptr, 0, 0, 0, &out),
                  kBadLength);
        EXPECT_EQ(capture.lines().at(0).function, "SVBlockBufferAppendMemoryBlock");
    }
    CountingSource source;
    source.refuse = true;
    auto custom = source.source();
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(structure.get(), nullptr, 8, nullptr, &custom, 0, 8,
                                                 kSVBlockBufferAssureMemoryNowFlag, &out),
              kSVBlockBufferBlockAllocationFailedErr);
    structure.failAlways();
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(structure.get(), nullptr, 8, nullptr, nullptr, 0, 8, 0, &out),
              kSVBlockBufferStructureAllocationFailedErr);
    EXPECT_EQ(SVBlockBufferCreateEmpty(structure.get(), 0, 0, &out), kSVBlockBufferStructureAllocationFailedErr);
    EXPECT_EQ(out, reinterpret_cast<SVBlockBufferRef>(&sentinel)) << "the out pointer is left untouched";
    EXPECT_EQ(structure.outstanding(), 0) << "half-made buffers were released";
}

// Allocation at append time through each kind of source; a refusal leaves
// the buffer as it was.
TEST(SVBlockBuffer, AssureMemoryNowAllocatesOrFailsCleanly) {
    TestAllocator blocks;
    CountingSource source;
    Buf buffer;
    makePieces(buffer, {4});
    auto custom = source.source();
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 64, blocks.get(), &custom, 2, 10,
                                             kSVBlockBufferAssureMemoryNowFlag),
              kOK);
    custom.refCon = nullptr;  // the source was copied, not referenced
    EXPECT_EQ(source.allocations, 1);
    EXPECT_EQ(blocks.allocations(), 0) << "a custom source wins over the allocator";
    EXPECT_EQ(SVBlockBufferGetDataLength(buffer), 14u);

    source.refuse = true;
    custom = source.source();
    blocks.failAlways();
    const SVBlockBufferCustomBlockSource noAllocate = {0, nullptr, nullptr, nullptr};
    using Source = std::pair<CFAllocatorRef, const SVBlockBufferCustomBlockSource *>;
    for (auto [allocator, customSource] : {Source{blocks.get(), nullptr}, Source{kCFAllocatorNull, nullptr},
                                           Source{blocks.get(), &custom}, Source{blocks.get(), &noAllocate}})
        EXPECT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 8, allocator, customSource, 0, 8,
                                                 kSVBlockBufferAssureMemoryNowFlag),
                  kSVBlockBufferBlockAllocationFailedErr);
    EXPECT_EQ(SVBlockBufferGetDataLength(buffer), 14u);
    EXPECT_EQ(contents(buffer).substr(0, 4), std::string("\0\1\2\3", 4));
    buffer.reset();
    EXPECT_EQ(source.frees, 1);
    EXPECT_EQ(source.lastFreedSize, 64u) << "FreeBlock gets the block length";
}

// A piece without a block: reads see -12707; Replace and Assure allocate
// every missing block of the buffer they reach.
TEST(SVBlockBuffer, UnallocatedBlocksAreAllocatedOnlyByWriters) {
    TestAllocator blocks;
    Buf buffer;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 4, blocks.get(), nullptr, 0, 4, 0, &buffer.ref),
              kOK);
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 6, blocks.get(), nullptr, 1, 5, 0), kOK);
    char bytes[9] = {}, *pointer;
    EXPECT_EQ(SVBlockBufferGetDataPointer(buffer, 5, nullptr, nullptr, &pointer), kUnallocated);
    EXPECT_EQ(SVBlockBufferCopyDataBytes(buffer, 0, 9, bytes), kUnallocated);
    EXPECT_EQ(SVBlockBufferFillDataBytes('x', buffer, 0, 9), kUnallocated);
    EXPECT_EQ(SVBlockBufferAccessDataBytes(buffer, 0, 2, bytes, &pointer), kUnallocated);
    EXPECT_FALSE(SVBlockBufferIsRangeContiguous(buffer, 0, 1));
    EXPECT_EQ(blocks.allocations(), 0) << "reads never allocate";

    EXPECT_EQ(SVBlockBufferReplaceDataBytes("abcdefghi", buffer, 0, 2), kOK);
    EXPECT_EQ(blocks.allocations(), 2) << "replace allocated every missing block of the buffer";
    EXPECT_EQ(SVBlockBufferReplaceDataBytes("abcdefghi", buffer, 0, 9), kOK);
    EXPECT_EQ(contents(buffer), "abcdefghi");

    // Assure stops at the first failure and keeps what it allocated.
    Buf lazy;
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &lazy.ref), kOK);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(lazy, nullptr, 4, blocks.get(), nullptr, 0, 4, 0), kOK);
    blocks.failAfter(1);
    EXPECT_EQ(SVBlockBufferAssureBlockMemory(lazy), kSVBlockBufferBlockAllocationFailedErr);
    EXPECT_EQ(SVBlockBufferIsRangeContiguous(lazy, 0, 4), true);
    EXPECT_EQ(SVBlockBufferIsRangeContiguous(lazy, 4, 4), false);
    EXPECT_EQ(SVBlockBufferAssureBlockMemory(nullptr), kBadPointer);
}

// Pieces of 3 and 5: the run at the seam, the exact end, and the outputs
// of a failing call.
TEST(SVBlockBuffer, GetDataPointerAtTheSeamAndTheEnd) {
    Buf buffer;
    makePieces(buffer, {3, 5}, 'a');
    size_t run = 7, total = 7;
    char *pointer = nullptr;
    ASSERT_EQ(SVBlockBufferGetDataPointer(buffer, 3, &run, &total, &pointer), kOK);
    EXPECT_EQ(run, 5u);
    EXPECT_EQ(total, 8u);
    EXPECT_EQ(*pointer, 'd');
    EXPECT_EQ(SVBlockBufferGetDataPointer(buffer, 8, &run, &total, &pointer), kBadOffset);
    EXPECT_EQ(run, 0u);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(total, 8u) << "the total is stored even when the call fails";
    EXPECT_EQ(SVBlockBufferGetDataPointer(buffer, 0, nullptr, nullptr, nullptr), kOK);
    EXPECT_EQ(SVBlockBufferGetDataPointer(nullptr, 0, &run, &total, &pointer), kBadPointer);
    EXPECT_EQ(total, 0u);
}

// A reference to a reference that crosses pieces: each level clips the run.
TEST(SVBlockBuffer, ReferencesAreNeverFlattenedAndClipRuns) {
    Buf base, middle, top;
    makePieces(base, {10, 10});
    ASSERT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, base, 5, 10, 0, &middle.ref), kOK);  // base[5, 15)
    ASSERT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, middle, 2, 6, 0, &top.ref), kOK);    // base[7, 13)
    EXPECT_EQ(CFGetRetainCount(middle), 2) << "the referenced buffer itself is retained";
    EXPECT_EQ(CFGetRetainCount(base), 2);
    const size_t expectedRuns[] = {3, 2, 1, 3, 2, 1};
    for (size_t offset = 0; offset < 6; offset++) {
        size_t run;
        char *pointer;
        ASSERT_EQ(SVBlockBufferGetDataPointer(top, offset, &run, nullptr, &pointer), kOK);
        EXPECT_EQ(run, expectedRuns[offset]) << offset;
        EXPECT_EQ(*pointer, static_cast<char>(7 + offset));
    }
    EXPECT_EQ(contents(top), std::string("\7\10\11\12\13\14", 6));

    // A later append to the target does not lengthen the reference.
    Buf whole;
    ASSERT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, base, 0, 0, 0, &whole.ref), kOK);
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(base, nullptr, 4, nullptr, nullptr, 0, 4, 1), kOK);
    EXPECT_EQ(SVBlockBufferGetDataLength(whole), 20u);
    EXPECT_TRUE(SVBlockBufferIsRangeContiguous(whole, 10, 0)) << "the run ends where the reference ends";

    top.reset();
    EXPECT_EQ(CFGetRetainCount(middle), 1) << "finalize released the reference";
}

TEST(SVBlockBuffer, ReferenceRangesAreChecked) {
    Buf target, buffer;
    makePieces(target, {4, 4});
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
    struct Case {
        size_t offset, length;
        OSStatus status;
        size_t added;
    };
    const Case cases[] = {{0, 0, kOK, 8},        {7, 0, kOK, 1},        {7, 1, kOK, 1},        {8, 0, kBadOffset, 0},
                          {9, 1, kBadOffset, 0}, {7, 2, kBadLength, 0}, {0, 9, kBadLength, 0}, {2, 6, kOK, 6}};
    size_t expected = 0;
    for (const Case &c : cases) {
        EXPECT_EQ(SVBlockBufferAppendBufferReference(buffer, target, c.offset, c.length, 0xFFFFFFFF), c.status)
            << c.offset << "+" << c.length;
        expected += c.added;
        EXPECT_EQ(SVBlockBufferGetDataLength(buffer), expected);
    }
    EXPECT_EQ(SVBlockBufferAppendBufferReference(nullptr, target, 0, 0, 0), kBadPointer);
    EXPECT_EQ(SVBlockBufferAppendBufferReference(buffer, nullptr, 0, 0, 0), kBadPointer);
    EXPECT_EQ(CFGetRetainCount(target), 5) << "one retain per accepted reference";

    TestAllocator structure;
    SVBlockBufferRef out = buffer;
    EXPECT_EQ(SVBlockBufferCreateWithBufferReference(structure.get(), target, 0, 9, 0, &out), kBadLength);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(SVBlockBufferCreateWithBufferReference(structure.get(), nullptr, 0, 0, 0, &out), kBadPointer);
    EXPECT_EQ(SVBlockBufferCreateWithBufferReference(structure.get(), target, 0, 0, 0, nullptr), kBadPointer);
    structure.failAlways();
    EXPECT_EQ(SVBlockBufferCreateWithBufferReference(structure.get(), target, 0, 0, 0, &out),
              kSVBlockBufferStructureAllocationFailedErr);
    EXPECT_EQ(structure.outstanding(), 0);
    EXPECT_EQ(CFGetRetainCount(target), 5);
}

// The argument checks shared by copy and replace, and a copy through a
// reference chain.
TEST(SVBlockBuffer, CopyAndReplaceCheckTheirRange) {
    Buf buffer, view;
    makePieces(buffer, {3, 5}, 'a');
    ASSERT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, buffer, 1, 6, 0, &view.ref), kOK);
    char out[16] = {};
    struct Case {
        size_t offset, length;
        OSStatus status;
    };
    const Case cases[] = {{0, 8, kOK},
                          {7, 1, kOK},
                          {8, 1, kBadOffset},
                          {0, 0, kBadLength},
                          {7, 2, kBadLength},
                          {SIZE_MAX, 1, kBadOffset},
                          {1, SIZE_MAX, kBadLength}};
    for (const Case &c : cases) {
        EXPECT_EQ(SVBlockBufferCopyDataBytes(buffer, c.offset, c.length, out), c.status) << c.offset << "+" << c.length;
        EXPECT_EQ(SVBlockBufferReplaceDataBytes(out, buffer, c.offset, c.length), c.status);
    }
    EXPECT_EQ(SVBlockBufferCopyDataBytes(nullptr, 0, 1, out), kBadPointer);
    EXPECT_EQ(SVBlockBufferCopyDataBytes(buffer, 0, 1, nullptr), kBadPointer);
    EXPECT_EQ(SVBlockBufferReplaceDataBytes(nullptr, buffer, 0, 1), kBadPointer);
    EXPECT_EQ(_SVBlockBufferCopyData(out, nullptr, 0, 1, kSVBlockBufferCopyOutOfBuffer, true), kBadPointer);

    EXPECT_EQ(contents(view), "bcdefg");
    ASSERT_EQ(SVBlockBufferReplaceDataBytes("XYZ", view, 1, 3), kOK);
    EXPECT_EQ(contents(buffer), "abXYZfgh") << "replace writes through the reference";
}

// Access returns a pointer into the buffer when it can, else the temporary
// block filled with the bytes.
TEST(SVBlockBuffer, AccessDataBytes) {
    Buf buffer;
    makePieces(buffer, {3, 5}, 'a');
    char temporary[8] = {}, *pointer = temporary;
    ASSERT_EQ(SVBlockBufferAccessDataBytes(buffer, 3, 5, temporary, &pointer), kOK);
    char *direct;
    ASSERT_EQ(SVBlockBufferGetDataPointer(buffer, 3, nullptr, nullptr, &direct), kOK);
    EXPECT_EQ(pointer, direct);
    ASSERT_EQ(SVBlockBufferAccessDataBytes(buffer, 1, 4, temporary, &pointer), kOK);
    EXPECT_EQ(pointer, temporary);
    EXPECT_EQ(std::string(pointer, 4), "bcde");

    struct Case {
        SVBlockBufferRef buffer;
        size_t offset, length;
        void *temporary;
        OSStatus status;
    };
    const Case cases[] = {{buffer, 0, 1, nullptr, kBadPointer},
                          {nullptr, 0, 1, temporary, kBadPointer},
                          {buffer, 0, 0, temporary, kBadLength},
                          {buffer, 8, 1, temporary, kBadOffset},
                          {buffer, 6, 3, temporary, kBadLength}};
    for (const Case &c : cases) {
        pointer = temporary;
        EXPECT_EQ(SVBlockBufferAccessDataBytes(c.buffer, c.offset, c.length, c.temporary, &pointer), c.status);
        EXPECT_EQ(pointer, nullptr) << "the out pointer is cleared first";
    }
    EXPECT_EQ(SVBlockBufferAccessDataBytes(buffer, 0, 1, temporary, nullptr), kBadPointer);
}

TEST(SVBlockBuffer, FillDataBytes) {
    Buf buffer;
    makePieces(buffer, {3, 5}, 'a');
    ASSERT_EQ(SVBlockBufferFillDataBytes('-', buffer, 4, 0), kOK);
    EXPECT_EQ(contents(buffer), "abcd----") << "no length fills the run at the offset";
    ASSERT_EQ(SVBlockBufferFillDataBytes('=', buffer, 1, 0), kOK);
    EXPECT_EQ(contents(buffer), "a==d----") << "...and only that run";
    ASSERT_EQ(SVBlockBufferFillDataBytes('*', buffer, 2, 3), kOK);
    EXPECT_EQ(contents(buffer), "a=***---");
    EXPECT_EQ(SVBlockBufferFillDataBytes('*', buffer, 8, 0), kBadOffset);
    EXPECT_EQ(SVBlockBufferFillDataBytes('*', buffer, 7, 2), kBadLength);
    EXPECT_EQ(SVBlockBufferFillDataBytes('*', nullptr, 0, 1), kBadPointer);

    // A fill that meets an unallocated block keeps what it already wrote.
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 2, nullptr, nullptr, 0, 2, 0), kOK);
    EXPECT_EQ(SVBlockBufferFillDataBytes('!', buffer, 6, 4), kUnallocated);
    char tail[2];
    ASSERT_EQ(SVBlockBufferCopyDataBytes(buffer, 6, 2, tail), kOK);
    EXPECT_EQ(std::string(tail, 2), "!!");
}

TEST(SVBlockBuffer, CreateContiguousSharesOrCopies) {
    Buf source;
    makePieces(source, {4, 4}, 'a');
    TestAllocator blocks;
    struct Case {
        size_t offset, length;
        SVBlockBufferFlags flags;
        bool copies;
        const char *bytes;
    };
    const Case cases[] = {{4, 0, 0, false, "efgh"},
                          {1, 2, 0, false, "bc"},
                          {1, 2, kSVBlockBufferAlwaysCopyDataFlag, true, "bc"},
                          {2, 4, 0, true, "cdef"},
                          {0, 0, 0, true, "abcdefgh"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.offset << "+" << c.length);
        const long before = blocks.allocations();
        Buf result;
        ASSERT_EQ(SVBlockBufferCreateContiguous(nullptr, source, blocks.get(), nullptr, c.offset, c.length, c.flags,
                                                &result.ref),
                  kOK);
        EXPECT_EQ(contents(result), c.bytes);
        EXPECT_TRUE(SVBlockBufferIsRangeContiguous(result, 0, 0));
        char *mine, *theirs;
        ASSERT_EQ(SVBlockBufferGetDataPointer(result, 0, nullptr, nullptr, &mine), kOK);
        ASSERT_EQ(SVBlockBufferGetDataPointer(source, c.offset, nullptr, nullptr, &theirs), kOK);
        EXPECT_EQ(mine == theirs, !c.copies);
        EXPECT_EQ(blocks.allocations() - before, c.copies ? 1 : 0);
    }

    Buf lazy;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 4, nullptr, nullptr, 0, 4, 0, &lazy.ref), kOK);
    CountingSource refusing;
    refusing.refuse = true;
    auto custom = refusing.source();
    struct Failure {
        SVBlockBufferRef source;
        size_t offset, length;
        SVBlockBufferFlags flags;
        const SVBlockBufferCustomBlockSource *custom;
        OSStatus status;
    };
    const Failure failures[] = {{nullptr, 0, 4, 0, nullptr, kBadPointer},
                                {lazy, 0, 4, 0, nullptr, kUnallocated},
                                {source, 8, 0, 0, nullptr, kBadOffset},
                                {source, 4, 5, 0, nullptr, kBadLength},
                                {source, 0, 6, 0, &custom, kSVBlockBufferBlockAllocationFailedErr},
                                {lazy, 0, 2, kSVBlockBufferAlwaysCopyDataFlag, nullptr, kUnallocated}};
    TestAllocator structure;
    for (const Failure &f : failures) {
        SVBlockBufferRef out = source;
        EXPECT_EQ(SVBlockBufferCreateContiguous(structure.get(), f.source, nullptr, f.custom, f.offset, f.length,
                                                f.flags, &out),
                  f.status);
        EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(structure.outstanding(), 0);
    EXPECT_EQ(CFGetRetainCount(source), 1);
    EXPECT_EQ(SVBlockBufferCreateContiguous(nullptr, source, nullptr, nullptr, 0, 0, 0, nullptr), kBadPointer);
}

TEST(SVBlockBuffer, IsRangeContiguous) {
    Buf buffer;
    makePieces(buffer, {3, 5});
    struct Case {
        SVBlockBufferRef buffer;
        size_t offset, length;
        bool contiguous;
    };
    const Case cases[] = {{buffer, 0, 3, true},  {buffer, 0, 4, false}, {buffer, 3, 5, true},  {buffer, 3, 0, true},
                          {buffer, 0, 0, false}, {buffer, 7, 0, true},  {buffer, 8, 0, false}, {nullptr, 0, 1, false}};
    for (const Case &c : cases)
        EXPECT_EQ(SVBlockBufferIsRangeContiguous(c.buffer, c.offset, c.length), c.contiguous)
            << c.offset << "+" << c.length;
}

// Who frees what at finalization, and the block allocator staying alive
// for as long as the piece needs it.
TEST(SVBlockBuffer, FinalizeGivesBlocksBackToTheirOwners) {
    TestAllocator owner;
    char kept[4] = "abc";
    {
        Buf buffer;
        ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, kept, 4, kCFAllocatorNull, nullptr, 0, 3, 0, &buffer.ref),
                  kOK);
        void *given = CFAllocatorAllocate(owner.get(), 16, 0);
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, given, 16, owner.get(), nullptr, 0, 16, 0), kOK);
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 16, owner.get(), nullptr, 0, 16, 0), kOK);
        EXPECT_EQ(CFGetRetainCount(owner.get()), 3) << "each piece keeps its allocator";
    }
    EXPECT_EQ(owner.outstanding(), 0) << "the caller's block was freed, the unallocated one skipped";
    EXPECT_EQ(CFGetRetainCount(owner.get()), 1);
    EXPECT_STREQ(kept, "abc") << "kCFAllocatorNull leaves the caller's memory alone";

    // A NULL block allocator means the default one, at finalization too.
    CFAllocatorSetDefault(owner.get());
    Buf buffer;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(kCFAllocatorSystemDefault, CFAllocatorAllocate(nullptr, 8, 0), 8,
                                                 nullptr, nullptr, 0, 8, 0, &buffer.ref),
              kOK);
    buffer.reset();
    CFAllocatorSetDefault(nullptr);
    EXPECT_EQ(owner.outstanding(), 0);
    EXPECT_EQ(owner.deallocations(), 2);
}

// Many pieces of varied lengths (the tail pointer, and the piece index that
// large buffers keep): after every append, every offset is located in the
// right piece with the right run.
TEST(SVBlockBuffer, ManyPiecesAreLocatedExactly) {
    Buf buffer;
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
    std::string expected;
    std::vector<size_t> pieceEnd;  // per byte: where its piece ends
    for (int i = 0; i < 300; i++) {
        const size_t length = 1 + static_cast<size_t>(i * 5 % 7);
        const std::string bytes(length, static_cast<char>('A' + i % 26));
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, length, nullptr, nullptr, 0, length, 1), kOK);
        ASSERT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), buffer, expected.size(), length), kOK);
        expected += bytes;
        pieceEnd.resize(expected.size(), expected.size());
        if (i % 37 != 0 && i < 290) continue;
        for (size_t offset = 0; offset < expected.size(); offset++) {
            size_t run;
            char *pointer;
            ASSERT_EQ(SVBlockBufferGetDataPointer(buffer, offset, &run, nullptr, &pointer), kOK);
            ASSERT_EQ(run, pieceEnd[offset] - offset) << "piece " << i << ", offset " << offset;
            ASSERT_EQ(*pointer, expected[offset]);
        }
        EXPECT_EQ(SVBlockBufferGetDataPointer(buffer, expected.size(), nullptr, nullptr, nullptr), kBadOffset);
    }
    EXPECT_EQ(contents(buffer), expected);
    char middle[40];
    ASSERT_EQ(SVBlockBufferCopyDataBytes(buffer, 500, sizeof middle, middle), kOK);
    EXPECT_EQ(std::string(middle, sizeof middle), expected.substr(500, sizeof middle));
    // Copies that run through the index to the last piece, from every
    // kind of start (inside a piece, at its first byte, at the last byte).
    std::string out(expected.size(), '\0');
    for (size_t offset = 0; offset < expected.size(); offset += 7) {
        const size_t length = expected.size() - offset;
        ASSERT_EQ(SVBlockBufferCopyDataBytes(buffer, offset, length, out.data()), kOK);
        ASSERT_EQ(out.substr(0, length), expected.substr(offset)) << "from " << offset;
    }
}

// Buffers big enough to keep an index copy from it as from their list:
// pieces whose data starts inside their block, references, and blocks that
// are only allocated once the buffer is large (by Assure, or by a write
// that allocates them on its way).
TEST(SVBlockBuffer, IndexedBuffersCopyEveryKindOfPiece) {
    enum class Blocks { Allocated, AssuredLater, WrittenLater };
    for (Blocks blocks : {Blocks::Allocated, Blocks::AssuredLater, Blocks::WrittenLater}) {
        SCOPED_TRACE(static_cast<int>(blocks));
        Buf target;
        makePieces(target, {64}, 'a');
        Buf buffer;
        ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
        std::vector<size_t> memoryAt;  // where the memory pieces start in the buffer
        for (size_t i = 0; i < 40; i++) {
            const size_t length = 1 + i % 5;
            if (i % 7 == 3) {
                ASSERT_EQ(SVBlockBufferAppendBufferReference(buffer, target, i, length, 0), kOK);
                continue;
            }
            memoryAt.push_back(SVBlockBufferGetDataLength(buffer));
            // Two bytes of each block lie before the piece's data.
            ASSERT_EQ(
                SVBlockBufferAppendMemoryBlock(buffer, nullptr, length + 2, nullptr, nullptr, 2, length,
                                               blocks == Blocks::Allocated ? kSVBlockBufferAssureMemoryNowFlag : 0),
                kOK);
        }
        const size_t total = SVBlockBufferGetDataLength(buffer);
        std::string expected(total, '\0');
        for (size_t i = 0; i < total; i++) expected[i] = static_cast<char>('0' + i % 61);
        if (blocks == Blocks::AssuredLater) {
            char probe;
            EXPECT_EQ(SVBlockBufferCopyDataBytes(buffer, memoryAt.back(), 1, &probe), kUnallocated);
            ASSERT_EQ(SVBlockBufferAssureBlockMemory(buffer), kOK);
        }
        // Writing through the references writes the target: done last, the
        // expected bytes there are what the target then holds.
        ASSERT_EQ(SVBlockBufferReplaceDataBytes(expected.data(), buffer, 0, total), kOK);
        ASSERT_EQ(contents(buffer), expected);
        std::string out(total, '\0');
        for (size_t offset = 0; offset < total; offset += 3) {
            const size_t length = std::min<size_t>(total - offset, 1 + offset % 29);
            ASSERT_EQ(SVBlockBufferCopyDataBytes(buffer, offset, length, out.data()), kOK);
            ASSERT_EQ(out.substr(0, length), expected.substr(offset, length)) << "from " << offset;
        }
    }
}

// Slices that lie end to end in one arena (as a demuxer's samples do in
// its read buffer) may be copied as one run; the bytes must come out as
// copying them one by one gives, also when the other side of the copy lies
// in the same arena, overlapping the slices.
TEST(SVBlockBuffer, AdjacentSlicesCopyAsPieceByPiece) {
    struct Case {
        const char *name;
        std::vector<size_t> slices;  // lengths, end to end from the arena's start
        ptrdiff_t otherAt;           // where the caller's memory starts in the arena
        bool in;                     // copy into the buffer (else out of it)
    };
    const Case cases[] = {
        {"out, caller memory apart", {8, 8, 8, 8}, 64, false}, {"in, caller memory apart", {8, 8, 8, 8}, 64, true},
        {"out, overlapping behind", {8, 8, 8, 8}, 4, false},   {"out, overlapping ahead", {8, 8, 8, 8}, -4, false},
        {"in, overlapping behind", {8, 8, 8, 8}, 4, true},     {"in, overlapping ahead", {3, 5, 7, 17}, -4, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<char> arena(128), expected(128);
        for (size_t i = 0; i < arena.size(); i++) arena[i] = static_cast<char>('A' + i % 53);
        const size_t base = 16;  // slices start here, so "ahead" stays inside the arena
        Buf buffer;
        ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
        size_t at = base, total = 0;
        for (size_t length : c.slices) {
            ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, arena.data() + at, length, kCFAllocatorNull, nullptr, 0,
                                                     length, 0),
                      kOK);
            at += length;
            total += length;
        }
        // The reference: one memmove per slice, in order.
        expected = arena;
        char *other = expected.data() + base + c.otherAt;
        size_t done = 0, start = base;
        for (size_t length : c.slices) {
            if (c.in)
                std::memmove(expected.data() + start, other + done, length);
            else
                std::memmove(other + done, expected.data() + start, length);
            start += length;
            done += length;
        }
        char *callerMemory = arena.data() + base + c.otherAt;
        ASSERT_EQ(c.in ? SVBlockBufferReplaceDataBytes(callerMemory, buffer, 0, total)
                       : SVBlockBufferCopyDataBytes(buffer, 0, total, callerMemory),
                  kOK);
        EXPECT_EQ(std::string(arena.begin(), arena.end()), std::string(expected.begin(), expected.end()));
    }
}

// A fill over adjacent slices stops at the first unallocated block with
// every run before it filled.
TEST(SVBlockBuffer, FillOverAdjacentSlicesStopsAtAnUnallocatedBlock) {
    std::vector<char> arena(16, '.');
    Buf buffer;
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer.ref), kOK);
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, arena.data() + 4 * i, 4, kCFAllocatorNull, nullptr, 0, 4, 0),
                  kOK);
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(buffer, nullptr, 4, nullptr, nullptr, 0, 4, 0), kOK);
    EXPECT_EQ(SVBlockBufferFillDataBytes('x', buffer, 2, 9), kUnallocated);
    EXPECT_EQ(std::string(arena.begin(), arena.end()), "..xxxxxx........");
}

using SVBlockBufferDeathTest = testing::Test;

// The copy cannot run off the end of the list unless the buffer is
// corrupt; if it does, it stops the process.
TEST(SVBlockBufferDeathTest, CopyRunningOffTheEndIsABug) {
    EXPECT_DEATH(
        {
            Buf buffer;
            makePieces(buffer, {4});
            buffer.ref->dataLength = 6;
            char out[6];
            SVBlockBufferCopyDataBytes(buffer, 0, 6, out);
        },
        "_SVBlockBufferCopyData \\[Sorvel/Sources/SVBlockBuffer:190\\] BUG");
}

// The same with an index: the walk over the index's entries stops too.
TEST(SVBlockBufferDeathTest, CopyRunningOffTheEndOfTheIndexIsABug) {
    EXPECT_DEATH(
        {
            Buf buffer;
            makePieces(buffer, {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4});
            buffer.ref->dataLength += 2;
            char out[82];
            SVBlockBufferCopyDataBytes(buffer, 60, 22, out);
        },
        "_SVBlockBufferCopyData \\[Sorvel/Sources/SVBlockBuffer:190\\] BUG");
}

}  // namespace
