#pragma once
// Blocks of text that the console caches let go, handed to the next notifications a kit script
// writes: once the caches are full, a script's pieces then cost the heap nothing, where each piece
// would otherwise take a new block and the cache free its oldest one, which with many busy
// consoles was last touched thousands of pieces ago.

#include <cstddef>
#include <new>
#include <string>
#include <vector>

namespace qv::server {

class TextBlocks {
 public:
  // Keeps the block of `text` (its contents do not matter), unless it is too small to be worth
  // keeping or enough are kept already.
  void Give(std::u16string&& text) {
    if (text.capacity() < kLeast || blocks_.size() >= kMostKept) return;
    try {
      blocks_.push_back(std::move(text));
    } catch (const std::bad_alloc&) {
      // Not kept: it is freed as it would have been.
    }
  }
  // Moves a kept block into `into` when one of about the room for `length` characters is at
  // hand; one of the wrong size is let go, so that one long piece does not keep its block going
  // round for short ones.
  void Take(size_t length, std::u16string& into) {
    if (blocks_.empty() || length < kLeast) return;
    std::u16string block = std::move(blocks_.back());
    blocks_.pop_back();
    if (block.capacity() >= length && block.capacity() <= 2 * length + kSlack)
      into = std::move(block);
  }

 private:
  static constexpr size_t kLeast = 32;      // below this a block costs about what it saves
  static constexpr size_t kSlack = 64;      // characters beyond twice the text a block may have
  static constexpr size_t kMostKept = 128;  // two batches of a script's pieces

  std::vector<std::u16string> blocks_;
};

}  // namespace qv::server
