// Unique identifiers: creation, the counter, text forms, order, arrays.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/qzui.h>

namespace {

uint32_t word(const qzui &id, int i) {
  const unsigned char *b = id.b + 4 * i;
  return (uint32_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
}

qzui make(uint32_t type, uint32_t priv, uint32_t w2 = 0, uint32_t w3 = 0, uint32_t w4 = 0) {
  qzui id;
  qzui_create_old(&id, type, priv, w3, w2);
  unsigned char *b = id.b + 16;
  b[0] = static_cast<unsigned char>(w4 >> 24);
  b[1] = static_cast<unsigned char>(w4 >> 16);
  b[2] = static_cast<unsigned char>(w4 >> 8);
  b[3] = static_cast<unsigned char>(w4);
  return id;
}

LLTEST_CHILD(qzui_first_ids) {
  qzui a, b, c;
  qzui_create(&a, 1, 7);  // plain numbers take no counter value
  qzui_create(&b, 4, 7);
  qzui_create(&c, 4, 8);
  return (word(a, 2) | word(a, 3) | word(a, 4)) == 0 && word(b, 3) >> 16 == 1 && word(c, 3) >> 16 == 2 ? 0 : 1;
}

TEST(Qzui, CounterStartsAtOneAndIsUniqueAcrossThreads) {
  EXPECT_EQ(lltest::run_child("qzui_first_ids").exit_code, 0);

  const int kThreads = 8, kEach = 4000;
  std::vector<std::vector<uint32_t>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        qzui id;
        qzui_create(&id, 5, 0);
        seen[t].push_back(word(id, 3) >> 16);
      }
    });
  for (auto &t : threads) t.join();
  std::set<uint32_t> all;
  for (auto &v : seen) all.insert(v.begin(), v.end());
  EXPECT_EQ(all.size(), size_t{kThreads * kEach});

  qzui id;
  uint32_t host = qzui_create(&id, 4, 99);
  EXPECT_EQ(std::memcmp(&host, id.b + 16, 4), 0);
  EXPECT_NE(word(id, 2), 0u);
  EXPECT_EQ(qzui_get_idtype(&id), 4u);
  EXPECT_EQ(qzui_get_private(&id), 99u);
  EXPECT_EQ(qzui_get_idtype(nullptr), 0u);
  qzui_create_special(&id, 5);
  EXPECT_EQ(qzui_cmp(&id, &(const qzui &)make(9, 5)), 0);
  qzui_create_old(&id, 4, 1, 2, 3);
  EXPECT_EQ(word(id, 4), 0x7F000001u);
  EXPECT_EQ(word(id, 3), 2u);
  EXPECT_EQ(word(id, 2), 3u);
}

TEST(Qzui, TextFormsRoundTrip) {
  struct Row {
    qzui id;
    int force;
    const char *text;  // null: the long form
  } rows[] = {
      {make(1, 42), 0, "42"},
      {make(0, 4294967295u), 1, "4294967295"},
      {make(0xFFFFFFFFu, 3), 1, "3"},
      {make(2, 17, 5, 6, 7), 0, "17"},
      {make(9, 18), 0, "18"},
      {make(2, 17, 5, 6, 7), 1, nullptr},
      {make(4, 42), 0, nullptr},
      {make(10, 1, 0xDEADBEEF, 0x00010002, 0x0A000001), 0, nullptr},
  };
  for (const Row &r : rows) {
    char buf[QZUI_TEXT_SIZE];
    std::string text = qzui_to_string(&r.id, buf, r.force);
    qzui back{};
    char *end = nullptr;
    if (r.text) {
      EXPECT_EQ(text, r.text);
      EXPECT_EQ(string_to_qzui(text.c_str(), &back, &end), 1);
      continue;
    }
    ASSERT_EQ(text.size(), 53u) << text;
    EXPECT_EQ(text[8], '-');
    EXPECT_EQ(string_to_qzui(text.c_str(), &back, &end), static_cast<int>(qzui_get_idtype(&r.id)));
    EXPECT_EQ(std::memcmp(&back, &r.id, 20), 0) << text;
    EXPECT_EQ(end, text.c_str() + 53);
    // Upper case reads the same; any altered digit fails both readings.
    std::string upper = text;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    EXPECT_EQ(string_to_qzui(upper.c_str(), &back, nullptr), static_cast<int>(qzui_get_idtype(&r.id)));
    for (size_t pos : {0u, 7u, 9u, 52u}) {
      std::string bad = text;
      bad[pos] = bad[pos] == '1' ? '2' : '1';
      qzui untouched = Not_qzui;
      EXPECT_EQ(string_to_qzui(bad.c_str(), &untouched, nullptr), -1) << bad;
      EXPECT_EQ(qzui_is_notid(&untouched), 1);
    }
  }
}

TEST(Qzui, DecimalTokens) {
  struct Row {
    const char *text;
    int result;
    uint32_t priv;
    int end;  // offset of *end
  } rows[] = {
      {"  4294967295", 1, 4294967295u, 12}, {"4294967296", -1, 0, 0}, {"42", 1, 42, 2},
      {"\t7 rest", 1, 7, 2},                 {"42,x", 1, 42, 2},      {"42abc", -1, 0, 0},
      {"12345678-00000001", -1, 0, 0},       {"", -1, 0, 0},          {"  ", -1, 0, 2},
      {"-5", -1, 0, 0},                      {"+5", -1, 0, 0},        {"99999999999999999999999", -1, 0, 0},
  };
  for (const Row &r : rows) {
    qzui id = Not_qzui;
    char *end = nullptr;
    EXPECT_EQ(string_to_qzui(r.text, &id, &end), r.result) << r.text;
    EXPECT_EQ(end - r.text, r.end) << r.text;
    if (r.result == 1) {
      EXPECT_EQ(qzui_get_idtype(&id), 1u);
      EXPECT_EQ(qzui_get_private(&id), r.priv);
      EXPECT_EQ(word(id, 2) | word(id, 3) | word(id, 4), 0u);
    }
  }
  EXPECT_EQ(string_to_qzui(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(string_to_qzui("5", nullptr, nullptr), -1);
}

TEST(Qzui, OrderGroupsTypes) {
  struct Row {
    qzui a, b;
    int sign;
  } rows[] = {
      {make(2, 1, 5, 6, 0x0A000001), make(2, 1, 5, 6, 0x0A000002), 0},   // hosts ignored
      {make(3, 1, 5, 6, 1), make(4, 1, 5, 6, 2), -1},                    // type 3 on one side
      {make(4, 1, 5, 6, 0x0A000001), make(4, 1, 5, 6, 0x0A000002), -1},  // hosts count
      {make(1, 0x80000000u), make(7, 0x7FFFFFFF, 9, 9, 9), 1},           // type 1: private values only
      {make(1, 5), make(1, 5, 1, 2, 3), 0},
      {make(4, 2), make(5, 1), -1},                                       // type first
      {make(4, 1, 2), make(4, 1, 1), 1},                                  // then time
  };
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  for (const Row &r : rows) {
    EXPECT_EQ(sign(qzui_cmp(&r.a, &r.b)), r.sign);
    EXPECT_EQ(sign(qzui_cmp(&r.b, &r.a)), -r.sign);
  }
  for (uint32_t type : {0u, 2u, 4u, 9u, 0xFFFFFFFFu}) {
    qzui id = make(type, 1);
    EXPECT_LT(qzui_cmp(&Zero_qzui, &id), 0) << type;
  }
  EXPECT_EQ(qzui_is_zeroid(&Zero_qzui), 1);
  EXPECT_EQ(qzui_is_notid(&Not_qzui), 1);
  EXPECT_EQ(qzui_is_zeroid(&Not_qzui), 0);
  EXPECT_EQ(qzui_is_zeroid(nullptr), 0);
  EXPECT_EQ(qzui_cmp(nullptr, nullptr), 0);
  EXPECT_LT(qzui_cmp(nullptr, &Zero_qzui), 0);
}

TEST(Qzui, RotatingBuffersAndArrays) {
  qzui id = make(1, 0);
  char *first = qzui_to_string(&id, nullptr, 0);
  std::set<char *> bufs = {first};
  for (int i = 1; i < 20; ++i) bufs.insert(qzui_to_string(&id, nullptr, 0));
  EXPECT_EQ(bufs.size(), 20u);
  EXPECT_EQ(qzui_to_string(&id, nullptr, 0), first);

  qz_ids *a = alloc_ids();
  EXPECT_EQ(a->capacity, 5000);
  for (uint32_t i = 0; i < 5001; ++i) {
    qzui x = make(1, i);
    ASSERT_EQ(add_id(a, &x), static_cast<int>(i + 1));
  }
  EXPECT_EQ(a->capacity, 7000);
  EXPECT_EQ(qzui_get_private(&a->ids[4999]), 4999u);
  EXPECT_EQ(qzui_get_private(&a->ids[5000]), 5000u);
  EXPECT_EQ(add_id(a, nullptr), -1);
  EXPECT_EQ(add_id(nullptr, &id), -1);
  free_ids(a);
  free_ids(nullptr);
}

}  // namespace
