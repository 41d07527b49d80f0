/*
 * Enclose the declarations of each public header and of each platform header: C linkage, and
 * names that stay visible in code that is compiled with hidden visibility.
 *
 * This header declares nothing and includes nothing, so that every layer may include it.
 */
#ifndef NVRHTTPCURL_DECLS_H
#define NVRHTTPCURL_DECLS_H

#if defined(__GNUC__)
#define NVRHTTPCURL_BEGIN_VISIBLE _Pragma("GCC visibility push(default)")
#define NVRHTTPCURL_END_VISIBLE _Pragma("GCC visibility pop")
#else
#define NVRHTTPCURL_BEGIN_VISIBLE
#define NVRHTTPCURL_END_VISIBLE
#endif

#ifdef __cplusplus
#define NVRHTTPCURL_BEGIN_DECLS                                                                                        \
    extern "C" {                                                                                                       \
    NVRHTTPCURL_BEGIN_VISIBLE
#define NVRHTTPCURL_END_DECLS                                                                                          \
    NVRHTTPCURL_END_VISIBLE                                                                                            \
    }
#else
#define NVRHTTPCURL_BEGIN_DECLS NVRHTTPCURL_BEGIN_VISIBLE
#define NVRHTTPCURL_END_DECLS NVRHTTPCURL_END_VISIBLE
#endif

#endif
