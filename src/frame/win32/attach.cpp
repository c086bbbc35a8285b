// Library attach and detach on Windows: the DLL entry point.
#include "frame/areas.h"
#include "frame/win32/win.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      ll::frame_attach();
      break;
    case DLL_PROCESS_DETACH:
      ll::frame_detach();
      break;
    default:  // thread attach and detach: per-thread areas go only through T_threadexit
      break;
  }
  return TRUE;
}
