/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The audio hardware layer: audio objects, their properties, and the current
 * time of an output device's sample clock.
 *
 * Objects.  kAudioObjectSystemObject (1) stands for the hardware as a whole;
 * its one property is the default output device.  Two kinds of output device
 * exist:
 *
 * - The built-in output device (kAudioHardwareBuiltInOutputDevice), always
 *   present.  It has no sound hardware behind it: its sample counter runs
 *   with the host clock at its nominal rate of 48000 Hz, starting at 0 when
 *   _AudioHardwareInitialize first runs, so audio clocks work on machines
 *   without a sound card.
 *
 * - Devices that an application registers while it drives real audio output
 *   (ALSA, PipeWire, JACK).  The application reports, from its audio
 *   callbacks, which sample is leaving the hardware at which host time
 *   (AudioDeviceReportTime); the device's current time then follows that
 *   hardware's sample counter, extrapolated between reports with the rate
 *   measured from them.  A sound card whose crystal runs a little off its
 *   nominal rate therefore makes the device's time drift against the host
 *   clock, as the hardware does.
 *
 * The default output device is the most recently registered device that is
 * still registered, or the built-in one when there is none.
 *
 * Host time.  Host times (AudioTimeStamp.mHostTime, AudioGetCurrentHostTime)
 * are the system's monotonic counter in nanoseconds (CLOCK_MONOTONIC on
 * Linux): the counter that Sorvel's host time clock reads.
 *
 * Statuses: 0 on success; kAudioHardwareNotRunningError ('stop') before
 * _AudioHardwareInitialize has run, or for a registered device that has not
 * reported yet; kAudioHardwareBadObjectError ('!obj') for an unknown object;
 * kAudioHardwareBadDeviceError ('!dev') for an unknown device (one never
 * registered, or unregistered since; identifiers are never reused);
 * kAudioHardwareUnknownPropertyError ('who?') for a selector, scope or
 * element the object does not have; kAudioHardwareBadPropertySizeError
 * ('!siz') for a data buffer too small for the value; kAudio_ParamError for
 * a missing pointer or an unusable value; kAudio_MemFullError when no more
 * devices can be registered.
 *
 * Threads.  Every call may be made from any thread.  Reading a device's time
 * and reporting it take no lock: reports from one device's audio thread and
 * reads from any number of other threads run side by side, and a reader
 * always sees one whole report.  Reports of one device are expected from one
 * thread at a time (its audio callback); should two threads report for one
 * device at once, one waits for the other.
 *
 * Driving a registered device, for example from an ALSA playback loop:
 *
 *     AudioDeviceID device;
 *     AudioHardwareRegisterOutputDevice(48000.0, &device);
 *     ...after each write, from snd_pcm_status():
 *     AudioTimeStamp now = {0};
 *     now.mSampleTime = (Float64)(framesWritten - delayFrames);
 *     now.mHostTime = audioTimestampInNanoseconds;   // CLOCK_MONOTONIC
 *     now.mFlags = kAudioTimeStampSampleHostTimeValid;
 *     AudioDeviceReportTime(device, &now);
 *     ...
 *     AudioHardwareUnregisterOutputDevice(device);
 */
#ifndef COREAUDIO_AUDIOHARDWARE_H
#define COREAUDIO_AUDIOHARDWARE_H

#include <CoreAudio/CoreAudioTypes.h>

CF_EXTERN_C_BEGIN

typedef UInt32 AudioObjectID;
typedef AudioObjectID AudioDeviceID;
typedef UInt32 AudioObjectPropertySelector;
typedef UInt32 AudioObjectPropertyScope;
typedef UInt32 AudioObjectPropertyElement;

/* Names one property of an object. */
typedef struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector;
    AudioObjectPropertyScope mScope;
    AudioObjectPropertyElement mElement;
} AudioObjectPropertyAddress;

/* Objects. */
enum { kAudioObjectUnknown = 0, kAudioObjectSystemObject = 1, kAudioHardwareBuiltInOutputDevice = 2 };

/* Scopes and elements.  Every property here lives in the global scope; a
 * device's properties may also be addressed in the output scope.  The only
 * element is the main one. */
enum {
    kAudioObjectPropertyScopeGlobal = 0x676C6F62, /* 'glob' */
    kAudioObjectPropertyScopeOutput = 0x6F757470, /* 'outp' */
    kAudioObjectPropertyElementMain = 0,
    kAudioObjectPropertyElementMaster = kAudioObjectPropertyElementMain
};

/* Selectors.
 * - kAudioHardwarePropertyDefaultOutputDevice, of the system object: the
 *   default output device, an AudioDeviceID.
 * - kAudioDevicePropertyNominalSampleRate and
 *   kAudioDevicePropertyActualSampleRate, of a device: its sample rate in
 *   Hz, a Float64.  Both give the rate the device runs its stream at (48000
 *   for the built-in device, the registered rate for the others); how far
 *   the hardware's crystal is off that rate shows in the device's time, not
 *   here. */
enum {
    kAudioHardwarePropertyDefaultOutputDevice = 0x644F7574, /* 'dOut' */
    kAudioDevicePropertyNominalSampleRate = 0x6E737274,     /* 'nsrt' */
    kAudioDevicePropertyActualSampleRate = 0x61737274       /* 'asrt' */
};

/* Statuses. */
enum {
    kAudioHardwareNoError = 0,
    kAudioHardwareNotRunningError = 0x73746F70,          /* 'stop' */
    kAudioHardwareUnspecifiedError = 0x77686174,         /* 'what' */
    kAudioHardwareUnknownPropertyError = 0x77686F3F,     /* 'who?' */
    kAudioHardwareBadPropertySizeError = 0x2173697A,     /* '!siz' */
    kAudioHardwareIllegalOperationError = 0x6E6F7065,    /* 'nope' */
    kAudioHardwareBadObjectError = 0x216F626A,           /* '!obj' */
    kAudioHardwareBadDeviceError = 0x21646576,           /* '!dev' */
    kAudioHardwareUnsupportedOperationError = 0x756E6F70 /* 'unop' */
};

/* How many devices may be registered at once. */
enum { kAudioHardwareMaxRegisteredOutputDevices = 16 };

/* Starts the hardware layer; the built-in device's counter starts at 0 now.
 * Later calls do nothing and cost one atomic load.  Always returns 0. */
CF_EXPORT OSStatus _AudioHardwareInitialize(void) CF_NOEXCEPT CF_ABI_NAME(_AudioHardwareInitialize);

/* The host clock now: CLOCK_MONOTONIC in nanoseconds.  Needs no
 * initialisation. */
CF_EXPORT UInt64 AudioGetCurrentHostTime(void) CF_NOEXCEPT CF_ABI_NAME(AudioGetCurrentHostTime);

/* Copies the value of `inObjectID`'s property at `inAddress` to `outData`.
 * *ioDataSize gives the room at outData and receives the value's size.  The
 * qualifier is not used by any property here and may be NULL.  Statuses as
 * listed above; on failure nothing is written. */
CF_EXPORT OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID, const AudioObjectPropertyAddress *inAddress,
                                              UInt32 inQualifierDataSize, const void *inQualifierData,
                                              UInt32 *ioDataSize, void *outData) CF_NOEXCEPT
    CF_ABI_NAME(AudioObjectGetPropertyData);

/* The device's time now.  On success *outTime holds the sample time (a
 * Float64 count of samples since the device's counter started), the host
 * time of the reading, and the rate scalar (the measured sample rate over
 * the nominal one), with mFlags kAudioTimeStampSampleHostTimeValid |
 * kAudioTimeStampRateScalarValid; every other field is 0.  A registered
 * device's sample time is its last report extrapolated to the host time of
 * the reading (backwards, should that report carry a later host time than
 * the reading), so it follows the reports exactly at their host times.
 * Fails with 'stop' before initialisation or before a registered device's
 * first report, with '!dev' for an unknown device and kAudio_ParamError for
 * a NULL outTime; *outTime is then left alone. */
CF_EXPORT OSStatus AudioDeviceGetCurrentTime(AudioDeviceID inDevice, AudioTimeStamp *outTime) CF_NOEXCEPT
    CF_ABI_NAME(AudioDeviceGetCurrentTime);

/* ---- Registered output devices (this platform's own calls) -------------- */

/* Registers an output device whose stream runs at `inSampleRate` Hz (finite
 * and above 0, else kAudio_ParamError) and makes it the default output
 * device.  Initialises the hardware layer if that has not happened yet.
 * *outDevice receives the new device's identifier, or kAudioObjectUnknown
 * on failure: kAudio_ParamError (also when outDevice is NULL), or
 * kAudio_MemFullError when kAudioHardwareMaxRegisteredOutputDevices are
 * registered already.  The device reads 'stop' until its first report. */
CF_EXPORT OSStatus AudioHardwareRegisterOutputDevice(Float64 inSampleRate, AudioDeviceID *outDevice) CF_NOEXCEPT
    CF_ABI_NAME(AudioHardwareRegisterOutputDevice);

/* Reports that the sample `inTimeStamp->mSampleTime` of the stream (counted
 * from 0 at the stream's start, in the device's own samples) leaves the
 * hardware at host time `inTimeStamp->mHostTime`.  mFlags must include
 * kAudioTimeStampSampleHostTimeValid and the sample time must be finite
 * (else kAudio_ParamError, and the report is ignored).
 *
 * Without kAudioTimeStampRateScalarValid the rate between reports is
 * measured from the reports themselves over the last two to four seconds;
 * the device's time runs at the nominal rate until 100 ms of reports have
 * been seen, and a measurement more than 5% off the nominal rate counts as
 * 5% off.  A report that does not continue the stream (its sample or
 * host time going backwards, or a sample time 100 ms or more away from
 * where the measured rate puts it: an underrun, a seek, a restart) starts
 * the measurement again and keeps the rate measured so far.
 *
 * With kAudioTimeStampRateScalarValid, mRateScalar (finite and at least 0,
 * else kAudio_ParamError) gives the rate to extrapolate with, as a multiple
 * of the nominal rate: a stack that filters its own rate (a delay-locked
 * loop) passes it here, and 0 says the counter stands still (a paused
 * stream).  '!dev' for a device that is not registered. */
CF_EXPORT OSStatus AudioDeviceReportTime(AudioDeviceID inDevice, const AudioTimeStamp *inTimeStamp) CF_NOEXCEPT
    CF_ABI_NAME(AudioDeviceReportTime);

/* Removes a registered device ('!dev' when it is not registered; the
 * built-in device cannot be removed: kAudioHardwareIllegalOperationError).
 * Its identifier is never handed out again, so clocks still reading it get
 * '!dev' from then on.  The default output device falls back to the most
 * recently registered device still registered, or the built-in one. */
CF_EXPORT OSStatus AudioHardwareUnregisterOutputDevice(AudioDeviceID inDevice) CF_NOEXCEPT
    CF_ABI_NAME(AudioHardwareUnregisterOutputDevice);

CF_EXTERN_C_END

#endif /* COREAUDIO_AUDIOHARDWARE_H */
