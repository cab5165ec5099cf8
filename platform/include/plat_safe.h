/* Bounded string and memory operations. The standard ones (memcpy_s,
 * strcpy_s, sprintf_s, ...) come from safeclib; this adds what it lacks. */
#ifndef PLATFORM_PLAT_SAFE_H
#define PLATFORM_PLAT_SAFE_H

#include <safe_lib.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Formats into dest (dmax bytes), cutting the text to fit instead of failing.
 * Returns the length written, or -1 for a null or zero-sized destination. */
int snprintf_truncated_s(char *dest, size_t dmax, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char *dest, size_t dmax, const char *fmt, va_list ap) __attribute__((format(printf, 3, 0)));

/* eventfd(2) and close(2) behind the platform's failure injection
 * (operations "eventfd_s" and "close_s"). */
int eventfd_s(unsigned int initval, int flags);
int close_s(int fd);

#ifdef __cplusplus
}
#endif
#endif
