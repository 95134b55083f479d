/**
 * @file
 * Export and linkage macros shared by the public headers of the IP client library.
 * Every function and global declared with IPCLIENT_API is part of the library's C ABI;
 * everything else in the library is hidden.
 */
#ifndef IPCLIENT_API_H
#define IPCLIENT_API_H

#if defined(__GNUC__)
#define IPCLIENT_API __attribute__((visibility("default")))
#else
#define IPCLIENT_API
#endif

#ifdef __cplusplus
#define IPCLIENT_BEGIN_DECLS extern "C" {
#define IPCLIENT_END_DECLS }
#else
#define IPCLIENT_BEGIN_DECLS
#define IPCLIENT_END_DECLS
#endif

/* Compile-time layout checks that read the same in C99 and C++. */
#ifdef __cplusplus
#define IPCLIENT_STATIC_ASSERT(cond, tag) static_assert(cond, #tag)
#else
#define IPCLIENT_STATIC_ASSERT(cond, tag) typedef char ipclient_assert_##tag[(cond) ? 1 : -1]
#endif

#endif /* IPCLIENT_API_H */
