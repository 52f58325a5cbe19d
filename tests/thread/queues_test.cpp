// SPDX-License-Identifier: Apache-2.0
// The worker, its queues, its start and its end.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <thread>

#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "scripted.h"
#include "support/golden.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

using std::chrono::steady_clock;

class QueuesTest : public PolicyTest {
 protected:
  // A worker of this test's alone, that has not tried to connect.
  void SetUp() override {
    scripted::reset();
    seams::log_of_all_threads(true);
    seams::take_log();
    PolicyTest::SetUp();
    descriptors_ = scripted::descriptors();
    scripted::state()->stream = "<vpn-list></vpn-list></lists>";
    pol_debug_set(1);
  }

  void TearDown() override {
    PolicyTest::TearDown();
    seams::log_of_all_threads(false);
    EXPECT_EQ(scripted::state()->open, 0);
    EXPECT_EQ(scripted::state()->bad_closes, 0);
    scripted::reset();
    seams::take_log();
  }

  void push(pol::ThreadQueue queue, uint32_t type = POL_XML_VPN_LIST) {
    if (queue != pol::QUEUE_LABEL_SET) {
      return pol::thread_push_fetch(&ctx->thread, queue, type, "v");
    }
    pol::thread_push_labels(&ctx->thread, {});
  }

  void wait_until_idle() {
    for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
      while (!pol::thread_queue_empty(&ctx->thread, static_cast<pol::ThreadQueue>(queue))) {
        std::this_thread::yield();
      }
    }
    // The worker takes a request off its queue before it frees it.
    for (int i = 0; i < 20'000 && current(pol::MEM_THREAD_ITEM) != 0; ++i) usleep(100);
  }

  // The worker stays in the midst of a fetch.
  void hold_worker(pol::ThreadQueue queue = pol::QUEUE_FETCH) {
    scripted::hold("maapi_save_config");
    push(queue);
    scripted::wait_until_held();
  }

  // Lets the worker go when its exit is asked for on the last queue, which is `length` long then.
  void destroy_held_worker(uint32_t length) {
    const uint32_t* now = &ctx->thread.lengths[pol::QUEUE_LABEL_SET];
    std::thread destroyer(pol_destroy);
    while (__atomic_load_n(now, __ATOMIC_RELAXED) < length) std::this_thread::yield();
    scripted::release();
    destroyer.join();
    EXPECT_EQ(attempts(), 1);
  }

  // What the worker started, by its transactions.
  static int attempts() { return scripted::calls("maapi_start_trans_flags2"); }

  std::string dumped() {
    return printed([](t_cli_user_ctx* cli) { pol_dump_yarrow_thread(cli, 0, 0, nullptr); });
  }

  int descriptors_ = 0;
};

TEST_F(QueuesTest, AFailingRequestIsTriedFiveTimesOnEachQueue) {
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
    for (int failures : {0, 1, 4, 5}) {
      SCOPED_TRACE(std::to_string(queue) + " fails " + std::to_string(failures));
      int before = attempts();
      int waited = scripted::state()->waits;
      t_pol_worker_queue was[POL_WORKER_QUEUES];
      t_pol_worker_queue now[POL_WORKER_QUEUES];
      pol_yarrow_thread_queues(ctx, was);
      seams::take_log();
      scripted::fail_call("maapi_start_trans_flags2", 0, failures);
      push(static_cast<pol::ThreadQueue>(queue));
      wait_until_idle();
      EXPECT_EQ(attempts() - before, std::min(failures + 1, 5));
      EXPECT_EQ(scripted::state()->waits - waited, std::min(failures, 4));
      pol_yarrow_thread_queues(ctx, now);
      EXPECT_EQ(now[queue].requests - was[queue].requests, 1U);
      EXPECT_EQ(now[queue].retries - was[queue].retries, std::min(failures, 4));
      EXPECT_EQ(now[queue].dropped - was[queue].dropped, failures == 5 ? 1U : 0U);
      EXPECT_EQ(now[queue].waiting + now[queue].first_ms, 0U);
      std::string log = seams::take_log();
      EXPECT_EQ(scripted::occurrences(log, "[POL] Failed on multiple retries for queue " +
                                               std::to_string(queue) + "\n"),
                failures == 5 ? 1 : 0);
      EXPECT_EQ(scripted::occurrences(log, "label fetch config processing\n"),
                queue == pol::QUEUE_LABEL_FETCH ? std::min(failures + 1, 5) : 0);
    }
  }
  EXPECT_EQ(current(pol::MEM_THREAD_ITEM), 0U);
}

TEST_F(QueuesTest, TheAgentIsConnectedAtTheFirstRequestOnceAndForAll) {
  struct {
    const char* failing;
    const char* message;
    int attempts;
  } rows[] = {
      {"none", "Starting user session for yarrow thread\n", 1},
      {"socket", "Failed to do get new socket (-1)\n", 5},
      {"maapi_connect", "Failed to do maapi_connect (-1)yarrow_str error 7 (7) as scripted\n", 5},
      {"maapi_start_user_session3",
       "Failed to start a user sessionyarrow_str error 7 (7) as scripted\n", 5},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.failing);
    scripted::fail_call(row.failing, 0, 1);
    seams::take_log();
    int before = attempts();
    int connects = scripted::calls("maapi_connect");
    for (int i = 0; i < 2; ++i) {
      push(pol::QUEUE_FETCH);
      wait_until_idle();
    }
    std::string log = seams::take_log();
    EXPECT_EQ(scripted::occurrences(log, row.message), 1) << log;
    EXPECT_EQ(attempts() - before, 2 * row.attempts) << "every request fails without an agent";
    EXPECT_EQ(scripted::calls("maapi_connect") - connects,
              row.failing == std::string("socket") ? 0 : 1);
    EXPECT_EQ(g_pol_yarrow_thread_maapi_connected, 1);
    pol_destroy();
    init();
  }
  EXPECT_EQ(scripted::descriptors(), descriptors_);
}

TEST_F(QueuesTest, ARequestIsOnItsQueueWhileItIsWorkedOn) {
  hold_worker(pol::QUEUE_LABEL_FETCH);
  EXPECT_FALSE(pol::thread_queue_empty(&ctx->thread, pol::QUEUE_LABEL_FETCH));
  EXPECT_NE(dumped().find("Yarrow Thread    \n   ================================\n"
                          "Thread Idx:0, Empty: 1\nThread Idx:1, Empty: 0\n"
                          "Thread Idx:2, Empty: 1\n"),
            std::string::npos)
      << dumped();
  scripted::release();
  wait_until_idle();
  EXPECT_NE(dumped().find("Idx:1, Empty: 1\n"), std::string::npos);
  scripted::fail_call("pthread_spin_lock", 0, 1);
  EXPECT_NE(dumped().find("Lock error on xml config tree (error:35)"), std::string::npos);
  scripted::fail_call("pthread_spin_unlock", 0, 1);
  EXPECT_NE(dumped().find("2, Empty: 1\nUnlock error on xml config tree (error:1)"),
            std::string::npos);
}

TEST_F(QueuesTest, AnExitOvertakesWhatIsPending) {
  hold_worker();
  for (int i = 0; i < 5; ++i) {
    for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
      push(static_cast<pol::ThreadQueue>(queue));
    }
  }
  destroy_held_worker(8);
  EXPECT_EQ(current(pol::MEM_THREAD_ITEM), 0U);
  init();
}

// Wherever in its round the worker is when it comes.
TEST_F(QueuesTest, AnExitIsTakenForNoRequest) {
  for (int look = 0; look < 10; ++look) {
    scripted::hold("pthread_spin_unlock", look);
    push(pol::QUEUE_FETCH);
    scripted::wait_until_held();
    std::thread destroyer(pol_destroy);
    while (__atomic_load_n(&ctx->thread.lengths[pol::QUEUE_LABEL_SET], __ATOMIC_RELAXED) < 3) {
      std::this_thread::yield();
    }
    scripted::release();
    destroyer.join();
    EXPECT_EQ(scripted::calls("maapi_set_elem"), 0) << "at look " << look;
    init();
  }
}

TEST_F(QueuesTest, AnExitEndsEveryWaitAtOnce) {
  struct {
    pol::ThreadQueue queue;
    const char* failing;
    bool locked;
  } rows[] = {
      {pol::QUEUE_FETCH, "maapi_save_config", false},
      {pol::QUEUE_LABEL_SET, "maapi_set_elem", false},
      {pol::QUEUE_LABEL_SET, "none", true},
  };
  for (const auto& row : rows) {
    int waited = scripted::state()->waits;
    scripted::state()->real_waits = true;
    scripted::fail_call(row.failing, 0, 1000);
    scripted::state()->apply_result = -1;
    scripted::state()->apply_times = row.locked ? 1000 : 0;
    push(row.queue);
    while (scripted::state()->waits == waited) std::this_thread::yield();
    const auto start = steady_clock::now();
    pol_destroy();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(1)) << row.failing;
    EXPECT_EQ(scripted::state()->open, 0);
    init();
  }
}

TEST_F(QueuesTest, AFullPipeStopsNeitherEnd) {
  hold_worker();
  const int end = ctx->thread.write_fd;
  const int flags = fcntl(end, F_GETFL);
  fcntl(end, F_SETFL, flags | O_NONBLOCK);
  while (write(end, "1", 1) == 1) {
  }
  fcntl(end, F_SETFL, flags);
  for (unsigned queue = 0; queue < pol::QUEUES; ++queue) push(static_cast<pol::ThreadQueue>(queue));
  destroy_held_worker(4);
  init();
}

// One line a queue and wake-up; the lock that every look for an end takes fails as well.
TEST_F(QueuesTest, AQueueThatCannotBeLockedIsLoggedOnceAWakeUp) {
  constexpr int kLocks = 7;
  scripted::fail_call("pthread_spin_lock", 0, kLocks);
  seams::take_log();
  ASSERT_EQ(write(ctx->thread.write_fd, "1", 1), 1);
  std::string log;
  while (scripted::state()->fail_times > 0 || scripted::occurrences(log, "queue 2") == 0) {
    log += seams::take_log();
  }
  for (const char* queue : {"0", "1", "2"}) {
    EXPECT_EQ(scripted::occurrences(log, std::string("Lock error on queue ") + queue + "\n"), 1);
  }
}

// A handler of the host's for its faults works in the worker too.
TEST_F(QueuesTest, OnlyTheWorkersOwnFaultsReachIt) {
  hold_worker();
  uint64_t blocked = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    std::string word, name;
    for (status >> word >> name; status >> word && word != "SigBlk:";) {
    }
    if (name == "pol-yarrow") status >> std::hex >> blocked;
  }
  scripted::release();
  for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTERM, SIGINT, SIGUSR1, SIGALRM}) {
    const bool fault =
        signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL;
    EXPECT_EQ((blocked >> (signal - 1) & 1) == 0, fault) << signal;
  }
}

// Every call of the start and the end fails wherever it is made; after that an end is an end.
TEST_F(QueuesTest, EachStepOfTheStartAndTheEndFailsAsItsGoldenHasIt) {
  seams::log_of_all_threads(false);
  t_pol_yarrow_thread* thread = &ctx->thread;
  EXPECT_EQ(pol_yarrow_thread_deinit(thread), POL_OK);
  const int without = scripted::descriptors();
  std::ostringstream all;
  // Whether the call was made so often.
  auto fails = [&](const char* call, int skip, uint32_t (*step)(t_pol_yarrow_thread*)) {
    SCOPED_TRACE(call + std::to_string(skip));
    const bool memory = strcmp(call, "calloc") == 0;
    seams::take_log();
    scripted::fail_call(call, skip, 1);
    seams::Fail fail(memory ? skip + 1 : 1'000'000);
    const uint32_t status = step(thread);
    const bool hit = memory ? fail.hit() : scripted::state()->fail_times == 0;
    scripted::fail_call("", 0, 0);
    if (!hit) return false;
    std::string log = seams::take_log();
    log.erase(0, log.find("[POL]"));
    all << call << " " << skip << ": " << status << " " << log;
    EXPECT_EQ(pol_yarrow_thread_deinit(thread), POL_OK);
    EXPECT_EQ(scripted::descriptors(), without);
    g_pol_mem_info[pol::MEM_THREAD_ITEM].frees += memory ? 1 : 0;  // counted, and never there
    EXPECT_EQ(current(pol::MEM_THREAD_ITEM), 0U);
    return true;
  };
  for (const char* call :
       {"pthread_spin_init", "pipe", "fcntl", "event_base_new", "event_new", "event_add"}) {
    for (int skip = 0; fails(call, skip, pol_yarrow_thread_init); ++skip) {
    }
    EXPECT_EQ(pol_yarrow_thread_deinit(thread), POL_OK);
  }
  for (const char* call :
       {"calloc", "pthread_spin_lock", "pthread_spin_unlock", "write", "pthread_spin_destroy"}) {
    // The fourth time may be the worker's.
    for (int skip = 0; skip < 3; ++skip) {
      EXPECT_EQ(pol_yarrow_thread_init(thread), POL_OK);
      if (!fails(call, skip, pol_yarrow_thread_deinit)) break;
    }
  }
  expect_golden("thread/steps.ok", all.str());
  const uint64_t asked = g_pol_mem_info[pol::MEM_THREAD_ITEM].allocs;
  EXPECT_EQ(pol_yarrow_thread_deinit(thread), POL_OK);
  EXPECT_EQ(g_pol_mem_info[pol::MEM_THREAD_ITEM].allocs, asked) << "nobody is there to be asked";
  pol_destroy();
  // What the cache's lock fails at, the first one made, is never locked.
  for (const char* call : {"pipe", "pthread_spin_init"}) {
    scripted::fail_call(call, 0, 1);
    const t_pol_callbacks callbacks = {};
    EXPECT_EQ(pol_init(&callbacks), nullptr);
    EXPECT_NE(g_pol_ctx_p, nullptr);
    EXPECT_NE(printed([](t_cli_user_ctx* cli) { pol_dump_all(cli, 0, 0, nullptr); }), "");
    pol_destroy();
    EXPECT_EQ(g_pol_ctx_p, nullptr);
  }
  init();
}

TEST_F(QueuesTest, AWorkerThatDoesNotEndKeepsItsContext) {
  scripted::hold("maapi_save_config");
  pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  push(pol::QUEUE_FETCH);
  scripted::wait_until_held();
  scripted::fail_call("write", 0, 1);
  pol_destroy();
  EXPECT_EQ(g_pol_ctx_p, nullptr);
  EXPECT_EQ(current(pol::MEM_CONTEXT), 1U);
  scripted::release();  // now it stores the text
  EXPECT_EQ(pol_yarrow_thread_deinit(&ctx->thread), POL_OK);
  EXPECT_EQ(current(pol::MEM_CONFIG_XML), 1U);
  pol_xml_config_deinit(ctx);
  pol_free(ctx, pol::MEM_CONTEXT);
  init();
}

TEST_F(QueuesTest, AQueueThatCannotBeLockedLosesNothing) {
  for (int skip = 0; skip < 12; ++skip) {
    scripted::fail_call("pthread_spin_lock", skip, 1);
    for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
      push(static_cast<pol::ThreadQueue>(queue));
    }
    // Another wake-up comes back to a queue that was passed over.
    while (current(pol::MEM_THREAD_ITEM) != 0) {
      ASSERT_EQ(write(ctx->thread.write_fd, "1", 1), 1);
      std::this_thread::yield();
    }
    wait_until_idle();
    EXPECT_EQ(current(pol::MEM_THREAD_ITEM), 0U);
  }
}

// Eight producers on all queues, and a stop while they produce: what was worked and what was freed
// is all that was pushed, and nothing is worked after the stop.
TEST_F(QueuesTest, ProducersAndAStopLoseNothing) {
  for (bool stopped : {false, true}) {
    int before = attempts();
    std::shared_mutex host;  // pushes may overlap each other, not the end
    std::atomic<bool> ended{false};
    std::atomic<int> pushed{0};
    std::vector<std::thread> producers;
    producers.reserve(8);
    for (int i = 0; i < 8; ++i) {
      producers.emplace_back([&, i] {
        for (int n = 0; n < 100; ++n) {
          std::shared_lock<std::shared_mutex> hold(host);
          if (ended) return;
          push(static_cast<pol::ThreadQueue>((i + n) % pol::QUEUES));
          ++pushed;
        }
      });
    }
    if (stopped) {
      while (pushed < 200) std::this_thread::yield();
      std::unique_lock<std::shared_mutex> hold(host);
      ended = true;
      pol_destroy();
    }
    for (std::thread& producer : producers) producer.join();
    if (!stopped) {
      wait_until_idle();
      EXPECT_EQ(attempts() - before, 800);
    } else {
      EXPECT_LE(attempts() - before, pushed);
      init();
    }
    EXPECT_EQ(current(pol::MEM_THREAD_ITEM), 0U);
  }
}

}  // namespace
