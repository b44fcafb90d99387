// SPDX-License-Identifier: Apache-2.0
// Tests for the local notification center: name and object filters,
// delivery order, what reaches the callback, removal filters, re-entrant
// use from inside callbacks (removing, adding, posting), allocation
// failure, the fatal stops, and a four-thread stress run that also runs
// under ThreadSanitizer.
#include <CoreFoundation/CoreFoundation.h>
#include <XPLog/XPLog.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TestAllocator.h"

namespace {

std::string nameText(CFStringRef name) {
    char buffer[256];
    return CFStringGetCString(name, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "(unconvertible)";
}

struct Delivery {
    std::string label, name;
    const void *object;
    CFDictionaryRef userInfo;
    CFNotificationCenterRef center;
};

// An observer that records each call in a shared log and then runs its
// optional action (to remove, add or post from inside the callback).
struct Observer {
    std::string label;
    std::vector<Delivery> *log;
    std::function<void()> action;
};

// Tag 0 runs the action; the others only record under a tagged label, so a
// test can tell apart one observer's registrations.
template <int Tag>
void record(CFNotificationCenterRef center, void *observer, CFNotificationName name, const void *object,
            CFDictionaryRef userInfo) {
    auto *o = static_cast<Observer *>(observer);
    o->log->push_back({Tag ? o->label + std::to_string(Tag) : o->label, nameText(name), object, userInfo, center});
    if (Tag == 0 && o->action) o->action();
}

using Labels = std::vector<std::string>;

class CFNotificationCenterTest : public testing::Test {
protected:
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    std::vector<Delivery> log;

    Observer *observer(const std::string &label, std::function<void()> action = nullptr) {
        observers_.push_back(Observer{label, &log, std::move(action)});
        return &observers_.back();
    }
    void add(Observer *o, CFStringRef name, const void *object = nullptr, CFNotificationCallback callback = record<0>) {
        CFNotificationCenterAddObserver(center, o, callback, name, object,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    void post(CFStringRef name, const void *object = nullptr, CFDictionaryRef userInfo = nullptr) {
        CFNotificationCenterPostNotification(center, name, object, userInfo, true);
    }
    Labels takeLabels() {
        Labels labels;
        for (const Delivery &d : std::exchange(log, {})) labels.push_back(d.label);
        return labels;
    }
    // Registrations left behind would be called by later tests with
    // dangling observer pointers.
    void TearDown() override {
        for (Observer &o : observers_) CFNotificationCenterRemoveEveryObserver(center, &o);
    }

private:
    std::deque<Observer> observers_;
};

// A registration's name (matched by text, retained by the center) and object
// filter the posts it gets, NULL matching any; each call receives the post's
// center, name, object and userInfo, whichever call posted it.
TEST_F(CFNotificationCenterTest, FiltersByNameAndObjectAndPassesThePostThrough) {
    EXPECT_EQ(CFGetTypeID(center), CFNotificationCenterGetTypeID());
    CFIndex count = CFGetRetainCount(center);
    CFRetain(center);
    CFRelease(center);
    CFRelease(center);  // immortal: one release too many does no harm
    EXPECT_EQ(CFGetRetainCount(center), count);
    EXPECT_EQ(CFNotificationCenterGetLocalCenter(), center);

    int objectX = 0, objectY = 0;
    CFStringRef created = CFStringCreateWithCString(nullptr, "N1", kCFStringEncodingUTF8);
    add(observer("name"), created);
    CFRelease(created);
    add(observer("object"), nullptr, &objectX);
    add(observer("both"), CFSTR("N1"), &objectX);
    add(observer("any"), nullptr, nullptr);
    CFStringRef posted = CFStringCreateWithCString(nullptr, "N1", kCFStringEncodingUTF8);
    CFDictionaryRef userInfo = CFDictionaryCreate(nullptr, nullptr, nullptr, 0, nullptr, nullptr);
    struct Case {
        CFStringRef name;
        const void *object;
        Labels expected;
    };
    const Case cases[] = {
        {CFSTR("N1"), nullptr, {"name", "any"}},  {posted, &objectX, {"name", "object", "both", "any"}},
        {CFSTR("N1"), &objectY, {"name", "any"}}, {CFSTR("N2"), &objectX, {"object", "any"}},
        {CFSTR("N2"), &objectY, {"any"}},         {CFSTR("n1"), nullptr, {"any"}},
    };
    bool withOptions = false;
    for (const Case &c : cases) {
        SCOPED_TRACE(nameText(c.name) + (c.object == &objectX ? " X" : c.object ? " Y" : " NULL"));
        if ((withOptions = !withOptions))
            CFNotificationCenterPostNotificationWithOptions(center, c.name, c.object, userInfo, 0);
        else
            post(c.name, c.object, userInfo);
        for (const Delivery &d : log) {
            EXPECT_EQ(d.center, center);
            EXPECT_EQ(d.name, nameText(c.name));
            EXPECT_EQ(d.object, c.object);
            EXPECT_EQ(d.userInfo, userInfo);
        }
        EXPECT_EQ(takeLabels(), c.expected);
    }
    CFRelease(posted);
    CFRelease(userInfo);
}

TEST_F(CFNotificationCenterTest, RemoveObserverHonoursItsFilters) {
    int object1 = 0, object2 = 0;
    struct Case {
        const char *label;
        CFStringRef name;
        const void *object;
        Labels remaining;
    };
    const Case cases[] = {
        {"by name", CFSTR("N1"), nullptr, {"O3", "O4", "P"}},
        {"by object", nullptr, &object1, {"O2", "O4", "P"}},
        {"by name and object", CFSTR("N1"), &object1, {"O2", "O3", "O4", "P"}},
        {"everything", nullptr, nullptr, {"P"}},
        {"unknown name", CFSTR("N3"), nullptr, {"O1", "O2", "O3", "O4", "P"}},
        {"unknown object", nullptr, &object2, {"O1", "O2", "O3", "O4", "P"}},
    };
    Observer *o = observer("O"), *p = observer("P");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        add(o, CFSTR("N1"), &object1, record<1>);
        add(o, CFSTR("N1"), nullptr, record<2>);
        add(o, CFSTR("N2"), &object1, record<3>);
        add(o, CFSTR("N2"), nullptr, record<4>);
        add(p, CFSTR("N1"), &object1);
        CFNotificationCenterRemoveObserver(center, o, c.name, c.object);
        post(CFSTR("N1"), &object1);
        post(CFSTR("N2"), &object1);
        Labels seen = takeLabels();
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(seen, c.remaining);
        // RemoveEveryObserver drops whatever filters were used.
        CFNotificationCenterRemoveEveryObserver(center, o);
        CFNotificationCenterRemoveEveryObserver(center, p);
        post(CFSTR("N1"), &object1);
        post(CFSTR("N2"), &object1);
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(CFNotificationCenterTest, DeliversInRegistrationOrder) {
    Observer *a = observer("a"), *b = observer("b"), *c = observer("c");
    add(a, CFSTR("Order"));
    add(b, nullptr);
    add(c, CFSTR("Order"));
    add(a, nullptr);  // a second registration of the same observer
    post(CFSTR("Order"));
    EXPECT_EQ(takeLabels(), (Labels{"a", "b", "c", "a"}));
    // Re-registering puts an observer at the end.
    CFNotificationCenterRemoveEveryObserver(center, b);
    add(b, CFSTR("Order"));
    post(CFSTR("Order"));
    EXPECT_EQ(takeLabels(), (Labels{"a", "c", "a", "b"}));
    // More registrations than a post keeps on its stack.
    Labels expected = {"a", "c", "a", "b"};
    for (int i = 0; i < 50; ++i) {
        add(observer(std::to_string(i)), CFSTR("Order"));
        expected.push_back(std::to_string(i));
    }
    post(CFSTR("Order"));
    EXPECT_EQ(takeLabels(), expected);
}

// A removal made by a callback holds at once, even for registrations later
// in the same post, and the observers it did not name are still called.
TEST_F(CFNotificationCenterTest, RemovalInsideACallbackTakesEffectAtOnce) {
    Observer *earlier = observer("earlier"), *later = observer("later"), *remover = nullptr;
    remover = observer("remover", [&] {
        CFNotificationCenterRemoveObserver(center, later, CFSTR("Remove"), nullptr);
        CFNotificationCenterRemoveObserver(center, earlier, nullptr, nullptr);
        CFNotificationCenterRemoveEveryObserver(center, remover);
    });
    for (Observer *o : {earlier, remover, later}) add(o, CFSTR("Remove"));
    add(remover, nullptr);  // its second registration, later in the same post
    add(observer("last"), CFSTR("Remove"));
    post(CFSTR("Remove"));
    EXPECT_EQ(takeLabels(), (Labels{"earlier", "remover", "last"}));
    post(CFSTR("Remove"));
    EXPECT_EQ(takeLabels(), (Labels{"last"}));
}

// A post from inside a callback is delivered at once; an observer added
// during a post is first called by the next one.
TEST_F(CFNotificationCenterTest, ReentrantPostsAndAdditions) {
    add(observer("outer", [&] { post(CFSTR("Inner")); }), CFSTR("Outer"));
    add(observer("inner"), CFSTR("Inner"));
    add(observer("after-outer"), CFSTR("Outer"));
    post(CFSTR("Outer"));
    EXPECT_EQ(takeLabels(), (Labels{"outer", "inner", "after-outer"}));

    int depth = 0;
    add(observer("echo",
                 [&] {
                     if (++depth < 4) post(CFSTR("Echo"));
                 }),
        CFSTR("Echo"));
    post(CFSTR("Echo"));
    EXPECT_EQ(takeLabels(), (Labels{"echo", "echo", "echo", "echo"}));

    Observer *newcomer = observer("newcomer");
    bool added = false;
    add(observer("adder",
                 [&] {
                     if (!std::exchange(added, true)) add(newcomer, CFSTR("Grow"));
                 }),
        CFSTR("Grow"));
    post(CFSTR("Grow"));
    EXPECT_EQ(takeLabels(), (Labels{"adder"}));
    post(CFSTR("Grow"));
    EXPECT_EQ(takeLabels(), (Labels{"adder", "newcomer"}));
}

void captureLine(int level, const char *function, const char *, int, const char *message, void *context) {
    static_cast<Labels *>(context)->push_back(std::to_string(level) + " " + function + ": " + message);
}

TEST_F(CFNotificationCenterTest, FailedRegistrationIsLoggedAndNotCalled) {
    sorvel_test::TestAllocator failing;
    failing.failAlways();
    Labels lines;
    int savedThreshold = XPLogGetThreshold();
    XPLogSetThreshold(3);
    XPLogSetSink(captureLine, &lines);
    CFAllocatorSetDefault(failing.get());
    add(observer("unregistered"), CFSTR("Fail"));
    CFAllocatorSetDefault(nullptr);
    XPLogSetSink(nullptr, nullptr);
    XPLogSetThreshold(savedThreshold);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("3 CFNotificationCenterAddObserver: out of memory", 0), 0u) << lines[0];
    EXPECT_EQ(failing.failures(), 1);
    post(CFSTR("Fail"));
    EXPECT_TRUE(log.empty());
}

using CFNotificationCenterDeathTest = CFNotificationCenterTest;

TEST_F(CFNotificationCenterDeathTest, MisuseIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Observer *o = observer("o");
    EXPECT_DEATH(post(nullptr), "CFNotificationCenterPostNotification .*name must not be NULL");
    EXPECT_DEATH(CFNotificationCenterPostNotificationWithOptions(center, nullptr, nullptr, nullptr, 0),
                 "CFNotificationCenterPostNotificationWithOptions .*name must not be NULL");
    EXPECT_DEATH(add(o, CFSTR("x"), nullptr, nullptr), "CFNotificationCenterAddObserver .*callBack must not be NULL");
    EXPECT_DEATH(add(o, reinterpret_cast<CFStringRef>(kCFBooleanTrue)), "CFNotificationCenterAddObserver .*CFBoolean");
    EXPECT_DEATH(CFNotificationCenterPostNotification(nullptr, CFSTR("x"), nullptr, nullptr, true),
                 "CFNotificationCenterPostNotification .*NULL");
    center = reinterpret_cast<CFNotificationCenterRef>(const_cast<struct __CFBoolean *>(kCFBooleanTrue));
    EXPECT_DEATH(add(o, CFSTR("x")), "CFNotificationCenterAddObserver .*CFBoolean");
    EXPECT_DEATH(CFNotificationCenterRemoveEveryObserver(center, o),
                 "CFNotificationCenterRemoveEveryObserver .*CFBoolean");
    center = CFNotificationCenterGetLocalCenter();
}

// ---- concurrency ---------------------------------------------------------------------

// Counts its calls; a one-shot observer then removes itself.
template <bool OneShot>
void count(CFNotificationCenterRef center, void *observer, CFNotificationName name, const void *, CFDictionaryRef) {
    static_cast<std::atomic<int> *>(observer)->fetch_add(1, std::memory_order_relaxed);
    if (OneShot) CFNotificationCenterRemoveObserver(center, observer, name, nullptr);
}

// Four threads post their own names while adding and removing observers on
// a neighbour's name, whose posts race with those changes.  Per-thread and
// catch-all counts are exact; the transient observers' counts are not, but a
// registration freed while a post still used it would show under the
// sanitizers.
TEST(CFNotificationCenterConcurrencyTest, ConcurrentPostsAndRegistrationChanges) {
    constexpr int kThreads = 4, kIterations = 2000;
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    auto add = [center](std::atomic<int> *counter, CFNotificationCallback callback, CFStringRef name) {
        CFNotificationCenterAddObserver(center, counter, callback, name, nullptr,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
    };
    CFStringRef names[kThreads];
    std::atomic<int> perThread[kThreads] = {}, oneShot[kThreads] = {}, transient[kThreads] = {}, everything{0};
    for (int t = 0; t < kThreads; ++t) {
        names[t] = CFStringCreateWithCString(nullptr, ("Stress." + std::to_string(t)).c_str(), kCFStringEncodingUTF8);
        add(&perThread[t], count<false>, names[t]);
    }
    add(&everything, count<false>, nullptr);

    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CFStringRef neighbour = names[(t + 1) % kThreads];
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                add(&transient[t], count<false>, neighbour);
                CFNotificationCenterPostNotification(center, names[t], &perThread[t], nullptr, true);
                add(&oneShot[t], count<true>, names[t]);
                CFNotificationCenterRemoveObserver(center, &transient[t], neighbour, nullptr);
                CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);
                // The one-shot observer removed itself: this post must miss it.
                CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();

    CFNotificationCenterRemoveEveryObserver(center, &everything);
    for (int t = 0; t < kThreads; ++t) {
        CFNotificationCenterRemoveEveryObserver(center, &perThread[t]);
        CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);  // reaches no one now
        CFRelease(names[t]);
        EXPECT_EQ(perThread[t].load(), 3 * kIterations) << t;
        EXPECT_EQ(oneShot[t].load(), kIterations) << t;
        EXPECT_LE(transient[t].load(), 3 * kIterations) << t;
    }
    EXPECT_EQ(everything.load(), kThreads * 3 * kIterations);
}

// ---- removal against delivery on other threads -------------------------------------

// A callback that parks until released, to hold a delivery in progress.
struct ParkedObserver {
    std::atomic<bool> entered{false}, release{false}, finished{false};
};

void park(CFNotificationCenterRef, void *observer, CFNotificationName, const void *, CFDictionaryRef) {
    auto *o = static_cast<ParkedObserver *>(observer);
    o->entered.store(true);
    while (!o->release.load()) std::this_thread::yield();
    o->finished.store(true);
}

// Removal from another thread returns only after the call in progress has
// returned, for both removal calls; a post that starts afterwards misses it.
TEST(CFNotificationCenterRemovalTest, RemovalWaitsForACallInProgressOnAnotherThread) {
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    for (bool every : {false, true}) {
        SCOPED_TRACE(every ? "RemoveEveryObserver" : "RemoveObserver");
        ParkedObserver observer;
        CFNotificationCenterAddObserver(center, &observer, park, CFSTR("Parked"), nullptr,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
        std::thread poster(
            [&] { CFNotificationCenterPostNotification(center, CFSTR("Parked"), nullptr, nullptr, true); });
        while (!observer.entered.load()) std::this_thread::yield();

        std::atomic<bool> removed{false};
        bool finishedWhenRemoved = false;
        std::thread remover([&] {
            if (every)
                CFNotificationCenterRemoveEveryObserver(center, &observer);
            else
                CFNotificationCenterRemoveObserver(center, &observer, CFSTR("Parked"), nullptr);
            finishedWhenRemoved = observer.finished.load();
            removed.store(true);
        });
        // Long enough for an unwaiting removal to return.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_FALSE(removed.load());
        observer.release.store(true);
        remover.join();
        poster.join();
        EXPECT_TRUE(finishedWhenRemoved);

        observer.entered.store(false);
        CFNotificationCenterPostNotification(center, CFSTR("Parked"), nullptr, nullptr, true);
        EXPECT_FALSE(observer.entered.load());
    }
}

// An observer's state, poisoned by its owner just before it is freed.
struct Guarded {
    static constexpr uint32_t kAlive = 0xA11CE, kDead = 0xDEAD;
    std::atomic<uint32_t> state{kAlive};
    std::atomic<int> *violations;
};

void checkAlive(CFNotificationCenterRef, void *observer, CFNotificationName, const void *, CFDictionaryRef) {
    auto *o = static_cast<Guarded *>(observer);
    for (int i = 0; i < 2; ++i) {  // the yield widens the window an unwaiting removal would hit
        if (o->state.load() != Guarded::kAlive) o->violations->fetch_add(1);
        std::this_thread::yield();
    }
}

// One thread registers fresh observers and frees each right after removing
// it (alternating the two removal calls); two others post in a loop.  No
// callback may see a freed observer (and the sanitizers would report the
// read of freed memory).
TEST(CFNotificationCenterRemovalTest, ObserversFreedRightAfterRemovalAreNeverCalled) {
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    constexpr int kObservers = 3000;
    std::atomic<int> violations{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> posters;
    for (int p = 0; p < 2; ++p)
        posters.emplace_back([&] {
            while (!done.load()) CFNotificationCenterPostNotification(center, CFSTR("Guarded"), nullptr, nullptr, true);
        });
    for (int i = 0; i < kObservers; ++i) {
        auto *observer = new Guarded{};
        observer->violations = &violations;
        CFNotificationCenterAddObserver(center, observer, checkAlive, CFSTR("Guarded"), nullptr,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
        std::this_thread::yield();
        if (i % 2)
            CFNotificationCenterRemoveObserver(center, observer, CFSTR("Guarded"), nullptr);
        else
            CFNotificationCenterRemoveEveryObserver(center, observer);
        observer->state.store(Guarded::kDead);
        delete observer;
    }
    done.store(true);
    for (std::thread &poster : posters) poster.join();
    EXPECT_EQ(violations.load(), 0);
}

// Removal on the delivering thread never waits for its own callers: an
// observer removes itself, and, from a nested post, the outer observer whose
// call is still on the stack; both at once with RemoveEveryObserver too.
// A wait here would never end (the test would time out).
struct Nesting {
    CFNotificationCenterRef center;
    int outerCalls = 0, innerCalls = 0;
    bool everyObserver = false;
};

void inner(CFNotificationCenterRef center, void *observer, CFNotificationName, const void *, CFDictionaryRef) {
    auto *n = static_cast<Nesting *>(observer);
    ++n->innerCalls;
    const char *outerTag = reinterpret_cast<const char *>(n) + 1;  // the outer registration's observer
    if (n->everyObserver) {
        CFNotificationCenterRemoveEveryObserver(center, outerTag);
        CFNotificationCenterRemoveEveryObserver(center, n);
    } else {
        CFNotificationCenterRemoveObserver(center, outerTag, CFSTR("Outer"), nullptr);
        CFNotificationCenterRemoveObserver(center, n, nullptr, nullptr);
    }
}

void outer(CFNotificationCenterRef center, void *observer, CFNotificationName, const void *, CFDictionaryRef) {
    auto *n = reinterpret_cast<Nesting *>(static_cast<char *>(observer) - 1);
    ++n->outerCalls;
    CFNotificationCenterPostNotification(center, CFSTR("Inner"), nullptr, nullptr, true);
    // Itself once more, after it has been removed from below.
    CFNotificationCenterRemoveObserver(center, observer, nullptr, nullptr);
}

TEST(CFNotificationCenterRemovalTest, RemovalFromInsideNestedCallbacksDoesNotWaitForItsCallers) {
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    for (bool every : {false, true}) {
        SCOPED_TRACE(every ? "RemoveEveryObserver" : "RemoveObserver");
        Nesting n{center};
        n.everyObserver = every;
        char *outerTag = reinterpret_cast<char *>(&n) + 1;
        CFNotificationCenterAddObserver(center, outerTag, outer, CFSTR("Outer"), nullptr,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
        CFNotificationCenterAddObserver(center, &n, inner, CFSTR("Inner"), nullptr,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
        CFNotificationCenterPostNotification(center, CFSTR("Outer"), nullptr, nullptr, true);
        CFNotificationCenterPostNotification(center, CFSTR("Outer"), nullptr, nullptr, true);
        CFNotificationCenterPostNotification(center, CFSTR("Inner"), nullptr, nullptr, true);
        EXPECT_EQ(n.outerCalls, 1);
        EXPECT_EQ(n.innerCalls, 1);
    }
}

}  // namespace
