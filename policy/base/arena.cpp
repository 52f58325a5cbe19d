// SPDX-License-Identifier: Apache-2.0
#include "base/arena.h"

#include <algorithm>

#include "base/pol_memory.h"

namespace pol {
namespace {

constexpr size_t kFirstPiece = 240;
constexpr size_t kLargestPiece = 64 * 1024 - 16;  // with the allocator's header, whole pages

}  // namespace

bool Arena::grow(size_t size) {
  // A part of what is in use, so that little lies idle.
  size_t bytes = std::clamp(bytes_ / 8, kFirstPiece, kLargestPiece);
  bytes = std::max(bytes, size + sizeof(Piece));
  auto* piece = static_cast<Piece*>(pol_malloc(bytes, MEM_UNCOUNTED));
  if (piece == nullptr) return false;
  piece->before = pieces_;
  pieces_ = piece;
  bytes_ += bytes;
  // What was left of the piece before is lost until all is released: less than one block.
  next_ = reinterpret_cast<char*>(piece + 1);
  end_ = reinterpret_cast<char*>(piece) + bytes;
  return true;
}

void Arena::release() {
  while (Piece* piece = pieces_) {
    pieces_ = piece->before;
    pol_free(piece, MEM_UNCOUNTED);
  }
  *this = {};
}

}  // namespace pol
