// SPDX-License-Identifier: Apache-2.0
//
// The frames that the client and the agent exchange.
//
// A frame is a 32-bit length and that many bytes of body. All numbers are big-endian; a text is a
// 32-bit length and its bytes. A connection opens with a hello that says what it is for; the agent
// answers with a status. Then a Maapi or Cdb connection carries requests, each answered by one
// reply: a status, then either what the request asked for or the reasons as one text. A Stream
// connection carries bare bytes after the status, a Subscription the frames of PushKind.
#ifndef YARROW_WIRE_H
#define YARROW_WIRE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace yarrow {

constexpr uint32_t kWireMagic = 0x59525731;  // "YRW1"
constexpr uint32_t kMaxFrame = 8u << 20;
constexpr uint32_t kMaxPath = 4095;
constexpr uint32_t kMaxValueText = 4095;
constexpr uint32_t kMaxLeafListItems = 1024;
constexpr uint32_t kMaxLoadText = 128u << 20;
constexpr uint32_t kLoadChunk = 1u << 20;

enum class SocketKind : uint8_t { kMaapi = 1, kCdb = 2, kStream = 3, kSubscription = 4 };

enum class Request : uint8_t {
  kStartSession = 1,
  kEndSession,
  kStartTrans,
  kFinishTrans,
  kExists,
  kNumInstances,
  kGetText,
  kSetValue,
  kSetText,
  kCreate,
  kSetObject,
  kDelete,
  kValidate,
  kApply,
  kCommit,
  kCandidateValidate,
  kCandidateReset,
  kRollback,
  kCommitId,
  kLock,
  kUnlock,
  kSave,
  kSaveResult,
  kLoadBegin,
  kLoadData,
  kLoadEnd,
  kSchema,
  kCdbStart,
  kCdbEnd,
  kCommitNoted,
  kCommits,
  kSessions,
};

enum class PushKind : uint8_t {
  kBatchBegin = 1,  // commit number
  kChanges = 2,     // count, then as many changes
  kBatchEnd = 3,
};

// Builds one body.
class Writer {
 public:
  void u8(uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
  void u16(uint16_t value) { number(value, 2); }
  void u32(uint32_t value) { number(value, 4); }
  void u64(uint64_t value) { number(value, 8); }
  void raw(const void* data, size_t size) { bytes_.append(static_cast<const char*>(data), size); }
  void text(std::string_view value) {
    u32(static_cast<uint32_t>(value.size()));
    bytes_.append(value);
  }
  void patch_u32(size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes_[at + i] = static_cast<char>(value >> (24 - 8 * i));
  }
  std::string& bytes() { return bytes_; }
  std::string_view view() const { return bytes_; }
  size_t size() const { return bytes_.size(); }

 private:
  void number(uint64_t value, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
      u8(static_cast<uint8_t>(value >> shift));
  }
  std::string bytes_;
};

// Takes a body apart. A read beyond the end gives zeros and makes ok() false for good, so that a
// caller may read everything it wants and check once.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}
  uint8_t u8() { return static_cast<uint8_t>(number(1)); }
  uint16_t u16() { return static_cast<uint16_t>(number(2)); }
  uint32_t u32() { return static_cast<uint32_t>(number(4)); }
  uint64_t u64() { return number(8); }
  std::string_view raw(size_t size) {
    if (size > bytes_.size()) {
      ok_ = false;
      bytes_ = {};
      return {};
    }
    std::string_view taken = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return taken;
  }
  std::string_view text(size_t limit = kMaxFrame) {
    uint32_t size = u32();
    if (size > limit) {
      ok_ = false;
      bytes_ = {};
      return {};
    }
    return raw(size);
  }
  bool ok() const { return ok_; }
  bool done() const { return ok_ && bytes_.empty(); }
  size_t left() const { return bytes_.size(); }

 private:
  uint64_t number(size_t width) {
    std::string_view taken = raw(width);
    uint64_t value = 0;
    for (char byte : taken) value = value << 8 | static_cast<uint8_t>(byte);
    return value;
  }
  std::string_view bytes_;
  bool ok_ = true;
};

}  // namespace yarrow
#endif
