// Accounts, identifiers and descriptors: what each back-end provides
// (system/posix/security.cpp, system/win32/security.cpp). Arguments reach the
// back-end checked: names valid (check_account_name), pointers not null,
// identifiers well formed. Results and errno as liblocal/security.h says.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ll::sec {

// ---- portable helpers (security.cpp) ----
// 0 when 'name' is an acceptable account name, else the errno value.
int check_account_name(const char *name) noexcept;
// Copies n bytes of src into out when it fits (size bytes); n or -1 (ERANGE).
int copy_out(void *out, size_t size, const void *src, size_t n) noexcept;
// The same for a text (terminator included in the room needed); its length.
int copy_text(char *out, size_t size, const char *text, size_t len) noexcept;

// ---- back-end ----
int my_sid(void *sid, size_t size) noexcept;
int user_sid(const char *user, const char *system, void *sid, size_t size) noexcept;
int sd_init(void *sd, size_t size) noexcept;
int sd_insert(void *sd, size_t size, const void *sid, uint32_t access) noexcept;
int sd_access(const void *sd, const void *sid, uint32_t *access) noexcept;
int set_file_sd(const char *path, const void *sd) noexcept;
int get_file_sd(const char *path, void *sd, size_t size) noexcept;
int object_dacl(const char *object, const void *sid, uint32_t access) noexcept;
int handle_dacl(intptr_t object, const void *sid, uint32_t access) noexcept;

int user_name(char *out, size_t size) noexcept;
int admin_name(char *out, size_t size) noexcept;
bool is_admin() noexcept;
// 1 found, 0 none (out left for the caller to clear).
int dc_name(const char *domain, char *out, size_t size) noexcept;

}  // namespace ll::sec
