// SPDX-License-Identifier: GPL-3.0-or-later
// Whether this build runs under AddressSanitizer or ThreadSanitizer. Their allocators keep
// freed memory in quarantine and add shadow memory, so resident-memory figures only mean
// something without them; such checks are skipped there (the figures are still printed).
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CORVEL_UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CORVEL_UNDER_SANITIZER 1
#endif
#endif
#ifndef CORVEL_UNDER_SANITIZER
#define CORVEL_UNDER_SANITIZER 0
#endif
