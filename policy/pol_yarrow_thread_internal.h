// SPDX-License-Identifier: Apache-2.0
//
// pol_yarrow_thread_internal.h - the worker thread's state and its requests.
#pragma once

#include <pthread.h>

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
  uint8_t exit;               // asks the worker to end
  uint32_t type;              // of a fetch: enum pol_xml_type
  char name[POL_NAME_SIZE];   // of a fetch: the object
  t_pol_label_set label_set;  // of a label set
};

namespace pol {

enum ThreadQueue : unsigned { QUEUE_LABEL_SET, QUEUE_LABEL_FETCH, QUEUE_FETCH, QUEUES };

using RequestQueue = TailQueue<t_pol_thread_queue_item, &t_pol_thread_queue_item::link>;

}  // namespace pol

// Each queue and the request at its head are guarded by the queue's lock; the worker leaves a
// request on its queue while it works on it.
struct t_pol_yarrow_thread {
  pthread_t handle;
  int read_fd;
  int write_fd;
  int agent_fd;  // -1 unless connected
  event_base* base;
  event* wake_up;
  pol::RequestQueue queues[pol::QUEUES];
  pthread_spinlock_t locks[pol::QUEUES];
};

namespace pol {

// Appends a request, which the worker owns from now on, and wakes the worker. When the queue cannot
// be locked the request is freed. Failures are logged.
void thread_push(t_pol_yarrow_thread* thread, ThreadQueue queue, t_pol_thread_queue_item* item);

// Asks for the agent's text of an object. Failures are logged.
void thread_push_fetch(t_pol_yarrow_thread* thread, ThreadQueue queue, uint32_t type,
                       const char* name);

// Whether a queue holds no request; a queue that cannot be locked counts as not empty.
bool thread_queue_empty(t_pol_yarrow_thread* thread, ThreadQueue queue);

}  // namespace pol
