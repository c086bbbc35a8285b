// Error records: code layout, the built-in types, copies, save and restore,
// and the printed lines.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <liblocal.h>

#include "lltest.h"

namespace {

TEST(ErrRec, BuiltInTypesAndDefaultSeverities) {
  qzerror *e = err_set(2, 5);
  EXPECT_EQ(e->code, 23005);
  EXPECT_STREQ(e->text, "Timed out");
  EXPECT_EQ(err_set(2, 2005)->code, 22005);                  // the given severity wins
  EXPECT_EQ(err_set(2, 18)->code, 21018);                    // "Call interrupted" is a notice
  EXPECT_STREQ(err_set(2, 27)->text, "Cancelled");
  EXPECT_STREQ(err_set(3, 17)->text, "system error");
  EXPECT_EQ(err_set(3, 17)->code, 35017);
  EXPECT_EQ(err_set(3, 0)->code, 30000);                     // number 0: unknown text, severity 0
  EXPECT_STREQ(err_set(3, 0)->text, "Unknown error");
  e = err_setall(3, 0, 33, nullptr);
  EXPECT_EQ(e->code, 30033);
  EXPECT_STREQ(e->text, "Unknown error");
  e = err_setall(0, 0, 7, nullptr);
  EXPECT_EQ(e->code, 7);
  EXPECT_STREQ(e->text, "Unknown error");
  EXPECT_EQ(err_setall(11, 0, 7, nullptr)->code, 110007);   // out of range: kept, unknown
  EXPECT_EQ(err_setall(5, 0, 1, nullptr)->code, 51001);     // types 4-7: number 1 is a notice
  EXPECT_STREQ(err_setall(5, 0, 1, nullptr)->text, "Unknown error");
}

TEST(ErrRec, SystemTypeUsesErrorTexts) {
  qzerror *e = err_setall(1, 0, 0, nullptr);
  EXPECT_EQ(e->code, 11000);
  EXPECT_STREQ(e->text, qzmo_strerror(0));
  EXPECT_EQ(err_setall(1, 0, 4, nullptr)->code, 13004);
  EXPECT_EQ(err_setall(1, 0, 160, nullptr)->code, 13160);
  EXPECT_STREQ(err_setall(1, 0, 160, nullptr)->text, "Connection timed out");
  EXPECT_EQ(err_setall(1, 0, 2, nullptr)->code, 15002);
  EXPECT_EQ(err_setall(1, 2, 2, "mine")->code, 12002);
  EXPECT_STREQ(err_setall(1, 2, 2, "mine")->text, "mine");
}

TEST(ErrRec, ProgramTypes) {
  static char t0[] = "zero", t1[] = "first", t2[] = "second";
  static char *texts[] = {t0, t1, t2};
  static int sevs[] = {1, 2, 4};
  err_settype(9, 2, "Mine", texts, sevs);
  EXPECT_EQ(err_set(9, 2)->code, 94002);
  EXPECT_STREQ(err_set(9, 1)->text, "first");
  EXPECT_STREQ(err_set(9, 3)->text, "Unknown error");
  err_settype(11, 2, "Ignored", texts, sevs);  // beyond the table: nothing happens
  EXPECT_STREQ(err_set(11, 1)->text, "Unknown error");
}

TEST(ErrRec, SetStrFormatsIntoTheThreadBuffer) {
  qzerror *e = err_setstr(8, 3012, "disk %s is %d%% full", "C:", 95);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->code, 83012);
  EXPECT_STREQ(e->text, "disk C: is 95% full");
  EXPECT_EQ(err_setstr(8, 1, nullptr), nullptr);
  std::string big(5000, 'x');
  e = err_setstr(8, 1, "%s", big.c_str());
  EXPECT_EQ(std::strlen(e->text), 2047u);
}

TEST(ErrRec, DupInterpretsPercentSigns) {
  qzerror src{32007, const_cast<char *>("rate %d%%")};
  qzerror *e = err_dup(&src);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->code, 32007);
  EXPECT_STRNE(e->text, "rate %d%%");  // the %d read an argument that was not there
  EXPECT_EQ(std::string(e->text).substr(0, 5), "rate ");
  // A duplicate of the current record itself.
  err_setstr(8, 1, "self %s", "copy");
  e = err_dup(err_setstr(8, 1, "self %s", "copy"));
  EXPECT_STREQ(e->text, "self copy");
  EXPECT_EQ(err_dup(nullptr), nullptr);
}

TEST(ErrRec, Dup2FreeSaveRestore) {
  qzerror copy{};
  err_dup2(err_set(2, 5), &copy);
  EXPECT_EQ(copy.code, 23005);
  EXPECT_STREQ(copy.text, "Timed out");
  err_free(&copy);
  EXPECT_EQ(copy.text, nullptr);
  err_free(nullptr);
  err_dup2(nullptr, &copy);
  EXPECT_EQ(copy.code, 0);
  EXPECT_EQ(copy.text, nullptr);

  qzerror *saved = err_save(err_setstr(8, 2003, "lost %d", 1));
  err_set(2, 5);
  qzerror *back = err_restore(saved);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->code, 82003);
  EXPECT_STREQ(back->text, "lost 1");
  EXPECT_EQ(saved->text, nullptr);
  EXPECT_EQ(err_restore(saved), nullptr);  // released by the first restore
  EXPECT_EQ(err_restore(nullptr), nullptr);
}

TEST(ErrRec, ThreadsHaveTheirOwnRecords) {
  qzerror *mine = err_setstr(8, 1, "main %d", 1);
  std::string other;
  std::thread t([&] {
    qzerror *e = err_setstr(8, 2, "thread %d", 2);
    other = e->text;
    T_threadexit();
  });
  t.join();
  EXPECT_EQ(other, "thread 2");
  EXPECT_STREQ(mine->text, "main 1");
  EXPECT_EQ(mine->code, 80001);
}

TEST(ErrRec, RpcErrlist) {
  init_rpc_errlist();
  EXPECT_STREQ(rpc_errlist[0], "Success");
  EXPECT_STREQ(rpc_errlist[18], "Call interrupted");
  EXPECT_STREQ(rpc_errlist[27], "Cancelled");
}

LLTEST_CHILD(err_print_lines) {
  setMyname("prog");
  static char t1[] = "own";
  static char *texts[] = {t1, t1};
  static int sevs[] = {1, 3};
  err_settype(10, 1, "Ten", texts, sevs);
  Debug = 0;
  err_print(err_set(2, 5));
  err_print(err_set(2, 1018));
  err_print(err_set(3, 2004));
  Debug = 1;
  err_print(err_set(2, 5));
  err_print(err_setall(0, 0, 7, nullptr));
  err_print(err_set(10, 1));  // type 10 is never named
  qzerror neg{-5, const_cast<char *>("negative")};
  err_print(&neg);
  qzerror zero{0, const_cast<char *>("none")};
  err_print(&zero);
  err_print(nullptr);
  Debug = 0;
  err_save(err_set(2, 5));
  err_save(err_set(2, 4));  // silent at level 0
  Debug = 1;
  err_save(err_set(2, 3));
  return 0;
}

TEST(ErrRec, PrintedLines) {
  auto r = lltest::run_child("err_print_lines");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err,
            "prog: RPC error: Timed out\n"
            "prog: RPC notice: Call interrupted\n"
            "prog: RAP warning: Bad delete arguments\n"
            "prog: RPC error: Timed out (severity 3, number 5)\n"
            "prog: error, Unknown error (type 0, severity 0, number 7)\n"
            "prog: error, own (type 10, severity 3, number 1)\n"
            "prog: error, negative (number -5)\n"
            "prog: error, none\n"
            "prog: err_save: overwriting old tmperr <Unable to receive>\n");
}

}  // namespace

// The first error of a process builds the type table through the catalog,
// whose 20 result buffers it cycles: a text that came from the catalog must
// survive that.
LLTEST_CHILD(first_error_keeps_catalog_text) {
  qzinit("first");
  char *text = qzcatgets(Catd, 17, 9999, "a text from the catalog ring");
  qzerror *e = err_setall(8, 3, 5, text);
  std::printf("%s\n", e->text);
  return 0;
}

TEST(ErrRec, FirstErrorKeepsACatalogText) {
  auto r = lltest::run_child("first_error_keeps_catalog_text");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "a text from the catalog ring\n");
}
