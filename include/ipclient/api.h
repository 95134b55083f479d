/**
 * @file
 * Export and linkage macros shared by the public headers of the IP client library.
 * Every function and global declared with IPCLIENT_API is part of the library's C ABI;
 * everything else in the library is hidden.
 */
#ifndef IPCLIENT_API_H
#define IPCLIENT_API_H

#if defined(__GNUC__)
/** Exports a function or global: default visibility, part of the library's C ABI. */
#define IPCLIENT_API __attribute__((visibility("default")))
#else
/** Marks a function or global of the library's C ABI; empty where the visibility cannot be set. */
#define IPCLIENT_API
#endif

#ifdef __cplusplus
/** Opens a header's block of declarations with C linkage (extern "C" in C++). */
#define IPCLIENT_BEGIN_DECLS extern "C" {
/** Closes the block opened by IPCLIENT_BEGIN_DECLS. */
#define IPCLIENT_END_DECLS }
#else
/** Opens a header's block of declarations with C linkage; empty in C. */
#define IPCLIENT_BEGIN_DECLS
/** Closes the block opened by IPCLIENT_BEGIN_DECLS; empty in C. */
#define IPCLIENT_END_DECLS
#endif

/* Compile-time layout checks that read the same in C99 and C++. */
#ifdef __cplusplus
/** Fails the compilation unless the constant expression cond holds; tag names the check. */
#define IPCLIENT_STATIC_ASSERT(cond, tag) static_assert(cond, #tag)
#else
/** Fails the compilation unless the constant expression cond holds. tag, an identifier unique among the
 * public headers, names the check: a file-scope char array typedef whose size is -1 when it fails. */
#define IPCLIENT_STATIC_ASSERT(cond, tag) typedef char ipclient_assert_##tag[(cond) ? 1 : -1]
#endif

#endif /* IPCLIENT_API_H */
