// Defines __SANITIZE_ADDRESS__ or __SANITIZE_THREAD__ if this code is compiled with that sanitizer. GCC defines them
// itself; clang only has __has_feature.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(__SANITIZE_ADDRESS__)
#define __SANITIZE_ADDRESS__ 1
#endif
#if __has_feature(thread_sanitizer) && !defined(__SANITIZE_THREAD__)
#define __SANITIZE_THREAD__ 1
#endif
#endif
