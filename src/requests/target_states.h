#pragma once
// The values that target state travels as: the power status and connection state that
// POWER_STATUS and CONNECTION_STATE answer, and the operation and progress words of the
// POWER_STATE notification.

#include <cstdint>

namespace qv {

// ePowerStatus: single bits.
enum class PowerStatus : uint32_t {
  kUnknown = 0,
  kOn = 2,
  kStandby = 4,
  kSuspend = 8,
  kMainOnStandby = 16,
  kOff = 32,
};

// eConnectionState, as seen by the client that asks.
enum class ConnectionState : uint32_t {
  kAvailable = 0,  // nobody holds the target
  kConnected = 1,  // the asking client holds it
  kInUse = 2,      // another client holds it
};

// ePowerOperation: which power change a POWER_STATE notification reports.
// The values are the interface's, since the event hands the word to hosts as it came.
enum class PowerOperation : uint32_t {
  kPowerOn = 0,
  kPowerOff = 1,
  kReboot = 2,
  kForcePowerOff = 4,  // 3 is a suspend, which no target of this server does
};

// ePowerProgress: where that change stands. A change reports kStarted once, then kCompleted or
// kFailed once.
enum class PowerProgress : uint32_t {
  kStarted = 0,
  kCompleted = 1,
  kFailed = 2,
};

// The target types ADD_TARGET accepts.
inline constexpr char16_t kTargetTypeKit[] = u"VE";
inline constexpr char16_t kTargetTypeCoreDump[] = u"CoreDump";

}  // namespace qv
