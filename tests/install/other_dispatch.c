/* SPDX-License-Identifier: Apache-2.0 */
/* Another library exporting some of the platform's well-known names, as a
 * second dispatch or CoreFoundation implementation would.  The install test
 * builds it twice: with a symbol version of its own, and without any, and
 * puts it ahead of Sorvel (preloaded, and first on the link line).  Calls
 * compiled against Sorvel's headers name the platform library's own binary
 * names, so none reaches it; any call that does aborts. */
#include <stdlib.h>

void dispatch_once_f(long *predicate, void *context, void (*function)(void *)) {
    (void)predicate;
    (void)context;
    (void)function;
    abort();
}

void dispatch_once(long *predicate, void *block) {
    (void)predicate;
    (void)block;
    abort();
}

void dispatch_async_f(void *queue, void *context, void (*work)(void *)) {
    (void)queue;
    (void)context;
    (void)work;
    abort();
}

void CFRelease(const void *object) {
    (void)object;
    abort();
}
