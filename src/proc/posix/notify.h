// The service manager's notify socket address (POSIX back-end only).
#pragma once
#include <sys/socket.h>
#include <sys/un.h>

namespace ll::svc::os {
// "@name" is an abstract name (the address is exactly as long as the name),
// anything else must be an absolute path that fits with its NUL. False for
// every other value.
bool notify_address(const char *value, sockaddr_un *addr, socklen_t *len) noexcept;
}  // namespace ll::svc::os
