// SPDX-License-Identifier: Apache-2.0
// The host's side of the worker's queues. The worker is woken by one byte in a pipe for each
// request; a queue's lock is held only while a request is linked.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_context_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"

namespace pol {

namespace {

uint64_t now_ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// REQUIRES: the caller holds the queue's lock.
void note_first(t_pol_yarrow_thread* thread, unsigned queue) {
  __atomic_store_n(&thread->counts[queue].first_since, now_ms(), __ATOMIC_RELAXED);
}

}  // namespace

void thread_link_first(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  thread->queues[queue].insert_after(nullptr, item);
  __atomic_add_fetch(&thread->lengths[queue], 1, __ATOMIC_RELAXED);
}

void thread_unlink(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  thread->queues[queue].remove(item);
  __atomic_sub_fetch(&thread->lengths[queue], 1, __ATOMIC_RELAXED);
  note_first(thread, queue);
}

void thread_count(uint64_t* count) { __atomic_add_fetch(count, 1, __ATOMIC_RELAXED); }

// Linux says that a pipe takes more only while a whole page of it is free: room for the bytes of
// all who were told so at once, so that no write waits for a worker that may never read again.
bool thread_wake(const t_pol_yarrow_thread* thread) {
  pollfd end = {thread->write_fd, POLLOUT, 0};
  int ready = -1;
  do {
    ready = poll(&end, 1, 0);  // a signal ends it even so, and says nothing of the pipe
  } while (ready < 0 && errno == EINTR);
  return ready == 0 || write(thread->write_fd, "1", 1) == 1;
}

void thread_push(t_pol_yarrow_thread* thread, ThreadQueue queue, t_pol_thread_queue_item* item) {
  // On purpose: every queue's messages name the label-set queue.
  if (pthread_spin_lock(&thread->locks[queue]) != 0) {
    POL_LOG("Lock error on label-set queue\n");
    pol_free(item, MEM_THREAD_ITEM);
    return;
  }
  if (thread->queues[queue].empty()) note_first(thread, queue);
  thread->queues[queue].push_back(item);
  thread_count(&thread->counts[queue].requests);
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

uint32_t pol_yarrow_thread_queues(t_pol_ctx* ctx, t_pol_worker_queue* queues) {
  if (queues == nullptr) return POL_EINVAL;
  if (ctx == nullptr) return POL_ENOCTX;
  static_assert(POL_WORKER_QUEUES == pol::QUEUES);
  const t_pol_yarrow_thread& thread = ctx->thread;
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    const pol::QueueCounts& counts = thread.counts[queue];
    t_pol_worker_queue& told = queues[queue];
    told.waiting = __atomic_load_n(&thread.lengths[queue], __ATOMIC_RELAXED);
    told.requests = __atomic_load_n(&counts.requests, __ATOMIC_RELAXED);
    told.retries = __atomic_load_n(&counts.retries, __ATOMIC_RELAXED);
    told.dropped = __atomic_load_n(&counts.dropped, __ATOMIC_RELAXED);
    uint64_t since = __atomic_load_n(&counts.first_since, __ATOMIC_RELAXED);
    uint64_t now = pol::now_ms();
    told.first_ms = told.waiting > 0 && now > since ? now - since : 0;
  }
  return POL_OK;
}
