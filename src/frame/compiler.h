// Compiler-specific spellings used by portable code.
#pragma once

// Thread-local storage that a lookup on every exported call can afford: the
// initial-exec model avoids __tls_get_addr in an ELF shared object.
#if defined(__ELF__) && defined(__GNUC__)
#define LL_TLS_FAST __attribute__((tls_model("initial-exec")))
#else
#define LL_TLS_FAST
#endif

#define LL_LIKELY(x) __builtin_expect(!!(x), 1)
#define LL_UNLIKELY(x) __builtin_expect(!!(x), 0)
