// SPDX-License-Identifier: Apache-2.0
// Decodes arbitrary bytes as a string in every supported encoding and checks
// what a caller relies on: creation either fails cleanly or yields a string
// whose UTF-8 form, UTF-16 form and copies agree, hash alike and survive a
// round trip through their external representation.
//
// The first input byte picks the encoding and whether the bytes are an
// external representation; the rest are the bytes.

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

const CFStringEncoding kEncodings[] = {
    kCFStringEncodingUTF8,     kCFStringEncodingASCII,         kCFStringEncodingISOLatin1,
    kCFStringEncodingMacRoman, kCFStringEncodingWindowsLatin1, kCFStringEncodingUTF16,
    kCFStringEncodingUTF16BE,  kCFStringEncodingUTF16LE,       kCFStringEncodingUTF32,
    kCFStringEncodingUTF32BE,  kCFStringEncodingUTF32LE,       kCFStringEncodingNonLossyASCII,
};

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const CFStringEncoding encoding = kEncodings[data[0] % (sizeof kEncodings / sizeof kEncodings[0])];
    const Boolean external = (data[0] & 0x80) != 0;
    CFStringRef string = CFStringCreateWithBytes(nullptr, data + 1, static_cast<CFIndex>(size - 1), encoding, external);
    if (!string) return 0;

    const CFIndex length = CFStringGetLength(string);
    std::vector<UniChar> units(static_cast<size_t>(length));
    CFStringGetCharacters(string, CFRangeMake(0, length), units.data());

    // The same UTF-16 content, however it is stored, is the same string.
    CFStringRef fromUnits = CFStringCreateWithCharacters(nullptr, units.data(), length);
    check(fromUnits && CFEqual(string, fromUnits) && CFHash(string) == CFHash(fromUnits));
    CFMutableStringRef mutableCopy = CFStringCreateMutableCopy(nullptr, 0, string);
    check(mutableCopy && CFEqual(string, mutableCopy) && CFHash(string) == CFHash(mutableCopy));

    // UTF-16 represents everything; its external form reads back unchanged.
    CFDataRef utf16 = CFStringCreateExternalRepresentation(nullptr, string, kCFStringEncodingUTF16, 0);
    check(utf16 != nullptr);
    CFStringRef back = CFStringCreateFromExternalRepresentation(nullptr, utf16, kCFStringEncodingUTF16);
    check(back && CFEqual(string, back));

    // UTF-8 fails only on lone surrogates; when it works it reads back too.
    CFIndex needed = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
    std::vector<char> utf8(static_cast<size_t>(needed));
    if (CFStringGetCString(string, utf8.data(), needed, kCFStringEncodingUTF8)) {
        CFStringRef reread = CFStringCreateWithCString(nullptr, utf8.data(), kCFStringEncodingUTF8);
        // Text with an embedded NUL stops at it, so only compare when whole.
        if (reread && CFStringGetLength(reread) == length) check(CFEqual(string, reread));
        if (reread) CFRelease(reread);
    }

    CFStringRef description = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%@] %d"), string, 7);
    check(description && CFStringGetLength(description) == length + 4);

    for (CFTypeRef cf :
         {static_cast<CFTypeRef>(string), static_cast<CFTypeRef>(fromUnits), static_cast<CFTypeRef>(mutableCopy),
          static_cast<CFTypeRef>(utf16), static_cast<CFTypeRef>(back), static_cast<CFTypeRef>(description)})
        CFRelease(cf);
    return 0;
}
