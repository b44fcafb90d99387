// SPDX-License-Identifier: Apache-2.0
// consumer.c compiled as C++: the headers' extern "C" and noexcept plumbing
// must hold for a C++ client.
#include "consumer.c"
