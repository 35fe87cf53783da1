// A plain doubly linked list of blocks, for queues that one thread owns.
// Nothing here locks.
#pragma once

#include <cstdint>

struct VLList {
  void *data;
  uint64_t size;
  VLList *next;
  VLList *prev;
};

// Adds a node at the end. Returns the head, which is the new node when `head`
// is null (the empty list). Walks the list: cost grows with its length.
VLList *VLListAppend(VLList *head, void *data, uint64_t size);

// Frees `node` and every node after it, calling `destructor(data, size)` for
// each first when one is given.
void VLListDestroy(VLList *node, void (*destructor)(void *data, uint64_t size));
