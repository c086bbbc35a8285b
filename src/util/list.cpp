// Sorted intrusive lists, sorted search and circular lists. Elements belong to
// the caller: nothing here allocates or frees one. An element's first field is
// its next pointer, so the address of a head pointer (an anchor) can be walked
// like an element whose next field is the head.
#include <liblocal/list.h>
#include <liblocal/memory.h>

#include <cstdlib>

namespace {

// The next field of an element (or of an anchor).
inline void *&next_of(void *e) { return *static_cast<void **>(e); }

// Appends e (next cleared) to a side list kept as head + tail.
struct SideList {
  void **head;
  void *tail = nullptr;
  explicit SideList(void **out) : head(out) {
    if (head) *head = nullptr;
  }
  void add(void *e) {
    next_of(e) = nullptr;
    if (!head) return;
    if (tail)
      next_of(tail) = e;
    else
      *head = e;
    tail = e;
  }
};

// Takes the element after 'prev' out of its list and returns it.
inline void *unlink_after(void *prev) {
  void *e = next_of(prev);
  next_of(prev) = next_of(e);
  return e;
}

int count_list(void *list) {
  int n = 0;
  for (void *e = list; e && n < 0x7FFFFFFF; e = next_of(e)) ++n;
  return n;
}

struct dnode {
  dnode *next;
  dnode *prev;
};

}  // namespace

extern "C" {

LL_API void list_print(void *context, void *list, list_print_fn fn) noexcept {
  if (!fn) return;
  for (void *e = list; e; e = next_of(e)) fn(context, e);
}

LL_API void list_print_attr(void *context, void *list, void *attribute, list_print_attr_fn fn) noexcept {
  if (!fn) return;
  for (void *e = list; e; e = next_of(e)) fn(context, e, attribute);
}

LL_API void list_free(void *list, list_free_fn fn) noexcept {
  if (!fn) return;
  for (void *e = list; e;) {
    void *n = next_of(e);
    fn(e);
    e = n;
  }
}

LL_API void *list_dup(void *list, list_dup_fn fn) noexcept {
  if (!fn) return nullptr;
  void *head = nullptr;
  void *tail = nullptr;
  for (void *e = list; e; e = next_of(e)) {
    void *copy = fn(e);
    if (!copy) continue;
    if (tail)
      next_of(tail) = copy;
    else
      head = copy;
    tail = copy;
  }
  return head;
}

LL_API int list_addelem(void *element, void **anchor, void **dup, list_cmp_fn cmp) noexcept {
  if (dup) *dup = nullptr;
  if (!element || !anchor || !cmp) return 0;
  next_of(element) = nullptr;
  void *prev = anchor;  // the anchor walks as an element
  for (void *e = *anchor; e; prev = e, e = next_of(e)) {
    int r = cmp(e, element);
    if (r == 0) {
      if (dup) *dup = e;
      return 0;
    }
    if (r > 0) break;
  }
  next_of(element) = next_of(prev);
  next_of(prev) = element;
  return 0;
}

LL_API void list_addlist(void **src, void **dst, void **dups, list_cmp_fn cmp) noexcept {
  SideList out(dups);
  // An empty or missing list on either side leaves both untouched.
  if (!src || !*src || !dst || !*dst || !cmp) return;
  void *cursor = dst;
  while (*src) {
    void *s = *src;
    void *d = next_of(cursor);
    int r = d ? cmp(s, d) : -1;
    if (r > 0) {
      cursor = d;
      continue;
    }
    *src = next_of(s);  // take s off the source
    if (r < 0) {
      next_of(s) = d;
    } else {  // the source element takes d's place; d is handed back
      next_of(s) = next_of(d);
      out.add(d);
    }
    next_of(cursor) = s;
    cursor = s;
  }
}

LL_API void list_remove(void **keys, void **list, void **removed, list_cmp_fn cmp) noexcept {
  SideList out(removed);
  if (!keys || !list || !cmp) return;
  void *cursor = list;
  for (void *k = *keys; k;) {
    void *e = next_of(cursor);
    int r = e ? cmp(k, e) : -1;
    if (r < 0) {
      k = next_of(k);
    } else if (r > 0) {
      cursor = e;
    } else {
      out.add(unlink_after(cursor));
      k = next_of(k);  // one element per key
    }
  }
}

LL_API void list_intersect(void **keys, void **list, void **removed, list_cmp_fn cmp) noexcept {
  SideList out(removed);
  if (!list || !*list || !cmp) return;
  void *k = keys ? *keys : nullptr;
  void *cursor = list;
  while (void *e = next_of(cursor)) {
    int r = k ? cmp(k, e) : 1;  // keys exhausted: everything left goes
    if (r == 0) {
      cursor = e;
      k = next_of(k);
    } else if (r > 0) {
      out.add(unlink_after(cursor));
    } else {
      k = next_of(k);
    }
  }
}

LL_API int list_cmp(void *a, void *b, list_cmp_fn cmp) noexcept {
  for (; a && b; a = next_of(a), b = next_of(b)) {
    int r = cmp ? cmp(a, b) : 0;
    if (r) return r;
  }
  if (!a) return b ? -1 : 0;
  return 1;
}

LL_API int list_subset(void *a, void *b, list_cmp_fn cmp) noexcept {
  if (!a) return 1;
  if (!cmp) return 0;
  for (; b; b = next_of(b)) {
    int r = cmp(a, b);
    if (r < 0) return 0;
    if (r == 0) {
      a = next_of(a);
      if (!a) return 1;
    }
  }
  return a ? 0 : 1;
}

LL_API void list_append(void **head, void *element) noexcept {
  if (!head) return;
  void *last = head;
  while (next_of(last)) last = next_of(last);
  next_of(last) = element;
}

LL_API void *list_sort(void *list, int count, list_cmp_fn cmp) noexcept {
  if (!list) return nullptr;
  if (count <= 0) count = count_list(list);
  if (count == 1 || !cmp) return list;
  auto **v = static_cast<void **>(xmalloc(sizeof(void *) * static_cast<size_t>(count)));
  int n = 0;
  for (void *e = list; e && n < count; ++n) {
    v[n] = e;
    e = next_of(e);
    next_of(v[n]) = nullptr;
  }
  qzqsort(v, static_cast<size_t>(n), sizeof(void *), cmp);
  void *head = nullptr;
  for (int i = n - 1; i >= 0; --i) {
    next_of(v[i]) = head;
    head = v[i];
  }
  std::free(v);
  return head;
}

LL_API void *list_bsearch(void *list, const void *key, int count, list_cmp_fn cmp) noexcept {
  if (!list || !cmp) return nullptr;
  if (count <= 0) count = count_list(list);
  if (count <= 20) {
    int i = 0;
    for (void *e = list; e && i < count; e = next_of(e), ++i) {
      void *slot = e;  // the element given in the form of an array entry
      int r = cmp(&slot, key);
      if (r == 0) return e;
      if (r > 0) return nullptr;  // the key's place has been passed
    }
    return nullptr;
  }
  auto **v = static_cast<void **>(xmalloc(sizeof(void *) * static_cast<size_t>(count)));
  int n = 0;
  for (void *e = list; e && n < count; e = next_of(e)) v[n++] = e;
  auto **hit = static_cast<void **>(std::bsearch(key, v, static_cast<size_t>(n), sizeof(void *), cmp));
  void *found = hit ? *hit : nullptr;
  std::free(v);
  return found;
}

LL_API void qzqsort(void *base, size_t count, size_t size, list_cmp_fn cmp) noexcept {
  if (base && count >= 2 && size && cmp) std::qsort(base, count, size, cmp);
}

LL_API void *local_bsearch(const void *key, const void *base, int count, size_t size, list_cmp_fn cmp) noexcept {
  if (!base || !cmp || count <= 0) return nullptr;
  const char *b = static_cast<const char *>(base);
  int low = 0, high = count - 1;
  while (low <= high) {
    int mid = low + (high - low) / 2;
    const void *at = b + static_cast<size_t>(mid) * size;
    int r = cmp(key, at);
    if (r == 0) return const_cast<void *>(at);
    if (r < 0)
      high = mid - 1;
    else
      low = mid + 1;
  }
  return nullptr;
}

LL_API int local_bsearch_i(const void *key, const void *base, int count, size_t size, list_cmp_fn cmp) noexcept {
  if (!base || !cmp || count <= 0) return 0;
  const char *b = static_cast<const char *>(base);
  int low = 0, high = count - 1, below = 0;
  while (low <= high) {
    int mid = low + (high - low) / 2;
    int r = cmp(key, b + static_cast<size_t>(mid) * size);
    if (r == 0) return mid;
    if (r < 0) {
      high = mid - 1;
      below = mid - 1;
    } else {
      low = mid + 1;
      below = mid;
    }
  }
  return below < 0 ? 0 : below;
}

LL_API void *_dlist_init(void *head) noexcept {
  auto *h = static_cast<dnode *>(head);
  if (h) h->next = h->prev = h;
  return head;
}

LL_API void *_dlist_insert(void *record, void *position) noexcept {
  auto *r = static_cast<dnode *>(record);
  auto *p = static_cast<dnode *>(position);
  if (!r || !p) return record;
  r->prev = p;
  r->next = p->next;
  p->next->prev = r;
  p->next = r;
  return record;
}

LL_API void *_dlist_remove(void *record) noexcept {
  auto *r = static_cast<dnode *>(record);
  if (!r) return record;
  r->prev->next = r->next;
  r->next->prev = r->prev;
  return record;
}

}  // extern "C"
