// The one place the library includes <windows.h>. Every Windows source file
// includes this header instead.
#pragma once
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <string>

namespace ll::win {
// UTF-8 <-> UTF-16 for the platform boundary (strict system conversion).
std::wstring widen(const char *utf8);
std::string narrow(const wchar_t *wide);
}  // namespace ll::win
