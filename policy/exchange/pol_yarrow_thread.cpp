// SPDX-License-Identifier: Apache-2.0
// The worker thread. It waits in an event loop for bytes in a pipe, one for each request; each byte
// read has it work all three queues until they are empty, so that further bytes only find nothing.
//
// Requests to end go to the front of the first queue. The worker looks for one after every request
// and no wait outlasts one: what the host waits for in pol_yarrow_thread_deinit is at most the
// agent's answer to one call. The worker then leaves its loop and returns, and frees the loop on
// the way: no frame of the event library is jumped over.
#include <event2/event.h>
#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "base/pol_dump_title.h"
#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "core/pol_context_internal.h"
#include "exchange/pol_agent_session_internal.h"
#include "exchange/pol_thread_wait.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "policy/pol_dump.h"
#include "yarrow/yarrow_maapi.h"

uint8_t g_pol_yarrow_thread_maapi_connected = 0;

namespace {

constexpr uint8_t kMaxRetries = 4;
constexpr int kExitRequests = 3;

void close_fd(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// On purpose only once in the worker's life: an agent that is not there then is not asked again,
// and every request is dropped after its retries.
void connect_once(t_pol_yarrow_thread* thread) {
  if (thread->connect_tried != 0) return;
  thread->connect_tried = 1;
  int sock = pol::agent_connect(1);
  if (sock >= 0) {
    POL_LOG("Starting user session for yarrow thread\n");
    if (pol::agent_start_session(sock, nullptr, 1)) {
      thread->agent_fd = sock;
    } else {
      maapi_close(sock);
    }
  }
  __atomic_store_n(&g_pol_yarrow_thread_maapi_connected, uint8_t{1}, __ATOMIC_RELAXED);
}

bool lock(t_pol_yarrow_thread* thread, unsigned queue) {
  if (pthread_spin_lock(&thread->locks[queue]) == 0) return true;
  POL_LOG("Lock error on queue %d\n", static_cast<int>(queue));
  return false;
}

void unlock(t_pol_yarrow_thread* thread, unsigned queue) {
  if (pthread_spin_unlock(&thread->locks[queue]) != 0) {
    POL_LOG("Unlock error on queue %d\n", static_cast<int>(queue));
  }
}

// A look aside, of which nothing is logged: whoever works the queue has the same lock to take.
bool told_to_exit(t_pol_yarrow_thread* thread) {
  pthread_spinlock_t* guard = &thread->locks[pol::QUEUE_LABEL_SET];
  if (pthread_spin_lock(guard) != 0) return false;
  const t_pol_thread_queue_item* first = thread->queues[pol::QUEUE_LABEL_SET].front();
  bool exit = first != nullptr && first->exit != 0;
  pthread_spin_unlock(guard);
  return exit;
}

bool work(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  if (queue == pol::QUEUE_LABEL_SET) {
    return pol::label_write(thread, reinterpret_cast<t_pol_label_item*>(item)->label_set);
  }
  if (queue == pol::QUEUE_LABEL_FETCH) POL_LOG("label fetch config processing\n");
  return pol::xml_fetch(thread, item->type, item->name);
}

// Whether the request is done with: worked, or failed for the last time.
bool work_or_drop(t_pol_yarrow_thread* thread, unsigned queue, t_pol_thread_queue_item* item) {
  if (work(thread, queue, item)) return true;
  if (item->retries < kMaxRetries) {
    if (pol_thread_wait(thread, pol::kRetrySeconds)) {
      ++item->retries;
      pol::thread_count(&thread->counts[queue].retries);
    }
    return false;
  }
  pol::thread_count(&thread->counts[queue].dropped);
  POL_LOG("Failed on multiple retries for queue %u\n", queue);
  return true;
}

// Works a queue until it is empty or cannot be locked. False when the worker is to end.
bool work_queue(t_pol_yarrow_thread* thread, unsigned queue) {
  for (;;) {
    if (told_to_exit(thread)) return false;
    if (!lock(thread, queue)) return true;
    t_pol_thread_queue_item* item = thread->queues[queue].front();
    unlock(thread, queue);
    if (item == nullptr) return true;
    if (item->exit != 0) return false;  // it came since the look
    // It stays on the queue meanwhile: the host may ask whether all is done.
    if (!work_or_drop(thread, queue, item)) continue;
    if (!lock(thread, queue)) return true;
    pol::thread_unlink(thread, queue, item);
    unlock(thread, queue);
    pol_free(item, pol::MEM_THREAD_ITEM);
  }
}

void process_queues(evutil_socket_t fd, short /*events*/, void* arg) {
  auto* thread = static_cast<t_pol_yarrow_thread*>(arg);
  char byte = 0;
  if (read(fd, &byte, 1) <= 0) {
    POL_LOG("Failed to read from the pipe\n");
    return;
  }
  if (told_to_exit(thread)) {
    event_base_loopbreak(thread->base);
    return;
  }
  connect_once(thread);
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    if (work_queue(thread, queue)) continue;
    event_base_loopbreak(thread->base);
    return;
  }
}

void free_events(t_pol_yarrow_thread* thread) {
  if (thread->wake_up != nullptr) event_free(thread->wake_up);
  if (thread->base != nullptr) event_base_free(thread->base);
  thread->wake_up = nullptr;
  thread->base = nullptr;
}

void* thread_main(void* arg) {
  auto* thread = static_cast<t_pol_yarrow_thread*>(arg);
  POL_LOG("Policy yarrow thread - waiting for events\n");
  event_base_dispatch(thread->base);
  free_events(thread);
  if (thread->agent_fd >= 0) maapi_close(thread->agent_fd);
  thread->agent_fd = -1;
  return nullptr;
}

// All that the thread has but the events; for a thread that does not run.
void release(t_pol_yarrow_thread* thread) {
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    while (t_pol_thread_queue_item* item = thread->queues[queue].front()) {
      pol::thread_unlink(thread, queue, item);
      pol_free(item, pol::MEM_THREAD_ITEM);
    }
    int error = pthread_spin_destroy(&thread->locks[queue]);
    if (error != 0) {
      POL_LOG("Failed to destroy spinlock for queue %d (error %d)\n", static_cast<int>(queue),
              error);
    }
  }
  sem_destroy(&thread->stop);
  close_fd(&thread->read_fd);
  close_fd(&thread->write_fd);
}

uint32_t init_locks(t_pol_yarrow_thread* thread) {
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    int error = pthread_spin_init(&thread->locks[queue], PTHREAD_PROCESS_PRIVATE);
    if (error == 0) continue;
    POL_LOG("Failed to init spinlock for queue %d (error %d)\n", static_cast<int>(queue), error);
    while (queue > 0) pthread_spin_destroy(&thread->locks[--queue]);
    return POL_ESPINLOCK;
  }
  return POL_OK;
}

uint32_t init_pipe(t_pol_yarrow_thread* thread) {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) {
    POL_LOG("Failed to setup pipe\n");
    return POL_EPIPE;
  }
  thread->read_fd = ends[0];
  thread->write_fd = ends[1];
  if (fcntl(ends[0], F_SETFD, FD_CLOEXEC) < 0 || fcntl(ends[1], F_SETFD, FD_CLOEXEC) < 0) {
    POL_LOG("Failed to set fd flags\n");
    return POL_EPIPE;
  }
  return POL_OK;
}

uint32_t init_events(t_pol_yarrow_thread* thread) {
  thread->base = event_base_new();
  if (thread->base == nullptr) {
    POL_LOG("Failed to malloc thread event base\n");
    return POL_EEVENT;
  }
  thread->wake_up =
      event_new(thread->base, thread->read_fd, EV_READ | EV_PERSIST, process_queues, thread);
  if (thread->wake_up == nullptr) {
    POL_LOG("Failed to create event for thread\n");
    return POL_EEVENT;
  }
  if (event_add(thread->wake_up, nullptr) != 0) {
    POL_LOG("Failed to add event for thread\n");
    return POL_EEVENT;
  }
  return POL_OK;
}

// The host's signals stay with the host's threads, but not those of the worker's own faults:
// blocked, they would end the process past every handler that the host has for them.
void start(t_pol_yarrow_thread* thread) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  int error = pthread_create(&thread->handle, nullptr, thread_main, thread);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  assert(error == 0);
  pthread_setname_np(thread->handle, "pol-yarrow");
  thread->running = 1;
}

uint32_t push_exit(t_pol_yarrow_thread* thread) {
  auto* item = pol::alloc<t_pol_thread_queue_item>(pol::MEM_THREAD_ITEM);
  if (item == nullptr) {
    POL_LOG("Failed to alloc memory for thread queue item\n");
    return POL_ENOMEM;
  }
  item->exit = 1;
  if (pthread_spin_lock(&thread->locks[pol::QUEUE_LABEL_SET]) != 0) {
    POL_LOG("Lock error on queue\n");
    pol_free(item, pol::MEM_THREAD_ITEM);
    return POL_ELOCK;
  }
  pol::thread_link_first(thread, pol::QUEUE_LABEL_SET, item);
  if (pthread_spin_unlock(&thread->locks[pol::QUEUE_LABEL_SET]) != 0) {
    POL_LOG("Unlock error on queue\n");
    return POL_ELOCK;
  }
  return POL_OK;
}

}  // namespace

uint32_t pol_yarrow_thread_init(t_pol_yarrow_thread* thread) {
  if (thread == nullptr) return POL_EINVAL;
  *thread = {};
  thread->read_fd = -1;
  thread->write_fd = -1;
  thread->agent_fd = -1;
  thread->ctx = g_pol_ctx_p;
  uint32_t status = init_locks(thread);
  if (status != POL_OK) return status;
  sem_init(&thread->stop, 0, 0);
  status = init_pipe(thread);
  if (status == POL_OK) status = init_events(thread);
  if (status != POL_OK) {
    free_events(thread);
    release(thread);
    return status;
  }
  start(thread);
  return POL_OK;
}

uint32_t pol_yarrow_thread_deinit(t_pol_yarrow_thread* thread) {
  if (thread == nullptr || thread->running == 0) return POL_OK;
  for (int i = 0; i < kExitRequests; ++i) {
    uint32_t status = push_exit(thread);
    if (status != POL_OK) return status;
  }
  sem_post(&thread->stop);
  if (!pol::thread_wake(thread)) {
    POL_LOG("Write Error on pipe (errno: %d)\n", errno);
    return POL_EPIPE;
  }
  pthread_join(thread->handle, nullptr);
  thread->running = 0;
  release(thread);
  return POL_OK;
}

int pol_dump_yarrow_thread(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                           char** /*argv*/) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr) return 0;
  pol::dump_title(cli, "\n              Yarrow Thread    ");
  maapi_cli_printf(cli, "\n");
  // On purpose under the cache's lock and without the queues': a dump never holds up a producer.
  int error = pol::xml_lock(ctx);
  if (error != 0) {
    maapi_cli_printf(cli, "Lock error on xml config tree (error:%d)", error);
    return 0;
  }
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    maapi_cli_printf(cli, "Thread Idx:%u, Empty: %u\n", queue,
                     pol::thread_queue_seems_empty(&ctx->thread, queue) ? 1U : 0U);
  }
  error = pthread_spin_unlock(&ctx->xml_lock);
  if (error != 0) maapi_cli_printf(cli, "Unlock error on xml config tree (error:%d)", error);
  return 0;
}
