/* SPDX-License-Identifier: Apache-2.0
 *
 * live_frame.h - what goes over a running host's socket, as bytes.
 *
 * A client sends one request: a head, its options as JSON, its input (routes). The host sends one
 * answer: a head, what went wrong in words, what the command printed. Numbers are in network order.
 * Both sides have the same user, and close. What the options say is the tool's (tool/live_request.h).
 */
#ifndef HOST_LIVE_FRAME_H
#define HOST_LIVE_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace polctl {

inline constexpr size_t kMaxRequestOptions = size_t{64} * 1024;
inline constexpr size_t kMaxRequestInput = size_t{16} * 1024 * 1024;

/* The request's head; 12 bytes: a magic word, bytes of options, bytes of input. */
struct RequestHead {
  static constexpr size_t kSize = 12;
  uint32_t options_size = 0;
  uint32_t input_size = 0;
};

/* The answer's; 20 bytes: a magic word, the exit status, bytes of words (32 bits each), bytes of
 * output (64 bits). */
struct AnswerHead {
  static constexpr size_t kSize = 20;
  uint32_t status = 0;
  uint32_t error_size = 0;
  uint64_t output_size = 0;
};

std::string encode(const RequestHead& head);
std::string encode(const AnswerHead& head);
/* False when the bytes, kSize of them, are no head or ask for more than there may be. */
bool decode(std::string_view bytes, RequestHead* head);
bool decode(std::string_view bytes, AnswerHead* head);

}  // namespace polctl

#endif
