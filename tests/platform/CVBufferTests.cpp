// SPDX-License-Identifier: Apache-2.0
// Tests for buffer attachments: the two modes and moves between them, the
// "none" answers, ownership of keys and values (a counting value type shows
// every release), finalizers of displaced values calling back into the same
// buffer, propagation, copies, and many threads on one buffer.
#include <CoreVideo/CoreVideo.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/TestAllocator.h"

namespace {

using sorvel_test::TestAllocator;

// ---- an attachment bearer of the test's own ------------------------------------
// Any runtime object that starts with the storage works; this one proves it
// without involving the pixel-buffer code.

struct Bearer {
    CFRuntimeBase base;
    CVAttachmentStorage attachments;
    int payload;
};

std::atomic<int> gBearersFinalized{0};

void finalizeBearer(CFTypeRef cf) {
    gBearersFinalized++;
    __CVBufferFinalize(cf);
}

const CFRuntimeClass kBearerClass = {0,       "TestBearer", nullptr, nullptr, finalizeBearer,
                                     nullptr, nullptr,      nullptr, nullptr};

CFTypeID bearerTypeID() {
    static dispatch_once_t once;
    static CFTypeID typeID;
    dispatch_once(&once, ^{
      typeID = _CFRuntimeRegisterClass(&kBearerClass);
    });
    return typeID;
}

CVBufferRef makeBearer() {
    CFTypeRef cf = _CFRuntimeCreateInstance(nullptr, bearerTypeID(), sizeof(Bearer) - sizeof(CFRuntimeBase), nullptr);
    return static_cast<CVBufferRef>(const_cast<void *>(cf));
}

// ---- a value type that counts its finalizations and may call back --------------

struct Tracked {
    CFRuntimeBase base;
    CVBufferRef reenter;  // when set, its finalizer reads this buffer's attachments
};

std::atomic<int> gTrackedLive{0};

void finalizeTracked(CFTypeRef cf) {
    gTrackedLive--;
    auto *tracked = static_cast<const Tracked *>(cf);
    if (tracked->reenter != nullptr) {
        // Would deadlock if the storage's lock were held while values die.
        CVBufferGetAttachment(tracked->reenter, CFSTR("other"), nullptr);
        CVBufferSetAttachment(tracked->reenter, CFSTR("fromFinalizer"), kCFBooleanTrue,
                              kCVAttachmentMode_ShouldNotPropagate);
    }
}

const CFRuntimeClass kTrackedClass = {0,       "TestTracked", nullptr, nullptr, finalizeTracked,
                                      nullptr, nullptr,       nullptr, nullptr};

CFTypeRef makeTracked(CVBufferRef reenter = nullptr) {
    static dispatch_once_t once;
    static CFTypeID typeID;
    dispatch_once(&once, ^{
      typeID = _CFRuntimeRegisterClass(&kTrackedClass);
    });
    CFTypeRef cf = _CFRuntimeCreateInstance(nullptr, typeID, sizeof(Tracked) - sizeof(CFRuntimeBase), nullptr);
    static_cast<Tracked *>(const_cast<void *>(cf))->reenter = reenter;
    gTrackedLive++;
    return cf;
}

class CVBufferTest : public ::testing::Test {
protected:
    void SetUp() override { buffer = makeBearer(); }
    void TearDown() override {
        if (buffer != nullptr) CFRelease(buffer);
        EXPECT_EQ(gTrackedLive.load(), 0) << "a value was leaked or released twice";
    }
    CVBufferRef buffer = nullptr;
};

CFNumberRef number(int value) {
    return CFNumberCreate(nullptr, kCFNumberIntType, &value);
}

CFDictionaryRef dictionaryOf(std::initializer_list<std::pair<CFStringRef, CFTypeRef>> entries) {
    CFMutableDictionaryRef dictionary =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (const auto &[key, value] : entries) CFDictionarySetValue(dictionary, key, value);
    return dictionary;
}

// ---- set, get, modes -----------------------------------------------------------

TEST_F(CVBufferTest, FreshStorageIsEmpty) {
    CVAttachmentMode mode = 77;
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("k"), &mode), nullptr);
    EXPECT_EQ(mode, 77u) << "the mode is written only when found";
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate), nullptr);
}

TEST_F(CVBufferTest, GetReportsTheModeTheValueWasSetWith) {
    CVBufferSetAttachment(buffer, CFSTR("a"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("b"), kCFBooleanFalse, kCVAttachmentMode_ShouldNotPropagate);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("a"), &mode), kCFBooleanTrue);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("b"), &mode), kCFBooleanFalse);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("a"), nullptr), kCFBooleanTrue);
}

TEST_F(CVBufferTest, SettingInTheOtherModeMovesTheKey) {
    CVBufferSetAttachment(buffer, CFSTR("k"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("k"), kCFBooleanFalse, kCVAttachmentMode_ShouldNotPropagate);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("k"), &mode), kCFBooleanFalse);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr)
        << "the propagating dictionary lost its only entry";
    CFDictionaryRef local = CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate);
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(CFDictionaryGetCount(local), 1);
}

TEST_F(CVBufferTest, MisuseDoesNothing) {
    CVBufferSetAttachment(buffer, nullptr, kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("k"), nullptr, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("k"), kCFBooleanTrue, 2);
    CVBufferSetAttachment(nullptr, CFSTR("k"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("k"), nullptr), nullptr);
    EXPECT_EQ(CVBufferGetAttachment(nullptr, CFSTR("k"), nullptr), nullptr);
    CVBufferSetAttachment(buffer, CFSTR("k"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachments(buffer, 2), nullptr);
    CVBufferRemoveAttachment(buffer, nullptr);
    CVBufferSetAttachments(buffer, nullptr, kCVAttachmentMode_ShouldPropagate);
    CVBufferPropagateAttachments(nullptr, buffer);
    CVBufferPropagateAttachments(buffer, nullptr);
    CVBufferRemoveAllAttachments(nullptr);
    __CVBufferFinalize(nullptr);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("k"), nullptr), kCFBooleanTrue);
}

// ---- remove --------------------------------------------------------------------

TEST_F(CVBufferTest, RemoveTakesTheKeyFromWhicheverModeHasIt) {
    CVBufferSetAttachment(buffer, CFSTR("p"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("n"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferRemoveAttachment(buffer, CFSTR("p"));
    CVBufferRemoveAttachment(buffer, CFSTR("absent"));
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("p"), nullptr), nullptr);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("n"), nullptr), kCFBooleanTrue);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr)
        << "an emptied mode answers NULL, not an empty dictionary";
    CVBufferRemoveAllAttachments(buffer);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("n"), nullptr), nullptr);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate), nullptr);
    CVBufferSetAttachment(buffer, CFSTR("again"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("again"), nullptr), kCFBooleanTrue) << "usable after RemoveAll";
}

// ---- ownership -----------------------------------------------------------------

TEST_F(CVBufferTest, ValuesAreRetainedAndReleasedOnReplaceRemoveAndFinalize) {
    CFTypeRef replaced = makeTracked();
    CFTypeRef removed = makeTracked();
    CFTypeRef cleared = makeTracked();
    CFTypeRef kept = makeTracked();
    CVBufferSetAttachment(buffer, CFSTR("r"), replaced, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("x"), removed, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferSetAttachment(buffer, CFSTR("c"), cleared, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferSetAttachment(buffer, CFSTR("k"), kept, kCVAttachmentMode_ShouldPropagate);
    for (CFTypeRef value : {replaced, removed, cleared, kept}) {
        EXPECT_EQ(CFGetRetainCount(value), 2);
        CFRelease(value);
    }
    EXPECT_EQ(gTrackedLive.load(), 4) << "the buffer holds the last references";

    CVBufferSetAttachment(buffer, CFSTR("r"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(gTrackedLive.load(), 3);
    CVBufferRemoveAttachment(buffer, CFSTR("x"));
    EXPECT_EQ(gTrackedLive.load(), 2);
    CVBufferSetAttachment(buffer, CFSTR("c"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(gTrackedLive.load(), 1) << "moving a key to the other mode releases the old value";
    // Setting the same value again keeps it alive.
    CVBufferSetAttachment(buffer, CFSTR("k"), CVBufferGetAttachment(buffer, CFSTR("k"), nullptr),
                          kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(gTrackedLive.load(), 1);

    int finalizedBefore = gBearersFinalized.load();
    CFRelease(buffer);
    buffer = nullptr;
    EXPECT_EQ(gBearersFinalized.load(), finalizedBefore + 1);
    EXPECT_EQ(gTrackedLive.load(), 0) << "__CVBufferFinalize releases the storage";
}

TEST_F(CVBufferTest, DisplacedValuesDieOutsideTheLock) {
    // Each of these finalizers reads and writes this buffer's attachments.
    CFTypeRef value = makeTracked(buffer);
    CVBufferSetAttachment(buffer, CFSTR("v"), value, kCVAttachmentMode_ShouldPropagate);
    CFRelease(value);
    CVBufferSetAttachment(buffer, CFSTR("v"), kCFBooleanFalse, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("fromFinalizer"), nullptr), kCFBooleanTrue);

    for (int path = 0; path < 3; ++path) {
        CVBufferRemoveAttachment(buffer, CFSTR("fromFinalizer"));
        value = makeTracked(buffer);
        CVBufferSetAttachment(buffer, CFSTR("v"), value, kCVAttachmentMode_ShouldPropagate);
        CFRelease(value);
        if (path == 0) CVBufferRemoveAttachment(buffer, CFSTR("v"));
        if (path == 1) CVBufferRemoveAllAttachments(buffer);
        if (path == 2) {
            CFDictionaryRef replacement = dictionaryOf({{CFSTR("v"), kCFBooleanTrue}});
            CVBufferSetAttachments(buffer, replacement, kCVAttachmentMode_ShouldNotPropagate);
            CFRelease(replacement);
        }
        EXPECT_EQ(gTrackedLive.load(), 0) << "path " << path;
        EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("fromFinalizer"), nullptr), kCFBooleanTrue) << "path " << path;
    }
}

// ---- many at once --------------------------------------------------------------

TEST_F(CVBufferTest, SetAttachmentsSetsEveryEntryWithOneMode) {
    CVBufferSetAttachment(buffer, CFSTR("b"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CFNumberRef one = number(1);
    CFDictionaryRef entries = dictionaryOf({{CFSTR("a"), one}, {CFSTR("b"), kCFBooleanFalse}});
    CVBufferSetAttachments(buffer, entries, kCVAttachmentMode_ShouldNotPropagate);
    CFRelease(entries);
    CFRelease(one);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("b"), &mode), kCFBooleanFalse);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldNotPropagate);
    EXPECT_NE(CVBufferGetAttachment(buffer, CFSTR("a"), &mode), nullptr);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
    EXPECT_EQ(CFDictionaryGetCount(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate)), 2);
    CFDictionaryRef empty = dictionaryOf({});
    CVBufferSetAttachments(buffer, empty, kCVAttachmentMode_ShouldPropagate);
    CFRelease(empty);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
}

TEST_F(CVBufferTest, SetAttachmentsAcceptsTheBuffersOwnDictionary) {
    // Moves every entry to the other mode, reading the very dictionary that
    // loses them.
    CFTypeRef value = makeTracked();
    CVBufferSetAttachment(buffer, CFSTR("a"), value, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferSetAttachment(buffer, CFSTR("b"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate);
    CFRelease(value);
    CVBufferSetAttachments(buffer, CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate),
                           kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate), nullptr);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("a"), &mode), value);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(gTrackedLive.load(), 1);
}

TEST_F(CVBufferTest, PropagateCopiesOnlyPropagatingAttachments) {
    CVBufferRef destination = makeBearer();
    CVBufferSetAttachment(buffer, CFSTR("p"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("n"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferSetAttachment(destination, CFSTR("p"), kCFBooleanFalse, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferSetAttachment(destination, CFSTR("own"), kCFBooleanFalse, kCVAttachmentMode_ShouldPropagate);
    CVBufferPropagateAttachments(buffer, destination);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(destination, CFSTR("p"), &mode), kCFBooleanTrue);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachment(destination, CFSTR("n"), nullptr), nullptr);
    EXPECT_EQ(CVBufferGetAttachment(destination, CFSTR("own"), nullptr), kCFBooleanFalse) << "other keys stay";
    // Nothing to propagate, or propagating onto itself, changes nothing.
    CVBufferRef empty = makeBearer();
    CVBufferPropagateAttachments(empty, destination);
    CVBufferPropagateAttachments(destination, destination);
    EXPECT_EQ(CFDictionaryGetCount(CVBufferGetAttachments(destination, kCVAttachmentMode_ShouldPropagate)), 2);
    CFRelease(empty);
    CFRelease(destination);
}

TEST_F(CVBufferTest, CopyAttachmentsIsASnapshotMadeWithTheCallersAllocator) {
    TestAllocator allocator;
    EXPECT_EQ(_CVBufferCopyAttachments(allocator.get(), buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
    EXPECT_EQ(allocator.allocations(), 0);
    CVBufferSetAttachment(buffer, CFSTR("a"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CFDictionaryRef copy = _CVBufferCopyAttachments(allocator.get(), buffer, kCVAttachmentMode_ShouldPropagate);
    ASSERT_NE(copy, nullptr);
    EXPECT_GT(allocator.allocations(), 0);
    EXPECT_EQ(CFGetAllocator(copy), allocator.get());
    CVBufferSetAttachment(buffer, CFSTR("b"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CFDictionaryGetCount(copy), 1) << "later changes do not reach the copy";
    CFRelease(copy);
    EXPECT_EQ(allocator.outstanding(), 0);
    EXPECT_EQ(_CVBufferCopyAttachments(nullptr, buffer, kCVAttachmentMode_ShouldNotPropagate), nullptr);
    EXPECT_EQ(_CVBufferCopyAttachments(nullptr, buffer, 5), nullptr);
    allocator.failAlways();
    EXPECT_EQ(_CVBufferCopyAttachments(allocator.get(), buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
}

// ---- threads -------------------------------------------------------------------

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr int kRounds = 2000;
#else
constexpr int kRounds = 20000;
#endif
#else
constexpr int kRounds = 20000;
#endif

TEST_F(CVBufferTest, ManyThreadsOnOneBufferKeepItConsistent) {
    // Each thread owns a key and checks its own value survives everyone
    // else's traffic; all of them fight over one shared key.
    constexpr int kThreads = 4;
    CFStringRef keys[kThreads] = {CFSTR("t0"), CFSTR("t1"), CFSTR("t2"), CFSTR("t3")};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CFNumberRef mine = number(t);
            for (int i = 0; i < kRounds; ++i) {
                CVAttachmentMode mode =
                    (i & 1) ? kCVAttachmentMode_ShouldPropagate : kCVAttachmentMode_ShouldNotPropagate;
                CVBufferSetAttachment(buffer, keys[t], mine, mode);
                CVAttachmentMode seen = 99;
                if (CVBufferGetAttachment(buffer, keys[t], &seen) != mine || seen != mode) failures++;
                CFTypeRef shared = makeTracked();
                CVBufferSetAttachment(buffer, CFSTR("shared"), shared, mode);
                CFRelease(shared);
                if (i % 7 == 0) CVBufferRemoveAttachment(buffer, CFSTR("shared"));
                CFDictionaryRef copy = _CVBufferCopyAttachments(nullptr, buffer, mode);
                if (copy == nullptr || CFDictionaryGetValue(copy, keys[t]) != mine) failures++;
                if (copy != nullptr) CFRelease(copy);
            }
            CVBufferRemoveAttachment(buffer, keys[t]);
            CFRelease(mine);
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    CVBufferRemoveAttachment(buffer, CFSTR("shared"));
    EXPECT_EQ(gTrackedLive.load(), 0);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldPropagate), nullptr);
    EXPECT_EQ(CVBufferGetAttachments(buffer, kCVAttachmentMode_ShouldNotPropagate), nullptr);
}

// ---- owned reads --------------------------------------------------------------------

TEST_F(CVBufferTest, CopyAttachmentReturnsAnOwnedValueAndItsMode) {
    CFNumberRef value = number(5);
    CVBufferSetAttachment(buffer, CFSTR("p"), value, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("n"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate);
    struct Case {
        CVBufferRef buffer;
        CFStringRef key;
        CFTypeRef expected;
        CVAttachmentMode expectedMode;  // 77: left untouched
    } cases[] = {
        {buffer, CFSTR("p"), value, kCVAttachmentMode_ShouldPropagate},
        {buffer, CFSTR("n"), kCFBooleanTrue, kCVAttachmentMode_ShouldNotPropagate},
        {buffer, CFSTR("absent"), nullptr, 77},
        {buffer, nullptr, nullptr, 77},
        {nullptr, CFSTR("p"), nullptr, 77},
    };
    for (const Case &c : cases) {
        CVAttachmentMode mode = 77;
        CFTypeRef copy = CVBufferCopyAttachment(c.buffer, c.key, &mode);
        EXPECT_EQ(copy, c.expected);
        EXPECT_EQ(mode, c.expectedMode);
        if (copy != nullptr) CFRelease(copy);
    }
    // Owned: it outlives its removal from the buffer.
    CFTypeRef copy = CVBufferCopyAttachment(buffer, CFSTR("p"), nullptr);
    EXPECT_EQ(CFGetRetainCount(value), 3);
    CVBufferRemoveAllAttachments(buffer);
    CFRelease(value);
    EXPECT_EQ(CFGetRetainCount(copy), 1);
    CFRelease(copy);
}

// One thread copies a value and uses it while another keeps replacing and
// removing it; each value is freed as soon as the buffer lets it go.  A read
// that retained only after the lock was dropped would use a freed value
// (reported by the sanitizers) and release it once too often (seen here in
// the live count).
TEST_F(CVBufferTest, CopiedValuesSurviveReplacementOnAnotherThread) {
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::thread writer([&] {
        for (int i = 0; i < kRounds * 2; ++i) {
            CFTypeRef value = makeTracked();
            CVBufferSetAttachment(buffer, CFSTR("hot"), value, i & 1);
            CFRelease(value);  // the buffer holds the only reference
            if (i % 3 == 0) CVBufferRemoveAttachment(buffer, CFSTR("hot"));
            if (i % 11 == 0) CVBufferRemoveAllAttachments(buffer);
        }
        done.store(true);
    });
    std::thread reader([&] {
        while (!done.load()) {
            CFTypeRef value = CVBufferCopyAttachment(buffer, CFSTR("hot"), nullptr);
            if (value == nullptr) continue;
            std::this_thread::yield();                    // let the writer drop the buffer's reference
            if (CFGetRetainCount(value) < 1) failures++;  // ours at least
            CFRelease(value);
        }
    });
    writer.join();
    reader.join();
    EXPECT_EQ(failures.load(), 0);
    CVBufferRemoveAllAttachments(buffer);
    EXPECT_EQ(gTrackedLive.load(), 0) << "every copy was released exactly once";
}

TEST_F(CVBufferTest, OppositePropagationsDoNotDeadlock) {
    CVBufferRef other = makeBearer();
    CVBufferSetAttachment(buffer, CFSTR("from-a"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(other, CFSTR("from-b"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    std::thread forward([&] {
        for (int i = 0; i < kRounds; ++i) CVBufferPropagateAttachments(buffer, other);
    });
    std::thread backward([&] {
        for (int i = 0; i < kRounds; ++i) {
            CVBufferPropagateAttachments(other, buffer);
            if (i % 16 == 0) CVBufferRemoveAllAttachments(other);
            CVBufferSetAttachment(other, CFSTR("from-b"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
        }
    });
    forward.join();
    backward.join();
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("from-b"), nullptr), kCFBooleanTrue);
    CFRelease(other);
}

}  // namespace
