// SPDX-License-Identifier: Apache-2.0
//
// byte_reader.h - a fuzzer's bytes as numbers; past the end they read as 0.
#pragma once

#include <cstddef>
#include <cstdint>

class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : next_(data), end_(data + size) {}

  bool done() const { return next_ == end_; }
  uint8_t byte() { return done() ? uint8_t{0} : *next_++; }

 private:
  const uint8_t* next_;
  const uint8_t* end_;
};
