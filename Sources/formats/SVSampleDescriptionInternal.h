/* SPDX-License-Identifier: Apache-2.0 */
// Private to the sample-description bridge: bounded big-endian readers and
// writers, the child-atom walk, and the per-media-type halves that the entry
// points in SVFormatDescriptionBridge.cpp call.
#ifndef SORVEL_SOURCES_SVSAMPLEDESCRIPTIONINTERNAL_H
#define SORVEL_SOURCES_SVSAMPLEDESCRIPTIONINTERNAL_H

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleDescription.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sorvel {

constexpr FourCharCode SVFourCC(const char (&text)[5]) {
    return FourCharCode(uint8_t(text[0])) << 24 | FourCharCode(uint8_t(text[1])) << 16 |
           FourCharCode(uint8_t(text[2])) << 8 | FourCharCode(uint8_t(text[3]));
}

inline uint16_t SVReadBE16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
inline uint32_t SVReadBE32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}
inline uint64_t SVReadBE64(const uint8_t *p) {
    return uint64_t(SVReadBE32(p)) << 32 | SVReadBE32(p + 4);
}

// Appends big-endian fields to a growing byte vector.
struct SVByteWriter {
    std::vector<uint8_t> bytes;
    void u8(uint32_t v) { bytes.push_back(uint8_t(v)); }
    void u16(uint32_t v) {
        u8(v >> 8);
        u8(v);
    }
    void u32(uint32_t v) {
        u16(v >> 16);
        u16(v);
    }
    void u64(uint64_t v) {
        u32(uint32_t(v >> 32));
        u32(uint32_t(v));
    }
    void append(const uint8_t *p, size_t n) { bytes.insert(bytes.end(), p, p + n); }
    void zeros(size_t n) { bytes.insert(bytes.end(), n, 0); }
    // Writes a whole atom: size, code, payload.
    void atom(FourCharCode code, const uint8_t *payload, size_t n) {
        u32(uint32_t(n + 8));
        u32(code);
        append(payload, n);
    }
    void atom(FourCharCode code, const std::vector<uint8_t> &payload) { atom(code, payload.data(), payload.size()); }
};

// A code as text for a log line; bytes outside printable ASCII become '?'
// (a NUL would end the line early).
struct SVCodeText {
    char text[5];
    explicit SVCodeText(FourCharCode code) {
        for (int i = 0; i < 4; ++i) {
            const char c = char(code >> (24 - 8 * i));
            text[i] = c >= 0x20 && c < 0x7F ? c : '?';
        }
        text[4] = 0;
    }
};

// One child atom: its code and where its payload lies in the entry.
struct SVAtom {
    FourCharCode code;
    const uint8_t *payload;
    size_t size;
};

// Everything the media-type halves share while reading one entry.
struct SVEntryReader {
    const char *function;  // the public name to log
    const uint8_t *entry;
    size_t size;  // from the entry's size field
    FourCharCode format;
    bool iso;  // the flavour's family
    std::vector<SVAtom> atoms;
};

// Walks [begin, end) as a run of atoms.  A trailing 32-bit zero, or an
// 8-byte atom of size 0 code 0, ends the run (QuickTime terminators).
// False (logged as `function`) for a size of 0 before the end, below 8 or
// past `end`.
bool SVWalkAtoms(const uint8_t *begin, const uint8_t *end, std::vector<SVAtom> &atoms, const char *function);

// Logs a malformed child atom as `function` and returns BadAtom.
OSStatus SVBadAtom(const char *function, const char *why);

// The first atom of `code`, or NULL.
const SVAtom *SVFindAtom(const std::vector<SVAtom> &atoms, FourCharCode code);

// A four-character code as a CFString (Latin-1), or NULL.
CFStringRef SVCreateStringForCode(FourCharCode code);
// A CFString of exactly four Latin-1 characters as a code; false otherwise.
bool SVCodeForString(CFTypeRef string, FourCharCode *code);

// The atoms dictionary of the contract; NULL when an allocation fails.
CFDictionaryRef SVCreateAtomsDictionary(const std::vector<SVAtom> &atoms);

void SVSetInt(CFMutableDictionaryRef dict, CFStringRef key, int64_t value);
void SVSetDouble(CFMutableDictionaryRef dict, CFStringRef key, double value);
CFMutableDictionaryRef SVCreateMutableDictionary();
bool SVGetInt(CFDictionaryRef dict, CFStringRef key, int64_t *out);
bool SVGetDouble(CFDictionaryRef dict, CFStringRef key, double *out);

// Whether a sample entry is QuickTime-only by the rules of the header.
bool SVAtomsAreQuickTimeOnly(const std::vector<SVAtom> &atoms);

// What an 'esds' payload (version, flags, ES_Descriptor) says.
struct SVElementaryStream {
    uint8_t objectType = 0;
    const uint8_t *config = nullptr;  // DecoderSpecificInfo, inside the payload
    size_t configSize = 0;
    uint32_t averageBitRate = 0;
};
// False with a static reason for descriptor sizes longer than four bytes or
// past their parent, and for a missing DecoderConfigDescriptor.
bool SVParseESDS(const uint8_t *payload, size_t size, SVElementaryStream &es, const char *&why);

// The halves.  `extensions` holds the atoms dictionary and the verbatim
// entry already; each adds its own keys and creates the description.
OSStatus SVReadVisualSampleEntry(CFAllocatorRef allocator, SVEntryReader &reader, CFMutableDictionaryRef extensions,
                                 SVFormatDescriptionRef *out);
OSStatus SVReadAudioSampleEntry(CFAllocatorRef allocator, SVEntryReader &reader, CFMutableDictionaryRef extensions,
                                SVFormatDescriptionRef *out);
bool SVVisualEntryLooksQuickTime(const uint8_t *entry, size_t size);
bool SVAudioEntryLooksQuickTime(const uint8_t *entry, size_t size, FourCharCode format);
bool SVIsAudioFormatCode(FourCharCode code);
bool SVIsVideoFormatCode(FourCharCode code);

// Writers: the whole entry, size field included.
OSStatus SVWriteVisualSampleEntry(SVFormatDescriptionRef desc, bool iso, SVByteWriter &out, const char *function);
OSStatus SVWriteAudioSampleEntry(SVFormatDescriptionRef desc, bool iso, bool version2, SVByteWriter &out,
                                 const char *function);

// The atoms dictionary's payloads in code order, skipping `skip` codes;
// for writing atoms the writer does not regenerate.
void SVWriteRemainingAtoms(SVFormatDescriptionRef desc, const std::vector<FourCharCode> &skip, SVByteWriter &out);
// One payload of the atoms dictionary (the first, when there are several).
CFDataRef SVGetAtomPayload(SVFormatDescriptionRef desc, const char *code);

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVSAMPLEDESCRIPTIONINTERNAL_H
