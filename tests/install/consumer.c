/* SPDX-License-Identifier: Apache-2.0 */
/*
 * An outside program built against an installed Sorvel: it sees only the
 * installed headers, libraries, CMake package and sorvel.pc. Exits 0 when
 * every check holds and prints the first one that fails otherwise.
 */
#include <CoreFoundation/CoreFoundation.h>
#include <Sorvel/SVSimpleQueue.h>
#include <Sorvel/SVStatus.h>
#include <Sorvel/SVTime.h>
#include <Sorvel/SVVersion.h>
#include <dispatch/dispatch.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(cond)                                                                      \
    do {                                                                                 \
        if (!(cond)) {                                                                   \
            fprintf(stderr, "consumer: check failed at line %d: %s\n", __LINE__, #cond); \
            failures++;                                                                  \
        }                                                                                \
    } while (0)

static int onceCount = 0;
static void countOnce(void *context) {
    (void)context;
    onceCount++;
}

static void signalDone(void *context) {
    dispatch_semaphore_signal((dispatch_semaphore_t)context);
}

int main(void) {
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                            &kCFTypeDictionaryValueCallBacks);
    CHECK(dict != NULL);
    CHECK(CFGetRetainCount(dict) == 1);

    int32_t width = 1920;
    CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &width);
    CHECK(number != NULL);
    /* Counts are compared with the starting one: a runtime may share small numbers. */
    const CFIndex baseCount = CFGetRetainCount(number);
    CHECK(baseCount >= 1);

    /* The dictionary retains its value; the key is a constant string. */
    CFDictionarySetValue(dict, CFSTR("Width"), number);
    CHECK(CFGetRetainCount(number) == baseCount + 1);
    CHECK(CFDictionaryGetCount(dict) == 1);

    /* A key made at run time finds the entry stored under the constant. */
    CFStringRef dynamicKey = CFStringCreateWithCString(kCFAllocatorDefault, "Width", kCFStringEncodingUTF8);
    CFNumberRef found = (CFNumberRef)CFDictionaryGetValue(dict, dynamicKey);
    CHECK(found == number);
    int32_t readBack = 0;
    CHECK(found != NULL && CFNumberGetValue(found, kCFNumberSInt32Type, &readBack) && readBack == 1920);
    CHECK(CFDictionaryGetValue(dict, CFSTR("Height")) == NULL);

    CFRetain(number);
    CHECK(CFGetRetainCount(number) == baseCount + 2);
    CFRelease(number);

    CFStringRef described =
        CFStringCreateWithFormat(kCFAllocatorDefault, NULL, CFSTR("%@ = %@ (%d)"), dynamicKey, number, 7);
    char buffer[64] = {0};
    CHECK(CFStringGetCString(described, buffer, (CFIndex)sizeof buffer, kCFStringEncodingUTF8));
    CHECK(strcmp(buffer, "Width = 1920 (7)") == 0);

    CFDictionaryRemoveValue(dict, CFSTR("Width"));
    CHECK(CFGetRetainCount(number) == baseCount);
    CHECK(CFDictionaryGetCount(dict) == 0);

    /* The installed headers and the installed library are one version. */
    CHECK(SVGetVersion() == SORVEL_VERSION);
    CHECK(strcmp(SVGetVersionString(), SORVEL_VERSION_STRING) == 0);
    CHECK(SORVEL_CHECK_VERSION(1, 0, 0));
    CFStringRef statusText = SVCopyStatusDescription(NULL, -12733);
    char statusBuffer[96] = {0};
    CHECK(statusText &&
          CFStringGetCString(statusText, statusBuffer, (CFIndex)sizeof statusBuffer, kCFStringEncodingUTF8));
    CHECK(strcmp(statusBuffer, "kSVSampleBufferError_BufferNotReady (-12733)") == 0);
    if (statusText) CFRelease(statusText);
    SVTime sum = SVTimeAdd(SVTimeMake(1, 2), SVTimeMake(1, 3));
    CHECK(SVTimeCompare(sum, SVTimeMake(5, 6)) == 0);

    static dispatch_once_t once;
    dispatch_once_f(&once, NULL, countOnce);
    dispatch_once_f(&once, NULL, countOnce);
    CHECK(onceCount == 1);

    /* Work on a global queue, waited for with a semaphore (five seconds at
     * most: a lost item fails the check instead of hanging the test). */
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    CHECK(done != NULL);
    dispatch_async_f(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), done, signalDone);
    CHECK(dispatch_semaphore_wait(done, dispatch_time(DISPATCH_TIME_NOW, 5000000000LL)) == 0);
    dispatch_release(done);

    /* A Sorvel object: libSorvel registers its type once and the platform
     * library frees it on the last CFRelease. */
    SVSimpleQueueRef simpleQueue = NULL;
    CHECK(SVSimpleQueueCreate(kCFAllocatorDefault, 4, &simpleQueue) == 0 && simpleQueue != NULL);
    if (simpleQueue) {
        CHECK(SVSimpleQueueEnqueue(simpleQueue, &width) == 0);
        CHECK(SVSimpleQueueGetCount(simpleQueue) == 1);
        CFRelease(simpleQueue);
    }
#if __BLOCKS__
    /* Through find_package the clang client gets -fblocks and BlocksRuntime
     * from the package; a global block still needs the runtime's isa symbol. */
    static dispatch_once_t blockOnce;
    static int blockCount = 0;
    dispatch_once(&blockOnce, ^{
      blockCount++;
    });
    dispatch_once(&blockOnce, ^{
      blockCount++;
    });
    CHECK(blockCount == 1);
#elif defined(SORVEL_CONSUMER_EXPECT_BLOCKS)
#error "sorvel-blocks.pc should have turned blocks on"
#endif

    CFRelease(described);
    CFRelease(dynamicKey);
    CFRelease(number);
    CFRelease(dict);

    if (failures == 0) printf("consumer: all checks passed (\"%s\")\n", buffer);
    return failures == 0 ? 0 : 1;
}
