// dll_find_routine with real libraries built by the tests (llt_dynlib).
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/eventlog.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

extern "C" void llt_dynlib_unload_all(void);

namespace {

const char *const kSuffix = lltest::kWindows ? ".dll" : ".so";

std::string module_path() {
  std::string self = lltest::self_path();
  return self.substr(0, self.find_last_of("/\\") + 1) + "llt_dynlib" + kSuffix;
}

using AnswerFn = int (*)();
void *const kUntouched = reinterpret_cast<void *>(0x1234);

bool loaded(const std::string &path) {
#ifdef _WIN32
  return GetModuleHandleA(path.c_str()) != nullptr;
#else
  void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (h) dlclose(h);
  return h != nullptr;
#endif
}

TEST(DllFindRoutine, FoundMissingAndRefused) {
  llt_dynlib_unload_all();
  const std::string lib = module_path();
  void *fn = nullptr;
  ASSERT_EQ(dll_find_routine(lib.c_str(), "llt_dyn_answer", &fn), 1);
  EXPECT_EQ(reinterpret_cast<AnswerFn>(fn)(), 42);

  // the cache answers for the same name in other case
  std::string upper = lib;
  for (auto &c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  void *again = nullptr;
  EXPECT_EQ(dll_find_routine(upper.c_str(), "llt_dyn_answer", &again), 1);
  EXPECT_EQ(again, fn);

  void *out = kUntouched;
  EXPECT_EQ(dll_find_routine(lib.c_str(), "no_such_routine", &out), 0);
  EXPECT_EQ(out, nullptr);

  lltest::TempDir dir;
  dir.write("notalib", "plain text");
  const std::string refused[] = {dir.file("missing") + kSuffix, dir.file("notalib"), dir.path(),
                                 dir.file(std::string(1600, 'n')), std::string("llt_no_such_lib") + kSuffix};
  for (const auto &name : refused) {
    out = kUntouched;
    EXPECT_EQ(dll_find_routine(name.c_str(), "llt_dyn_answer", &out), 0) << name;
    EXPECT_EQ(out, kUntouched) << name;
  }
  EXPECT_EQ(dll_find_routine(nullptr, "llt_dyn_answer", &out), 0);
  EXPECT_EQ(dll_find_routine(lib.c_str(), nullptr, &out), 0);
  EXPECT_EQ(dll_find_routine(lib.c_str(), "llt_dyn_answer", nullptr), 0);
}

TEST(DllFindRoutine, TenLibrariesThenRefusalAndRelease) {
  llt_dynlib_unload_all();
  lltest::TempDir dir;
  std::ifstream src(module_path(), std::ios::binary);
  const std::string image((std::istreambuf_iterator<char>(src)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(image.empty());
  std::vector<std::string> libs;
  for (int i = 0; i < 11; ++i) {
    libs.push_back(dir.file("copy" + std::to_string(i) + kSuffix));
    std::ofstream(libs.back(), std::ios::binary) << image;
  }
  for (int i = 0; i < 10; ++i) {
    void *fn = nullptr;
    ASSERT_EQ(dll_find_routine(libs[i].c_str(), "llt_dyn_answer", &fn), 1) << i;
    EXPECT_EQ(reinterpret_cast<AnswerFn>(fn)(), 42);
  }
  void *out = kUntouched;
  EXPECT_EQ(dll_find_routine(libs[10].c_str(), "llt_dyn_answer", &out), 0);
  EXPECT_EQ(out, kUntouched);
  EXPECT_FALSE(loaded(libs[10]));

  // shutdown releases every library; the cache then starts over
  EXPECT_TRUE(loaded(libs[0]));
  llt_dynlib_unload_all();
  for (const auto &l : libs) EXPECT_FALSE(loaded(l)) << l;
  EXPECT_EQ(dll_find_routine(libs[10].c_str(), "llt_dyn_answer", &out), 1);
  llt_dynlib_unload_all();
}

TEST(DllFindRoutine, ThreadsShareOneLoad) {
  llt_dynlib_unload_all();
  const std::string lib = module_path();
  std::atomic<void *> first{nullptr};
  std::atomic<int> same{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        void *fn = nullptr;
        if (dll_find_routine(lib.c_str(), "llt_dyn_answer", &fn) != 1) return;
        void *expected = nullptr;
        if (first.compare_exchange_strong(expected, fn) || expected == fn) ++same;
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(same.load(), 800);
}

}  // namespace
