// SPDX-License-Identifier: Apache-2.0
// Clocks: the host time clock singleton, audio clocks on the default output
// device, clocks over a caller's block, invalidation and the host-time
// conversions.
//
// A clock is nothing but a runtime object owning a time-source block.  The
// host time clock is one object for the whole process; releasing its last
// reference or invalidating it is a fatal misuse.  This module logs with an
// empty source path, on purpose: that is how its lines have always read.

#include <Block.h>
#include <CoreAudio/AudioHardware.h>
#include <Sorvel/SVClock.h>

#include <cmath>
#include <cstdint>

#include "core/SVLog.h"
#include "time/SVClockInternal.h"

SV_LOG_MODULE("");

// Log identities the compiler cannot give: the finalizer's reported name,
// and the host clock's creation, which runs inside a block (see
// core/SVLog.h).
constexpr struct {
    sorvel::SVLogSite releaseHostClock{"_SVClockFinalize", 0};
    sorvel::SVLogSite makeHostClock{"SVClockGetHostTimeClock", 0};
} kLogSites;

namespace {

using sorvel::time::kInvalid;

void clockFinalize(CFTypeRef cf) noexcept;

const CFRuntimeClass kSVClockClass = {0,       "SVClock", nullptr, nullptr, clockFinalize,
                                      nullptr, nullptr,   nullptr, nullptr};

dispatch_once_t gHostClockOnce;
OpaqueSVClock *gHostClock;  // set once; read with __atomic builtins

OpaqueSVClock *hostClockIfMade() noexcept {
    return __atomic_load_n(&gHostClock, __ATOMIC_ACQUIRE);
}

void clockFinalize(CFTypeRef cf) noexcept {
    auto *clock = sorvel::SVRuntimeClass<OpaqueSVClock>::cast(cf);
    if (clock->isHostClock) SV_FATAL_SITE(kLogSites.releaseHostClock, "can't release the host clock");
    if (clock->timeSource != nullptr) _Block_release(clock->timeSource);
}

// Floats become integers by truncation toward zero that saturates at the
// limits and takes NaN as 0, as the time arithmetic converts them (a plain
// conversion would be undefined out of range).  The 64-bit form is the time
// arithmetic's own, time::truncateToInt64 in SVTimeInternal.h, so the audio
// clock's sample times convert exactly as SVTimeMultiplyByFloat64's
// products do; only the timescale, a 32-bit field, needs the narrow form
// here.  Its bounds are the int32 limits, which a double holds exactly, so
// the comparison below is exact.
int32_t truncateToInt32(double x) noexcept {
    if (std::fabs(x) < 2147483648.0) return static_cast<int32_t>(x);
    if (std::isnan(x)) return 0;
    return x > 0 ? INT32_MAX : INT32_MIN;
}

OpaqueSVClock *createClock(CFAllocatorRef allocator, SVClockTimeSourceBlock timeSource) noexcept {
    OpaqueSVClock *clock = sorvel::clock::gClockClass.create(allocator);
    if (clock == nullptr) return nullptr;
    clock->invalidated = false;
    clock->isHostClock = false;
    clock->timeSource = nullptr;
    if (timeSource != nullptr) clock->timeSource = (SVClockTimeSourceBlock)_Block_copy(timeSource);
    return clock;
}

// Reads one property of an audio object into a value of exactly its size.
template <typename Value>
OSStatus readProperty(AudioObjectID object, AudioObjectPropertySelector selector, Value *value) noexcept {
    AudioObjectPropertyAddress address = {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
    UInt32 size = sizeof(Value);
    return AudioObjectGetPropertyData(object, &address, 0, nullptr, &size, value);
}

}  // namespace

namespace sorvel::clock {
constinit SVRuntimeClass<OpaqueSVClock> gClockClass{kSVClockClass};
}

extern "C" {

CFTypeID SVClockGetTypeID(void) noexcept {
    return sorvel::clock::gClockClass.typeID();
}

SVClockRef SVClockGetHostTimeClock(void) noexcept {
    OpaqueSVClock *clock = hostClockIfMade();
    if (__builtin_expect(clock != nullptr, 1)) return clock;
    dispatch_once(&gHostClockOnce, ^{
      OpaqueSVClock *made = createClock(kCFAllocatorDefault, ^SVTime(void) {
        return sorvel::clock::hostTimeNow();
      });
      if (made == nullptr) SV_FATAL_SITE(kLogSites.makeHostClock, "can't create the host clock");
      made->isHostClock = true;
      __atomic_store_n(&gHostClock, made, __ATOMIC_RELEASE);
    });
    return hostClockIfMade();
}

SVClockRef _SVClockCreateWithBlock(CFAllocatorRef allocator, SVClockTimeSourceBlock timeSource) noexcept {
    return createClock(allocator, timeSource);
}

OSStatus _SVClockCreateWithFunction(CFAllocatorRef allocator, SVClockTimeSourceFunction getTime, void *refcon,
                                    SVClockRef *clockOut) noexcept {
    if (clockOut == nullptr) {
        SV_LOG_HERE(3, "clockOut is NULL");
        return kSVClockError_MissingRequiredParameter;
    }
    // The function becomes the block the other creators give, so every
    // clock reads its time the same way.
    SVClockTimeSourceBlock timeSource = nullptr;
    if (getTime != nullptr)
        timeSource = ^SVTime(void) {
          return getTime(refcon);
        };
    OpaqueSVClock *clock = createClock(allocator, timeSource);
    if (clock == nullptr) {
        *clockOut = nullptr;
        SV_LOG_HERE(3, "allocation failed");
        return kSVClockError_AllocationFailed;
    }
    *clockOut = clock;
    return 0;
}

OSStatus SVAudioClockCreate(CFAllocatorRef allocator, SVClockRef *clockOut) noexcept {
    if (clockOut == nullptr) {
        SV_LOG_HERE(3, "clockOut is NULL");
        return kSVClockError_MissingRequiredParameter;
    }
    _AudioHardwareInitialize();
    AudioDeviceID device = kAudioObjectUnknown;
    Float64 sampleRate = 0;
    OSStatus status = readProperty(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice, &device);
    if (status == 0) status = readProperty(device, kAudioDevicePropertyActualSampleRate, &sampleRate);
    if (status != 0) {
        *clockOut = nullptr;
        SV_LOG_STATUS_HERE(3, status, "can't query the default output device: %s");
        return kSVClockError_AllocationFailed;
    }
    // The rate is read once: a fractional rate loses its fraction, and a
    // later change of rate is not followed.
    int32_t timescale = truncateToInt32(sampleRate);
    OpaqueSVClock *clock = createClock(allocator, ^SVTime(void) {
      AudioTimeStamp now;
      if (AudioDeviceGetCurrentTime(device, &now) != 0) return kInvalid;
      return SVTimeMake(sorvel::time::truncateToInt64(now.mSampleTime), timescale);
    });
    if (clock == nullptr) {
        *clockOut = nullptr;
        SV_LOG_HERE(3, "allocation failed");
        return kSVClockError_AllocationFailed;
    }
    *clockOut = clock;
    return 0;
}

SVTime SVClockGetTime(SVClockRef clock) noexcept {
    if (clock == nullptr) return kInvalid;
    if (clock == hostClockIfMade()) return sorvel::clock::hostTimeNow();
    if (!sorvel::clock::gClockClass.checked(clock)) return kInvalid;
    return sorvel::clock::currentTime(clock);
}

OSStatus SVClockGetAnchorTime(SVClockRef clock, SVTime *clockTimeOut, SVTime *referenceClockTimeOut) noexcept {
    SVTime now = SVClockGetTime(clock);
    if (clockTimeOut != nullptr) *clockTimeOut = now;
    if (referenceClockTimeOut != nullptr) *referenceClockTimeOut = now;
    return 0;
}

Boolean SVClockMightDrift(SVClockRef clock, SVClockRef otherClock) noexcept {
    (void)clock;
    (void)otherClock;
    return false;
}

void SVClockInvalidate(SVClockRef clock) noexcept {
    if (!sorvel::clock::gClockClass.checked(clock)) return;
    if (clock->isHostClock) SV_FATAL_HERE("can't invalidate the host clock");
    __atomic_store_n(&clock->invalidated, true, __ATOMIC_RELAXED);
}

uint64_t SVClockConvertHostTimeToSystemUnits(SVTime hostTime) noexcept {
    return static_cast<uint64_t>(hostTime.value);
}

SVTime SVClockMakeHostTimeFromSystemUnits(uint64_t hostTime) noexcept {
    return SVTimeMake(static_cast<int64_t>(hostTime), sorvel::clock::kHostTimescale);
}

}  // extern "C"
