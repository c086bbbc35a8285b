#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include <liblocal/list.h>

namespace {

struct Node {
  Node *next;
  int v;
  int tag;  // tells equal values apart
};

// Owns the nodes; builds lists in the given order.
struct Pool {
  std::deque<Node> nodes;
  Node *make(int v, int tag = 0) {
    nodes.push_back({nullptr, v, tag});
    return &nodes.back();
  }
  Node *list(std::initializer_list<int> vs, int tag = 0) {
    Node *head = nullptr, **link = &head;
    for (int v : vs) {
      *link = make(v, tag);
      link = &(*link)->next;
    }
    return head;
  }
};

std::vector<int> values(const void *l) {
  std::vector<int> out;
  for (auto *n = static_cast<const Node *>(l); n; n = n->next) out.push_back(n->v);
  return out;
}
using V = std::vector<int>;

int by_value(const void *a, const void *b) {
  return static_cast<const Node *>(a)->v - static_cast<const Node *>(b)->v;
}
// For list_sort and list_bsearch: pointers to element pointers.
int by_value_indirect(const void *a, const void *b) {
  return (*static_cast<Node *const *>(a))->v - (*static_cast<Node *const *>(b))->v;
}

TEST(ListAddelem, InsertsInOrderAndReportsDuplicates) {
  Pool p;
  void *head = nullptr;
  void *dup = &head;
  for (int v : {5, 1, 9, 3}) {
    list_addelem(p.make(v), &head, &dup, by_value);
    EXPECT_EQ(dup, nullptr);
  }
  EXPECT_EQ(values(head), (V{1, 3, 5, 9}));

  Node *first = static_cast<Node *>(head);
  Node *again = p.make(1, 7);
  again->next = first;  // stale link: cleared by the call
  list_addelem(again, &head, &dup, by_value);
  EXPECT_EQ(dup, first);
  EXPECT_EQ(again->next, nullptr);
  EXPECT_EQ(head, first);

  list_addelem(p.make(5, 7), &head, &dup, by_value);
  ASSERT_NE(dup, nullptr);
  EXPECT_EQ(static_cast<Node *>(dup)->tag, 0);
  EXPECT_EQ(values(head), (V{1, 3, 5, 9}));
}

TEST(ListAddlist, SourceWinsOnEqualityAndDisplacedGoBack) {
  Pool p;
  void *dst = p.list({1, 2}, 0);
  void *src = p.list({1, 3}, 1);
  void *dups = nullptr;
  list_addlist(&src, &dst, &dups, by_value);
  EXPECT_EQ(src, nullptr);
  EXPECT_EQ(values(dst), (V{1, 2, 3}));
  EXPECT_EQ(static_cast<Node *>(dst)->tag, 1);  // the source's 1
  EXPECT_EQ(values(dups), (V{1}));
  EXPECT_EQ(static_cast<Node *>(dups)->tag, 0);
  EXPECT_EQ(static_cast<Node *>(dups)->next, nullptr);

  void *d2 = p.list({2, 4, 6, 8}, 0);
  void *s2 = p.list({1, 4, 5, 8, 9}, 1);
  list_addlist(&s2, &d2, &dups, by_value);
  EXPECT_EQ(values(d2), (V{1, 2, 4, 5, 6, 8, 9}));
  EXPECT_EQ(values(dups), (V{4, 8}));

  // An empty destination or a missing source leaves everything alone.
  void *empty = nullptr;
  dups = &d2;
  list_addlist(&d2, &empty, &dups, by_value);
  EXPECT_EQ(empty, nullptr);
  EXPECT_EQ(dups, nullptr);
  list_addlist(nullptr, &d2, &dups, by_value);
  EXPECT_EQ(values(d2), (V{1, 2, 4, 5, 6, 8, 9}));
}

TEST(ListRemoveIntersect, KeyedElementsGoOrStay) {
  Pool p;
  void *removed = nullptr;
  void *l2 = p.list({1, 2, 3, 4, 5});
  void *k2 = p.list({0, 1, 3, 5, 7}, 1);
  list_remove(&k2, &l2, &removed, by_value);
  EXPECT_EQ(values(l2), (V{2, 4}));
  EXPECT_EQ(values(removed), (V{1, 3, 5}));
  EXPECT_EQ(values(k2), (V{0, 1, 3, 5, 7}));  // keys untouched

  void *list = p.list({1, 2, 3, 4, 5});
  void *keys = p.list({0, 2, 4}, 1);
  list_intersect(&keys, &list, &removed, by_value);
  EXPECT_EQ(values(list), (V{2, 4}));
  EXPECT_EQ(values(removed), (V{1, 3, 5}));

  void *none = nullptr;
  list_intersect(&none, &list, &removed, by_value);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(values(removed), (V{2, 4}));
}

TEST(ListCmpSubset, OrderingAndContainment) {
  Pool p;
  EXPECT_EQ(list_cmp(p.list({1}), p.list({1, 2}), by_value), -1);
  EXPECT_EQ(list_cmp(p.list({1, 2}), p.list({1}), by_value), 1);
  EXPECT_EQ(list_cmp(nullptr, nullptr, by_value), 0);
  EXPECT_EQ(list_cmp(p.list({1, 9}), p.list({1, 2}), by_value), 7);  // cmp's own value
  EXPECT_EQ(list_cmp(p.list({1, 2}), p.list({1, 2}), by_value), 0);

  EXPECT_EQ(list_subset(nullptr, nullptr, by_value), 1);
  EXPECT_EQ(list_subset(p.list({1, 3}), p.list({1, 2, 3}), by_value), 1);
  EXPECT_EQ(list_subset(p.list({1, 4}), p.list({1, 2, 3}), by_value), 0);
  EXPECT_EQ(list_subset(p.list({1}), nullptr, by_value), 0);
}

TEST(ListWalk, FreeDupAppend) {
  Pool p;
  void *list = p.list({1, 2, 3});
  // The next pointer is read before the callback, which may destroy it.
  static int freed;
  freed = 0;
  list_free(list, [](void *e) {
    static_cast<Node *>(e)->next = reinterpret_cast<Node *>(uintptr_t{0x10});
    ++freed;
  });
  EXPECT_EQ(freed, 3);

  static Pool *copies;
  Pool c;
  copies = &c;
  void *dup = list_dup(p.list({4, 5}), [](void *e) -> void * { return copies->make(static_cast<Node *>(e)->v * 10); });
  EXPECT_EQ(values(dup), (V{40, 50}));

  void *head = nullptr;
  Node *a = p.make(1), *b = p.make(2);
  b->next = a;  // left for the caller to set
  list_append(&head, a);
  list_append(&head, b);
  EXPECT_EQ(head, a);
  EXPECT_EQ(a->next, b);
  EXPECT_EQ(b->next, a);
}

TEST(ListSort, SortsCountedOrGivenPrefix) {
  Pool p;
  std::mt19937 rng(7);
  void *list = nullptr;
  std::vector<int> want;
  for (int i = 0; i < 200; ++i) {
    Node *n = p.make(static_cast<int>(rng() % 1000));
    n->next = static_cast<Node *>(list);
    list = n;
    want.push_back(n->v);
  }
  std::sort(want.begin(), want.end());
  EXPECT_EQ(values(list_sort(list, 0, by_value_indirect)), want);

  void *one = p.list({3, 1});
  EXPECT_EQ(values(list_sort(one, 1, by_value_indirect)), (V{3, 1}));  // count 1: as it is
  // Only the first count elements are sorted and kept; a count beyond the
  // list's end stops at the end.
  EXPECT_EQ(values(list_sort(p.list({5, 4, 3, 2, 1}), 3, by_value_indirect)), (V{3, 4, 5}));
  EXPECT_EQ(values(list_sort(p.list({2, 1}), 50, by_value_indirect)), (V{1, 2}));
}

// Records whether the key came first or second.
const void *g_key;
int g_key_first, g_key_second;
int logging_cmp(const void *a, const void *b) {
  if (a == g_key) ++g_key_first;
  if (b == g_key) ++g_key_second;
  return by_value_indirect(a, b);
}

TEST(ListBsearch, TwoPathsOppositeArgumentOrdersSameAnswer) {
  for (int n : {20, 21, 100}) {
    Pool p;
    void *head = nullptr;
    for (int i = n - 1; i >= 0; --i) {
      Node *e = p.make(i * 2);
      e->next = static_cast<Node *>(head);
      head = e;
    }
    Node probe{nullptr, 14, 0};
    Node *key_elem = &probe;
    g_key = &key_elem;
    g_key_first = g_key_second = 0;
    auto *hit = static_cast<Node *>(list_bsearch(head, &key_elem, 0, logging_cmp));
    ASSERT_NE(hit, nullptr) << n;
    EXPECT_EQ(hit->v, 14);
    EXPECT_NE(hit, &probe);
    if (n <= 20) {
      EXPECT_GT(g_key_second, 0);
      EXPECT_EQ(g_key_first, 0);
    } else {
      EXPECT_GT(g_key_first, 0);
      EXPECT_EQ(g_key_second, 0);
    }
    probe.v = 15;  // between two elements
    EXPECT_EQ(list_bsearch(head, &key_elem, n, by_value_indirect), nullptr);
    probe.v = 1000;
    EXPECT_EQ(list_bsearch(head, &key_elem, n, by_value_indirect), nullptr);
  }
  EXPECT_EQ(list_bsearch(nullptr, &g_key, 0, by_value_indirect), nullptr);
}

int int_cmp(const void *k, const void *e) { return *static_cast<const int *>(k) - *static_cast<const int *>(e); }

TEST(LocalBsearch, AddressIndexAndTheMissingNotFound) {
  const int a[] = {10, 20, 30, 40, 50};
  auto find = [&](int k) { return static_cast<const int *>(local_bsearch(&k, a, 5, sizeof(int), int_cmp)); };
  auto index = [&](int k, int n = 5) { return local_bsearch_i(&k, a, n, sizeof(int), int_cmp); };
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(find(a[i]), &a[i]);
    EXPECT_EQ(index(a[i]), i);
  }
  EXPECT_EQ(find(25), nullptr);
  EXPECT_EQ(local_bsearch(&a[0], a, 0, sizeof(int), int_cmp), nullptr);
  // A miss gives the greatest element ordering before the key...
  EXPECT_EQ(index(25), 1);
  EXPECT_EQ(index(99), 4);
  // ...and 0 both for a key before every element and for an empty array.
  EXPECT_EQ(index(5), 0);
  EXPECT_EQ(index(5, 0), 0);
}

TEST(Dlist, InsertAndRemove) {
  struct D {
    D *next, *prev;
    int v;
  };
  D head, a{nullptr, nullptr, 1}, b{nullptr, nullptr, 2};
  _dlist_init(&head);
  EXPECT_EQ(_dlist_insert(&a, &head), &a);
  EXPECT_EQ(_dlist_insert(&b, &a), &b);  // after a member
  EXPECT_EQ(head.next, &a);
  EXPECT_EQ(a.next, &b);
  EXPECT_EQ(head.prev, &b);
  EXPECT_EQ(_dlist_remove(&a), &a);
  EXPECT_EQ(head.next, &b);
  EXPECT_EQ(b.prev, &head);
  EXPECT_EQ(a.next, &b);  // its own links are left alone
  _dlist_remove(&b);
  EXPECT_EQ(head.next, &head);
  EXPECT_EQ(head.prev, &head);
}

}  // namespace
