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

TEST(ErrRec, CodesAndTextsOfTheBuiltInTypes) {
  init_rpc_errlist();
  EXPECT_STREQ(rpc_errlist[18], "Call interrupted");
  struct {
    int type, severity, number, code;
    const char *text;  // null: the library's error text for the number
  } t[] = {
      {2, 0, 5, 23005, "Timed out"},  {2, 2, 5, 22005, "Timed out"},  // the given severity wins
      {2, 0, 18, 21018, "Call interrupted"},                          // a notice
      {3, 0, 17, 35017, "system error"},
      {3, 0, 0, 30000, "Unknown error"},  // number 0: unknown text, severity 0
      {3, 0, 33, 30033, "Unknown error"}, {0, 0, 7, 7, "Unknown error"},
      {11, 0, 7, 110007, "Unknown error"},  // out of range: kept, unknown
      {5, 0, 1, 51001, "Unknown error"},    // types 4-7: number 1 is a notice
      // The system type: severity by number.
      {1, 0, 0, 11000, nullptr}, {1, 0, 4, 13004, nullptr}, {1, 0, 160, 13160, "Connection timed out"},
      {1, 0, 2, 15002, nullptr},
  };
  for (auto &c : t) {
    qzerror *e = err_setall(c.type, c.severity, c.number, nullptr);
    EXPECT_EQ(e->code, c.code) << c.type << "/" << c.number;
    EXPECT_STREQ(e->text, c.text ? c.text : qzmo_strerror(c.number)) << c.type << "/" << c.number;
  }
  EXPECT_STREQ(err_setall(1, 2, 2, "mine")->text, "mine");
  EXPECT_STREQ(err_set(2, 27)->text, "Cancelled");
  EXPECT_EQ(err_set(2, 2005)->code, 22005);  // err_set: severity in the thousands
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
