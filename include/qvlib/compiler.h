/* What the library's headers need of the compiler: C linkage, visibility, checked format strings, a mark for
 * what C99 has and C++ has as an extension (flexible array members), and one for functions that are called as
 * often as malloc: position-independent programs call them without the jump through their linkage table.
 *
 * QV_INLINE begins a second definition of a function, for callers that are compiled for speed: they get the
 * body in place of a call. No code comes from it otherwise; what is not inlined, a pointer to the function
 * included, is the library's function, which QV_BY_CALL gives a second name for the body's own use. Nothing
 * of it where QV_NO_INLINE is defined, as it is for the library itself. */
#ifndef QVLIB_COMPILER_H
#define QVLIB_COMPILER_H

#if defined(__GNUC__)
#define QV_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#define QV_VISIBILITY_PUSH _Pragma("GCC visibility push(default)")
#define QV_VISIBILITY_POP _Pragma("GCC visibility pop")
#define QV_EXTENSION __extension__
#else
#define QV_PRINTF(format_index, first_argument)
#define QV_EXTENSION
#define QV_VISIBILITY_PUSH
#define QV_VISIBILITY_POP
#endif

#define QV_CALLED_OFTEN
#if defined(__x86_64__) && defined(__has_attribute)
#if __has_attribute(noplt)
#undef QV_CALLED_OFTEN
#define QV_CALLED_OFTEN __attribute__((noplt))
#endif
#endif

#if !defined(QV_NO_INLINE) && (defined(__NO_INLINE__) || defined(__OPTIMIZE_SIZE__))
#define QV_NO_INLINE
#endif
#if defined(__GNUC__) && defined(__ELF__) && !defined(QV_NO_INLINE)
#define QV_INLINE extern inline __attribute__((gnu_inline))
#define QV_BY_CALL(function) __asm__(#function)
#endif

#ifdef __cplusplus
#define QV_BEGIN_DECLS QV_VISIBILITY_PUSH extern "C" {
#define QV_END_DECLS } QV_VISIBILITY_POP
#else
#define QV_BEGIN_DECLS QV_VISIBILITY_PUSH
#define QV_END_DECLS QV_VISIBILITY_POP
#endif

#endif
