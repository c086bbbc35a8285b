/* A library that the process tests load by name with dll_find_routine. */
#if defined(_WIN32)
#  define LLT_EXPORT __declspec(dllexport)
#else
#  define LLT_EXPORT __attribute__((visibility("default")))
#endif

LLT_EXPORT int llt_dyn_answer(void);
LLT_EXPORT int llt_dyn_answer(void) { return 42; }
