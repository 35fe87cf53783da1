#include "net/descriptor_list.h"

#include <algorithm>

namespace {

void RecomputeBounds(TRPDescriptorList *list) {
  list->lowest = -1;
  list->highest = -1;
  for (uint32_t i = 0; i < list->count; i++) {
    if (list->lowest < 0 || list->fds[i] < list->lowest) list->lowest = list->fds[i];
    list->highest = std::max(list->highest, list->fds[i]);
  }
}

}  // namespace

bool TRPDescriptorListContains(const TRPDescriptorList *list, int fd) {
  return std::find(list->fds, list->fds + list->count, fd) != list->fds + list->count;
}

bool TRPDescriptorListAdd(TRPDescriptorList *list, int fd) {
  if (fd < 0 || fd >= FD_SETSIZE || list->count >= kTRPDescriptorListMax) return false;
  if (TRPDescriptorListContains(list, fd)) return false;
  list->fds[list->count++] = fd;
  RecomputeBounds(list);
  return true;
}

bool TRPDescriptorListRemove(TRPDescriptorList *list, int fd) {
  int *end = list->fds + list->count;
  int *found = std::find(list->fds, end, fd);
  if (found == end) return false;
  std::copy(found + 1, end, found);
  list->count--;
  RecomputeBounds(list);
  return true;
}

void TRPDescriptorListFill(const TRPDescriptorList *list, fd_set *set) {
  for (uint32_t i = 0; i < list->count; i++) FD_SET(list->fds[i], set);
}
