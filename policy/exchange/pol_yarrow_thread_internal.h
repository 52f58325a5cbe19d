// SPDX-License-Identifier: Apache-2.0
//
// pol_yarrow_thread_internal.h - requests to the worker thread, and its work.
#pragma once

#include "core/pol_thread_state.h"

namespace pol {

// Wakes the worker; never waits for it. A full pipe wakes it as well. False, with errno, when the
// pipe cannot be written.
[[nodiscard]] bool thread_wake(const t_pol_yarrow_thread* thread);

// Appends a request, which the worker owns from now on, and wakes the worker. When the queue cannot
// be locked the request is freed. Failures are logged.
void thread_push(t_pol_yarrow_thread* thread, ThreadQueue queue, t_pol_thread_queue_item* item);

// Asks for labels to be written into the agent's configuration. Failures are logged.
void thread_push_labels(t_pol_yarrow_thread* thread, const t_pol_label_set& labels);

// Asks for the agent's text of an object. Failures are logged.
void thread_push_fetch(t_pol_yarrow_thread* thread, ThreadQueue queue, uint32_t type,
                       const char* name);

// Whether a queue holds no request; a queue that cannot be locked counts as not empty.
bool thread_queue_empty(t_pol_yarrow_thread* thread, ThreadQueue queue);

// The same read without the queue's lock, true of some moment only.
inline bool thread_queue_seems_empty(const t_pol_yarrow_thread* thread, unsigned queue) {
  return __atomic_load_n(&thread->lengths[queue], __ATOMIC_RELAXED) == 0;
}

// The worker's side. REQUIRES: the caller holds the queue's lock.
void thread_link_first(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item);
void thread_unlink(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item);

// One more of what QueueCounts counts.
void thread_count(uint64_t* count);

// The agent's work for one request. False for one that is to be tried again.
[[nodiscard]] bool label_write(t_pol_yarrow_thread* thread, const t_pol_label_set& labels);
[[nodiscard]] bool xml_fetch(t_pol_yarrow_thread* thread, uint32_t type, const char* name);

}  // namespace pol
