// The event log on Windows: the event source in the registry, with this
// library as its message and category file, and events reported through the
// event-log service.
#include <cstring>
#include <mutex>
#include <string>

#include "frame/fault.h"
#include "frame/win32/win.h"
#include "proc/eventlog.h"
#include <liblocal/eventlog.h>
#include <liblocal/output.h>

namespace ll::evlog {
namespace {

constexpr const wchar_t *kSourcesKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application";

std::mutex g_key_lock;
std::wstring g_key_base = kSourcesKey;  // changed only by the test seam

std::wstring key_base() {
  std::lock_guard<std::mutex> g(g_key_lock);
  return g_key_base;
}

// Full path of this library (the main program's when it cannot be found;
// 'own' tells which).
std::wstring message_file(bool &own) {
  HMODULE self = nullptr;
  own = GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCWSTR>(&message_file), &self) != 0;
  if (!own) {
    dprintf(1, "Cannot find liblocal.dll handle\n");
    self = GetModuleHandleW(nullptr);
  }
  std::wstring path(32768, L'\0');
  const DWORD n = GetModuleFileNameW(self, path.data(), static_cast<DWORD>(path.size()));
  path.resize(n < path.size() ? n : 0);
  return path;
}

// The key's CategoryMessageFile names 'path' (compared without regard to case).
bool names_file(HKEY key, const std::wstring &path) {
  DWORD type = 0, size = 0;
  if (LL_FAULT(registry) ||
      RegQueryValueExW(key, L"CategoryMessageFile", nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      (type != REG_SZ && type != REG_EXPAND_SZ) || size > 65536)
    return false;
  std::wstring value(size / sizeof(wchar_t) + 1, L'\0');
  if (LL_FAULT(registry) ||
      RegQueryValueExW(key, L"CategoryMessageFile", nullptr, &type, reinterpret_cast<BYTE *>(value.data()), &size) !=
          ERROR_SUCCESS)
    return false;
  value.resize(wcsnlen(value.c_str(), size / sizeof(wchar_t)));
  return CompareStringOrdinal(value.c_str(), -1, path.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool set_values(HKEY key, const std::wstring &path) {
  const auto bytes = static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t));
  const DWORD count = QZ_EVENT_CATEGORIES, types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE |
                                                   EVENTLOG_INFORMATION_TYPE;
  const auto *p = reinterpret_cast<const BYTE *>(path.c_str());
  auto set = [key](const wchar_t *name, DWORD type, const BYTE *data, DWORD size) {
    return !LL_FAULT(registry) && RegSetValueExW(key, name, 0, type, data, size) == ERROR_SUCCESS;
  };
  return set(L"EventMessageFile", REG_EXPAND_SZ, p, bytes) && set(L"CategoryMessageFile", REG_EXPAND_SZ, p, bytes) &&
         set(L"CategoryCount", REG_DWORD, reinterpret_cast<const BYTE *>(&count), sizeof count) &&
         set(L"TypesSupported", REG_DWORD, reinterpret_cast<const BYTE *>(&types), sizeof types);
}

}  // namespace

int os::setup_source(const char *source) noexcept {
  const std::wstring name = win::widen(source);
  if (name.empty()) return 0;
  const std::wstring subkey = key_base() + L"\\" + name;
  bool own = false;
  const std::wstring path = message_file(own);
  HKEY key = nullptr;
  DWORD disposition = 0;
  if (LL_FAULT(registry) ||
      RegCreateKeyExW(HKEY_LOCAL_MACHINE, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE,
                      nullptr, &key, &disposition) != ERROR_SUCCESS) {
    // an account that may not write the key still finds a registration in place
    if (!LL_FAULT(registry) && RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
      const bool ok = !path.empty() && names_file(key, path);
      RegCloseKey(key);
      if (ok) return 1;
    }
    dprintf(1, "Cannot create EventLog source registry key\n");
    return 0;
  }
  int result = 1;
  const bool existed = disposition == REG_OPENED_EXISTING_KEY;
  DWORD size = 0;
  const bool has_file = existed && !LL_FAULT(registry) &&
                        RegQueryValueExW(key, L"CategoryMessageFile", nullptr, nullptr, nullptr, &size) == ERROR_SUCCESS;
  // a registration is never replaced by the main program's path, nor rewritten unchanged
  if (!(has_file && (!own || names_file(key, path)))) {
    if (path.empty() || !set_values(key, path)) {
      dprintf(1, "Cannot set EventLog source registry value\n");
      result = 0;
    }
  }
  RegCloseKey(key);
  return result;
}

int os::report(const char *source, int type, int category, uint32_t id, const char *utf8) noexcept {
  static_assert(sizeof(wchar_t) == sizeof(char16_t));
  wchar_t text[kWideCap + 1];
  to_event_wide(utf8, reinterpret_cast<char16_t *>(text), kWideCap);
  // The source is looked up in the registry: a registry call as well.
  HANDLE h = LL_FAULT(registry) ? nullptr : RegisterEventSourceW(nullptr, win::widen(source).c_str());
  if (!h) return 0;
  LPCWSTR strings[1] = {text};
  const BOOL ok = ReportEventW(h, static_cast<WORD>(type), static_cast<WORD>(category), id ? id : QZ_EVENT_ID_DEFAULT,
                               nullptr, 1, 0, strings, nullptr);
  DeregisterEventSource(h);
  return ok ? 1 : 0;
}

void os::close() noexcept {}

}  // namespace ll::evlog

// Test seam: the registry key (under the local machine) that holds the event
// sources (null: the system's).
extern "C" LL_API void llt_eventlog_registry(const char *key) noexcept {
  std::lock_guard<std::mutex> g(ll::evlog::g_key_lock);
  ll::evlog::g_key_base = key ? ll::win::widen(key) : std::wstring(ll::evlog::kSourcesKey);
}
