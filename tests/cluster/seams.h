// The cluster layer's test seams.
#pragma once
#include <cstddef>

extern "C" {
char *llt_clu_decode_map(const char *bytes, size_t n, size_t chunk) noexcept;
int llt_clu_run_script(const char *path, unsigned timeout_ms, size_t max_output, int *lines) noexcept;
void llt_clu_force_type(int type) noexcept;
void llt_clu_set_api_library(const char *name) noexcept;
void llt_clu_pathl_own(const char *path, const char *host) noexcept;
}
