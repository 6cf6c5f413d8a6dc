// bench/heap_peak.c: an LD_PRELOAD wrapper of malloc and free that counts the live heap bytes
// (usable sizes) of a process and prints their peak on stderr at exit (bench/heap_peak.sh).
#define _GNU_SOURCE
#include <malloc.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);
extern void __libc_free(void*);

static _Atomic long live, peak;

static void counted(void* p) {
  if (!p) return;
  const long n = (long)malloc_usable_size(p);
  const long now = atomic_fetch_add(&live, n) + n;
  long seen = atomic_load(&peak);
  while (now > seen && !atomic_compare_exchange_weak(&peak, &seen, now)) {
  }
}
static void released(void* p) {
  if (p) atomic_fetch_sub(&live, (long)malloc_usable_size(p));
}

void* malloc(size_t n) {
  void* p = __libc_malloc(n);
  counted(p);
  return p;
}
void* calloc(size_t a, size_t b) {
  void* p = __libc_calloc(a, b);
  counted(p);
  return p;
}
void* realloc(void* old, size_t n) {
  released(old);
  void* p = __libc_realloc(old, n);
  counted(p ? p : (n ? old : NULL));
  return p;
}
void free(void* p) {
  released(p);
  __libc_free(p);
}
void* memalign(size_t a, size_t n) {
  void* p = __libc_memalign(a, n);
  counted(p);
  return p;
}
void* aligned_alloc(size_t a, size_t n) { return memalign(a, n); }
int posix_memalign(void** out, size_t a, size_t n) {
  void* p = memalign(a, n);
  if (!p) return 12;  // ENOMEM
  *out = p;
  return 0;
}

__attribute__((destructor)) static void report(void) {
  fprintf(stderr, "heap peak %.1f MB, live at exit %.1f MB\n", (double)atomic_load(&peak) / 1048576.0,
          (double)atomic_load(&live) / 1048576.0);
}
