// SPDX-License-Identifier: Apache-2.0
// Synchronisation queries between any two clocks or timebases.
//
// Every timebase has one master, so every source leads up a chain of masters
// to a clock (or, for objects that are neither, stands alone).  Two sources
// are related through the ancestor nearest to the first source that both
// chains share: a time goes up the first chain to it, one step per timebase
// (undoing that timebase's rate and anchors), then down the second chain.
// Without a shared ancestor, the sources' rates relative to their own
// clocks and their current times relate them, the clocks taken as running
// together.
//
// Each step reads one timebase's state once, without a lock (see
// SVTimebaseInternal.h); a chain is not read atomically as a whole.

#include <Sorvel/SVSync.h>

#include <cmath>
#include <limits>

#include "time/SVClockInternal.h"
#include "time/SVSyncInternal.h"
#include "time/SVTimebaseInternal.h"

using sorvel::sync::Kind;

namespace {

using sorvel::time::kInvalid;
constexpr SVTime kZeroTime = {0, 1, kSVTimeFlags_Valid, 0};
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// An object with its kind, so that walking a chain asks the runtime for a
// type only once: a timebase records its master's kind.
struct Source {
    CFTypeRef object;
    Kind kind;
};

Source sourceOf(CFTypeRef object) noexcept {
    return {object, sorvel::sync::kindOf(object)};
}

const OpaqueSVTimebase *asTimebase(const Source &source) noexcept {
    return static_cast<const OpaqueSVTimebase *>(source.object);
}

// Only for a timebase.
Source masterOf(const Source &source) noexcept {
    const OpaqueSVTimebase *timebase = asTimebase(source);
    return {timebase->master, timebase->masterKind};
}

struct Ancestor {
    CFTypeRef object;  // NULL: none
};

// The shared ancestor nearest to `a`.  As stated, the search recurses on
// (master of a, b) one level deeper and on (a, master of b) at the same
// depth, stops at the first pair that is one object, and keeps the
// shallowest candidate (ties to the second branch).  Every candidate found
// at one depth is the same object, a's ancestor at that depth, and no pair
// of a shallower depth can be cut off by an earlier match, so the result is
// the first of a's ancestors (a itself first) that lies on b's chain; this
// walk finds it without the recursion's repeated visits.
Ancestor commonMaster(const Source &a, const Source &b) noexcept {
    if (a.object == nullptr || b.object == nullptr) return {nullptr};
    for (Source x = a;; x = masterOf(x)) {
        for (Source y = b;; y = masterOf(y)) {
            if (y.object == x.object) return {x.object};
            if (y.kind != Kind::Timebase) break;
        }
        if (x.kind != Kind::Timebase) return {nullptr};
    }
}

// Rate of x relative to its ancestor: the product of the rates on the way,
// multiplied from the ancestor down as the recursion does.
double rateTo(const Source &x, CFTypeRef ancestor) noexcept {
    if (x.object == ancestor) return 1.0;
    if (x.kind != Kind::Timebase) return kNaN;
    double rate = sorvel::timebase::readRate(asTimebase(x));
    if (rate == 0.0) return 0.0;
    return rate * rateTo(masterOf(x), ancestor);
}

// Rate of x relative to the clock at the root of its chain.
double rateAbsolute(const Source &x) noexcept {
    switch (x.kind) {
        case Kind::Clock:
            return 1.0;
        case Kind::Other:
            return kNaN;
        case Kind::Timebase:
            break;
    }
    double rate = sorvel::timebase::readRate(asTimebase(x));
    if (rate == 0.0) return 0.0;
    return rate * rateAbsolute(masterOf(x));
}

// `numerator / divisor`, or `whenDivisorIsZero`.
double ratio(double numerator, double divisor, double whenDivisorIsZero) noexcept {
    return divisor == 0.0 ? whenDivisorIsZero : numerator / divisor;
}

double relativeRate(const Source &of, const Source &relativeTo, double whenDivisorIsZero) noexcept {
    Ancestor ancestor = commonMaster(of, relativeTo);
    if (ancestor.object != nullptr)
        return ratio(rateTo(of, ancestor.object), rateTo(relativeTo, ancestor.object), whenDivisorIsZero);
    return ratio(rateAbsolute(of), rateAbsolute(relativeTo), whenDivisorIsZero);
}

// A time of timebase x on its master's timeline; invalid from a stopped
// timebase, whose every time corresponds to no single master time.
SVTime stepUp(const OpaqueSVTimebase *timebase, SVTime time) noexcept {
    sorvel::timebase::State state = sorvel::timebase::readState(timebase);
    if (state.rate == 0.0) return kInvalid;
    return SVTimeAdd(SVTimeMultiplyByFloat64(SVTimeSubtract(time, state.timebaseAnchor), 1.0 / state.rate),
                     state.masterAnchor);
}

SVTime up(Source x, CFTypeRef ancestor, SVTime time) noexcept {
    for (; x.object != ancestor; x = masterOf(x)) {
        if (x.kind != Kind::Timebase) return kInvalid;
        time = stepUp(asTimebase(x), time);
    }
    return time;
}

SVTime down(const Source &x, CFTypeRef ancestor, SVTime time) noexcept {
    if (x.object == ancestor) return time;
    if (x.kind != Kind::Timebase) return kInvalid;
    SVTime onMaster = down(masterOf(x), ancestor, time);
    return sorvel::timebase::timeAt(sorvel::timebase::readState(asTimebase(x)), onMaster);
}

SVTime timeOf(const Source &source) noexcept {
    return sorvel::sync::timeOf(source.object, source.kind);
}

SVTime convert(SVTime time, const Source &from, const Source &to) noexcept {
    Ancestor ancestor = commonMaster(from, to);
    if (ancestor.object != nullptr) return down(to, ancestor.object, up(from, ancestor.object, time));
    // Sharing an ancestor is symmetric, so searching again from `to` would
    // find none either: the rates are the absolute ones.
    double rate = ratio(rateAbsolute(to), rateAbsolute(from), kNaN);
    if (std::isnan(rate)) return kInvalid;
    SVTime toNow = timeOf(to);
    return SVTimeAdd(toNow, SVTimeMultiplyByFloat64(SVTimeSubtract(time, timeOf(from)), rate));
}

}  // namespace

namespace sorvel::sync {

Kind kindOf(CFTypeRef object) noexcept {
    if (object == nullptr) return Kind::Other;
    CFTypeID type = CFGetTypeID(object);
    if (type == timebase::gTimebaseClass.typeID()) return Kind::Timebase;
    if (type == clock::gClockClass.typeID()) return Kind::Clock;
    return Kind::Other;
}

SVTime timeOf(CFTypeRef object, Kind kind) noexcept {
    switch (kind) {
        case Kind::Timebase:
            return timebase::currentTime(static_cast<const OpaqueSVTimebase *>(object));
        case Kind::Clock:
            return clock::currentTime(static_cast<const OpaqueSVClock *>(object));
        case Kind::Other:
            break;
    }
    return kInvalid;
}

CFTypeRef ultimateMasterClock(const OpaqueSVTimebase *timebase) noexcept {
    Source x = masterOf({timebase, Kind::Timebase});
    while (x.kind == Kind::Timebase) x = masterOf(x);
    return x.kind == Kind::Clock ? x.object : nullptr;
}

double effectiveRate(const OpaqueSVTimebase *timebase) noexcept {
    CFTypeRef clock = ultimateMasterClock(timebase);
    return relativeRate({timebase, Kind::Timebase}, sourceOf(clock), 0.0);
}

}  // namespace sorvel::sync

extern "C" {

SVTime SVSyncGetTime(CFTypeRef clockOrTimebase) noexcept {
    return timeOf(sourceOf(clockOrTimebase));
}

Float64 SVSyncGetRelativeRate(SVClockOrTimebaseRef ofClockOrTimebase,
                              SVClockOrTimebaseRef relativeToClockOrTimebase) noexcept {
    return relativeRate(sourceOf(ofClockOrTimebase), sourceOf(relativeToClockOrTimebase), kNaN);
}

OSStatus SVSyncGetRelativeRateAndAnchorTime(SVClockOrTimebaseRef ofClockOrTimebase,
                                            SVClockOrTimebaseRef relativeToClockOrTimebase, Float64 *outRelativeRate,
                                            SVTime *outOfClockOrTimebaseAnchorTime,
                                            SVTime *outRelativeToClockOrTimebaseAnchorTime) noexcept {
    if (ofClockOrTimebase == nullptr || relativeToClockOrTimebase == nullptr)
        return kSVSyncError_MissingRequiredParameter;
    Source of = sourceOf(ofClockOrTimebase), relativeTo = sourceOf(relativeToClockOrTimebase);
    if (outRelativeRate != nullptr) *outRelativeRate = relativeRate(of, relativeTo, kNaN);
    // The pair is always taken at zero on the relative-to source.
    if (outOfClockOrTimebaseAnchorTime != nullptr) *outOfClockOrTimebaseAnchorTime = convert(kZeroTime, relativeTo, of);
    if (outRelativeToClockOrTimebaseAnchorTime != nullptr) *outRelativeToClockOrTimebaseAnchorTime = kZeroTime;
    return 0;
}

SVTime SVSyncConvertTime(SVTime time, SVClockOrTimebaseRef fromClockOrTimebase,
                         SVClockOrTimebaseRef toClockOrTimebase) noexcept {
    return convert(time, sourceOf(fromClockOrTimebase), sourceOf(toClockOrTimebase));
}

Boolean SVSyncMightDrift(SVClockOrTimebaseRef clockOrTimebase1, SVClockOrTimebaseRef clockOrTimebase2) noexcept {
    CFTypeRef clocks[2] = {clockOrTimebase1, clockOrTimebase2};
    for (CFTypeRef &clock : clocks) {
        Kind kind = sorvel::sync::kindOf(clock);
        if (kind == Kind::Timebase) {
            clock = sorvel::sync::ultimateMasterClock(static_cast<const OpaqueSVTimebase *>(clock));
            kind = clock != nullptr ? Kind::Clock : Kind::Other;
        }
        if (kind != Kind::Clock) return false;
    }
    return SVClockMightDrift(static_cast<SVClockRef>(const_cast<void *>(clocks[0])),
                             static_cast<SVClockRef>(const_cast<void *>(clocks[1])));
}

}  // extern "C"
