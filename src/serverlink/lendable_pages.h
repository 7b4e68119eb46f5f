#pragma once
// Bytes in pages of their own that a pipe may lend to the system rather than copy
// (platform::Pipe's lending Write): the peer then reads them from where they lie, so nobody may
// write them again until the channel that sent them says its peer has read everything it was
// sent (Reclaimed). Memory let go before then must not be handed to anybody else; the server's
// page blocks unmap it, and the pages the socket still holds stay as they were.

namespace qv {

class LendablePages {
 public:
  // The pages lent from these bytes have all been read: they may be written again.
  virtual void Reclaimed() noexcept = 0;

 protected:
  ~LendablePages() = default;
};

}  // namespace qv
