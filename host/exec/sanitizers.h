// Under which sanitizer this is compiled: __SANITIZE_ADDRESS__ and __SANITIZE_THREAD__, which GCC defines and clang
// tells in another way.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(__SANITIZE_ADDRESS__)
#define __SANITIZE_ADDRESS__ 1
#endif
#if __has_feature(thread_sanitizer) && !defined(__SANITIZE_THREAD__)
#define __SANITIZE_THREAD__ 1
#endif
#endif
