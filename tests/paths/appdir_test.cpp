// Installation and application directories, through a seam that pretends
// where the executable lives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_appdir_reset(const char *exe, int sep);

namespace {

struct Reset {
  ~Reset() { llt_appdir_reset(nullptr, 0); }
};

TEST(AppDir, BinRuleAndWellKnownDirectories) {
  Reset r;
  llt_appdir_reset("C:\\Prod\\bin\\x.exe", '\\');
  EXPECT_EQ(qz_get_logsdir(), nullptr) << "nothing until the search is primed";
  EXPECT_STREQ(find_appdir("Prod"), "C:\\Prod");
  EXPECT_STREQ(qz_find_installdir("x"), "C:\\Prod");
  EXPECT_STREQ(qz_get_argv0(), "x");
  EXPECT_STREQ(qz_get_logsdir(), "C:\\Prod\\logs");
  EXPECT_STREQ(qz_get_bindir(), "C:\\Prod\\bin");
  EXPECT_STREQ(qz_get_tmpdir(), "C:\\Prod\\tmp");
  EXPECT_STREQ(qz_get_securedir(), "C:\\Prod\\tmp\\sec");
  const char *(*getters[])() = {qz_get_applogsdir, qz_get_coresdir, qz_get_debugdir, qz_get_etcdir,
                                qz_get_glsdir,     qz_get_indexdir, qz_get_libdir,   qz_get_mmdir,
                                qz_get_moddir,     qz_get_rapdir,   qz_get_resdir};
  const char *names[] = {"applogs", "cores", "debug", "etc", "gls", "index", "lib", "mm", "mod", "rap", "res"};
  for (size_t i = 0; i < sizeof names / sizeof *names; ++i)
    EXPECT_EQ(std::string(getters[i]()), std::string("C:\\Prod\\") + names[i]);
  EXPECT_EQ(qz_get_logsdir(), qz_get_logsdir()) << "cached";
}

TEST(AppDir, WalkNeverComparesTheOwnDirectory) {
  Reset r;
  lltest::ScopedEnv drive("SystemDrive", "E:");
  llt_appdir_reset("D:\\Prod\\x.exe", '\\');
  EXPECT_EQ(find_appdir_no_default_win32("Prod"), nullptr);
  EXPECT_STREQ(default_drive_win32(), "E");
  EXPECT_STREQ(find_appdir("Prod"), "E:\\Prod");

  llt_appdir_reset("D:\\Apps\\prod\\sub\\x.exe", '\\');
  EXPECT_STREQ(find_appdir("PROD"), "D:\\Apps\\prod");
  llt_appdir_reset("/opt/prod/sbin/x", '/');
  EXPECT_STREQ(find_appdir("prod"), "/opt/prod");
  llt_appdir_reset("/usr/x", '/');
  EXPECT_STREQ(find_appdir("\\prod"), "/opt/\\prod") << "only leading separators are skipped";
}

TEST(AppDir, ExecpathNextToTheProgram) {
  Reset r;
  lltest::TempDir tmp;
  const std::string sep = lltest::kWindows ? "\\" : "/";
  const std::string bin = tmp.path() + sep + "bin";
  ASSERT_EQ(qz_mkdirs(bin.c_str(), 0755), 0);
  llt_appdir_reset((bin + sep + "me").c_str(), sep[0]);
  const std::string tool = lltest::kWindows ? "tool.exe" : "tool";
  tmp.write("bin" + sep + tool, "x");
  char buf[4096];
  const char *got = execpath("tool", buf, sizeof buf);
  EXPECT_EQ(got, buf);
  EXPECT_EQ(std::string(got), bin + sep + tool);
  // Missing: the name itself, also copied into the buffer.
  got = execpath("absent", buf, sizeof buf);
  EXPECT_STREQ(got, "absent");
  EXPECT_STREQ(buf, "absent");
  // Too small for origin and name: the name, buffer untouched.
  std::strcpy(buf, "keep");
  got = execpath("tool", buf, 8);
  EXPECT_STREQ(got, "tool");
  EXPECT_STREQ(buf, "keep");
  // A plain file of the given name keeps no suffix; a directory gets one.
  tmp.write("bin" + sep + "plain", "x");
  EXPECT_EQ(std::string(execpath("plain", buf, sizeof buf)), bin + sep + "plain");
}

TEST(AppDir, ExpandedStrings) {
  lltest::ScopedEnv v("LLT_PATHS_VAR", "value");
  char *e = get_an_expanded_string_win32("a%LLT_PATHS_VAR%b%LLT_PATHS_NONE%c%");
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(e, "avalueb%LLT_PATHS_NONE%c%");
  std::free(e);
  EXPECT_EQ(get_an_expanded_string_win32(nullptr), nullptr);
  EXPECT_EQ(get_registry_ulong("SOFTWARE\\NoSuchKeyForLiblocal", "x"), 0u);
  EXPECT_EQ(retrieve_data_from_registry_win32(nullptr, nullptr, "x", nullptr, nullptr), nullptr);
  EXPECT_EQ(find_path_of_service_from_service_manager_win32("no-such-service-liblocal"), nullptr);
}

LLTEST_CHILD(installdir) {
  _qzinit("paths-child", argc, argv);
  const char *inst = qz_get_installdir();
  std::printf("%s|%s\n", inst ? inst : "(null)", qz_debug_control_file());
  return 0;
}

TEST(AppDir, InitialisationFindsTheInstallationDirectory) {
  auto r = lltest::run_child("installdir", {"arg"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // The test binary's directory is <build>/bin: the installation is <build>.
  std::string self = lltest::self_path();
  const char sep = lltest::kWindows ? '\\' : '/';
  std::string dir = self.substr(0, self.rfind(sep));
  std::string inst = dir.substr(0, dir.rfind(sep));
  EXPECT_EQ(r.out.substr(0, r.out.find('|')), inst);
  EXPECT_NE(r.out.find("qzdbg.tmp"), std::string::npos);
}

}  // namespace
