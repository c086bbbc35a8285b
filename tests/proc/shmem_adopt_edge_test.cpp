// A shared-memory object found under the library's name before it creates
// one is hostile until proven otherwise: it is used again only when it is a
// plain object of the caller's, writable by nobody else, with no other
// name. POSIX: the objects are files under /dev/shm.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <liblocal.h>

#include "lltest.h"

namespace {

constexpr unsigned kSize = 8192;

unsigned key(unsigned n) { return (static_cast<unsigned>(getpid()) & 0xFFFFFu) * 64 + 40 + n; }
std::string object(unsigned k) { return "/Global\\qztsm" + std::to_string(k); }

TEST(ShmemAdoptEdge, OnlyAPlainPrivateObjectOfOursIsUsedAgain) {
  if (geteuid() != 0) GTEST_SKIP() << "giving an object to another user needs root";
  enum Plant { kWorldWritable, kGroupWritable, kOtherOwner, kTwoNames, kFifo, kSmallOwnerOnly };
  struct Case {
    Plant plant;
    bool adopted;
  } cases[] = {
      {kWorldWritable, false}, {kGroupWritable, false}, {kOtherOwner, false},
      {kTwoNames, false},      {kFifo, false},          {kSmallOwnerOnly, true},
  };
  unsigned n = 0;
  for (const auto &c : cases) {
    const unsigned k = key(n++);
    const std::string name = object(k);
    const std::string file = "/dev/shm" + name;
    const std::string link = file + ".second";
    ::unlink(file.c_str());
    ::unlink(link.c_str());
    if (c.plant == kFifo) {
      ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    } else {
      const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
      ASSERT_GE(fd, 0) << name;
      ASSERT_EQ(ftruncate(fd, 16), 0);
      ASSERT_EQ(write(fd, "planted", 7), 7);
      int rc = 0;
      if (c.plant == kWorldWritable) rc = fchmod(fd, 0602);
      if (c.plant == kGroupWritable) rc = fchmod(fd, 0620);
      if (c.plant == kOtherOwner) rc = fchown(fd, 65534, 65534);
      if (c.plant == kTwoNames) rc = ::link(file.c_str(), link.c_str());
      ASSERT_EQ(rc, 0) << c.plant;
      ::close(fd);
    }
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);

    shmem_obj *o = nullptr;
    qzerror *e = shmem_create(k, kSize, 0, SHMEM_NT, &o);
    EXPECT_EQ(e == nullptr, c.adopted) << c.plant;
    if (o) {
      // Adopted: owner-only, grown to the size asked, cleared.
      struct stat st {};
      ASSERT_EQ(::stat(file.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0600u);
      EXPECT_GE(st.st_size, static_cast<off_t>(kSize));
      const auto *p = static_cast<const unsigned char *>(o->base);
      EXPECT_EQ(p[0] | p[6] | p[kSize - 1], 0);
      o->ops->release(&o);
    } else {
      ASSERT_NE(e, nullptr);
      EXPECT_EQ(e->code % 1000, EIO) << e->code;
      // Refused: left exactly as it was found.
      struct stat st {};
      ASSERT_EQ(::stat(file.c_str(), &st), 0) << c.plant;
      EXPECT_EQ(st.st_mode, before.st_mode) << c.plant;
      EXPECT_EQ(st.st_uid, before.st_uid) << c.plant;
      EXPECT_EQ(st.st_size, before.st_size) << c.plant;
    }
    ::unlink(file.c_str());
    ::unlink(link.c_str());
  }
}

}  // namespace
#endif
