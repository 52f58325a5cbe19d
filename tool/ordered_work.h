/* SPDX-License-Identifier: Apache-2.0
 *
 * ordered_work.h - work that is done on several threads and taken in the order in which it was given.
 */
#ifndef TOOL_ORDERED_WORK_H
#define TOOL_ORDERED_WORK_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace polctl {

class OrderedWork {
 public:
  struct Job {
    virtual ~Job() = default;
    virtual void run() noexcept = 0;
  };

  /* On `threads` threads with the caller's, which works while it waits; 0: one a processor. Others are
   * started when there is work for them, as far as the system has any. */
  explicit OrderedWork(unsigned threads);
  ~OrderedWork();
  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;

  void give(std::unique_ptr<Job> job);
  /* The oldest job that was not taken yet, done. REQUIRES: there is one. */
  std::unique_ptr<Job> take();

  bool empty() const { return slots_.empty(); }
  /* Whether there is enough to keep all threads busy. */
  bool full() const { return slots_.size() >= 2 * threads_; }

 private:
  enum class State { kGiven, kBegun, kDone };
  struct Slot {
    std::unique_ptr<Job> job;
    State state = State::kGiven;
  };

  void help();

  size_t threads_;
  std::vector<std::thread> helpers_;
  std::mutex mutex_; /* of what follows; slots come and go by the caller's thread alone */
  std::condition_variable given_;
  std::condition_variable done_;
  std::deque<std::unique_ptr<Slot>> slots_;
  bool over_ = false;
};

}  // namespace polctl

#endif
