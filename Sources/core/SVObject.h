/* SPDX-License-Identifier: Apache-2.0 */
// The object pattern every Sorvel family follows, written once.
//
// A family declares its instance struct, which begins with the runtime
// header, and one constant class record:
//
//     struct OpaqueSVClock {
//         CFRuntimeBase base;
//         ...the family's fields...
//     };
//
//     const CFRuntimeClass kSVClockClass = {0, "SVClock", NULL, NULL, clockFinalize, ...};
//     constinit sorvel::SVRuntimeClass<OpaqueSVClock> gSVClockClass{kSVClockClass};
//
//     CFTypeID SVClockGetTypeID(void) { return gSVClockClass.typeID(); }
//
// The class is registered lazily, on first need, exactly once: typeID()
// tests the dispatch_once predicate inline (all ones once registration has
// run) and only calls dispatch_once before that, so the common path costs
// one load and one compare.  create() makes a zero-filled instance through
// the runtime with the caller's allocator; the caller then fills every
// field, retains what the object keeps and only then hands the object out.
// finalize releases what the instance holds and never frees the instance,
// which the runtime does.
#ifndef SORVEL_SOURCES_SVOBJECT_H
#define SORVEL_SOURCES_SVOBJECT_H

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#include <cstddef>
#include <type_traits>

namespace sorvel {

inline constexpr dispatch_once_t kSVOncePredicateDone = ~static_cast<dispatch_once_t>(0);

template <typename Instance>
class SVRuntimeClass {
    static_assert(std::is_standard_layout_v<Instance>, "instances are plain structs");
    static_assert(std::is_trivially_destructible_v<Instance>, "finalize, not a destructor, tears instances down");
    static_assert(offsetof(Instance, base) == 0, "the runtime header comes first");
    static_assert(std::is_same_v<decltype(Instance::base), CFRuntimeBase>, "the first field is the runtime header");

public:
    explicit constexpr SVRuntimeClass(const CFRuntimeClass &record) noexcept : record_(&record) {}
    SVRuntimeClass(const SVRuntimeClass &) = delete;
    SVRuntimeClass &operator=(const SVRuntimeClass &) = delete;

    // The registered type identifier; registers the class on first use.
    CFTypeID typeID() noexcept {
        if (__builtin_expect(__atomic_load_n(&predicate_, __ATOMIC_ACQUIRE) != kSVOncePredicateDone, 0)) registerOnce();
        return typeID_;
    }

    // A new instance with zero-filled fields and one reference, or NULL
    // when the allocator fails.
    Instance *create(CFAllocatorRef allocator) noexcept {
        CFTypeID type = typeID();
        return static_cast<Instance *>(const_cast<void *>(
            _CFRuntimeCreateInstance(allocator, type, sizeof(Instance) - sizeof(CFRuntimeBase), nullptr)));
    }

    // True when cf is an instance of this class (false for NULL).  Read
    // inline from the runtime header rather than through CFGetTypeID: the
    // check runs at every entry point, and a call into the platform library
    // doubled the cost of the simple queue's enqueue and dequeue.  The
    // answer is the same: a runtime-made instance has a zero isa and its
    // type identifier in the low 16 bits of _cfinfo, and the only objects
    // with another isa are constant strings (see DESIGN.md, "The object
    // runtime").
    // A class not registered yet has no instances, so the check never
    // registers it: without that call the entry points' common path saves
    // no registers.
    bool isInstance(CFTypeRef cf) noexcept {
        if (cf == nullptr || !isRegistered()) return false;
        const auto *header = static_cast<const CFRuntimeBase *>(cf);
        return header->_cfisa == 0 && (header->_cfinfo & kTypeIDBits) == typeID_;
    }

    // The argument check of every entry point that takes one of the
    // family's objects: the instance behind cf, or NULL when cf is NULL or
    // an object of another type.  The entry point then answers as its
    // header says for a missing object, instead of reading another type's
    // fields (or handing NULL to the runtime, which stops the process).
    Instance *checked(CFTypeRef cf) noexcept { return isInstance(cf) ? cast(cf) : nullptr; }

    // The instance behind a reference of this class; no check is made.
    static Instance *cast(CFTypeRef cf) noexcept { return static_cast<Instance *>(const_cast<void *>(cf)); }

    const CFRuntimeClass &record() const noexcept { return *record_; }
    bool isRegistered() const noexcept {
        return __atomic_load_n(&predicate_, __ATOMIC_ACQUIRE) == kSVOncePredicateDone;
    }

private:
    __attribute__((noinline)) void registerOnce() noexcept {
        dispatch_once(&predicate_, ^{
          typeID_ = _CFRuntimeRegisterClass(record_);
        });
    }

    static constexpr uint32_t kTypeIDBits = 0xFFFFu;

    const CFRuntimeClass *record_;
    dispatch_once_t predicate_ = 0;
    CFTypeID typeID_ = _kCFRuntimeNotATypeID;
};

// Owns one reference to a runtime object and gives it back when it goes
// out of scope; for the error paths of creation calls.
template <typename Ref>
class SVRetained {
public:
    SVRetained() noexcept = default;
    explicit SVRetained(Ref ref) noexcept : ref_(ref) {}
    SVRetained(const SVRetained &) = delete;
    SVRetained &operator=(const SVRetained &) = delete;
    SVRetained(SVRetained &&other) noexcept : ref_(other.release()) {}
    SVRetained &operator=(SVRetained &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~SVRetained() { reset(); }

    Ref get() const noexcept { return ref_; }
    explicit operator bool() const noexcept { return ref_ != nullptr; }
    // Gives up ownership without releasing.
    Ref release() noexcept {
        Ref ref = ref_;
        ref_ = nullptr;
        return ref;
    }
    void reset(Ref ref = nullptr) noexcept {
        if (ref_) CFRelease(ref_);
        ref_ = ref;
    }

private:
    Ref ref_ = nullptr;
};

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVOBJECT_H
