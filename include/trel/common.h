/* Declarations shared by every libtrel header. */
#ifndef TREL_COMMON_H
#define TREL_COMMON_H

/* Nothing in libtrel throws; C++ callers see its functions as noexcept. */
/* Everything a public header declares has default visibility; the library is
 * built with hidden visibility for all else, so these declarations are what
 * makes a definition visible, and the version script limits the exports to
 * the listed names. */
#ifdef __cplusplus
#define TREL_NOEXCEPT noexcept
#define TREL_BEGIN_DECLS \
    extern "C" {         \
    _Pragma("GCC visibility push(default)")
#define TREL_END_DECLS            \
    _Pragma("GCC visibility pop") \
    }
#else
#define TREL_NOEXCEPT
#define TREL_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define TREL_END_DECLS _Pragma("GCC visibility pop")
#endif

/* Lets the compiler check printf-style arguments. */
#define TREL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

#endif
