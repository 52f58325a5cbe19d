// SPDX-License-Identifier: Apache-2.0
#include "ordered_work.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace polctl {

OrderedWork::OrderedWork(unsigned threads)
    : threads_(threads != 0 ? threads : std::max(1u, std::thread::hardware_concurrency())) {}

OrderedWork::~OrderedWork() {
  {
    std::lock_guard lock(mutex_);
    over_ = true;
  }
  given_.notify_all();
  for (std::thread& helper : helpers_) helper.join();
}

void OrderedWork::give(std::unique_ptr<Job> job) {
  // The first one is the caller's own: little work needs no other thread.
  if (!slots_.empty() && helpers_.size() + 1 < threads_) {
    try {
      helpers_.emplace_back([this] { help(); });
    } catch (const std::system_error&) {
      threads_ = helpers_.size() + 1;
    }
  }
  auto slot = std::make_unique<Slot>();
  slot->job = std::move(job);
  {
    std::lock_guard lock(mutex_);
    slots_.push_back(std::move(slot));
  }
  given_.notify_one();
}

std::unique_ptr<OrderedWork::Job> OrderedWork::take() {
  std::unique_lock lock(mutex_);
  Slot& first = *slots_.front();
  if (first.state == State::kGiven) {
    first.state = State::kBegun;
    lock.unlock();
    first.job->run();
    lock.lock();
  } else {
    done_.wait(lock, [&first] { return first.state == State::kDone; });
  }
  std::unique_ptr<Job> job = std::move(first.job);
  slots_.pop_front();
  return job;
}

void OrderedWork::help() {
  std::unique_lock lock(mutex_);
  for (;;) {
    auto next = std::find_if(slots_.begin(), slots_.end(),
                             [](const auto& slot) { return slot->state == State::kGiven; });
    if (over_) return;
    if (next == slots_.end()) {
      given_.wait(lock);
      continue;
    }
    Slot& slot = **next;  // stays where it is while others come and go
    slot.state = State::kBegun;
    lock.unlock();
    slot.job->run();
    lock.lock();
    slot.state = State::kDone;
    done_.notify_one();
  }
}

}  // namespace polctl
