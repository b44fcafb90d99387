// SPDX-License-Identifier: Apache-2.0
// The sample-description bridge: the entry points, the child-atom walk and
// the video half (visual sample entries and their atoms).  The sound half is
// SVSampleDescriptionAudio.cpp, the colour tables SVSampleDescriptionColor.cpp.
//
// Reading keeps the whole entry and every child atom in the extensions, so a
// description that came from an entry is written back from those bytes and
// round trips exactly; the interpreted extensions are for the rest of the
// library and for descriptions written from scratch.
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVSampleDescription.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "bitstream/SVParameterSetsInternal.h"
#include "core/SVAllocationBoundary.h"
#include "core/SVLog.h"
#include "formats/SVFormatDescriptionInternal.h"
#include "formats/SVSampleDescriptionInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVFormatDescriptionBridge");

using sorvel::SVAtom;
using sorvel::SVBadAtom;
using sorvel::SVFourCC;
using sorvel::SVReadBE16;
using sorvel::SVReadBE32;

constexpr size_t kEntryHeaderSize = 16;
constexpr size_t kVisualFixedSize = 86;

constexpr FourCharCode kAVC1 = SVFourCC("avc1"), kAVC3 = SVFourCC("avc3"), kHVC1 = SVFourCC("hvc1"),
                       kHEV1 = SVFourCC("hev1");

struct CFReleaser {
    CFTypeRef object;
    ~CFReleaser() {
        if (object) CFRelease(object);
    }
};

// ---- video: the decoder configuration records ------------------------------

struct ParameterSets {
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    int nalUnitHeaderLength = 0;
};

// One array of a record: `count` units, each a 16-bit length and its
// bytes, from `at` on.  Empty units are skipped.
bool readUnitArray(const uint8_t *p, size_t n, size_t &at, unsigned count, ParameterSets &sets, const char *pastTheEnd,
                   const char *&why) {
    for (unsigned i = 0; i < count; ++i) {
        if (n - at < 2) return why = pastTheEnd, false;
        const size_t length = SVReadBE16(p + at);
        at += 2;
        if (n - at < length) return why = pastTheEnd, false;
        if (length) {
            sets.pointers.push_back(p + at);
            sets.sizes.push_back(length);
        }
        at += length;
    }
    return true;
}

// avcC: the SPS, PPS and (for the high profiles) SPS-extension arrays.
bool splitAVCC(const uint8_t *p, size_t n, ParameterSets &sets, const char *&why) {
    if (n < 7) return why = "avcC shorter than 7 bytes", false;
    if (p[0] != 1) return why = "avcC version is not 1", false;
    sets.nalUnitHeaderLength = (p[4] & 3) + 1;
    size_t at = 5;
    constexpr const char *kPastTheEnd = "avcC parameter set past the end";
    const unsigned spsCount = p[at++] & 0x1F;
    if (!readUnitArray(p, n, at, spsCount, sets, kPastTheEnd, why)) return false;
    if (at >= n) return why = "avcC without a PPS count", false;
    const unsigned ppsCount = p[at++];
    if (!readUnitArray(p, n, at, ppsCount, sets, kPastTheEnd, why)) return false;
    // The extension is only there for the high profiles; what follows it
    // (or a record without it) is left alone, as decoders do.
    const uint8_t profile = p[1];
    if ((profile == 100 || profile == 110 || profile == 122 || profile == 144) && n - at >= 4) {
        at += 3;
        const unsigned extensionCount = p[at++];
        if (!readUnitArray(p, n, at, extensionCount, sets, kPastTheEnd, why)) return false;
    }
    return true;
}

// hvcC: the 23-byte header and the NAL-unit arrays.
bool splitHVCC(const uint8_t *p, size_t n, ParameterSets &sets, const char *&why) {
    if (n < 23) return why = "hvcC shorter than 23 bytes", false;
    if (p[0] != 1) return why = "hvcC version is not 1", false;
    sets.nalUnitHeaderLength = (p[21] & 3) + 1;
    size_t at = 23;
    for (unsigned a = 0, arrays = p[22]; a < arrays; ++a) {
        if (n - at < 3) return why = "hvcC array past the end", false;
        const unsigned count = SVReadBE16(p + at + 1);
        at += 3;
        if (!readUnitArray(p, n, at, count, sets, "hvcC NAL unit past the end", why)) return false;
    }
    return true;
}

bool hasSPS(const ParameterSets &sets, bool hevc) {
    for (size_t i = 0; i < sets.pointers.size(); ++i) {
        const unsigned type = hevc ? (sets.pointers[i][0] >> 1) & 0x3F : sets.pointers[i][0] & 0x1F;
        if (type == (hevc ? 33u : 7u)) return true;
    }
    return false;
}

// ---- video: the interpreted atoms -------------------------------------------

CFArrayRef createRational(int64_t numerator, int64_t denominator) {
    CFNumberRef n = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &numerator);
    CFNumberRef d = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &denominator);
    CFArrayRef array = nullptr;
    if (n && d) {
        const void *values[] = {n, d};
        array = CFArrayCreate(kCFAllocatorDefault, values, 2, &kCFTypeArrayCallBacks);
    }
    if (n) CFRelease(n);
    if (d) CFRelease(d);
    return array;
}

void setRatio(CFMutableDictionaryRef dict, CFStringRef key, int64_t numerator, int64_t denominator) {
    if (numerator % denominator == 0)
        sorvel::SVSetInt(dict, key, numerator / denominator);
    else
        sorvel::SVSetDouble(dict, key, double(numerator) / double(denominator));
}

OSStatus readColour(const SVAtom &atom, CFMutableDictionaryRef ext, const char *function) {
    if (atom.size < 4) return SVBadAtom(function, "'colr' without a type");
    const FourCharCode type = SVReadBE32(atom.payload);
    const uint8_t *p = atom.payload + 4;
    const size_t n = atom.size - 4;
    if (type == SVFourCC("prof") || type == SVFourCC("rICC")) {
        CFDataRef profile = CFDataCreate(kCFAllocatorDefault, p, CFIndex(n));
        if (!profile) return kSVSampleDescriptionError_AllocationFailed;
        CFDictionarySetValue(ext, kSVFormatDescriptionExtension_ICCProfile, profile);
        CFRelease(profile);
        return 0;
    }
    const bool nclx = type == SVFourCC("nclx");
    if (!nclx && type != SVFourCC("nclc")) return SVBadAtom(function, "'colr' of unknown type");
    if (n < (nclx ? 7u : 6u)) return SVBadAtom(function, "'colr' shorter than its type needs");
    const int primaries = SVReadBE16(p), transfer = SVReadBE16(p + 2), matrix = SVReadBE16(p + 4);
    // Unspecified or unmapped codes have no opinion: whatever the parameter
    // sets said stays.
    if (CFStringRef value = SVColorPrimariesGetStringForIntegerCodePoint(primaries))
        CFDictionarySetValue(ext, kCVImageBufferColorPrimariesKey, value);
    if (CFStringRef value = SVTransferFunctionGetStringForIntegerCodePoint(transfer)) {
        CFDictionarySetValue(ext, kCVImageBufferTransferFunctionKey, value);
        if (transfer == 4 || transfer == 5)
            sorvel::SVSetDouble(ext, kCVImageBufferGammaLevelKey, transfer == 4 ? 2.2 : 2.8);
        else
            CFDictionaryRemoveValue(ext, kCVImageBufferGammaLevelKey);
    }
    if (CFStringRef value = SVYCbCrMatrixGetStringForIntegerCodePoint(matrix))
        CFDictionarySetValue(ext, kCVImageBufferYCbCrMatrixKey, value);
    if (nclx)
        CFDictionarySetValue(ext, kSVFormatDescriptionExtension_FullRangeVideo,
                             (p[6] & 0x80) ? kCFBooleanTrue : kCFBooleanFalse);
    return 0;
}

OSStatus readAspect(const SVAtom &atom, CFMutableDictionaryRef ext, const char *function) {
    if (atom.size < 8) return SVBadAtom(function, "'pasp' shorter than 8 bytes");
    const uint32_t h = SVReadBE32(atom.payload), v = SVReadBE32(atom.payload + 4);
    if (h == 0 || v == 0) return SVBadAtom(function, "'pasp' with a zero spacing");
    CFMutableDictionaryRef aspect = sorvel::SVCreateMutableDictionary();
    if (!aspect) return kSVSampleDescriptionError_AllocationFailed;
    sorvel::SVSetInt(aspect, kCVImageBufferPixelAspectRatioHorizontalSpacingKey, h);
    sorvel::SVSetInt(aspect, kCVImageBufferPixelAspectRatioVerticalSpacingKey, v);
    CFDictionarySetValue(ext, kCVImageBufferPixelAspectRatioKey, aspect);
    CFRelease(aspect);
    return 0;
}

// The clean-aperture keys in the order of the 'clap' fields: width,
// height, horizontal offset, vertical offset.
struct CleanApertureKeys {
    CFStringRef value[4];
    CFStringRef rational[4];
};
CleanApertureKeys cleanApertureKeys() {
    return {{kCVImageBufferCleanApertureWidthKey, kCVImageBufferCleanApertureHeightKey,
             kCVImageBufferCleanApertureHorizontalOffsetKey, kCVImageBufferCleanApertureVerticalOffsetKey},
            {kSVFormatDescriptionKey_CleanApertureWidthRational, kSVFormatDescriptionKey_CleanApertureHeightRational,
             kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational,
             kSVFormatDescriptionKey_CleanApertureVerticalOffsetRational}};
}

OSStatus readCleanAperture(const SVAtom &atom, CFMutableDictionaryRef ext, const char *function) {
    if (atom.size < 32) return SVBadAtom(function, "'clap' shorter than 32 bytes");
    int64_t v[8];
    for (int i = 0; i < 8; ++i) {
        const uint32_t raw = SVReadBE32(atom.payload + 4 * i);
        // Widths, heights and denominators are unsigned; offsets signed.
        v[i] = (i == 4 || i == 6) ? int64_t(int32_t(raw)) : int64_t(raw);
    }
    if (!v[1] || !v[3] || !v[5] || !v[7]) return SVBadAtom(function, "'clap' with a zero denominator");
    CFMutableDictionaryRef clap = sorvel::SVCreateMutableDictionary();
    if (!clap) return kSVSampleDescriptionError_AllocationFailed;
    const CleanApertureKeys keys = cleanApertureKeys();
    bool ok = true;
    for (int i = 0; i < 4; ++i) {
        setRatio(clap, keys.value[i], v[2 * i], v[2 * i + 1]);
        CFArrayRef rational = createRational(v[2 * i], v[2 * i + 1]);
        if (!rational) {
            ok = false;
            break;
        }
        CFDictionarySetValue(clap, keys.rational[i], rational);
        CFRelease(rational);
    }
    if (ok) CFDictionarySetValue(ext, kCVImageBufferCleanApertureKey, clap);
    CFRelease(clap);
    return ok ? 0 : kSVSampleDescriptionError_AllocationFailed;
}

OSStatus readFields(const SVAtom &atom, CFMutableDictionaryRef ext, const char *function) {
    if (atom.size < 2) return SVBadAtom(function, "'fiel' shorter than 2 bytes");
    const unsigned count = atom.payload[0], detail = atom.payload[1];
    if (count != 1 && count != 2) return SVBadAtom(function, "'fiel' with a field count other than 1 or 2");
    sorvel::SVSetInt(ext, kCVImageBufferFieldCountKey, count);
    CFStringRef value = nullptr;
    if (count == 2) {
        switch (detail) {
            case 1:
                value = kCVImageBufferFieldDetailTemporalTopFirst;
                break;
            case 6:
                value = kCVImageBufferFieldDetailTemporalBottomFirst;
                break;
            case 9:
                value = kCVImageBufferFieldDetailSpatialFirstLineEarly;
                break;
            case 14:
                value = kCVImageBufferFieldDetailSpatialFirstLineLate;
                break;
            default:
                break;
        }
    }
    if (value)
        CFDictionarySetValue(ext, kCVImageBufferFieldDetailKey, value);
    else
        CFDictionaryRemoveValue(ext, kCVImageBufferFieldDetailKey);
    return 0;
}

OSStatus readGamma(const SVAtom &atom, CFMutableDictionaryRef ext, const char *function) {
    if (atom.size < 4) return SVBadAtom(function, "'gama' shorter than 4 bytes");
    sorvel::SVSetDouble(ext, kCVImageBufferGammaLevelKey, SVReadBE32(atom.payload) / 65536.0);
    return 0;
}

// The visual fields of the fixed part.
void readVisualFields(const uint8_t *e, CFMutableDictionaryRef ext) {
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_Version, SVReadBE16(e + 16));
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_RevisionLevel, SVReadBE16(e + 18));
    if (const FourCharCode vendor = SVReadBE32(e + 20)) {
        if (CFStringRef string = sorvel::SVCreateStringForCode(vendor)) {
            CFDictionarySetValue(ext, kSVFormatDescriptionExtension_Vendor, string);
            CFRelease(string);
        }
    }
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_TemporalQuality, SVReadBE32(e + 24));
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_SpatialQuality, SVReadBE32(e + 28));
    sorvel::SVSetDouble(ext, kSVFormatDescriptionExtension_HorizontalResolution, SVReadBE32(e + 36) / 65536.0);
    sorvel::SVSetDouble(ext, kSVFormatDescriptionExtension_VerticalResolution, SVReadBE32(e + 40) / 65536.0);
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_FrameCount, SVReadBE16(e + 48));
    const size_t nameLength = std::min<size_t>(e[50], 31);
    if (nameLength) {
        CFStringRef name =
            CFStringCreateWithBytes(kCFAllocatorDefault, e + 51, CFIndex(nameLength), kCFStringEncodingMacRoman, false);
        if (name) {
            CFDictionarySetValue(ext, kSVFormatDescriptionExtension_CompressorName, name);
            CFRelease(name);
        }
    }
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_Depth, SVReadBE16(e + 82));
    sorvel::SVSetInt(ext, kSVFormatDescriptionExtension_ColorTableID, int16_t(SVReadBE16(e + 84)));
}

// The description the entry's 'avcC' or 'hvcC' parameter sets make, in
// *derived (NULL without a record or an SPS in it).
OSStatus describeDecoderConfiguration(const sorvel::SVEntryReader &r, bool hevc, ParameterSets &sets,
                                      SVFormatDescriptionRef *derived) {
    const SVAtom *record = sorvel::SVFindAtom(r.atoms, SVFourCC(hevc ? "hvcC" : "avcC"));
    if (!record) return 0;
    const char *why = "";
    if (!(hevc ? splitHVCC(record->payload, record->size, sets, why)
               : splitAVCC(record->payload, record->size, sets, why)))
        return SVBadAtom(r.function, why);
    if (!hasSPS(sets, hevc)) return 0;
    const OSStatus status = hevc ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(
                                       kCFAllocatorDefault, sets.pointers.size(), sets.pointers.data(),
                                       sets.sizes.data(), sets.nalUnitHeaderLength, nullptr, derived)
                                 : SVVideoFormatDescriptionCreateFromH264ParameterSets(
                                       kCFAllocatorDefault, sets.pointers.size(), sets.pointers.data(),
                                       sets.sizes.data(), sets.nalUnitHeaderLength, derived);
    if (status == kSVFormatDescriptionError_AllocationFailed) return kSVSampleDescriptionError_AllocationFailed;
    if (status != 0) return SVBadAtom(r.function, "the decoder configuration record's parameter sets are unusable");
    return 0;
}

// The interpreted atoms, each over what the parameter sets said.
OSStatus readVisualAtoms(const sorvel::SVEntryReader &r, CFMutableDictionaryRef merged) {
    for (const SVAtom &atom : r.atoms) {
        OSStatus status = 0;
        switch (atom.code) {
            case SVFourCC("colr"):
                status = readColour(atom, merged, r.function);
                break;
            case SVFourCC("pasp"):
                status = readAspect(atom, merged, r.function);
                break;
            case SVFourCC("clap"):
                status = readCleanAperture(atom, merged, r.function);
                break;
            case SVFourCC("fiel"):
                status = readFields(atom, merged, r.function);
                break;
            case SVFourCC("gama"):
                status = readGamma(atom, merged, r.function);
                break;
            default:
                break;
        }
        if (status) return status;
    }
    return 0;
}

// Copies every entry of `from` into `to`, except the atoms dictionary.
void mergeDerived(CFDictionaryRef from, CFMutableDictionaryRef to) {
    if (!from) return;
    const CFIndex count = CFDictionaryGetCount(from);
    std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
    CFDictionaryGetKeysAndValues(from, keys.data(), values.data());
    for (size_t i = 0; i < keys.size(); ++i)
        if (!CFEqual(keys[i], kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms))
            CFDictionarySetValue(to, keys[i], values[i]);
}

}  // namespace

namespace sorvel {

OSStatus SVBadAtom(const char *function, const char *why) {
    SV_LOG_FOR(function, 3, "Bad sample description atom: %s", why);
    return kSVSampleDescriptionError_BadAtom;
}

bool SVWalkAtoms(const uint8_t *begin, const uint8_t *end, std::vector<SVAtom> &atoms, const char *function) {
    const uint8_t *p = begin;
    while (p < end) {
        const size_t left = size_t(end - p);
        if (left < 8) {
            if (left == 4 && SVReadBE32(p) == 0) return true;  // 32-bit terminator
            SV_LOG_FOR(function, 3, "Bad sample description atom: %d stray bytes at the end", int(left));
            return false;
        }
        const uint32_t size = SVReadBE32(p);
        const FourCharCode code = SVReadBE32(p + 4);
        if (size == 0 && code == 0) return true;  // 8-byte terminator
        if (size < 8 || size > left) {
            SV_LOG_FOR(function, 3, "Bad sample description atom: '%s' has size %u with %d bytes left",
                       SVCodeText(code).text, size, int(left));
            return false;
        }
        atoms.push_back({code, p + 8, size - 8});
        p += size;
    }
    return true;
}

const SVAtom *SVFindAtom(const std::vector<SVAtom> &atoms, FourCharCode code) {
    for (const SVAtom &atom : atoms)
        if (atom.code == code) return &atom;
    return nullptr;
}

CFStringRef SVCreateStringForCode(FourCharCode code) {
    const uint8_t bytes[4] = {uint8_t(code >> 24), uint8_t(code >> 16), uint8_t(code >> 8), uint8_t(code)};
    return CFStringCreateWithBytes(kCFAllocatorDefault, bytes, 4, kCFStringEncodingISOLatin1, false);
}

bool SVCodeForString(CFTypeRef value, FourCharCode *code) {
    if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return false;
    CFStringRef string = static_cast<CFStringRef>(value);
    uint8_t bytes[4];
    CFIndex used = 0;
    if (CFStringGetLength(string) != 4 ||
        CFStringGetBytes(string, CFRangeMake(0, 4), kCFStringEncodingISOLatin1, 0, false, bytes, 4, &used) != 4 ||
        used != 4)
        return false;
    *code = SVReadBE32(bytes);
    return true;
}

CFMutableDictionaryRef SVCreateMutableDictionary() {
    return CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                     &kCFTypeDictionaryValueCallBacks);
}

void SVSetInt(CFMutableDictionaryRef dict, CFStringRef key, int64_t value) {
    const int32_t narrow = int32_t(value);
    CFNumberRef number = value >= INT32_MIN && value <= INT32_MAX
                             ? CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &narrow)
                             : CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value);
    if (!number) return;
    CFDictionarySetValue(dict, key, number);
    CFRelease(number);
}

void SVSetDouble(CFMutableDictionaryRef dict, CFStringRef key, double value) {
    CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &value);
    if (!number) return;
    CFDictionarySetValue(dict, key, number);
    CFRelease(number);
}

bool SVGetInt(CFDictionaryRef dict, CFStringRef key, int64_t *out) {
    CFTypeRef value = dict ? CFDictionaryGetValue(dict, key) : nullptr;
    if (!value || CFGetTypeID(value) != CFNumberGetTypeID()) return false;
    return CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, out);
}

bool SVGetDouble(CFDictionaryRef dict, CFStringRef key, double *out) {
    CFTypeRef value = dict ? CFDictionaryGetValue(dict, key) : nullptr;
    if (!value || CFGetTypeID(value) != CFNumberGetTypeID()) return false;
    return CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberFloat64Type, out) && std::isfinite(*out);
}

CFDictionaryRef SVCreateAtomsDictionary(const std::vector<SVAtom> &atoms) {
    SVRetained<CFMutableDictionaryRef> owned(SVCreateMutableDictionary());
    CFMutableDictionaryRef dict = owned.get();
    if (!dict) return nullptr;
    for (size_t i = 0; i < atoms.size(); ++i) {
        SVRetained<CFStringRef> ownedKey(SVCreateStringForCode(atoms[i].code));
        CFStringRef key = ownedKey.get();
        if (!key || CFDictionaryContainsKey(dict, key)) continue;
        // The list is sized before any payload is made: reserving is the
        // only step here that can throw.
        size_t count = 0;
        for (size_t j = i; j < atoms.size(); ++j) count += atoms[j].code == atoms[i].code;
        std::vector<const void *> payloads;
        payloads.reserve(count);
        for (size_t j = i; j < atoms.size(); ++j)
            if (atoms[j].code == atoms[i].code)
                payloads.push_back(CFDataCreate(kCFAllocatorDefault, atoms[j].payload, CFIndex(atoms[j].size)));
        bool ok = std::all_of(payloads.begin(), payloads.end(), [](const void *p) { return p != nullptr; });
        CFTypeRef value = nullptr;
        if (ok)
            value = payloads.size() == 1 ? CFRetain(payloads[0])
                                         : CFArrayCreate(kCFAllocatorDefault, payloads.data(), CFIndex(payloads.size()),
                                                         &kCFTypeArrayCallBacks);
        for (const void *p : payloads)
            if (p) CFRelease(p);
        if (!value) return nullptr;
        CFDictionarySetValue(dict, key, value);
        CFRelease(value);
    }
    return owned.release();
}

bool SVAtomsAreQuickTimeOnly(const std::vector<SVAtom> &atoms) {
    for (const SVAtom &atom : atoms) {
        // ('fiel' is not among them: muxers write it into MP4 files too.)
        if (atom.code == SVFourCC("wave") || atom.code == SVFourCC("chan") || atom.code == SVFourCC("gama"))
            return true;
        if (atom.code == SVFourCC("colr") && atom.size >= 4 && SVReadBE32(atom.payload) == SVFourCC("nclc"))
            return true;
    }
    return false;
}

bool SVVisualEntryLooksQuickTime(const uint8_t *e, size_t) {
    // version, revision, vendor and the two qualities are zero in ISO files
    for (size_t i = 16; i < 32; ++i)
        if (e[i]) return true;
    return false;
}

bool SVIsVideoFormatCode(FourCharCode code) {
    static const FourCharCode kCodes[] = {
        SVFourCC("avc1"), SVFourCC("avc3"), SVFourCC("hvc1"), SVFourCC("hev1"), SVFourCC("mp4v"), SVFourCC("jpeg"),
        SVFourCC("apch"), SVFourCC("apcn"), SVFourCC("apcs"), SVFourCC("apco"), SVFourCC("ap4h"), SVFourCC("ap4x"),
        SVFourCC("av01"), SVFourCC("vp09"), SVFourCC("2vuy"), SVFourCC("s263"), SVFourCC("mjpa"), SVFourCC("dvh1")};
    return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

CFDataRef SVGetAtomPayload(SVFormatDescriptionRef desc, const char *code) {
    CFTypeRef atoms =
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
    if (!atoms || CFGetTypeID(atoms) != CFDictionaryGetTypeID()) return nullptr;
    CFStringRef key = CFStringCreateWithCString(kCFAllocatorDefault, code, kCFStringEncodingASCII);
    if (!key) return nullptr;
    CFTypeRef value = CFDictionaryGetValue(static_cast<CFDictionaryRef>(atoms), key);
    CFRelease(key);
    if (value && CFGetTypeID(value) == CFArrayGetTypeID() && CFArrayGetCount(static_cast<CFArrayRef>(value)) > 0)
        value = CFArrayGetValueAtIndex(static_cast<CFArrayRef>(value), 0);
    return value && CFGetTypeID(value) == CFDataGetTypeID() ? static_cast<CFDataRef>(value) : nullptr;
}

void SVWriteRemainingAtoms(SVFormatDescriptionRef desc, const std::vector<FourCharCode> &skip, SVByteWriter &out) {
    CFTypeRef atoms =
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
    if (!atoms || CFGetTypeID(atoms) != CFDictionaryGetTypeID()) return;
    CFDictionaryRef dict = static_cast<CFDictionaryRef>(atoms);
    const CFIndex count = CFDictionaryGetCount(dict);
    std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
    CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
    std::vector<std::pair<FourCharCode, CFTypeRef>> ordered;
    for (size_t i = 0; i < keys.size(); ++i) {
        FourCharCode code;
        if (!SVCodeForString(keys[i], &code) || std::find(skip.begin(), skip.end(), code) != skip.end()) continue;
        ordered.push_back({code, values[i]});
    }
    std::sort(ordered.begin(), ordered.end(), [](auto &a, auto &b) { return a.first < b.first; });
    auto write = [&](FourCharCode code, CFTypeRef value) {
        if (!value || CFGetTypeID(value) != CFDataGetTypeID()) return;
        CFDataRef data = static_cast<CFDataRef>(value);
        out.atom(code, CFDataGetBytePtr(data), size_t(CFDataGetLength(data)));
    };
    for (auto &[code, value] : ordered) {
        if (CFGetTypeID(value) == CFArrayGetTypeID()) {
            CFArrayRef array = static_cast<CFArrayRef>(value);
            for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) write(code, CFArrayGetValueAtIndex(array, i));
        } else {
            write(code, value);
        }
    }
}

OSStatus SVReadVisualSampleEntry(CFAllocatorRef allocator, SVEntryReader &r, CFMutableDictionaryRef ext,
                                 SVFormatDescriptionRef *out) {
    const uint8_t *e = r.entry;
    const int32_t width = SVReadBE16(e + 32), height = SVReadBE16(e + 34);
    const FourCharCode format = r.format;
    const bool avc = format == kAVC1 || format == kAVC3, hevc = format == kHVC1 || format == kHEV1;

    // MPEG-4 video keeps its decoder configuration in 'esds': checked, not
    // interpreted (nothing in it becomes an extension).
    if (format == SVFourCC("mp4v")) {
        if (const SVAtom *esds = SVFindAtom(r.atoms, SVFourCC("esds"))) {
            SVElementaryStream es;
            const char *why = "";
            if (!SVParseESDS(esds->payload, esds->size, es, why)) return SVBadAtom(r.function, why);
        }
    }
    // The parameter sets' view first, so that the atoms can override it.
    ParameterSets sets;
    SVFormatDescriptionRef derived = nullptr;
    if (avc || hevc)
        if (OSStatus status = describeDecoderConfiguration(r, hevc, sets, &derived)) return status;
    CFReleaser derivedGuard{derived};
    CFMutableDictionaryRef merged = SVCreateMutableDictionary();
    if (!merged) return kSVSampleDescriptionError_AllocationFailed;
    CFReleaser mergedGuard{merged};
    if (derived) mergeDerived(SVFormatDescriptionGetExtensions(derived), merged);
    mergeDerived(ext, merged);
    CFDictionarySetValue(merged, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms,
                         CFDictionaryGetValue(ext, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    readVisualFields(e, merged);

    if (OSStatus status = readVisualAtoms(r, merged)) return status;

    OSStatus status;
    if (derived) {
        status = SVVideoFormatDescriptionCreateWithParameterSets(allocator, format, width, height, merged,
                                                                 sets.pointers.size(), sets.pointers.data(),
                                                                 sets.sizes.data(), sets.nalUnitHeaderLength, out);
    } else {
        status = SVVideoFormatDescriptionCreate(allocator, format, width, height, merged, out);
    }
    return status == 0 ? 0 : kSVSampleDescriptionError_AllocationFailed;
}

}  // namespace sorvel

namespace {

// ---- video: writing -----------------------------------------------------------

// A non-negative ratio as numerator/denominator: exact for whole numbers and
// binary fractions, else to 1/65536.
void toRational(double value, int64_t &numerator, int64_t &denominator) {
    denominator = 1;
    while (denominator < 65536 && value * double(denominator) != std::floor(value * double(denominator)))
        denominator *= 2;
    numerator = int64_t(std::llround(value * double(denominator)));
}

bool readRationalValue(CFTypeRef value, int64_t &n, int64_t &d) {
    if (!value) return false;
    if (CFGetTypeID(value) == CFArrayGetTypeID()) {
        CFArrayRef array = static_cast<CFArrayRef>(value);
        if (CFArrayGetCount(array) != 2) return false;
        CFTypeRef a = CFArrayGetValueAtIndex(array, 0), b = CFArrayGetValueAtIndex(array, 1);
        if (CFGetTypeID(a) != CFNumberGetTypeID() || CFGetTypeID(b) != CFNumberGetTypeID()) return false;
        CFNumberGetValue(static_cast<CFNumberRef>(a), kCFNumberSInt64Type, &n);
        CFNumberGetValue(static_cast<CFNumberRef>(b), kCFNumberSInt64Type, &d);
        return d != 0;
    }
    if (CFGetTypeID(value) != CFNumberGetTypeID()) return false;
    double v = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberFloat64Type, &v);
    if (!std::isfinite(v) || std::fabs(v) > 2147483647.0) return false;
    toRational(std::fabs(v), n, d);
    if (v < 0) n = -n;
    return true;
}

bool fitsField(int64_t v, bool isSigned) {
    return isSigned ? v >= INT32_MIN && v <= INT32_MAX : v >= 0 && v <= int64_t(UINT32_MAX);
}

// 'clap' from the dictionary: Rational keys first, then the value keys.
bool cleanAperturePayload(CFDictionaryRef clap, sorvel::SVByteWriter &w) {
    const CleanApertureKeys keys = cleanApertureKeys();
    for (int i = 0; i < 4; ++i) {
        int64_t n = 0, d = 1;
        if (!readRationalValue(CFDictionaryGetValue(clap, keys.rational[i]), n, d) &&
            !readRationalValue(CFDictionaryGetValue(clap, keys.value[i]), n, d)) {
            if (i < 2) return false;  // offsets default to the centre
            n = 0, d = 1;
        }
        if (d < 0) n = -n, d = -d;
        if (!fitsField(n, i >= 2) || !fitsField(d, false)) return false;
        w.u32(uint32_t(n));
        w.u32(uint32_t(d));
    }
    return true;
}

CFStringRef stringExtension(SVFormatDescriptionRef desc, CFStringRef key) {
    CFTypeRef v = SVFormatDescriptionGetExtension(desc, key);
    return v && CFGetTypeID(v) == CFStringGetTypeID() ? static_cast<CFStringRef>(v) : nullptr;
}

// The record built from the SPS at `index` and all the sets.
template <typename SPS>
CFDataRef createRecordFromSPS(const std::vector<const uint8_t *> &pointers, const std::vector<size_t> &sizes,
                              size_t index, int headerLength) {
    SPS sps;
    const char *why = "";
    if (!sorvel::SVParseSPS(pointers[index], sizes[index], sps, why)) return nullptr;
    return sorvel::SVCreateDecoderConfigurationRecord(sps, pointers.data(), sizes.data(), pointers.size(),
                                                      headerLength);
}

// The decoder configuration record of a parameter-set description without
// one in its atoms.
CFDataRef createRecordFromParameterSets(SVFormatDescriptionRef desc, bool hevc) {
    const auto get =
        hevc ? SVVideoFormatDescriptionGetHEVCParameterSetAtIndex : SVVideoFormatDescriptionGetH264ParameterSetAtIndex;
    const uint8_t *first = nullptr;
    size_t firstSize = 0, count = 0;
    int headerLength = 0;
    if (get(desc, 0, &first, &firstSize, &count, &headerLength)) return nullptr;
    std::vector<const uint8_t *> pointers(count);
    std::vector<size_t> sizes(count);
    for (size_t i = 0; i < count; ++i) get(desc, i, &pointers[i], &sizes[i], nullptr, nullptr);
    for (size_t i = 0; i < count; ++i) {
        if (sizes[i] == 0) continue;
        if (hevc && ((pointers[i][0] >> 1) & 0x3F) == 33)
            return createRecordFromSPS<sorvel::SVHEVCSPS>(pointers, sizes, i, headerLength);
        if (!hevc && (pointers[i][0] & 0x1F) == 7)
            return createRecordFromSPS<sorvel::SVH264SPS>(pointers, sizes, i, headerLength);
    }
    return nullptr;
}

// The entry header and the 70 bytes of visual fields after it, the size
// left as zero for the caller to patch.  An ISO entry zeroes the fields that
// ISO files leave zero.
void writeVisualFixedPart(SVFormatDescriptionRef desc, FourCharCode format, SVVideoDimensions dims, bool iso,
                          sorvel::SVByteWriter &w) {
    CFDictionaryRef ext = SVFormatDescriptionGetExtensions(desc);
    int64_t v = 0;
    auto field = [&](CFStringRef key, int64_t fallback) {
        return (!iso && sorvel::SVGetInt(ext, key, &v)) ? v : fallback;
    };
    w.u32(0);  // size, patched at the end
    w.u32(format);
    w.zeros(6);
    w.u16(1);  // data-reference index
    w.u16(uint32_t(field(kSVFormatDescriptionExtension_Version, 0)));
    w.u16(uint32_t(field(kSVFormatDescriptionExtension_RevisionLevel, 0)));
    FourCharCode vendor = 0;
    if (!iso)
        sorvel::SVCodeForString(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_Vendor), &vendor);
    w.u32(vendor);
    w.u32(uint32_t(field(kSVFormatDescriptionExtension_TemporalQuality, 0)));
    w.u32(uint32_t(field(kSVFormatDescriptionExtension_SpatialQuality, 0)));
    w.u16(uint32_t(dims.width));
    w.u16(uint32_t(dims.height));
    auto fixed = [&](CFStringRef key) {
        double r = 72;
        if (!sorvel::SVGetDouble(ext, key, &r) || r < 0 || r >= 65536) r = 72;
        return uint32_t(std::llround(r * 65536));
    };
    w.u32(fixed(kSVFormatDescriptionExtension_HorizontalResolution));
    w.u32(fixed(kSVFormatDescriptionExtension_VerticalResolution));
    w.u32(0);  // data size
    int64_t frames = 1;
    if (sorvel::SVGetInt(ext, kSVFormatDescriptionExtension_FrameCount, &frames) && (frames < 0 || frames > 0xFFFF))
        frames = 1;
    w.u16(uint32_t(frames));
    uint8_t name[32] = {};
    if (CFStringRef string = stringExtension(desc, kSVFormatDescriptionExtension_CompressorName)) {
        CFIndex used = 0;
        CFStringGetBytes(string, CFRangeMake(0, std::min<CFIndex>(CFStringGetLength(string), 31)),
                         kCFStringEncodingMacRoman, '?', false, name + 1, 31, &used);
        name[0] = uint8_t(used);
    }
    w.append(name, 32);
    int64_t depth = 24, table = -1;
    sorvel::SVGetInt(ext, kSVFormatDescriptionExtension_Depth, &depth);
    sorvel::SVGetInt(ext, kSVFormatDescriptionExtension_ColorTableID, &table);
    w.u16(uint32_t(depth));
    // A colour table only follows an ID of 0 with a palette depth; written
    // without one it would be read back wrongly, so none is claimed.
    w.u16(table == 0 ? 0xFFFF : uint32_t(table));
}

// 'avcC' or 'hvcC': the record the description was read with, else one
// built from its parameter sets.
void writeDecoderConfigurationAtom(SVFormatDescriptionRef desc, bool hevc, std::vector<FourCharCode> &regenerated,
                                   sorvel::SVByteWriter &w) {
    const FourCharCode code = SVFourCC(hevc ? "hvcC" : "avcC");
    regenerated.push_back(code);
    CFDataRef record = sorvel::SVGetAtomPayload(desc, hevc ? "hvcC" : "avcC");
    CFDataRef built = record ? nullptr : createRecordFromParameterSets(desc, hevc);
    if (CFDataRef use = record ? record : built) w.atom(code, CFDataGetBytePtr(use), size_t(CFDataGetLength(use)));
    if (built) CFRelease(built);
}

// The transfer function's code for 'colr', with a stated gamma of 2.2 or
// 2.8 as its own code.
int transferCodeForColour(SVFormatDescriptionRef desc, CFStringRef transfer) {
    int transferCode = SVTransferFunctionGetIntegerCodePointForString(transfer);
    double gamma = 0;
    if (transfer && CFEqual(transfer, kCVImageBufferTransferFunction_UseGamma) &&
        sorvel::SVGetDouble(SVFormatDescriptionGetExtensions(desc), kCVImageBufferGammaLevelKey, &gamma))
        transferCode = std::fabs(gamma - 2.2) < 1e-6 ? 4 : std::fabs(gamma - 2.8) < 1e-6 ? 5 : 2;
    return transferCode;
}

// 'colr': the ICC profile when there is one, else the colour codes ('nclx'
// with the range in ISO files, 'nclc' in QuickTime's) when any is set.
void writeColourAtom(SVFormatDescriptionRef desc, bool iso, sorvel::SVByteWriter &w) {
    sorvel::SVByteWriter colr;
    if (CFTypeRef icc = SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_ICCProfile);
        icc && CFGetTypeID(icc) == CFDataGetTypeID()) {
        colr.u32(SVFourCC("prof"));
        colr.append(CFDataGetBytePtr(static_cast<CFDataRef>(icc)),
                    size_t(CFDataGetLength(static_cast<CFDataRef>(icc))));
        w.atom(SVFourCC("colr"), colr.bytes);
        return;
    }
    CFStringRef primaries = stringExtension(desc, kCVImageBufferColorPrimariesKey);
    CFStringRef transfer = stringExtension(desc, kCVImageBufferTransferFunctionKey);
    CFStringRef matrix = stringExtension(desc, kCVImageBufferYCbCrMatrixKey);
    CFTypeRef range = SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_FullRangeVideo);
    if (!primaries && !transfer && !matrix && !(iso && range)) return;
    colr.u32(SVFourCC(iso ? "nclx" : "nclc"));
    colr.u16(uint32_t(SVColorPrimariesGetIntegerCodePointForString(primaries)));
    colr.u16(uint32_t(transferCodeForColour(desc, transfer)));
    colr.u16(uint32_t(SVYCbCrMatrixGetIntegerCodePointForString(matrix)));
    if (iso)
        colr.u8(range && CFGetTypeID(range) == CFBooleanGetTypeID() &&
                        CFBooleanGetValue(static_cast<CFBooleanRef>(range))
                    ? 0x80
                    : 0);
    w.atom(SVFourCC("colr"), colr.bytes);
}

// 'pasp', only when the pixels are not square.
void writePixelAspectAtom(SVFormatDescriptionRef desc, sorvel::SVByteWriter &w) {
    CFTypeRef aspect = SVFormatDescriptionGetExtension(desc, kCVImageBufferPixelAspectRatioKey);
    if (!aspect || CFGetTypeID(aspect) != CFDictionaryGetTypeID()) return;
    auto dict = static_cast<CFDictionaryRef>(aspect);
    int64_t h = 0, v = 0;
    if (sorvel::SVGetInt(dict, kCVImageBufferPixelAspectRatioHorizontalSpacingKey, &h) &&
        sorvel::SVGetInt(dict, kCVImageBufferPixelAspectRatioVerticalSpacingKey, &v) && h > 0 && v > 0 &&
        h <= UINT32_MAX && v <= UINT32_MAX && h != v) {
        sorvel::SVByteWriter pasp;
        pasp.u32(uint32_t(h));
        pasp.u32(uint32_t(v));
        w.atom(SVFourCC("pasp"), pasp.bytes);
    }
}

// 'fiel' (QuickTime only): the field count and, for two, their order.
void writeFieldsAtom(SVFormatDescriptionRef desc, sorvel::SVByteWriter &w) {
    int64_t fields = 0;
    if (!sorvel::SVGetInt(SVFormatDescriptionGetExtensions(desc), kCVImageBufferFieldCountKey, &fields) ||
        (fields != 1 && fields != 2))
        return;
    uint8_t detail = 0;
    CFStringRef d = stringExtension(desc, kCVImageBufferFieldDetailKey);
    if (fields == 2 && d) {
        if (CFEqual(d, kCVImageBufferFieldDetailTemporalTopFirst)) detail = 1;
        if (CFEqual(d, kCVImageBufferFieldDetailTemporalBottomFirst)) detail = 6;
        if (CFEqual(d, kCVImageBufferFieldDetailSpatialFirstLineEarly)) detail = 9;
        if (CFEqual(d, kCVImageBufferFieldDetailSpatialFirstLineLate)) detail = 14;
    }
    const uint8_t fiel[2] = {uint8_t(fields), detail};
    w.atom(SVFourCC("fiel"), fiel, 2);
}

// 'gama' (QuickTime only), unless 'colr' carries the gamma already.
void writeGammaAtom(SVFormatDescriptionRef desc, sorvel::SVByteWriter &w) {
    double gamma = 0;
    CFStringRef transfer = stringExtension(desc, kCVImageBufferTransferFunctionKey);
    const bool gammaInColr = transfer && CFEqual(transfer, kCVImageBufferTransferFunction_UseGamma);
    if (!gammaInColr &&
        sorvel::SVGetDouble(SVFormatDescriptionGetExtensions(desc), kCVImageBufferGammaLevelKey, &gamma) && gamma > 0 &&
        gamma < 65536) {
        sorvel::SVByteWriter gama;
        gama.u32(uint32_t(std::llround(gamma * 65536)));
        w.atom(SVFourCC("gama"), gama.bytes);
    }
}

}  // namespace

namespace sorvel {

OSStatus SVWriteVisualSampleEntry(SVFormatDescriptionRef desc, bool iso, SVByteWriter &w, const char *function) {
    const FourCharCode format = SVFormatDescriptionGetMediaSubType(desc);
    const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(desc);
    if (dims.width < 0 || dims.width > 0xFFFF || dims.height < 0 || dims.height > 0xFFFF) {
        SV_LOG_FOR(function, 3, "Dimensions %dx%d do not fit a sample description", int(dims.width), int(dims.height));
        return kSVSampleDescriptionError_UnsupportedFormat;
    }
    writeVisualFixedPart(desc, format, dims, iso, w);
    std::vector<FourCharCode> regenerated = {SVFourCC("colr"), SVFourCC("pasp"), SVFourCC("clap"), SVFourCC("fiel"),
                                             SVFourCC("gama")};
    if (format == kAVC1 || format == kAVC3 || format == kHVC1 || format == kHEV1)
        writeDecoderConfigurationAtom(desc, format == kHVC1 || format == kHEV1, regenerated, w);
    writeColourAtom(desc, iso, w);
    writePixelAspectAtom(desc, w);
    if (CFTypeRef clap = SVFormatDescriptionGetExtension(desc, kCVImageBufferCleanApertureKey);
        clap && CFGetTypeID(clap) == CFDictionaryGetTypeID()) {
        SVByteWriter payload;
        if (cleanAperturePayload(static_cast<CFDictionaryRef>(clap), payload))
            w.atom(SVFourCC("clap"), payload.bytes);
        else
            SV_LOG_FOR(function, 4, "Clean aperture not written: its values do not fit the 'clap' fields");
    }
    if (!iso) {
        writeFieldsAtom(desc, w);
        writeGammaAtom(desc, w);
    }
    SVWriteRemainingAtoms(desc, regenerated, w);
    return 0;
}

}  // namespace sorvel

// ---- entry points ----------------------------------------------------------------

namespace {

enum class Family { Invalid, QuickTime, ISO, Infer };

Family flavorFamily(CFStringRef flavor, SVMediaType mediaType, bool *version2) {
    *version2 = false;
    if (!flavor) return Family::Infer;
    if (CFGetTypeID(flavor) != CFStringGetTypeID()) return Family::Invalid;
    if (mediaType == kSVMediaType_Video) {
        if (CFEqual(flavor, kSVImageDescriptionFlavor_QuickTimeMovie)) return Family::QuickTime;
        if (CFEqual(flavor, kSVImageDescriptionFlavor_ISOFamily) ||
            CFEqual(flavor, kSVImageDescriptionFlavor_3GPFamily))
            return Family::ISO;
    } else if (mediaType == kSVMediaType_Audio) {
        if (CFEqual(flavor, kSVSoundDescriptionFlavor_QuickTimeMovie)) return Family::QuickTime;
        if (CFEqual(flavor, kSVSoundDescriptionFlavor_QuickTimeMovieV2)) {
            *version2 = true;
            return Family::QuickTime;
        }
        if (CFEqual(flavor, kSVSoundDescriptionFlavor_ISOFamily) ||
            CFEqual(flavor, kSVSoundDescriptionFlavor_3GPFamily))
            return Family::ISO;
    }
    return Family::Invalid;
}

OSStatus copyEntryBytes(SVFormatDescriptionRef desc, CFStringRef flavor, std::vector<uint8_t> &bytes,
                        const char *function) {
    if (!sorvel::gSVFormatDescriptionClass.checked(desc)) {
        SV_LOG_FOR(function, 3, "No format description");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    const SVMediaType mediaType = SVFormatDescriptionGetMediaType(desc);
    if (mediaType != kSVMediaType_Video && mediaType != kSVMediaType_Audio) {
        SV_LOG_FOR(function, 3, "Only video and sound descriptions have sample entries here");
        return kSVSampleDescriptionError_UnsupportedFormat;
    }
    bool version2 = false;
    Family family = flavorFamily(flavor, mediaType, &version2);
    if (family == Family::Invalid) {
        SV_LOG_FOR(function, 3, "Flavor is not a %s description flavor",
                   mediaType == kSVMediaType_Video ? "image" : "sound");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    // The entry the description was read from, when it is of the family
    // asked for.
    CFTypeRef verbatim = nullptr;
    if (family != Family::ISO)
        verbatim = SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_VerbatimSampleDescription);
    if (!verbatim && family != Family::QuickTime)
        verbatim = SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_VerbatimISOSampleEntry);
    if (verbatim && CFGetTypeID(verbatim) == CFDataGetTypeID() && !version2) {
        CFDataRef data = static_cast<CFDataRef>(verbatim);
        bytes.assign(CFDataGetBytePtr(data), CFDataGetBytePtr(data) + CFDataGetLength(data));
        return 0;
    }
    if (family == Family::Infer) family = Family::QuickTime;
    sorvel::SVByteWriter w;
    const OSStatus status = mediaType == kSVMediaType_Video
                                ? sorvel::SVWriteVisualSampleEntry(desc, family == Family::ISO, w, function)
                                : sorvel::SVWriteAudioSampleEntry(desc, family == Family::ISO, version2, w, function);
    if (status) return status;
    if (w.bytes.size() > UINT32_MAX) return kSVSampleDescriptionError_UnsupportedFormat;
    const uint32_t size = uint32_t(w.bytes.size());
    w.bytes[0] = uint8_t(size >> 24), w.bytes[1] = uint8_t(size >> 16), w.bytes[2] = uint8_t(size >> 8),
    w.bytes[3] = uint8_t(size);
    bytes = std::move(w.bytes);
    return 0;
}

// Where the atoms of a sound description start: after the fixed part of
// its version, which version 2 states itself.  `function` is the entry
// point's name, as its log lines give it.
OSStatus soundAtomsOffset(const uint8_t *bytes, uint32_t size, bool iso, size_t &atomsAt, const char *function) {
    const unsigned version = SVReadBE16(bytes + 16);
    if (version > 2) {
        SV_LOG_FOR(function, 3, "Sound description version %u is not supported", version);
        return kSVSampleDescriptionError_UnsupportedVersion;
    }
    // An ISO version 1 entry keeps the version 0 layout (its rate may be
    // in 'srat'); QuickTime's version 1 adds four 32-bit fields.  A NULL
    // flavour takes version 1 as QuickTime's, by far the common one.
    atomsAt = version == 0 || (version == 1 && iso) ? 36 : version == 1 ? 52 : 72;
    if (size < atomsAt) {
        SV_LOG_FOR(function, 3, "Sound description version %u needs %d bytes, has %u", version, int(atomsAt), size);
        return kSVSampleDescriptionError_Truncated;
    }
    // Version 2 states where its fixed part ends.
    if (version == 2) {
        const uint32_t structSize = SVReadBE32(bytes + 36);
        if (structSize < 72 || structSize > size) {
            SV_LOG_FOR(function, 3, "Sound description version 2 states %u fixed bytes of %u", structSize, size);
            return kSVSampleDescriptionError_Truncated;
        }
        atomsAt = structSize;
    }
    return 0;
}

// Moves `atomsAt` past the colour table of an image description: a palette
// follows an ID of 0 at the palette depths.
OSStatus skipColourTable(const uint8_t *bytes, uint32_t size, size_t &atomsAt, const char *function) {
    const unsigned depth = SVReadBE16(bytes + 82);
    if (SVReadBE16(bytes + 84) != 0 ||
        !(depth == 1 || depth == 2 || depth == 4 || depth == 8 || (depth >= 33 && depth <= 40)))
        return 0;
    if (size - atomsAt < 8) {
        SV_LOG_FOR(function, 3, "Colour table past the end of the sample description");
        return kSVSampleDescriptionError_Truncated;
    }
    const size_t entries = size_t(SVReadBE16(bytes + atomsAt + 6)) + 1;
    if ((size - atomsAt - 8) / 8 < entries) {
        SV_LOG_FOR(function, 3, "Colour table past the end of the sample description");
        return kSVSampleDescriptionError_Truncated;
    }
    atomsAt += 8 + 8 * entries;
    return 0;
}

// The extensions every entry gives (its atoms and its verbatim bytes),
// then the media type's half.
OSStatus readEntry(CFAllocatorRef allocator, sorvel::SVEntryReader &r, bool video, SVFormatDescriptionRef *out) {
    // The atoms first: they are the step that can throw.
    CFDictionaryRef atoms = sorvel::SVCreateAtomsDictionary(r.atoms);
    CFMutableDictionaryRef ext = sorvel::SVCreateMutableDictionary();
    CFDataRef verbatim = CFDataCreate(kCFAllocatorDefault, r.entry, CFIndex(r.size));
    CFReleaser g1{ext}, g2{atoms}, g3{verbatim};
    if (!ext || !atoms || !verbatim) return kSVSampleDescriptionError_AllocationFailed;
    CFDictionarySetValue(ext, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms, atoms);
    CFDictionarySetValue(ext,
                         r.iso ? kSVFormatDescriptionExtension_VerbatimISOSampleEntry
                               : kSVFormatDescriptionExtension_VerbatimSampleDescription,
                         verbatim);
    return video ? sorvel::SVReadVisualSampleEntry(allocator, r, ext, out)
                 : sorvel::SVReadAudioSampleEntry(allocator, r, ext, out);
}

}  // namespace

extern "C" {

OSStatus SVSampleDescriptionCreateFormatDescription(CFAllocatorRef allocator, SVMediaType mediaType,
                                                    const uint8_t *bytes, size_t length, CFStringRef flavor,
                                                    SVFormatDescriptionRef *formatDescriptionOut) noexcept try {
    static const char *const kFunction = "SVSampleDescriptionCreateFormatDescription";
    if (!formatDescriptionOut) {
        SV_LOG_HERE(3, "No output pointer");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    *formatDescriptionOut = nullptr;
    if (!bytes) {
        SV_LOG_HERE(3, "No sample description bytes");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    if (mediaType != kSVMediaType_Video && mediaType != kSVMediaType_Audio) {
        SV_LOG_HERE(3, "Media type %08X has no sample description reader", unsigned(mediaType));
        return kSVSampleDescriptionError_InvalidParameter;
    }
    bool version2 = false;
    Family family = flavorFamily(flavor, mediaType, &version2);
    if (family == Family::Invalid) {
        SV_LOG_HERE(3, "Flavor is not a %s description flavor", mediaType == kSVMediaType_Video ? "image" : "sound");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    const bool video = mediaType == kSVMediaType_Video;
    const size_t fixedSize = video ? kVisualFixedSize : 36;
    if (length < kEntryHeaderSize) {
        SV_LOG_HERE(3, "Sample description of %d bytes is shorter than its header", int(length));
        return kSVSampleDescriptionError_Truncated;
    }
    const uint32_t size = SVReadBE32(bytes);
    if (size > length || size < fixedSize) {
        SV_LOG_HERE(3, "Sample description size %u does not fit %d bytes with %d fixed", size, int(length),
                    int(fixedSize));
        return kSVSampleDescriptionError_Truncated;
    }
    sorvel::SVEntryReader r{kFunction, bytes, size, SVReadBE32(bytes + 4), false, {}};
    if (video ? sorvel::SVIsAudioFormatCode(r.format) : sorvel::SVIsVideoFormatCode(r.format)) {
        SV_LOG_HERE(3, "'%s' is not a %s format", sorvel::SVCodeText(r.format).text, video ? "video" : "sound");
        return kSVSampleDescriptionError_MediaTypeMismatch;
    }
    size_t atomsAt = fixedSize;
    if (OSStatus status = video ? skipColourTable(bytes, size, atomsAt, kFunction)
                                : soundAtomsOffset(bytes, size, family == Family::ISO, atomsAt, kFunction))
        return status;
    if (!sorvel::SVWalkAtoms(bytes + atomsAt, bytes + size, r.atoms, kFunction))
        return kSVSampleDescriptionError_BadAtom;
    if (family == Family::Infer) {
        const bool quickTime = sorvel::SVAtomsAreQuickTimeOnly(r.atoms) ||
                               (video ? sorvel::SVVisualEntryLooksQuickTime(bytes, size)
                                      : sorvel::SVAudioEntryLooksQuickTime(bytes, size, r.format));
        family = quickTime ? Family::QuickTime : Family::ISO;
    }
    r.iso = family == Family::ISO;

    const OSStatus status = readEntry(allocator, r, video, formatDescriptionOut);
    if (status == kSVSampleDescriptionError_AllocationFailed)
        SV_LOG_HERE(3, "Allocation failed while reading a sample description");
    return status;
}
SV_ALLOCATION_BOUNDARY(kSVSampleDescriptionError_AllocationFailed)

OSStatus SVSampleDescriptionCopyAsBigEndianData(CFAllocatorRef allocator, SVFormatDescriptionRef formatDescription,
                                                CFStringRef flavor, CFDataRef *dataOut) noexcept try {
    static const char *const kFunction = "SVSampleDescriptionCopyAsBigEndianData";
    if (!dataOut) {
        SV_LOG_HERE(3, "No output pointer");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    *dataOut = nullptr;
    std::vector<uint8_t> bytes;
    const OSStatus status = copyEntryBytes(formatDescription, flavor, bytes, kFunction);
    if (status) return status;
    CFDataRef data = CFDataCreate(allocator, bytes.data(), CFIndex(bytes.size()));
    if (!data) {
        SV_LOG_HERE(3, "Allocation failed");
        return kSVSampleDescriptionError_AllocationFailed;
    }
    *dataOut = data;
    return 0;
}
SV_ALLOCATION_BOUNDARY(kSVSampleDescriptionError_AllocationFailed)

OSStatus SVSampleDescriptionCopyAsBigEndianBlockBuffer(CFAllocatorRef allocator,
                                                       SVFormatDescriptionRef formatDescription, CFStringRef flavor,
                                                       SVBlockBufferRef *blockBufferOut) noexcept try {
    static const char *const kFunction = "SVSampleDescriptionCopyAsBigEndianBlockBuffer";
    if (!blockBufferOut) {
        SV_LOG_HERE(3, "No output pointer");
        return kSVSampleDescriptionError_InvalidParameter;
    }
    *blockBufferOut = nullptr;
    std::vector<uint8_t> bytes;
    OSStatus status = copyEntryBytes(formatDescription, flavor, bytes, kFunction);
    if (status) return status;
    SVBlockBufferRef buffer = nullptr;
    status = SVBlockBufferCreateWithMemoryBlock(allocator, nullptr, bytes.size(), allocator, nullptr, 0, bytes.size(),
                                                kSVBlockBufferAssureMemoryNowFlag, &buffer);
    if (status == 0) status = SVBlockBufferReplaceDataBytes(bytes.data(), buffer, 0, bytes.size());
    if (status) {
        if (buffer) CFRelease(buffer);
        SV_LOG_HERE(3, "Allocation failed");
        return kSVSampleDescriptionError_AllocationFailed;
    }
    *blockBufferOut = buffer;
    return 0;
}
SV_ALLOCATION_BOUNDARY(kSVSampleDescriptionError_AllocationFailed)

}  // extern "C"
