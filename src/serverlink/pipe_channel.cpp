#include "serverlink/pipe_channel.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <span>
#include <string>

#include "platform/wide_string.h"
#include "serverlink/frame.h"
#include "serverlink/log.h"

namespace qv {

namespace {

constexpr size_t kStagingBytes = 64 * 1024;
// An input buffer grown past this by a large frame is let go once the frame has been read, so
// that an idle connection does not keep the memory of its largest frame.
constexpr size_t kKeptInputBytes = 1 << 20;

std::string WithError(const char* text, uint32_t error) {
  return std::string(text) + std::to_string(error);
}

}  // namespace

bool PipeChannel::Open(std::u16string_view name, uint32_t timeout_ms) {
  std::unique_ptr<platform::Pipe> pipe;
  uint32_t error = 0;
  const platform::IoResult result = platform::Pipe::Connect(name, timeout_ms, pipe, error);
  if (result != platform::IoResult::kOk) {
    const char* what = result == platform::IoResult::kTimedOut ? "Failed to wait for read pipe "
                                                               : "Failed to create read pipe ";
    LogApi(Log::kFailures,
           std::string(what) + platform::Utf16ToUtf8(name) + " " + std::to_string(error));
    return false;
  }
  Adopt(std::move(pipe));
  return true;
}

void PipeChannel::Adopt(std::unique_ptr<platform::Pipe> pipe) {
  pipe_ = std::move(pipe);
  // A stop ends the pipe for the channel anyway, so its reads may wait inside the read call.
  if (pipe_) pipe_->WaitInsideReads();
  staged_begin_ = staged_end_ = 0;
  rest_.Start(0);
  lost_ = platform::IoResult::kOk;
  stop_.Reset();
  write_lock_.Reset();
  read_lock_.Reset();
}

bool PipeChannel::BeginWrite() {
  if (!write_lock_.Lock()) return false;
  output_.Reset();
  return true;
}

PipeChannel::WriteStatus PipeChannel::EndWrite() {
  // The first part is left for the frame header.
  std::span<const uint8_t> parts[] = {{}, {output_.Data(), output_.Size()}};
  const WriteStatus status = WriteBody(parts, output_.Size());
  write_lock_.Unlock();
  return status;
}

void PipeChannel::CancelWrite() {
  output_.Reset();
  write_lock_.Unlock();
}

PipeChannel::WriteStatus PipeChannel::EndWriteFrames(std::span<const size_t> ends) {
  WriteStatus status = WriteStatus::kFailed;
  try {
    gather_headers_.clear();
    gather_headers_.reserve(ends.size());
    gather_parts_.clear();
    gather_parts_.reserve(2 * ends.size());
    size_t begin = 0;
    status = WriteStatus::kWritten;
    for (const size_t end : ends) {
      if (end < begin || end > output_.Size()) {
        status = WriteStatus::kFailed;
        break;
      }
      if (end - begin > kMaxFrameBodyBytes) {
        status = WriteStatus::kTooLarge;
        break;
      }
      gather_headers_.push_back(EncodeFrameHeader(static_cast<uint32_t>(end - begin)));
      gather_parts_.push_back(gather_headers_.back());
      gather_parts_.emplace_back(output_.Data() + begin, end - begin);
      begin = end;
    }
    if (status == WriteStatus::kWritten) status = WriteParts(gather_parts_);
  } catch (const std::exception&) {
    status = WriteStatus::kFailed;
  }
  write_lock_.Unlock();
  return status;
}

PipeChannel::WriteStatus PipeChannel::WriteFrame(std::span<const uint8_t> body) {
  if (!write_lock_.Lock()) return WriteStatus::kStopped;
  std::span<const uint8_t> parts[] = {{}, body};
  const WriteStatus status = WriteBody(parts, body.size());
  write_lock_.Unlock();
  return status;
}

namespace {

// Appends the parts of one frame: its header, then the buffer's bytes between the runs it refers
// to and the runs from where they lie; `lendable` gets a flag per part, set for a run whose pages
// may be lent.
void AppendFrameParts(const MessageBuffer& body, std::span<const uint8_t> header,
                      std::vector<std::span<const uint8_t>>& parts,
                      std::vector<uint8_t>& lendable) {
  parts.push_back(header);
  lendable.push_back(0);
  const uint8_t* data = body.Data();
  size_t at = body.ReadOffset();
  for (const MessageBuffer::Reference& reference : body.References()) {
    parts.emplace_back(data + (at - body.ReadOffset()), reference.offset - at);
    parts.emplace_back(reference.data, reference.size);
    lendable.push_back(0);
    lendable.push_back(reference.lendable != nullptr);
    at = reference.offset;
  }
  parts.emplace_back(data + (at - body.ReadOffset()), body.WriteOffset() - at);
  lendable.push_back(0);
}

}  // namespace

PipeChannel::WriteStatus PipeChannel::WriteFrame(const MessageBuffer& body) {
  if (body.References().empty()) {
    return WriteFrame(std::span<const uint8_t>(body.Data(), body.Size()));
  }
  const MessageBuffer* const bodies[] = {&body};
  return WriteFrames(bodies);
}

PipeChannel::WriteStatus PipeChannel::WriteFrames(std::span<const MessageBuffer* const> bodies) {
  size_t part_count = 0;
  for (const MessageBuffer* body : bodies) {
    if (body->BodySize() > kMaxFrameBodyBytes) return WriteStatus::kTooLarge;
    part_count += 2 * body->References().size() + 2;
  }
  if (!write_lock_.Lock()) return WriteStatus::kStopped;
  WriteStatus status = WriteStatus::kFailed;
  try {
    ReclaimLent();
    // Reserved first: the parts point into the headers.
    gather_headers_.clear();
    gather_headers_.reserve(bodies.size());
    gather_parts_.clear();
    gather_parts_.reserve(part_count);
    gather_lendable_.clear();
    gather_lendable_.reserve(part_count);
    for (const MessageBuffer* body : bodies) {
      gather_headers_.push_back(EncodeFrameHeader(static_cast<uint32_t>(body->BodySize())));
      AppendFrameParts(*body, gather_headers_.back(), gather_parts_, gather_lendable_);
    }
    // Held before the write: whatever part of them goes out, the peer may still read it.
    const bool lends = HoldLent(bodies);
    status = WriteParts(gather_parts_, gather_lendable_);
    if (lends) MarkLentSent();
  } catch (const std::exception&) {
    status = WriteStatus::kFailed;
  }
  write_lock_.Unlock();
  return status;
}

PipeChannel::WriteStatus PipeChannel::WriteBody(std::span<std::span<const uint8_t>> parts,
                                                size_t size) {
  if (size > kMaxFrameBodyBytes) return WriteStatus::kTooLarge;
  if (pipe_ == nullptr) return WriteStatus::kFailed;
  const auto header = EncodeFrameHeader(static_cast<uint32_t>(size));
  parts[0] = header;
  return WriteParts(parts);
}

bool PipeChannel::HoldLent(std::span<const MessageBuffer* const> bodies) {
  const bool any = std::any_of(bodies.begin(), bodies.end(), [](const MessageBuffer* body) {
    return std::any_of(body->References().begin(), body->References().end(),
                       [](const MessageBuffer::Reference& run) { return run.lendable != nullptr; });
  });
  if (!any) return false;
  std::lock_guard lock(lent_mutex_);
  for (const MessageBuffer* body : bodies) {
    for (const MessageBuffer::Reference& reference : body->References()) {
      if (reference.lendable != nullptr)
        lent_.push_back({reference.keeper, reference.lendable, false});
    }
  }
  // Holding is only for reuse: a peer that always leaves something unread (a steady stream of
  // notifications) would otherwise keep every block it was ever lent. Those let go unreclaimed
  // are unmapped, the pages the socket still holds staying as they were.
  if (lent_.size() > kMaxHeldLent)
    lent_.erase(lent_.begin(), lent_.end() - static_cast<ptrdiff_t>(kMaxHeldLent));
  has_lent_.store(true, std::memory_order_relaxed);
  return true;
}

void PipeChannel::MarkLentSent() {
  std::lock_guard lock(lent_mutex_);
  for (LentBytes& bytes : lent_)
    bytes.sent = true;
}

void PipeChannel::ReclaimLent() {
  if (!has_lent_.load(std::memory_order_relaxed)) return;
  std::lock_guard lock(lent_mutex_);
  // Only runs whose write had ended before the socket was found empty: a reader may get here
  // while a writer is still lending, and what it lends now the peer has not read.
  if (pipe_ == nullptr || pipe_->UnreadByPeer() != 0) return;
  std::erase_if(lent_, [](const LentBytes& bytes) {
    if (bytes.sent) bytes.pages->Reclaimed();
    return bytes.sent;
  });
  has_lent_.store(!lent_.empty(), std::memory_order_relaxed);
}

PipeChannel::WriteStatus PipeChannel::WriteParts(std::span<const std::span<const uint8_t>> parts,
                                                 std::span<const uint8_t> lendable) {
  if (pipe_ == nullptr) return WriteStatus::kFailed;
  switch (pipe_->Write(parts, lendable, stop_)) {
    case platform::IoResult::kOk:
      return WriteStatus::kWritten;
    case platform::IoResult::kStopped:
      return WriteStatus::kStopped;
    default:
      LogApi(Log::kFailures, WithError("Failed to write IPC data ", pipe_->LastSystemError()));
      LogApi(Log::kFailures, "Failed to write IPC message body");
      return WriteStatus::kFailed;
  }
}

platform::IoResult PipeChannel::ReadExact(uint8_t* dest, size_t size) {
  // What the staging buffer already holds goes first.
  const size_t staged = std::min(size, staged_end_ - staged_begin_);
  if (staged != 0) std::memcpy(dest, staging_.data() + staged_begin_, staged);
  staged_begin_ += staged;
  dest += staged;
  size -= staged;
  if (size == 0) return platform::IoResult::kOk;
  // A large remainder is read in place; a small one refills the staging buffer, so that a stream
  // of small frames costs one read each rather than two.
  if (size >= kStagingBytes) return pipe_->ReadExact(dest, size, stop_);
  if (staging_.size() < kStagingBytes) {
    try {
      staging_.resize(kStagingBytes);
    } catch (const std::exception&) {
      return pipe_->ReadExact(dest, size, stop_);
    }
  }
  staged_begin_ = staged_end_ = 0;
  while (staged_end_ < size) {
    size_t got = 0;
    const platform::IoResult result =
        pipe_->ReadSome(staging_.data() + staged_end_, kStagingBytes - staged_end_, got, stop_);
    if (result != platform::IoResult::kOk) return result;
    staged_end_ += got;
  }
  std::memcpy(dest, staging_.data(), size);
  staged_begin_ = size;
  return platform::IoResult::kOk;
}

platform::IoResult PipeChannel::ReadBody(size_t size) {
  const size_t head = in_part_ && size > kPartBodyFrom ? kPartBodyHead : size;
  uint8_t* body = input_.Reserve(head);
  if (body == nullptr) return platform::IoResult::kFailed;
  const platform::IoResult result = ReadExact(body, head);
  if (result != platform::IoResult::kOk || head == size) return result;
  rest_.Start(size - head);
  input_.SetSource(&rest_);
  return result;
}

bool PipeChannel::BodyRest::ReadInto(uint8_t* dest, size_t size) {
  if (result_ != platform::IoResult::kOk || size > unread_) return false;
  result_ = channel_.ReadExact(dest, size);
  if (result_ != platform::IoResult::kOk) return false;
  unread_ -= size;
  return true;
}

bool PipeChannel::BodyRest::Skip() {
  uint8_t scratch[4096];
  while (unread_ != 0) {
    if (!ReadInto(scratch, std::min(unread_, sizeof scratch))) return false;
  }
  return result_ == platform::IoResult::kOk;
}

PipeChannel::ReadStatus PipeChannel::ReadFrame() {
  if (!read_lock_.Lock()) return ReadStatus::kStopped;
  auto fail = [this](ReadStatus status) {
    frame_since_ = 0;
    read_lock_.Unlock();
    return status;
  };
  if (pipe_ == nullptr) return fail(ReadStatus::kFailed);
  input_.Reset();

  // After a body whose rest could not be read, the next frame cannot be found.
  platform::IoResult result = lost_;
  if (result == platform::IoResult::kOk) {
    uint8_t header[kFrameHeaderBytes];
    result = ReadExact(header, sizeof header);
    uint32_t body_length = 0;
    if (result == platform::IoResult::kOk) {
      if (ParseFrameHeader(header, body_length) != FrameHeaderCheck::kOk) {
        return fail(ReadStatus::kBadFrame);
      }
      if (gate_ && body_length >= kPartBodyFrom && !gate_(body_length)) {
        return fail(ReadStatus::kStopped);
      }
      // Only a body still to come from the pipe is timed: one read in whole with its header
      // (nearly every frame) cannot stall.
      if (staged_end_ - staged_begin_ < body_length)
        frame_since_ = std::chrono::steady_clock::now().time_since_epoch().count();
      // A new request: a peer that waited for its answers has read them all by now.
      ReclaimLent();
      result = ReadBody(body_length);
    }
  }
  switch (result) {
    case platform::IoResult::kOk:
      return ReadStatus::kFrame;
    case platform::IoResult::kStopped:
      return fail(ReadStatus::kStopped);
    case platform::IoResult::kBrokenPipe:
      // How a server that went away shows itself: not worth a log line.
      return fail(ReadStatus::kClosed);
    default:
      LogApi(Log::kFailures, WithError("Failed to read IPC data ", pipe_->LastSystemError()));
      return fail(ReadStatus::kFailed);
  }
}

bool PipeChannel::HasInput() {
  // After a failure the next read reports it at once.
  if (HasReadAhead() || lost_ != platform::IoResult::kOk) return true;
  return pipe_ != nullptr && pipe_->WaitReadable(stop_, false) != platform::IoResult::kTimedOut;
}

bool PipeChannel::AwaitInput() {
  return pipe_ != nullptr && pipe_->WaitReadable(stop_, true) == platform::IoResult::kOk;
}

void PipeChannel::ReleaseRead() {
  if (!rest_.Skip()) lost_ = rest_.result();
  rest_.Start(0);
  input_.SetSource(nullptr);
  if (input_.Capacity() > kKeptInputBytes) input_ = MessageBuffer();
  frame_since_ = 0;
  read_lock_.Unlock();
}

std::chrono::steady_clock::duration PipeChannel::FrameArrivingFor(
    std::chrono::steady_clock::time_point now) const {
  const std::chrono::steady_clock::rep since = frame_since_;
  if (since == 0) return {};
  return now.time_since_epoch() - std::chrono::steady_clock::duration(since);
}

void PipeChannel::Stop() {
  stop_.Set();
  write_lock_.Stop();
  read_lock_.Stop();
}

void PipeChannel::Close() {
  // A writer on another thread may be in the middle of a frame: stopped, it lets go of the pipe
  // soon, and the pipe goes once it has.
  Stop();
  write_lock_.LockEvenIfStopped();
  // What the peer has not read yet it may still read: such bytes are let go unreclaimed.
  ReclaimLent();
  {
    std::lock_guard lock(lent_mutex_);
    lent_.clear();
    has_lent_.store(false, std::memory_order_relaxed);
    pipe_.reset();  // under the lock too: a reader may be reclaiming
  }
  write_lock_.Unlock();
}

}  // namespace qv
