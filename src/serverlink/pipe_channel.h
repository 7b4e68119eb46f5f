#pragma once
// One open pipe to the server and the framing on it.
//
//   writers:  BeginWrite (write lock, empty output buffer) ... EndWrite (frame, write, unlock)
//   reader:   ReadFrame (read lock, one frame into the input buffer) ... ReleaseRead
//
// The two directions never share a lock, so a request can be written while a frame is being
// read. Stop ends every wait of the channel: for the locks, for the pipe, for the peer; a read
// waiting inside the system's read call is woken by shutting the pipe's reading down, so the
// pipe is done with until the next Open or Adopt. The one owner closes the pipe, once, after the
// reader has finished (a descriptor number is reused at once on POSIX).

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pipe.h"
#include "serverlink/frame.h"
#include "serverlink/lendable_pages.h"
#include "serverlink/message_buffer.h"
#include "serverlink/stoppable_lock.h"

namespace qv {

class PipeChannel {
 public:
  enum class WriteStatus { kWritten, kStopped, kTooLarge, kFailed };
  enum class ReadStatus { kFrame, kStopped, kClosed, kBadFrame, kFailed };

  PipeChannel() = default;
  PipeChannel(const PipeChannel&) = delete;
  PipeChannel& operator=(const PipeChannel&) = delete;

  // Waits up to `timeout_ms` for the pipe `name` to accept, then opens it and clears the stop
  // signal. Logs why it failed.
  bool Open(std::u16string_view name, uint32_t timeout_ms);
  // Takes over a pipe that is already connected (the server's side of a connection).
  void Adopt(std::unique_ptr<platform::Pipe> pipe);
  bool IsOpen() const { return pipe_ != nullptr; }

  // Takes the write lock (false once stopped) and empties the output buffer.
  bool BeginWrite();
  MessageBuffer& Output() { return output_; }
  // Writes the output buffer as one frame and releases the write lock. A body beyond the frame
  // limit is not sent (kTooLarge).
  WriteStatus EndWrite();
  // Writes the output buffer as several frames, the i-th ending at `ends[i]` bytes into it, in as
  // few writes as the system allows, and releases the write lock. When one frame is beyond the
  // frame limit nothing is written (kTooLarge).
  WriteStatus EndWriteFrames(std::span<const size_t> ends);
  // Releases the write lock and writes nothing: for a body that could not be built.
  void CancelWrite();
  // Writes `body` as one frame straight from where it lies, under the write lock: for a body
  // built elsewhere (the server's answers and notifications), which then is not copied. The
  // runs the body refers to go out from where they lie too.
  WriteStatus WriteFrame(std::span<const uint8_t> body);
  WriteStatus WriteFrame(const MessageBuffer& body);
  // Writes `bodies` as one frame each, together in as few writes as the system allows: for a
  // writer that found several frames waiting. When one body is beyond the frame limit nothing is
  // written (kTooLarge).
  WriteStatus WriteFrames(std::span<const MessageBuffer* const> bodies);

  // From now on ReadFrame reads a body larger than kPartBodyFrom only up to kPartBodyHead bytes;
  // the rest stays in the pipe for the decoder to take (the input buffer's Source), so that a
  // large byte field can go from the pipe straight to where it is wanted.
  void ReadLargeBodiesInPart() { in_part_ = true; }
  static constexpr size_t kPartBodyFrom = 16 * 1024;
  static constexpr size_t kPartBodyHead = 4096;
  // Asked, with the body's length, before a body of kPartBodyFrom bytes or more is read; the
  // read waits for its answer, and false ends it (kStopped). Set before the reader starts.
  void AdmitLargeBodiesThrough(std::function<bool(size_t)> gate) { gate_ = std::move(gate); }
  // How long the frame being read has been arriving since its header came (and was admitted),
  // up to its ReleaseRead; zero between frames. Any thread may ask.
  std::chrono::steady_clock::duration FrameArrivingFor(
      std::chrono::steady_clock::time_point now) const;

  // Takes the read lock and reads one frame into the input buffer (whole, or in part, see
  // above); on kFrame the caller holds the read lock until ReleaseRead. A bad reserved word or a
  // body beyond the limit is kBadFrame: the connection cannot be trusted any more.
  ReadStatus ReadFrame();
  MessageBuffer& Input() { return input_; }
  // Skips what the decoder left of the frame in the pipe, then releases the read lock.
  void ReleaseRead();

  // Whether a frame has begun to come: read ahead already, or waiting in the pipe. Asked by the
  // one thread that reads frames now.
  bool HasInput();
  // Whether bytes were read ahead of the last frame: the next frame has begun to come.
  bool HasReadAhead() const { return staged_end_ > staged_begin_; }
  // Waits, reading nothing, until the pipe has bytes (or its peer closed); false once the channel
  // stops or the pipe fails. Another thread may read frames meanwhile. Only where
  // platform::Pipe::kWaitsWithoutReading.
  bool AwaitInput();

  // Ends every wait of the channel until the next Open.
  void Stop();
  bool Stopped() const { return stop_.IsSet(); }
  // Stops the channel and closes the pipe, once a writer still under way has let go of it. Only
  // the owner calls it, once nothing reads any more.
  void Close();
  // The system error of the pipe's last failed operation (0 without a pipe), for log lines.
  uint32_t LastSystemError() const { return pipe_ != nullptr ? pipe_->LastSystemError() : 0; }

 private:
  // The rest of a body read in part; guarded by the read lock like the input buffer.
  class BodyRest final : public MessageBuffer::Source {
   public:
    explicit BodyRest(PipeChannel& channel) : channel_(channel) {}
    size_t Unread() const override { return unread_; }
    bool ReadInto(uint8_t* dest, size_t size) override;
    // Reads and drops what is left; false when the pipe failed, now or before.
    bool Skip();
    void Start(size_t unread) {
      unread_ = unread;
      result_ = platform::IoResult::kOk;
    }
    platform::IoResult result() const { return result_; }

   private:
    PipeChannel& channel_;
    size_t unread_ = 0;
    platform::IoResult result_ = platform::IoResult::kOk;  // the first failure
  };

  // Writes one frame of `size` body bytes in `parts`, whose first part it fills with the frame
  // header; the caller holds the write lock.
  WriteStatus WriteBody(std::span<std::span<const uint8_t>> parts, size_t size);
  // Writes `parts`, which hold whole frames, lending the pages of those marked in `lendable`, and
  // logs a failure; the caller holds the write lock.
  WriteStatus WriteParts(std::span<const std::span<const uint8_t>> parts,
                         std::span<const uint8_t> lendable = {});
  // Keeps the lendable runs of `bodies` until the peer has read them (false when there are
  // none); MarkLentSent says their write has ended, and ReclaimLent then hands them back once the
  // pipe holds nothing the peer has not read.
  bool HoldLent(std::span<const MessageBuffer* const> bodies);
  void MarkLentSent();
  void ReclaimLent();
  // Exactly `size` bytes through the staging buffer (or straight into `dest` when large).
  platform::IoResult ReadExact(uint8_t* dest, size_t size);
  // Reads the body of `size` bytes into the input buffer, whole or in part.
  platform::IoResult ReadBody(size_t size);

  platform::StopSignal stop_;
  std::unique_ptr<platform::Pipe> pipe_;
  StoppableLock write_lock_;
  StoppableLock read_lock_;
  MessageBuffer output_;  // guarded by write_lock_
  // WriteFrames' headers and parts, kept from one batch to the next; guarded by write_lock_.
  std::vector<std::array<uint8_t, kFrameHeaderBytes>> gather_headers_;
  std::vector<std::span<const uint8_t>> gather_parts_;
  std::vector<uint8_t> gather_lendable_;
  // Runs whose pages were lent and may still be read by the peer: their keepers, so that the
  // memory is not reused meanwhile. Any thread that writes or reads frames may reclaim them.
  struct LentBytes {
    std::shared_ptr<const void> keeper;
    LendablePages* pages;
    bool sent;  // the write that lent them has ended
  };
  static constexpr size_t kMaxHeldLent = 8;
  std::mutex lent_mutex_;
  std::vector<LentBytes> lent_;  // guarded by lent_mutex_
  std::atomic<bool> has_lent_{false};
  MessageBuffer input_;  // guarded by read_lock_
  // Bytes read from the pipe ahead of the frame being taken apart; guarded by read_lock_.
  std::vector<uint8_t> staging_;
  size_t staged_begin_ = 0;
  size_t staged_end_ = 0;
  bool in_part_ = false;              // set before the reader starts
  std::function<bool(size_t)> gate_;  // set before the reader starts
  // When the frame being read had its header (steady clock ticks); 0 between frames.
  std::atomic<std::chrono::steady_clock::rep> frame_since_{0};
  BodyRest rest_{*this};  // guarded by read_lock_
  // A body's rest could not be read: the frames after it cannot be found; guarded by read_lock_.
  platform::IoResult lost_ = platform::IoResult::kOk;
};

}  // namespace qv
