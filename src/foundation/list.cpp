#include "foundation/list.h"

#include <cstdlib>

VLList *VLListAppend(VLList *head, void *data, uint64_t size) {
  auto *node = static_cast<VLList *>(calloc(1, sizeof(VLList)));
  node->data = data;
  node->size = size;
  if (!head) return node;
  VLList *last = head;
  while (last->next) last = last->next;
  last->next = node;
  node->prev = last;
  return head;
}

void VLListDestroy(VLList *node, void (*destructor)(void *data, uint64_t size)) {
  while (node) {
    VLList *next = node->next;
    if (destructor) destructor(node->data, node->size);
    *node = VLList{};
    free(node);
    node = next;
  }
}
