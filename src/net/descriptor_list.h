// The descriptors that one select thread watches. The list is bounded so that
// the descriptor sets handed to select stay small; what doesn't fit is left
// out and not served.
#pragma once

#include <sys/select.h>

#include <cstdint>

constexpr uint32_t kTRPDescriptorListMax = 64;

struct TRPDescriptorList {
  int fds[kTRPDescriptorListMax];
  uint32_t count = 0;
  int lowest = -1;
  int highest = -1;
};

// True when `fd` is in the list afterwards and wasn't before. A full list, or
// a descriptor that select cannot take, leaves the list unchanged.
bool TRPDescriptorListAdd(TRPDescriptorList *list, int fd);
bool TRPDescriptorListRemove(TRPDescriptorList *list, int fd);
bool TRPDescriptorListContains(const TRPDescriptorList *list, int fd);
// Puts every listed descriptor into `set`.
void TRPDescriptorListFill(const TRPDescriptorList *list, fd_set *set);
