/* types.h - the types and macros that every header of the library shares.
 *
 * Status values: VoError_t is 0 for success; any other value is either the errno of the system call
 * that failed, passed on unchanged, or one of the library's own small codes, which share the
 * numbering of errno:
 *
 *     2   no such entry, or the end of a list
 *     11  invalid argument or invalid value
 *     12, 20  out of memory (each function says which)
 *     22  too long, too many or out of range
 *     36  name too long
 *     38  not implemented on this platform
 *     95  not supported on this platform
 *
 * Thread safety: nothing here has state.
 */
#ifndef KOUTIL_TYPES_H
#define KOUTIL_TYPES_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

/* Around the declarations of every header: C linkage in C++. */
#ifdef __cplusplus
#define KO_BEGIN_DECLS extern "C" {
#define KO_END_DECLS   }
#else
#define KO_BEGIN_DECLS
#define KO_END_DECLS
#endif

/* An exported function or object. */
#define KO_API __attribute__((visibility("default")))

/* A function whose argument number `fmt` is a printf format, filled from argument `first` on;
 * `first` is 0 for functions that take a va_list. */
#define KO_PRINTF(fmt, first) __attribute__((format(__printf__, fmt, first)))

/* A function that never returns to its caller. */
#define KO_NORETURN __attribute__((__noreturn__))

/* The library's status: 0, an errno, or one of the small codes listed above. */
typedef int32_t VoError_t;

/* A socket descriptor; -1 means no socket. */
typedef int SOCKET_T;

/* One address of either family, 16 bytes in network byte order. An IPv4 address a.b.c.d is held in
 * the IPv4-mapped form ::ffff:a.b.c.d; every other value is an IPv6 address. */
typedef struct in6_addr in46addr_t;

#endif
