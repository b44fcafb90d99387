// SPDX-License-Identifier: Apache-2.0
// Compile-time checks of the layouts that Sorvel's objects rely on.  Each
// family's module adds its own code beside this one.

#include "core/SVObject.h"

#include <CoreFoundation/CFRuntime.h>
#include <Sorvel/SVBase.h>

#include <cstddef>

#include "core/SVLog.h"

static_assert(sizeof(CFRuntimeBase) == 16, "instances begin with a 16-byte runtime header");
static_assert(offsetof(CFRuntimeClass, copyDebugDesc) == 8 * sizeof(void *),
              "class records hold version, name and seven callbacks, in that order");
static_assert(sizeof(dispatch_once_t) == sizeof(void *), "once predicates are pointer-width");
static_assert(sizeof(XPLogModule::threshold) == 4, "the cached log threshold is 32-bit");
