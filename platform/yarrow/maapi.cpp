// SPDX-License-Identifier: Apache-2.0
#include "yarrow/yarrow_maapi.h"

#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/yarrow/client.h"

namespace {

using yarrow::call;
using yarrow::call_number;
using yarrow::call_plain;
using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

std::string_view name_of(const char* text) {
  constexpr size_t kMaxName = 127;
  return text != nullptr ? std::string_view(text, strnlen(text, kMaxName)) : std::string_view();
}

Writer on_transaction(int trans) {
  Writer out;
  out.u32(static_cast<uint32_t>(trans));
  return out;
}

Writer with_number(int number) { return on_transaction(number); }

int load_text(int sock, int trans, unsigned flags, std::string_view text, const Writer& path) {
  Writer begin = on_transaction(trans);
  begin.u32(flags);
  begin.raw(path.view().data(), path.size());
  if (text.size() > yarrow::kMaxLoadText) return yarrow::fail(YARROW_ERR_TOOBIG, "too much text");
  if (call_plain(sock, Request::kLoadBegin, begin) != YARROW_OK) return YARROW_ERR;
  while (!text.empty()) {
    Writer data;
    data.text(text.substr(0, yarrow::kLoadChunk));
    if (call_plain(sock, Request::kLoadData, data) != YARROW_OK) return YARROW_ERR;
    text.remove_prefix(text.size() < yarrow::kLoadChunk ? text.size() : yarrow::kLoadChunk);
  }
  return call_plain(sock, Request::kLoadEnd, Writer());
}

int read_file(const char* name, std::string* text) {
  const yarrow::Descriptor file(open(name, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return yarrow::fail_os(name);
  char block[1 << 16];
  ssize_t got = 0;
  while ((got = read(file.get(), block, sizeof block)) != 0 &&
         text->size() <= yarrow::kMaxLoadText) {
    if (got > 0) text->append(block, static_cast<size_t>(got));
    if (got < 0 && errno != EINTR) break;
  }
  return got < 0 ? yarrow::fail_os(name) : YARROW_OK;
}

}  // namespace

int maapi_connect(int sock, const struct sockaddr* addr, socklen_t addr_len) try {
  return yarrow::connect_socket(sock, addr, addr_len, SocketKind::kMaapi, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_close(int sock) { return close(sock) == 0 ? YARROW_OK : yarrow::fail_os("close"); }

int maapi_start_user_session3(int sock, const char* user, const char* context,
                              const struct sockaddr* source, const char* client_id) try {
  char host[NI_MAXHOST] = "";
  socklen_t length = source != nullptr && source->sa_family == AF_INET6 ? sizeof(sockaddr_in6)
                                                                        : sizeof(sockaddr_in);
  if (source != nullptr) {
    getnameinfo(source, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
  }
  Writer out;
  out.text(name_of(user));
  out.text(name_of(context));
  out.text(name_of(client_id));
  out.text(name_of(host));
  return call_plain(sock, Request::kStartSession, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_end_user_session(int sock) try {
  return call_plain(sock, Request::kEndSession, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_start_trans_flags2(int sock, int datastore, int mode, int user_session, unsigned flags,
                             const char* label, const char* client_id) try {
  if (user_session != 0 || flags != 0 || label != nullptr || client_id != nullptr) {
    return yarrow::fail(YARROW_ERR_PROTOCOL, "an argument that is to be 0 is not");
  }
  Writer out = with_number(datastore);
  out.u32(static_cast<uint32_t>(mode));
  return call_number(sock, Request::kStartTrans, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_finish_trans(int sock, int trans) try {
  return call_plain(sock, Request::kFinishTrans, on_transaction(trans));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_exists(int sock, int trans, const char* format, ...) try {
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_number(sock, Request::kExists, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_num_instances(int sock, int trans, const char* format, ...) try {
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_number(sock, Request::kNumInstances, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_get_elem_text(int sock, int trans, char* text, size_t size, const char* format, ...) try {
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  std::string content;
  if (!good || call(sock, Request::kGetText, out, &content) != YARROW_OK) return YARROW_ERR;
  std::string_view value = yarrow::Reader(content).text();
  if (value.size() >= size) return yarrow::fail(YARROW_ERR_TOOBIG, "the value is longer");
  value.copy(text, value.size());
  text[value.size()] = '\0';
  return static_cast<int>(value.size());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_set_elem(int sock, int trans, const t_yarrow_value* value, const char* format, ...) try {
  if (value == nullptr) return yarrow::fail(YARROW_ERR_BADVALUE, "no value");
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  good = good && yarrow::add_value(out, *value);
  return good ? call_plain(sock, Request::kSetValue, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_set_elem_text(int sock, int trans, const char* text, const char* format, ...) try {
  if (text == nullptr) return yarrow::fail(YARROW_ERR_BADVALUE, "no value");
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  if (!good) return YARROW_ERR;
  size_t length = strlen(text);
  if (length > yarrow::kMaxValueText) return yarrow::fail(YARROW_ERR_TOOBIG, "a value too long");
  out.text(std::string_view(text, length));
  return call_plain(sock, Request::kSetText, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_create(int sock, int trans, const char* format, ...) try {
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_plain(sock, Request::kCreate, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_set_object(int sock, int trans, const t_yarrow_value* values, int count,
                     const char* format, ...) try {
  if (count < 0 || (values == nullptr && count > 0)) {
    return yarrow::fail(YARROW_ERR_BADVALUE, "no values");
  }
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  out.u32(static_cast<uint32_t>(count));
  for (int i = 0; good && i < count; ++i) good = yarrow::add_value(out, values[i]);
  return good ? call_plain(sock, Request::kSetObject, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_delete(int sock, int trans, const char* format, ...) try {
  Writer out = on_transaction(trans);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_plain(sock, Request::kDelete, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_validate_trans(int sock, int trans) try {
  return call_plain(sock, Request::kValidate, on_transaction(trans));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_apply_trans(int sock, int trans, int keep_open) try {
  Writer out = on_transaction(trans);
  out.u8(keep_open != 0 ? 1 : 0);
  return call_plain(sock, Request::kApply, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_candidate_commit(int sock) try {
  return call_plain(sock, Request::kCommit, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int64_t maapi_candidate_commit_noted(int sock, const char* comment, unsigned minutes) try {
  Writer out;
  out.text(comment != nullptr ? comment : "");
  out.u32(minutes);
  std::string content;
  if (call(sock, Request::kCommitNoted, out, &content) != YARROW_OK) return YARROW_ERR;
  yarrow::Reader in(content);
  uint64_t number = in.u64();
  if (!in.ok()) return yarrow::fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  return static_cast<int64_t>(number);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_commits(int sock, maapi_visit_commit visit, void* state, int64_t* waiting,
                  int64_t* seconds) try {
  std::string content;
  if (call(sock, Request::kCommits, Writer(), &content) != YARROW_OK) return YARROW_ERR;
  yarrow::Reader in(content);
  int64_t first = static_cast<int64_t>(in.u64());
  int64_t left = static_cast<int64_t>(in.u64());
  bool more = visit != nullptr;
  for (uint32_t count = in.u32(); count > 0 && in.ok(); --count) {
    t_maapi_commit commit = {};
    commit.number = static_cast<int64_t>(in.u64());
    commit.time = static_cast<int64_t>(in.u64());
    const std::string user(in.text());
    const std::string client(in.text());
    const std::string comment(in.text());
    commit.user = user.c_str();
    commit.client_id = client.c_str();
    commit.comment = comment.c_str();
    if (in.ok() && more) more = visit(&commit, state) == 0;
  }
  if (!in.ok()) return yarrow::fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  if (waiting != nullptr) *waiting = first;
  if (seconds != nullptr) *seconds = left;
  return YARROW_OK;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_sessions(int sock, maapi_visit_session visit, void* state) try {
  std::string content;
  if (call(sock, Request::kSessions, Writer(), &content) != YARROW_OK) return YARROW_ERR;
  yarrow::Reader in(content);
  bool more = visit != nullptr;
  for (uint32_t count = in.u32(); count > 0 && in.ok(); --count) {
    t_maapi_session session = {};
    session.id = static_cast<int64_t>(in.u64());
    session.since = static_cast<int64_t>(in.u64());
    const std::string user(in.text());
    const std::string context(in.text());
    const std::string client(in.text());
    const std::string source(in.text());
    session.user = user.c_str();
    session.context = context.c_str();
    session.client_id = client.c_str();
    session.source = source.c_str();
    session.flags = in.u32();
    if (in.ok() && more) more = visit(&session, state) == 0;
  }
  return in.ok() ? YARROW_OK : yarrow::fail(YARROW_ERR_PROTOCOL, "an answer cut short");
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_candidate_validate(int sock) try {
  return call_plain(sock, Request::kCandidateValidate, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_candidate_reset(int sock) try {
  return call_plain(sock, Request::kCandidateReset, Writer());
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_load_rollback(int sock, unsigned back) try {
  Writer out;
  out.u32(back);
  return call_plain(sock, Request::kRollback, out);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int64_t maapi_commit_id(int sock) try {
  std::string content;
  if (call(sock, Request::kCommitId, Writer(), &content) != YARROW_OK) return YARROW_ERR;
  yarrow::Reader in(content);
  uint64_t number = in.u64();
  if (!in.ok()) return yarrow::fail(YARROW_ERR_PROTOCOL, "an answer cut short");
  return static_cast<int64_t>(number);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_lock(int sock, int datastore) try {
  return call_plain(sock, Request::kLock, with_number(datastore));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_unlock(int sock, int datastore) try {
  return call_plain(sock, Request::kUnlock, with_number(datastore));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_save_config(int sock, int trans, unsigned flags, const char* format, ...) try {
  Writer out = on_transaction(trans);
  out.u32(flags);
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(out, format, args);
  va_end(args);
  return good ? call_number(sock, Request::kSave, out) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int yarrow_stream_connect(int sock, const struct sockaddr* addr, socklen_t addr_len, int id,
                          int flags) try {
  if (flags != 0) return yarrow::fail(YARROW_ERR_PROTOCOL, "no such flags");
  return yarrow::connect_socket(sock, addr, addr_len, SocketKind::kStream, with_number(id));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_save_config_result(int sock, int id) try {
  return call_plain(sock, Request::kSaveResult, with_number(id));
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_load_config(int sock, int trans, unsigned flags, const char* file_name) try {
  std::string text;
  if (file_name == nullptr) return yarrow::fail(YARROW_ERR_OS, "no file");
  if (read_file(file_name, &text) != YARROW_OK) return YARROW_ERR;
  Writer path;
  path.text("");
  return load_text(sock, trans, flags, text, path);
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

int maapi_load_config_cmds(int sock, int trans, unsigned flags, const char* text,
                           const char* format, ...) try {
  if (text == nullptr) return yarrow::fail(YARROW_ERR_MALFORMED, "no text");
  Writer path;
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(path, format, args);
  va_end(args);
  return good ? load_text(sock, trans, flags, text, path) : YARROW_ERR;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}
