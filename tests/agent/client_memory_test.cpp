// SPDX-License-Identifier: Apache-2.0
//
// The client when memory runs out, wherever it does: no exception passes the C interface.
#include <cstdlib>
#include <functional>
#include <new>

#include "support.h"

namespace {

thread_local long t_allocations_left = -1;  // -1: as many as there are

}  // namespace

void* operator new(size_t size) {
  if (t_allocations_left == 0) throw std::bad_alloc();
  if (t_allocations_left > 0) --t_allocations_left;
  if (void* memory = malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return t_allocations_left == 0 ? nullptr : malloc(size);
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { free(memory); }

namespace test {
namespace {

// Runs the body with no more than so many allocations by `new` in this thread; false when it used
// them up, and perhaps wanted more.
bool with_allocations(long count, const std::function<void()>& body) {
  t_allocations_left = count;
  body();
  const bool enough = t_allocations_left != 0;
  t_allocations_left = -1;
  return enough;
}

// One round through the client, C calls only. The first that fails ends it.
int round_of_calls(const Socket& maapi, const Socket& cdb, const Socket& sub) {
  const char* const site = "/policy/lists/site-list{A}/site{5}";
  int id = 0;
  auto call = [&](int status) { return (id = status) >= 0; };
  if (!call(yarrow_load_schemas(maapi.addr(), maapi.addr_len())) ||
      yarrow_cs_node_cd(nullptr, "/policy/lists/site-list") == nullptr ||
      !call(maapi_connect(maapi.fd(), maapi.addr(), maapi.addr_len())) ||
      !call(maapi_start_user_session3(maapi.fd(), "a user of some length", "cli", nullptr,
                                      "a client of some length")) ||
      !call(cdb_connect(cdb.fd(), CDB_DATA_SOCKET, cdb.addr(), cdb.addr_len())) ||
      !call(cdb_start_session2(cdb.fd(), CDB_RUNNING, 0)) ||
      !call(cdb_exists(cdb.fd(), "%s", site)) ||
      !call(maapi_start_trans_flags2(maapi.fd(), MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr,
                                     nullptr))) {
    return YARROW_ERR;
  }
  const int trans = id;
  char name[64];
  if (!call(maapi_delete(maapi.fd(), trans, "/policy/lists/site-list{A}")) ||
      !call(maapi_create(maapi.fd(), trans, "/policy/lists/site-list{A}")) ||
      !call(maapi_create(maapi.fd(), trans, "%s", site)) ||
      !call(maapi_num_instances(maapi.fd(), trans, "/policy/lists/site-list{A}/site")) ||
      !call(maapi_get_elem_text(maapi.fd(), trans, name, sizeof name,
                                "/policy/lists/site-list{A}/name")) ||
      !call(maapi_apply_trans(maapi.fd(), trans, 0)) ||
      !call(static_cast<int>(
          maapi_candidate_commit_noted(maapi.fd(), "as long as a comment is", 0))) ||
      !call(maapi_commits(maapi.fd(), nullptr, nullptr, nullptr, nullptr)) ||
      !call(maapi_sessions(maapi.fd(), nullptr, nullptr)) ||
      !call(yarrow_sub_connect(sub.fd(), sub.addr(), sub.addr_len(), "/policy/lists",
                               YARROW_SUB_INITIAL))) {
    return YARROW_ERR;
  }
  t_yarrow_batch* told = nullptr;
  if (!call(yarrow_sub_read(sub.fd(), 5'000, &told))) return YARROW_ERR;
  yarrow_batch_free(told);
  return YARROW_OK;
}

TEST(ClientMemoryTest, WhatCannotBeHadIsAnErrorOfTheCall) {
  AgentProcess agent;
  const Session session(agent.port());
  ASSERT_EQ(why(session.commit(policy("<lists><site-list><name>A</name></site-list></lists>"))),
            "ok");
  for (long count = 0;; ++count) {
    Socket maapi(agent.port());
    Socket cdb(agent.port());
    Socket sub(agent.port());
    int status = YARROW_OK;
    const bool enough = with_allocations(count, [&] { status = round_of_calls(maapi, cdb, sub); });
    if (enough) {
      EXPECT_EQ(why(status), "ok");
      EXPECT_GT(count, 20);
      break;
    }
    if (status == YARROW_OK) continue;
    ASSERT_EQ(why(status), "system call failed: out of memory") << count;
  }
}

}  // namespace
}  // namespace test
