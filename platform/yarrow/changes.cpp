// SPDX-License-Identifier: Apache-2.0
//
// A batch is read whole into one arena: changes point into blocks that never move and are freed
// together. Its readers take a value by the type that the schema gives its node, so a value of
// another type ends here.
#include "yarrow/yarrow_changes.h"

#include <poll.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/yarrow/change_check.h"
#include "platform/yarrow/client.h"
#include "platform/yarrow/schema.h"

namespace {

using yarrow::Reader;
using yarrow::Writer;

constexpr uint32_t kMaxKeys = 64;
constexpr uint32_t kMaxValues = 65535;
constexpr size_t kBlock = 64u << 10;
constexpr size_t kLeastValue = 4;  // bytes of one on the wire

}  // namespace

struct t_yarrow_batch {
  uint64_t commit = 0;
  std::vector<t_yarrow_change> changes;
  std::unordered_map<std::string, const t_yarrow_cs_node*> paths;  // each once; null: not known
  std::vector<std::unique_ptr<std::byte[]>> blocks;
  size_t used = kBlock;  // of the last block

  void* take(size_t size) {
    constexpr size_t kAlign = alignof(std::max_align_t);
    size = (size + kAlign - 1) / kAlign * kAlign;
    if (blocks.empty() || used + size > kBlock) {
      blocks.push_back(std::make_unique<std::byte[]>(size > kBlock ? size : kBlock));
      used = 0;
    }
    void* taken = blocks.back().get() + used;
    used += size;
    return taken;
  }
};

namespace {

bool read_value(t_yarrow_batch& batch, Reader& in, t_yarrow_value* value, bool in_list = false) {
  *value = {};
  value->type = in.u32();
  auto raw = [&](void* to, size_t size) {
    std::string_view bytes = in.raw(size);
    if (in.ok()) memcpy(to, bytes.data(), size);
  };
  switch (value->type) {
    case C_NOEXISTS:
    case C_XMLTAG:
    case C_XMLBEGIN:
    case C_XMLEND:
      break;
    case C_BUF: {
      std::string_view text = in.text();
      auto* copy = static_cast<uint8_t*>(batch.take(text.size() + 1));
      if (!text.empty()) memcpy(copy, text.data(), text.size());
      copy[text.size()] = 0;
      value->val.buf.size = static_cast<uint32_t>(text.size());
      value->val.buf.ptr = copy;
      break;
    }
    case C_INT8:
    case C_UINT8:
      value->val.u8 = in.u8();
      break;
    case C_BOOL:
      value->val.boolean = in.u8();
      return in.ok() && value->val.boolean <= 1;
    case C_INT16:
    case C_UINT16:
      value->val.u16 = in.u16();
      break;
    case C_INT32:
    case C_UINT32:
      value->val.u32 = in.u32();
      break;
    case C_ENUM_VALUE:
      value->val.enumvalue = in.u32();
      break;
    case C_INT64:
    case C_UINT64:
      value->val.u64 = in.u64();
      break;
    case C_IPV4:
      raw(&value->val.ip, sizeof value->val.ip);
      break;
    case C_IPV6:
      raw(value->val.ip6, sizeof value->val.ip6);
      break;
    case C_IPV4PREFIX:
      raw(&value->val.ipv4prefix.ip, sizeof value->val.ipv4prefix.ip);
      value->val.ipv4prefix.len = in.u8();
      return in.ok() && value->val.ipv4prefix.len <= 32;
    case C_IPV6PREFIX:
      raw(value->val.ipv6prefix.ip6, sizeof value->val.ipv6prefix.ip6);
      value->val.ipv6prefix.len = in.u8();
      return in.ok() && value->val.ipv6prefix.len <= 128;
    case C_LIST: {
      uint32_t count = in.u32();
      if (in_list || count > yarrow::kMaxLeafListItems) return false;
      if (count > in.left() / kLeastValue) return false;
      auto* items = static_cast<t_yarrow_value*>(batch.take(count * sizeof(t_yarrow_value)));
      value->val.list.size = count;
      value->val.list.ptr = items;
      for (uint32_t i = 0; i < count; ++i) {
        if (!read_value(batch, in, &items[i], true)) return false;
      }
      break;
    }
    default:
      return false;
  }
  return in.ok();
}

int misread(const t_yarrow_change& change, const char* what) {
  return yarrow::fail(YARROW_ERR_PROTOCOL, std::string(change.path) + ": the agent told " + what);
}

int read_change(t_yarrow_batch& batch, Reader& in) {
  t_yarrow_change change = {};
  std::string path(in.text(yarrow::kMaxPath));
  auto [known, is_new] = batch.paths.emplace(std::move(path), nullptr);
  if (is_new) known->second = yarrow::schema_node(known->first);
  change.path = known->first.c_str();
  change.op = in.u8();
  change.level = in.u8();
  change.key_count = in.u32();
  if (!in.ok() || change.op < YARROW_CREATED || change.op > YARROW_VALUE_SET) {
    return misread(change, "no operation that there is");
  }
  if (change.key_count > kMaxKeys || change.key_count > in.left() / kLeastValue) {
    return misread(change, "more keys than there are");
  }
  auto* keys = static_cast<t_yarrow_value*>(batch.take(change.key_count * sizeof(t_yarrow_value)));
  change.keys = keys;
  for (uint32_t i = 0; i < change.key_count; ++i) {
    if (!read_value(batch, in, &keys[i])) return misread(change, "a key that is no value");
  }
  change.value_count = in.u32();
  if (!in.ok() || change.value_count > kMaxValues || change.value_count > in.left() / kLeastValue) {
    return misread(change, "more values than there are");
  }
  auto* values =
      static_cast<t_yarrow_tag_value*>(batch.take(change.value_count * sizeof(t_yarrow_tag_value)));
  change.values = values;
  for (uint32_t i = 0; i < change.value_count; ++i) {
    values[i].tag = in.u32();
    values[i].ns = in.u32();
    if (!read_value(batch, in, &values[i].v)) return misread(change, "a value of no known form");
  }
  batch.changes.push_back(change);
  return known->second != nullptr ? yarrow::check_change(*known->second, change) : YARROW_OK;
}

// Waits for the first byte of a batch.
int wait_readable(int sock, int timeout_ms) {
  for (;;) {
    pollfd watched = {sock, POLLIN, 0};
    int ready = poll(&watched, 1, timeout_ms);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return yarrow::fail_os("poll");
    if (ready == 0) return 0;
    char byte = 0;
    ssize_t seen = recv(sock, &byte, 1, MSG_PEEK);
    if (seen < 0 && errno == EINTR) continue;
    if (seen < 0) return yarrow::fail(YARROW_ERR_NOTCONNECTED, "the connection is lost");
    return seen == 0 ? YARROW_EOF : 1;
  }
}

int read_batch(int sock, t_yarrow_batch& batch) {
  std::string body;
  for (bool begun = false;;) {
    const auto limit = yarrow::TimeLimit::of_socket(sock);
    if (yarrow::read_frame(sock, &body, limit) != YARROW_OK) return YARROW_ERR;
    Reader in(body);
    auto kind = static_cast<yarrow::PushKind>(in.u8());
    bool good = in.ok() && begun == (kind != yarrow::PushKind::kBatchBegin);
    if (good && kind == yarrow::PushKind::kBatchBegin) {
      batch.commit = in.u64();
      begun = true;
    } else if (good && kind == yarrow::PushKind::kChanges) {
      uint32_t count = in.u32();
      for (uint32_t i = 0; i < count; ++i) {
        if (read_change(batch, in) != YARROW_OK) return YARROW_ERR;
      }
    } else if (good && kind == yarrow::PushKind::kBatchEnd) {
      return 1;
    } else {
      good = false;
    }
    if (!good || !in.done()) {
      return yarrow::fail(YARROW_ERR_PROTOCOL, "the agent told a batch that makes no sense");
    }
  }
}

}  // namespace

int yarrow_sub_connect(int sock, const struct sockaddr* addr, socklen_t addr_len, const char* path,
                       unsigned flags) try {
  if (path == nullptr) return yarrow::fail(YARROW_ERR_BADPATH, "no path");
  if (yarrow_load_schemas(addr, addr_len) != YARROW_OK) return YARROW_ERR;
  Writer out;
  out.text(path);
  out.u32(flags);
  return yarrow::connect_socket(sock, addr, addr_len, yarrow::SocketKind::kSubscription, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int yarrow_sub_read(int sock, int timeout_ms, t_yarrow_batch** batch) try {
  int status = wait_readable(sock, timeout_ms);
  if (status != 1) return status;
  yarrow::Exchange exchange(sock);
  auto made = std::make_unique<t_yarrow_batch>();
  status = read_batch(sock, *made);
  if (status == 1) *batch = made.release();
  return exchange.done(status);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

void yarrow_batch_free(t_yarrow_batch* batch) { delete batch; }

int64_t yarrow_batch_commit_id(const t_yarrow_batch* batch) {
  return static_cast<int64_t>(batch->commit);
}

uint32_t yarrow_batch_count(const t_yarrow_batch* batch) {
  return static_cast<uint32_t>(batch->changes.size());
}

const t_yarrow_change* yarrow_batch_change(const t_yarrow_batch* batch, uint32_t index) {
  return index < batch->changes.size() ? &batch->changes[index] : nullptr;
}

int yarrow_batch_iterate(const t_yarrow_batch* batch, yarrow_visit_change visit, void* state) {
  int status = 0;
  if (batch == nullptr) return status;
  for (const t_yarrow_change& change : batch->changes) {
    status = visit(&change, state);
    if (status != 0) break;
  }
  return status;
}
