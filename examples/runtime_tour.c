/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A short tour of the object runtime that Sorvel is built on.
 *
 * Every Sorvel object is a reference-counted object of this runtime: a
 * Create or Copy call hands you one reference, CFRetain adds one, CFRelease
 * gives one back, and the object is freed when the last one goes.
 *
 * Build and run it with `make demo`.
 */
#include <CoreFoundation/CoreFoundation.h>
#include <stdio.h>

int main(void) {
    /* CFShow prints to standard error; unbuffered stdout keeps our own lines
     * in order with its output. */
    setvbuf(stdout, NULL, _IONBF, 0);

    /* 1. Constant strings: CFSTR makes them at compile time; they are never
     *    freed, so they need no release. */
    CFStringRef greeting = CFSTR("hello from the runtime");
    CFShow(greeting);

    /* 2. A dictionary whose callbacks retain keys and values and compare
     *    keys by content (CFEqual / CFHash). */
    CFMutableDictionaryRef stream = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                              &kCFTypeDictionaryValueCallBacks);

    int32_t width = 1920, height = 1080;
    double frameRate = 29.97;
    CFNumberRef widthNumber = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &width);
    CFNumberRef heightNumber = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &height);
    CFNumberRef rateNumber = CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &frameRate);

    CFDictionarySetValue(stream, CFSTR("Codec"), CFSTR("avc1"));
    CFDictionarySetValue(stream, CFSTR("Width"), widthNumber);
    CFDictionarySetValue(stream, CFSTR("Height"), heightNumber);
    CFDictionarySetValue(stream, CFSTR("FrameRate"), rateNumber);

    /* 3. Retain counts: the dictionary now holds its own reference. */
    printf("widthNumber retain count after insertion: %ld\n", (long)CFGetRetainCount(widthNumber));
    CFRelease(widthNumber); /* our reference; the dictionary keeps the number alive */
    printf("after our CFRelease: %ld\n", (long)CFGetRetainCount(widthNumber));
    CFRelease(heightNumber);
    CFRelease(rateNumber);

    /* 4. Lookup with a key made at run time: a different object with the
     *    same characters finds the same entry. */
    CFStringRef key = CFStringCreateWithCString(kCFAllocatorDefault, "Width", kCFStringEncodingUTF8);
    CFNumberRef found = (CFNumberRef)CFDictionaryGetValue(stream, key);
    int32_t value = 0;
    if (found != NULL && CFNumberGetValue(found, kCFNumberSInt32Type, &value))
        printf("Width looked up with a run-time key: %d\n", value);

    /* 5. %@ formats any object: strings print their text, numbers their value. */
    CFStringRef summary = CFStringCreateWithFormat(
        kCFAllocatorDefault, NULL, CFSTR("%@ %@x%@ at %@ fps"), CFDictionaryGetValue(stream, CFSTR("Codec")),
        CFDictionaryGetValue(stream, CFSTR("Width")), CFDictionaryGetValue(stream, CFSTR("Height")),
        CFDictionaryGetValue(stream, CFSTR("FrameRate")));
    CFShow(summary);

    /* 6. CFShow prints any object's description, containers included. */
    CFShow(stream);

    CFRelease(summary);
    CFRelease(key);
    CFRelease(stream); /* releases every key and value it holds */
    return 0;
}
