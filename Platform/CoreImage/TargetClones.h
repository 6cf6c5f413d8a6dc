// Whether a function may be compiled in several versions, one per instruction set, with the
// loader picking one per process (GCC's target_clones): x86-64 builds with GCC, except sanitizer
// builds, where the loader runs the version resolvers before the sanitizer's runtime is ready
// for instrumented code (a thread-sanitized program crashed while being loaded). Every tile of a
// render therefore runs the same version. QV_GCC says whether GCC's optimize attributes apply.
#pragma once

#if defined(__GNUC__) && !defined(__clang__)
#define QV_GCC 1
#else
#define QV_GCC 0
#endif

#if QV_GCC && defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define QV_TARGET_CLONES 1
#else
#define QV_TARGET_CLONES 0
#endif
