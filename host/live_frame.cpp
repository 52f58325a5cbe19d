// SPDX-License-Identifier: Apache-2.0
#include "live_frame.h"

namespace polctl {

namespace {

constexpr uint32_t kMagic = 0x504c4331;

void put(uint64_t number, size_t bytes, std::string* to) {
  for (size_t i = bytes; i-- > 0;) to->push_back(static_cast<char>(number >> (8 * i)));
}

uint64_t get(std::string_view bytes, size_t at, size_t count) {
  uint64_t number = 0;
  for (size_t i = 0; i < count; ++i) number = number << 8 | static_cast<uint8_t>(bytes[at + i]);
  return number;
}

}  // namespace

std::string encode(const RequestHead& head) {
  std::string bytes;
  put(kMagic, 4, &bytes);
  put(head.options_size, 4, &bytes);
  put(head.input_size, 4, &bytes);
  return bytes;
}

std::string encode(const AnswerHead& head) {
  std::string bytes;
  put(kMagic, 4, &bytes);
  put(head.status, 4, &bytes);
  put(head.error_size, 4, &bytes);
  put(head.output_size, 8, &bytes);
  return bytes;
}

bool decode(std::string_view bytes, RequestHead* head) {
  if (bytes.size() < RequestHead::kSize || get(bytes, 0, 4) != kMagic) return false;
  head->options_size = static_cast<uint32_t>(get(bytes, 4, 4));
  head->input_size = static_cast<uint32_t>(get(bytes, 8, 4));
  return head->options_size <= kMaxRequestOptions && head->input_size <= kMaxRequestInput;
}

bool decode(std::string_view bytes, AnswerHead* head) {
  if (bytes.size() < AnswerHead::kSize || get(bytes, 0, 4) != kMagic) return false;
  head->status = static_cast<uint32_t>(get(bytes, 4, 4));
  head->error_size = static_cast<uint32_t>(get(bytes, 8, 4));
  head->output_size = get(bytes, 12, 8);
  return true;
}

}  // namespace polctl
