// SPDX-License-Identifier: Apache-2.0
// The host's side of the worker's queues. The worker is woken by one byte in a pipe for each
// request; a queue's lock is held only while a request is linked.
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "exchange/pol_yarrow_thread_internal.h"

namespace pol {

void thread_link_first(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  thread->queues[queue].insert_after(nullptr, item);
  __atomic_add_fetch(&thread->lengths[queue], 1, __ATOMIC_RELAXED);
}

void thread_unlink(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  thread->queues[queue].remove(item);
  __atomic_sub_fetch(&thread->lengths[queue], 1, __ATOMIC_RELAXED);
}

// Linux says that a pipe takes more only while a whole page of it is free: room for the bytes of all
// who were told so at once, so that no write waits for a worker that may never read again.
bool thread_wake(const t_pol_yarrow_thread* thread) {
  pollfd end = {thread->write_fd, POLLOUT, 0};
  return poll(&end, 1, 0) == 0 || write(thread->write_fd, "1", 1) == 1;
}

void thread_push(t_pol_yarrow_thread* thread, ThreadQueue queue, t_pol_thread_queue_item* item) {
  // On purpose: every queue's messages name the label-set queue.
  if (pthread_spin_lock(&thread->locks[queue]) != 0) {
    POL_LOG("Lock error on label-set queue\n");
    pol_free(item, MEM_THREAD_ITEM);
    return;
  }
  thread->queues[queue].push_back(item);
  __atomic_add_fetch(&thread->lengths[queue], 1, __ATOMIC_RELAXED);
  if (pthread_spin_unlock(&thread->locks[queue]) != 0) {
    POL_LOG("Unlock error on label-set queue\n");
  }
  if (!thread_wake(thread)) POL_LOG("Write Error on pipe (errno: %d)\n", errno);
}

void thread_push_labels(t_pol_yarrow_thread* thread, const t_pol_label_set& labels) {
  auto* request = alloc<t_pol_label_item>(MEM_THREAD_ITEM);
  if (request == nullptr) {
    POL_LOG("Failed to alloc memory for thread queue item\n");
    return;
  }
  request->label_set = labels;
  thread_push(thread, QUEUE_LABEL_SET, &request->item);
}

void thread_push_fetch(t_pol_yarrow_thread* thread, ThreadQueue queue, uint32_t type,
                       const char* name) {
  POL_LOG("Queue fetch xml config for %s of type %u\n", name, type);
  auto* item = alloc<t_pol_thread_queue_item>(MEM_THREAD_ITEM);
  if (item == nullptr) {
    POL_LOG("Failed to alloc memory for thread queue item\n");
    return;
  }
  item->type = type;
  copy_name(item->name, name);
  thread_push(thread, queue, item);
}

bool thread_queue_empty(t_pol_yarrow_thread* thread, ThreadQueue queue) {
  if (pthread_spin_lock(&thread->locks[queue]) != 0) {
    POL_LOG("Lock error on queue %d\n", static_cast<int>(queue));
    return false;
  }
  bool empty = thread->queues[queue].empty();
  if (pthread_spin_unlock(&thread->locks[queue]) == 0) return empty;
  POL_LOG("Unlock error on queue %d\n", static_cast<int>(queue));
  return false;
}

}  // namespace pol
