// SPDX-License-Identifier: Apache-2.0
// In a file of its own, so that a program that cannot spare the seconds puts another wait in its
// place at the link.
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "core/pol_thread_state.h"
#include "exchange/pol_thread_wait.h"

bool pol_thread_wait(t_pol_yarrow_thread* thread, unsigned seconds) {
  if (thread == nullptr) {
    while (seconds > 0) seconds = sleep(seconds);
    return true;
  }
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += seconds;
  int status = 0;
  do {
    status = sem_clockwait(&thread->stop, CLOCK_MONOTONIC, &end);
  } while (status != 0 && errno == EINTR);
  if (status != 0) return true;
  sem_post(&thread->stop);  // the thread stays told to stop, whoever waits next
  return false;
}
