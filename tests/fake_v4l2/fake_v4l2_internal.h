/* Internals shared by the fake nodes and the interposed C functions. */
#pragma once

#include <sys/types.h>

#include <memory>

#include "fake_v4l2.h"

namespace marlo_fake::detail {

/* The C library's own functions, found with dlsym(RTLD_NEXT). */
int RealOpenat(int dirfd, const char* path, int flags, mode_t mode);
int RealClose(int fd);
int RealIoctl(int fd, unsigned long request, void* arg);
void* RealMmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
int RealMunmap(void* addr, size_t length);

/* Registry lookups used by the interposers. */
std::shared_ptr<FakeNode> NodeForPath(const char* path);
void BindFd(int fd, std::shared_ptr<FakeNode> node);
std::shared_ptr<FakeNode> UnbindFd(int fd);
void BindMapping(void* addr, std::weak_ptr<FakeVideoNode> node);
std::shared_ptr<FakeVideoNode> UnbindMapping(void* addr);

/* Forces the interposers into every executable that links the fake kernel. */
void InterposerAnchor();

}  // namespace marlo_fake::detail
