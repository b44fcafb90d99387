// SPDX-License-Identifier: Apache-2.0
// The audio hardware layer: the system object, the built-in output device
// that counts samples with the host clock, and output devices that
// applications register and feed with reports from their audio callbacks.
//
// Registered devices live in a fixed table of slots, so that looking one up,
// reading its time and reporting to it need no lock and no allocation (a
// report arrives on an audio thread that must not block).  Each slot is a
// sequence lock: a writer makes the sequence odd, stores, and makes it even
// again; a reader copies the fields and retries when the sequence was odd or
// changed meanwhile.  Every field is an atomic read and written relaxed, so
// a copy is never torn at the language level and the sequence decides which
// copies are whole.  Writers (register, report, unregister) take the slot by
// moving its sequence from even to odd with a compare-and-swap, which also
// keeps two writers of one slot apart.
//
// A registered device's time is the straight line through its last report
// with the rate measured from earlier reports.  The rate is measured over a
// baseline of two to four seconds of reports rather than between neighbours:
// host time stamps taken in audio callbacks jitter by fractions of a
// millisecond, which over one 10 ms period would be a rate error of several
// percent, while over seconds it is a few parts per million.

#include <CoreAudio/AudioHardware.h>
#include <sched.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace {

constexpr double kNanosPerSecond = 1e9;
constexpr Float64 kBuiltInSampleRate = 48000.0;
constexpr AudioDeviceID kFirstRegisteredDevice = 0x100;

// Rate measurement: nothing shorter than this replaces the nominal rate...
constexpr uint64_t kMinimumBaseline = 100'000'000;
// ...and baselines are kept between half this and this long.
constexpr uint64_t kBaselineWindow = 4'000'000'000;
// A report this far (in seconds of samples) from where the line puts it does
// not continue the stream.
constexpr double kDiscontinuitySeconds = 0.1;
// Crystals are off by parts per million; a measurement further off than this
// is some disturbance, not the hardware's rate.
constexpr double kMaximumRateDeviation = 0.05;

constexpr AudioTimeStampFlags kReportedFlags = kAudioTimeStampSampleHostTimeValid | kAudioTimeStampRateScalarValid;

uint64_t hostTimeNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// The host time at which the built-in counter was 0; 0 until initialised.
std::atomic<uint64_t> gStartHostTime{0};

bool isInitialized() {
    return gStartHostTime.load(std::memory_order_acquire) != 0;
}

struct Point {
    double sample;
    uint64_t host;
};

// The rate measurement of one device; only the slot's writer touches it.
struct Estimator {
    bool haveLast;
    bool haveNext;
    Point last;  // the previous report
    Point base;  // the start of the baseline
    Point next;  // the next start, once the baseline is half a window long
    double samplesPerNano;
};

struct DeviceSlot {
    std::atomic<uint32_t> sequence{0};                       // odd while a writer holds the slot
    std::atomic<AudioDeviceID> device{kAudioObjectUnknown};  // unknown: the slot is free
    std::atomic<uint64_t> registration{0};                   // orders registrations, for the default device
    std::atomic<double> nominalRate{0};
    std::atomic<bool> running{false};  // a report has arrived
    // The published line: sample time anchorSample at host time anchorHost,
    // advancing samplesPerNano per nanosecond.
    std::atomic<double> anchorSample{0};
    std::atomic<uint64_t> anchorHost{0};
    std::atomic<double> samplesPerNano{0};
    Estimator estimator{};
};

constinit DeviceSlot gSlots[kAudioHardwareMaxRegisteredOutputDevices];
constinit std::atomic<AudioDeviceID> gNextDevice{kFirstRegisteredDevice};
constinit std::atomic<uint64_t> gRegistrations{0};

// Holds a slot for writing while it lives.
class SlotWriter {
public:
    explicit SlotWriter(DeviceSlot &slot) : slot_(slot) {
        uint32_t sequence = slot.sequence.load(std::memory_order_relaxed);
        for (;;) {
            if ((sequence & 1) == 0 &&
                slot.sequence.compare_exchange_weak(sequence, sequence + 1, std::memory_order_acquire,
                                                    std::memory_order_relaxed))
                break;
            if (sequence & 1) {
                sched_yield();
                sequence = slot.sequence.load(std::memory_order_relaxed);
            }
        }
        // Orders the odd sequence before the stores that follow, for readers
        // that see one of those stores.
        std::atomic_thread_fence(std::memory_order_release);
        sequence_ = sequence + 1;
    }
    ~SlotWriter() { slot_.sequence.store(sequence_ + 1, std::memory_order_release); }
    SlotWriter(const SlotWriter &) = delete;
    SlotWriter &operator=(const SlotWriter &) = delete;

private:
    DeviceSlot &slot_;
    uint32_t sequence_;
};

// A whole copy of a slot's published fields.
struct SlotView {
    AudioDeviceID device;
    uint64_t registration;
    double nominalRate;
    bool running;
    double anchorSample;
    uint64_t anchorHost;
    double samplesPerNano;
};

SlotView readSlot(const DeviceSlot &slot) {
    constexpr auto relaxed = std::memory_order_relaxed;
    for (;;) {
        uint32_t before = slot.sequence.load(std::memory_order_acquire);
        if (before & 1) {
            sched_yield();
            continue;
        }
        SlotView view{slot.device.load(relaxed),        slot.registration.load(relaxed), slot.nominalRate.load(relaxed),
                      slot.running.load(relaxed),       slot.anchorSample.load(relaxed), slot.anchorHost.load(relaxed),
                      slot.samplesPerNano.load(relaxed)};
        std::atomic_thread_fence(std::memory_order_acquire);
        if (slot.sequence.load(relaxed) == before) return view;
    }
}

DeviceSlot *findSlot(AudioDeviceID device) {
    if (device < kFirstRegisteredDevice) return nullptr;
    for (DeviceSlot &slot : gSlots)
        if (slot.device.load(std::memory_order_relaxed) == device) return &slot;
    return nullptr;
}

// A whole view of a registered device, or false when it is not registered
// (also when it went away between the lookup and the copy).
bool viewDevice(AudioDeviceID device, SlotView *view) {
    DeviceSlot *slot = findSlot(device);
    if (slot == nullptr) return false;
    *view = readSlot(*slot);
    return view->device == device;
}

AudioDeviceID defaultOutputDevice() {
    AudioDeviceID best = kAudioHardwareBuiltInOutputDevice;
    uint64_t bestRegistration = 0;
    for (const DeviceSlot &slot : gSlots) {
        if (slot.device.load(std::memory_order_relaxed) == kAudioObjectUnknown) continue;
        SlotView view = readSlot(slot);
        if (view.device != kAudioObjectUnknown && view.registration > bestRegistration) {
            best = view.device;
            bestRegistration = view.registration;
        }
    }
    return best;
}

void restartMeasurement(Estimator &estimator, Point at) {
    estimator.base = at;
    estimator.haveNext = false;
}

// Whether a report carries on the stream the previous one belonged to.
bool continuesStream(const Estimator &estimator, Point at, double nominalRate) {
    if (!estimator.haveLast) return false;
    const Point &last = estimator.last;
    if (at.host <= last.host || at.sample < last.sample) return false;
    double expected = last.sample + static_cast<double>(at.host - last.host) * estimator.samplesPerNano;
    return std::fabs(at.sample - expected) < kDiscontinuitySeconds * nominalRate;
}

void measure(Estimator &estimator, Point at, double nominalRate) {
    uint64_t span = at.host - estimator.base.host;
    if (span >= kMinimumBaseline) {
        double nominalPerNano = nominalRate / kNanosPerSecond;
        double measured = (at.sample - estimator.base.sample) / static_cast<double>(span);
        double low = nominalPerNano * (1 - kMaximumRateDeviation), high = nominalPerNano * (1 + kMaximumRateDeviation);
        estimator.samplesPerNano = measured < low ? low : (measured > high ? high : measured);
    }
    if (!estimator.haveNext && span >= kBaselineWindow / 2) {
        estimator.next = at;
        estimator.haveNext = true;
    } else if (estimator.haveNext && span >= kBaselineWindow) {
        estimator.base = estimator.next;
        estimator.next = at;
    }
}

void fillTimeStamp(AudioTimeStamp *out, double sampleTime, uint64_t hostTime, double rateScalar) {
    std::memset(out, 0, sizeof *out);
    out->mSampleTime = sampleTime;
    out->mHostTime = hostTime;
    out->mRateScalar = rateScalar;
    out->mFlags = kReportedFlags;
}

bool isDeviceScope(const AudioObjectPropertyAddress *address) {
    return (address->mScope == kAudioObjectPropertyScopeGlobal || address->mScope == kAudioObjectPropertyScopeOutput) &&
           address->mElement == kAudioObjectPropertyElementMain;
}

OSStatus copyValue(const void *value, UInt32 size, UInt32 *ioDataSize, void *outData) {
    if (*ioDataSize < size) return kAudioHardwareBadPropertySizeError;
    std::memcpy(outData, value, size);
    *ioDataSize = size;
    return kAudioHardwareNoError;
}

}  // namespace

extern "C" {

OSStatus _AudioHardwareInitialize(void) noexcept {
    if (isInitialized()) return kAudioHardwareNoError;
    uint64_t now = hostTimeNow();
    uint64_t expected = 0;
    // 0 marks "not initialised"; a counter that reads 0 starts at 1 instead.
    gStartHostTime.compare_exchange_strong(expected, now != 0 ? now : 1, std::memory_order_acq_rel);
    return kAudioHardwareNoError;
}

UInt64 AudioGetCurrentHostTime(void) noexcept {
    return hostTimeNow();
}

OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID, const AudioObjectPropertyAddress *inAddress,
                                    UInt32 inQualifierDataSize, const void *inQualifierData, UInt32 *ioDataSize,
                                    void *outData) noexcept {
    (void)inQualifierDataSize;
    (void)inQualifierData;
    if (inAddress == nullptr || ioDataSize == nullptr || outData == nullptr) return kAudio_ParamError;
    if (!isInitialized()) return kAudioHardwareNotRunningError;

    if (inObjectID == kAudioObjectSystemObject) {
        if (inAddress->mSelector != kAudioHardwarePropertyDefaultOutputDevice ||
            inAddress->mScope != kAudioObjectPropertyScopeGlobal ||
            inAddress->mElement != kAudioObjectPropertyElementMain)
            return kAudioHardwareUnknownPropertyError;
        AudioDeviceID device = defaultOutputDevice();
        return copyValue(&device, sizeof device, ioDataSize, outData);
    }

    Float64 rate;
    if (inObjectID == kAudioHardwareBuiltInOutputDevice) {
        rate = kBuiltInSampleRate;
    } else {
        SlotView view;
        if (!viewDevice(inObjectID, &view)) return kAudioHardwareBadObjectError;
        rate = view.nominalRate;
    }
    if ((inAddress->mSelector != kAudioDevicePropertyNominalSampleRate &&
         inAddress->mSelector != kAudioDevicePropertyActualSampleRate) ||
        !isDeviceScope(inAddress))
        return kAudioHardwareUnknownPropertyError;
    return copyValue(&rate, sizeof rate, ioDataSize, outData);
}

OSStatus AudioDeviceGetCurrentTime(AudioDeviceID inDevice, AudioTimeStamp *outTime) noexcept {
    if (outTime == nullptr) return kAudio_ParamError;
    uint64_t start = gStartHostTime.load(std::memory_order_acquire);
    if (start == 0) return kAudioHardwareNotRunningError;

    if (inDevice == kAudioHardwareBuiltInOutputDevice) {
        uint64_t now = hostTimeNow();
        // 48000 / 1e9 is 3 / 62500: one exact product, one rounding.
        fillTimeStamp(outTime, static_cast<double>((now - start) * 3) / 62500.0, now, 1.0);
        return kAudioHardwareNoError;
    }

    SlotView view;
    if (!viewDevice(inDevice, &view)) return kAudioHardwareBadDeviceError;
    if (!view.running) return kAudioHardwareNotRunningError;
    uint64_t now = hostTimeNow();
    // Signed: the last report may carry a host time after `now`.
    double elapsed = static_cast<double>(static_cast<int64_t>(now - view.anchorHost));
    fillTimeStamp(outTime, view.anchorSample + elapsed * view.samplesPerNano, now,
                  view.samplesPerNano * kNanosPerSecond / view.nominalRate);
    return kAudioHardwareNoError;
}

OSStatus AudioHardwareRegisterOutputDevice(Float64 inSampleRate, AudioDeviceID *outDevice) noexcept {
    if (outDevice == nullptr) return kAudio_ParamError;
    *outDevice = kAudioObjectUnknown;
    if (!(inSampleRate > 0) || !std::isfinite(inSampleRate)) return kAudio_ParamError;
    _AudioHardwareInitialize();

    for (DeviceSlot &slot : gSlots) {
        if (slot.device.load(std::memory_order_relaxed) != kAudioObjectUnknown) continue;
        SlotWriter writer(slot);
        if (slot.device.load(std::memory_order_relaxed) != kAudioObjectUnknown) continue;  // taken meanwhile
        constexpr auto relaxed = std::memory_order_relaxed;
        AudioDeviceID device = gNextDevice.fetch_add(1, relaxed);
        slot.registration.store(gRegistrations.fetch_add(1, relaxed) + 1, relaxed);
        slot.nominalRate.store(inSampleRate, relaxed);
        slot.running.store(false, relaxed);
        slot.anchorSample.store(0, relaxed);
        slot.anchorHost.store(0, relaxed);
        slot.samplesPerNano.store(0, relaxed);
        slot.estimator = Estimator{};
        slot.estimator.samplesPerNano = inSampleRate / kNanosPerSecond;
        slot.device.store(device, relaxed);
        *outDevice = device;
        return kAudioHardwareNoError;
    }
    return kAudio_MemFullError;
}

OSStatus AudioDeviceReportTime(AudioDeviceID inDevice, const AudioTimeStamp *inTimeStamp) noexcept {
    if (inTimeStamp == nullptr) return kAudio_ParamError;
    const AudioTimeStamp &stamp = *inTimeStamp;
    if ((stamp.mFlags & kAudioTimeStampSampleHostTimeValid) != kAudioTimeStampSampleHostTimeValid ||
        !std::isfinite(stamp.mSampleTime))
        return kAudio_ParamError;
    bool hasRateScalar = (stamp.mFlags & kAudioTimeStampRateScalarValid) != 0;
    if (hasRateScalar && !(std::isfinite(stamp.mRateScalar) && stamp.mRateScalar >= 0)) return kAudio_ParamError;
    if (inDevice == kAudioHardwareBuiltInOutputDevice) return kAudioHardwareIllegalOperationError;

    DeviceSlot *slot = findSlot(inDevice);
    if (slot == nullptr) return kAudioHardwareBadDeviceError;
    SlotWriter writer(*slot);
    if (slot->device.load(std::memory_order_relaxed) != inDevice) return kAudioHardwareBadDeviceError;

    Estimator &estimator = slot->estimator;
    double nominalRate = slot->nominalRate.load(std::memory_order_relaxed);
    Point at{stamp.mSampleTime, stamp.mHostTime};
    double samplesPerNano;
    if (hasRateScalar) {
        samplesPerNano = stamp.mRateScalar * nominalRate / kNanosPerSecond;
        // A stack's own rate is better than ours; a standing counter says
        // nothing about the rate, so the measurement keeps what it had.
        if (stamp.mRateScalar > 0) estimator.samplesPerNano = samplesPerNano;
        restartMeasurement(estimator, at);
    } else {
        if (continuesStream(estimator, at, nominalRate))
            measure(estimator, at, nominalRate);
        else
            restartMeasurement(estimator, at);
        samplesPerNano = estimator.samplesPerNano;
    }
    estimator.last = at;
    estimator.haveLast = true;

    constexpr auto relaxed = std::memory_order_relaxed;
    slot->anchorSample.store(at.sample, relaxed);
    slot->anchorHost.store(at.host, relaxed);
    slot->samplesPerNano.store(samplesPerNano, relaxed);
    slot->running.store(true, relaxed);
    return kAudioHardwareNoError;
}

OSStatus AudioHardwareUnregisterOutputDevice(AudioDeviceID inDevice) noexcept {
    if (inDevice == kAudioHardwareBuiltInOutputDevice) return kAudioHardwareIllegalOperationError;
    DeviceSlot *slot = findSlot(inDevice);
    if (slot == nullptr) return kAudioHardwareBadDeviceError;
    SlotWriter writer(*slot);
    if (slot->device.load(std::memory_order_relaxed) != inDevice) return kAudioHardwareBadDeviceError;
    slot->device.store(kAudioObjectUnknown, std::memory_order_relaxed);
    slot->running.store(false, std::memory_order_relaxed);
    return kAudioHardwareNoError;
}

}  // extern "C"
