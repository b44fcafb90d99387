/* SPDX-License-Identifier: Apache-2.0 */
/* Another library exporting the once interface under the same names, with
 * its own symbol version, as a second dispatch implementation would.  Linked
 * ahead of Sorvel, it must not capture Sorvel's references: those name the
 * platform library's version node.  Any call that reaches it aborts. */
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
