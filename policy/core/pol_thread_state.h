// SPDX-License-Identifier: Apache-2.0
//
// pol_thread_state.h - the worker thread's state, which the context holds, and its requests.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include "base/tail_queue.h"
#include "policy/pol_yarrow_thread.h"

struct event;
struct event_base;

// One TLOC that a data policy's action forwards to, with the label the remote side takes.
struct t_pol_label_tloc {
  t_tloc_id tloc;
  uint32_t label;
};

// The labels of one sequence, as they are written into the agent's configuration.
struct t_pol_label_set {
  char policy[512];
  char vpn_list[512];
  uint32_t sequence;
  uint32_t vpn_label;
  uint32_t count;
  t_pol_label_tloc tlocs[POL_MAX_TLOC];
};

struct t_pol_thread_queue_item {
  pol::TailLink<t_pol_thread_queue_item> link;
  uint8_t retries;
  uint8_t exit;              // asks the worker to end
  uint32_t type;             // of a fetch: enum pol_xml_type
  char name[POL_NAME_SIZE];  // of a fetch: the object
};

// What stands on the label-set queue, but for requests to end: a request with the labels behind it.
// The others go without, being a twentieth of its size.
struct t_pol_label_item {
  t_pol_thread_queue_item item;  // first: the queue's node
  t_pol_label_set label_set;
};

namespace pol {

enum ThreadQueue : unsigned { QUEUE_LABEL_SET, QUEUE_LABEL_FETCH, QUEUE_FETCH, QUEUES };

// What a queue has seen; atomic, written under its lock or by the worker alone.
struct QueueCounts {
  uint64_t requests;
  uint64_t retries;
  uint64_t dropped;
  uint64_t first_since;  // when the first became first, in ms of the monotonic clock
};

using RequestQueue = TailQueue<t_pol_thread_queue_item, &t_pol_thread_queue_item::link>;

}  // namespace pol

// Invariants
//   1. Each queue is guarded by its lock, which is held only to link or unlink. The lengths beside
//      them may be read without it.
//   2. The worker leaves a request on its queue, first but for exit requests, while it works on it.
//   3. What the label-set queue holds is a t_pol_label_item unless it asks the worker to end.
//   4. Only the worker touches agent_fd, connect_tried, base and wake_up while it runs.
struct t_pol_yarrow_thread {
  pthread_t handle;
  int read_fd;
  int write_fd;
  int agent_fd;  // -1 unless connected
  event_base* base;
  event* wake_up;
  pol::RequestQueue queues[pol::QUEUES];
  pthread_spinlock_t locks[pol::QUEUES];
  uint32_t lengths[pol::QUEUES];  // atomic
  pol::QueueCounts counts[pol::QUEUES];
  sem_t stop;       // posted once the worker is to end: no wait is waited out any more
  t_pol_ctx* ctx;   // whose XML cache is filled; null when there was none
  uint8_t running;  // from a successful start until the join
  uint8_t connect_tried;
};
