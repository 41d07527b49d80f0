/*
 * Defines UNDER_SANITIZER in a build with the address or the thread sanitizer, which take much memory of their own.
 */
#ifndef TESTS_SUPPORT_SANITIZER_H
#define TESTS_SUPPORT_SANITIZER_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UNDER_SANITIZER 1
#endif
#endif

#endif
