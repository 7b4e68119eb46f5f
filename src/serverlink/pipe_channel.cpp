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
  staged_begin_ = staged_end_ = 0;
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
  const WriteStatus status = WriteBody({output_.Data(), output_.Size()});
  write_lock_.Unlock();
  return status;
}

PipeChannel::WriteStatus PipeChannel::WriteFrame(std::span<const uint8_t> body) {
  if (!write_lock_.Lock()) return WriteStatus::kStopped;
  const WriteStatus status = WriteBody(body);
  write_lock_.Unlock();
  return status;
}

PipeChannel::WriteStatus PipeChannel::WriteBody(std::span<const uint8_t> body) {
  if (body.size() > kMaxFrameBodyBytes) return WriteStatus::kTooLarge;
  if (pipe_ == nullptr) return WriteStatus::kFailed;
  const auto header = EncodeFrameHeader(static_cast<uint32_t>(body.size()));
  const std::span<const uint8_t> parts[] = {header, body};
  switch (pipe_->Write(parts, stop_)) {
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

PipeChannel::ReadStatus PipeChannel::ReadFrame() {
  if (!read_lock_.Lock()) return ReadStatus::kStopped;
  auto fail = [this](ReadStatus status) {
    read_lock_.Unlock();
    return status;
  };
  if (pipe_ == nullptr) return fail(ReadStatus::kFailed);
  input_.Reset();

  uint8_t header[kFrameHeaderBytes];
  platform::IoResult result = ReadExact(header, sizeof header);
  uint32_t body_length = 0;
  if (result == platform::IoResult::kOk) {
    if (ParseFrameHeader(header, body_length) != FrameHeaderCheck::kOk) {
      return fail(ReadStatus::kBadFrame);
    }
    uint8_t* body = input_.Reserve(body_length);
    if (body == nullptr) return fail(ReadStatus::kFailed);
    result = ReadExact(body, body_length);
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

void PipeChannel::Stop() {
  stop_.Set();
  write_lock_.Stop();
  read_lock_.Stop();
}

void PipeChannel::Close() {
  pipe_.reset();
}

}  // namespace qv
