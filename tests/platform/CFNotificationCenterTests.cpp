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
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string nameText(CFStringRef name) {
    if (name == nullptr) return "(null)";
    char buffer[256];
    return CFStringGetCString(name, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "(unconvertible)";
}

struct Delivery {
    std::string label;
    std::string name;
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

void record(CFNotificationCenterRef center, void *observer, CFNotificationName name, const void *object,
            CFDictionaryRef userInfo) {
    auto *o = static_cast<Observer *>(observer);
    o->log->push_back({o->label, nameText(name), object, userInfo, center});
    if (o->action) o->action();
}

// Distinct callbacks for one observer pointer, so a test can tell apart the
// registrations that RemoveObserver left in place.
template <int Tag>
void tagged(CFNotificationCenterRef center, void *observer, CFNotificationName name, const void *object,
            CFDictionaryRef userInfo) {
    auto *o = static_cast<Observer *>(observer);
    o->log->push_back({o->label + std::to_string(Tag), nameText(name), object, userInfo, center});
}

class CFNotificationCenterTest : public testing::Test {
protected:
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    std::vector<Delivery> log;

    Observer *observer(const std::string &label, std::function<void()> action = nullptr) {
        observers_.push_back(Observer{label, &log, std::move(action)});
        return &observers_.back();
    }
    void add(Observer *o, CFStringRef name, const void *object = nullptr) {
        CFNotificationCenterAddObserver(center, o, record, name, object,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    void post(CFStringRef name, const void *object = nullptr, CFDictionaryRef userInfo = nullptr) {
        CFNotificationCenterPostNotification(center, name, object, userInfo, true);
    }
    std::vector<std::string> labels() const {
        std::vector<std::string> result;
        for (const Delivery &d : log) result.push_back(d.label);
        return result;
    }
    std::vector<std::string> takeLabels() {
        std::vector<std::string> result = labels();
        log.clear();
        return result;
    }
    // Registrations left behind would be called by later tests with
    // dangling observer pointers.
    void TearDown() override {
        for (Observer &o : observers_) CFNotificationCenterRemoveEveryObserver(center, &o);
    }

private:
    std::deque<Observer> observers_;
};

using Labels = std::vector<std::string>;

TEST_F(CFNotificationCenterTest, LocalCenterIsOneImmortalInstance) {
    EXPECT_EQ(CFNotificationCenterGetLocalCenter(), center);
    EXPECT_EQ(CFGetTypeID(center), CFNotificationCenterGetTypeID());
    CFIndex count = CFGetRetainCount(center);
    CFRetain(center);
    CFRelease(center);
    CFRelease(center);
    EXPECT_EQ(CFGetRetainCount(center), count);
    EXPECT_EQ(CFNotificationCenterGetLocalCenter(), center);
}

TEST_F(CFNotificationCenterTest, FiltersByNameAndObjectWithNullMatchingAny) {
    int objectX = 0, objectY = 0;
    add(observer("name"), CFSTR("N1"));
    add(observer("object"), nullptr, &objectX);
    add(observer("both"), CFSTR("N1"), &objectX);
    add(observer("any"), nullptr, nullptr);
    struct Case {
        CFStringRef name;
        const void *object;
        Labels expected;
    };
    const Case cases[] = {
        {CFSTR("N1"), nullptr, {"name", "any"}},
        {CFSTR("N1"), &objectX, {"name", "object", "both", "any"}},
        {CFSTR("N1"), &objectY, {"name", "any"}},
        {CFSTR("N2"), &objectX, {"object", "any"}},
        {CFSTR("N2"), &objectY, {"any"}},
        {CFSTR("n1"), nullptr, {"any"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(nameText(c.name) + (c.object == &objectX ? " X" : c.object ? " Y" : " NULL"));
        post(c.name, c.object);
        EXPECT_EQ(takeLabels(), c.expected);
    }
}

TEST_F(CFNotificationCenterTest, NamesMatchByTextAndAreRetained) {
    CFStringRef registered = CFStringCreateWithCString(nullptr, "Shared.Name", kCFStringEncodingUTF8);
    add(observer("created"), registered);
    add(observer("constant"), CFSTR("Shared.Name"));
    CFRelease(registered);  // the center holds its own reference
    post(CFSTR("Shared.Name"));
    CFStringRef posted = CFStringCreateWithCString(nullptr, "Shared.Name", kCFStringEncodingUTF8);
    post(posted);
    CFRelease(posted);
    EXPECT_EQ(takeLabels(), (Labels{"created", "constant", "created", "constant"}));
}

TEST_F(CFNotificationCenterTest, PassesCenterNameObjectAndUserInfoThrough) {
    int object = 0;
    const void *keys[] = {CFSTR("key")};
    const void *values[] = {kCFBooleanTrue};
    CFDictionaryRef userInfo =
        CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    add(observer("o"), CFSTR("Info"));
    post(CFSTR("Info"), &object, userInfo);
    CFNotificationCenterPostNotificationWithOptions(center, CFSTR("Info"), nullptr, nullptr,
                                                    kCFNotificationDeliverImmediately);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].center, center);
    EXPECT_EQ(log[0].name, "Info");
    EXPECT_EQ(log[0].object, &object);
    EXPECT_EQ(log[0].userInfo, userInfo);
    EXPECT_EQ(log[1].object, nullptr);
    EXPECT_EQ(log[1].userInfo, nullptr);
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
    Observer *o = observer("O");
    Observer *p = observer("P");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        CFNotificationSuspensionBehavior behavior = CFNotificationSuspensionBehaviorDeliverImmediately;
        CFNotificationCenterAddObserver(center, o, tagged<1>, CFSTR("N1"), &object1, behavior);
        CFNotificationCenterAddObserver(center, o, tagged<2>, CFSTR("N1"), nullptr, behavior);
        CFNotificationCenterAddObserver(center, o, tagged<3>, CFSTR("N2"), &object1, behavior);
        CFNotificationCenterAddObserver(center, o, tagged<4>, CFSTR("N2"), nullptr, behavior);
        add(p, CFSTR("N1"), &object1);
        CFNotificationCenterRemoveObserver(center, o, c.name, c.object);
        post(CFSTR("N1"), &object1);
        post(CFSTR("N2"), &object1);
        Labels seen = takeLabels();
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(seen, c.remaining);
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
}

TEST_F(CFNotificationCenterTest, ManyObserversAreAllCalledInOrder) {
    // More registrations than a post keeps on its stack.
    Labels expected;
    for (int i = 0; i < 50; ++i) {
        add(observer(std::to_string(i)), CFSTR("Many"));
        expected.push_back(std::to_string(i));
    }
    post(CFSTR("Many"));
    EXPECT_EQ(takeLabels(), expected);
}

TEST_F(CFNotificationCenterTest, ObserverRemovingItselfIsNotCalledAgain) {
    Observer *self = nullptr;
    self = observer("self", [&] { CFNotificationCenterRemoveEveryObserver(center, self); });
    add(self, CFSTR("Once"));
    add(observer("middle"), CFSTR("Once"));
    add(self, nullptr);  // a second registration, later in the same post
    post(CFSTR("Once"));
    post(CFSTR("Once"));
    EXPECT_EQ(takeLabels(), (Labels{"self", "middle", "middle"}));
}

TEST_F(CFNotificationCenterTest, RemovalInsideACallbackTakesEffectAtOnce) {
    Observer *earlier = observer("earlier");
    Observer *later = observer("later");
    Observer *remover = observer("remover", [&] {
        CFNotificationCenterRemoveObserver(center, later, CFSTR("Remove"), nullptr);
        CFNotificationCenterRemoveObserver(center, earlier, nullptr, nullptr);
    });
    add(earlier, CFSTR("Remove"));
    add(remover, CFSTR("Remove"));
    add(later, CFSTR("Remove"));
    add(observer("last"), CFSTR("Remove"));
    post(CFSTR("Remove"));
    EXPECT_EQ(takeLabels(), (Labels{"earlier", "remover", "last"}));
    post(CFSTR("Remove"));
    EXPECT_EQ(takeLabels(), (Labels{"remover", "last"}));
}

TEST_F(CFNotificationCenterTest, PostingFromInsideACallbackIsDeliveredAtOnce) {
    add(observer("outer", [&] { post(CFSTR("Inner")); }), CFSTR("Outer"));
    add(observer("inner"), CFSTR("Inner"));
    add(observer("after-outer"), CFSTR("Outer"));
    post(CFSTR("Outer"));
    EXPECT_EQ(takeLabels(), (Labels{"outer", "inner", "after-outer"}));

    int depth = 0;
    add(observer("echo", [&] {
            if (++depth < 4) post(CFSTR("Echo"));
        }),
        CFSTR("Echo"));
    post(CFSTR("Echo"));
    EXPECT_EQ(takeLabels(), (Labels{"echo", "echo", "echo", "echo"}));
}

TEST_F(CFNotificationCenterTest, ObserverAddedDuringAPostWaitsForTheNextPost) {
    Observer *newcomer = observer("newcomer");
    bool added = false;
    add(observer("adder", [&] {
            if (!added) add(newcomer, CFSTR("Grow"));
            added = true;
        }),
        CFSTR("Grow"));
    post(CFSTR("Grow"));
    EXPECT_EQ(takeLabels(), (Labels{"adder"}));
    post(CFSTR("Grow"));
    EXPECT_EQ(takeLabels(), (Labels{"adder", "newcomer"}));
}

TEST_F(CFNotificationCenterTest, RemoveEveryObserverLeavesOthersAlone) {
    int object = 0;
    Observer *gone = observer("gone"), *kept = observer("kept");
    add(gone, CFSTR("Every"));
    add(gone, nullptr, &object);
    add(gone, nullptr);
    add(kept, CFSTR("Every"));
    CFNotificationCenterRemoveEveryObserver(center, gone);
    CFNotificationCenterRemoveEveryObserver(center, gone);  // nothing left: harmless
    post(CFSTR("Every"), &object);
    EXPECT_EQ(takeLabels(), (Labels{"kept"}));
}

struct CapturedLine {
    int level;
    std::string function;
    std::string message;
};

void captureLine(int level, const char *function, const char *, int, const char *message, void *context) {
    static_cast<std::vector<CapturedLine> *>(context)->push_back({level, function, message});
}

void *failAllocate(CFIndex, CFOptionFlags, void *) { return nullptr; }

TEST_F(CFNotificationCenterTest, FailedRegistrationIsLoggedAndNotCalled) {
    CFAllocatorContext context = {0, nullptr, nullptr, nullptr, nullptr, failAllocate, nullptr, nullptr, nullptr};
    CFAllocatorRef failing = CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
    std::vector<CapturedLine> lines;
    int savedThreshold = XPLogGetThreshold();
    XPLogSetThreshold(3);
    XPLogSetSink(captureLine, &lines);
    CFAllocatorSetDefault(failing);
    add(observer("unregistered"), CFSTR("Fail"));
    CFAllocatorSetDefault(nullptr);
    XPLogSetSink(nullptr, nullptr);
    XPLogSetThreshold(savedThreshold);
    CFRelease(failing);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].function, "CFNotificationCenterAddObserver");
    EXPECT_NE(lines[0].message.find("out of memory"), std::string::npos) << lines[0].message;
    post(CFSTR("Fail"));
    EXPECT_TRUE(log.empty());
}

TEST(CFNotificationCenterDeathTest, MisuseIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    int observer = 0;
    EXPECT_DEATH(CFNotificationCenterPostNotification(center, nullptr, nullptr, nullptr, true),
                 "CFNotificationCenterPostNotification .*name must not be NULL");
    EXPECT_DEATH(CFNotificationCenterPostNotificationWithOptions(center, nullptr, nullptr, nullptr, 0),
                 "CFNotificationCenterPostNotificationWithOptions .*name must not be NULL");
    EXPECT_DEATH(CFNotificationCenterPostNotification(nullptr, CFSTR("x"), nullptr, nullptr, true),
                 "CFNotificationCenterPostNotification .*NULL");
    EXPECT_DEATH(CFNotificationCenterAddObserver(nullptr, &observer, record, CFSTR("x"), nullptr, 4),
                 "CFNotificationCenterAddObserver");
    EXPECT_DEATH(CFNotificationCenterAddObserver(center, &observer, nullptr, CFSTR("x"), nullptr, 4),
                 "CFNotificationCenterAddObserver .*callBack must not be NULL");
    EXPECT_DEATH(CFNotificationCenterAddObserver(center, &observer, record,
                                                 reinterpret_cast<CFStringRef>(kCFBooleanTrue), nullptr, 4),
                 "CFNotificationCenterAddObserver .*CFBoolean");
    auto notACenter = reinterpret_cast<CFNotificationCenterRef>(const_cast<struct __CFBoolean *>(kCFBooleanTrue));
    EXPECT_DEATH(CFNotificationCenterRemoveEveryObserver(notACenter, &observer),
                 "CFNotificationCenterRemoveEveryObserver .*CFBoolean");
}

// ---- concurrency ---------------------------------------------------------------------

void countCall(CFNotificationCenterRef, void *observer, CFNotificationName, const void *, CFDictionaryRef) {
    static_cast<std::atomic<int> *>(observer)->fetch_add(1, std::memory_order_relaxed);
}

void countOnce(CFNotificationCenterRef center, void *observer, CFNotificationName name, const void *,
               CFDictionaryRef) {
    static_cast<std::atomic<int> *>(observer)->fetch_add(1, std::memory_order_relaxed);
    CFNotificationCenterRemoveObserver(center, observer, name, nullptr);
}

// Four threads post their own names while adding and removing observers on
// a neighbour's name, whose posts race with those changes.  Per-thread and
// catch-all counts are exact; the transient observers' counts are not, but a
// registration freed while a post still used it would show under the
// sanitizers.
TEST(CFNotificationCenterConcurrencyTest, ConcurrentPostsAndRegistrationChanges) {
    constexpr int kThreads = 4;
    constexpr int kIterations = 2000;
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    CFNotificationSuspensionBehavior behavior = CFNotificationSuspensionBehaviorDeliverImmediately;
    CFStringRef names[kThreads];
    std::atomic<int> perThread[kThreads] = {};
    std::atomic<int> oneShot[kThreads] = {};
    std::atomic<int> transient[kThreads] = {};
    std::atomic<int> everything{0};
    for (int t = 0; t < kThreads; ++t) {
        names[t] = CFStringCreateWithCString(nullptr, ("Stress." + std::to_string(t)).c_str(), kCFStringEncodingUTF8);
        CFNotificationCenterAddObserver(center, &perThread[t], countCall, names[t], nullptr, behavior);
    }
    CFNotificationCenterAddObserver(center, &everything, countCall, nullptr, nullptr, behavior);

    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CFStringRef neighbour = names[(t + 1) % kThreads];
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                CFNotificationCenterAddObserver(center, &transient[t], countCall, neighbour, nullptr, behavior);
                CFNotificationCenterPostNotification(center, names[t], &perThread[t], nullptr, true);
                CFNotificationCenterAddObserver(center, &oneShot[t], countOnce, names[t], nullptr, behavior);
                CFNotificationCenterRemoveObserver(center, &transient[t], neighbour, nullptr);
                CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);
                // The one-shot observer removed itself: this post must miss it.
                CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();

    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(perThread[t].load(), 3 * kIterations) << t;
        EXPECT_EQ(oneShot[t].load(), kIterations) << t;
        EXPECT_LE(transient[t].load(), 3 * kIterations) << t;
    }
    EXPECT_EQ(everything.load(), kThreads * 3 * kIterations);

    CFNotificationCenterRemoveEveryObserver(center, &everything);
    for (int t = 0; t < kThreads; ++t) CFNotificationCenterRemoveEveryObserver(center, &perThread[t]);
    for (int t = 0; t < kThreads; ++t) CFNotificationCenterPostNotification(center, names[t], nullptr, nullptr, true);
    EXPECT_EQ(everything.load(), kThreads * 3 * kIterations);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(perThread[t].load(), 3 * kIterations);
        CFRelease(names[t]);
    }
}

}  // namespace
