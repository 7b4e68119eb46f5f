#pragma once
// The two intermediate notification bases that lay down leading fields shared by a family of
// notifications, and the records that only notifications carry. The bases are abstract: they are
// never made by the factory, and a class over one of them (NotificationOf<Derived, Base>) writes
// the base's fields first and its own after them.

#include <cstdint>

#include "requests/wire_types.h"
#include "serverlink/messages.h"
#include "serverlink/wire_record.h"

namespace qv {

// Multi-phase progress: the target key, a text for the user, then where the work stands.
class CGenericProgressNotification : public CNotification {
 public:
  VEKX_FIELDS((uint32_t, TargetKey, "TargetKey:")(WString, Description, "Description:")(
      uint32_t, Phase, "Phase:")(uint32_t, NumberOfPhases, "NumberOfPhases:")(
      uint32_t, Percentage, "Percentage:")(uint32_t, Flags, "Flags:")(uint32_t, EstimatedDuration,
                                                                      "EstimatedDuration:"))

  template <class Self, class Visitor>
  static void VisitFields(Self& self, Visitor&& visit) {
    CNotification::VisitFields(self, visit);
    VisitOwnFields(self, visit);
  }
};

// A failed operation: the target key, then the result pair. Result is passed through as the
// server sent it; RawResult is the lower layer's code behind it.
class CErrorNotification : public CNotification {
 public:
  VEKX_FIELDS((uint32_t, TargetKey, "TargetKey:")(uint32_t, Result, "Result:")(uint32_t, RawResult,
                                                                               "RawResult:"))

  template <class Self, class Visitor>
  static void VisitFields(Self& self, Visitor&& visit) {
    CNotification::VisitFields(self, visit);
    VisitOwnFields(self, visit);
  }
};

// A Mirador kit that a search found.
VEKX_RECORD(MiradorTargetRecord,
            (WString, HostName, "HostName:")(WString, Name, "Name:")(Bytes, MacAddress,
                                                                     "MacAddress:"));
using MiradorTargetList = std::vector<MiradorTargetRecord>;

// The fixed head of an event that the viewer forwards: 16 bytes as they lie in memory.
VEKX_PLAIN_RECORD(EventHeader, 16,
                  (uint32_t, Id, "Id:")(uint32_t, Type, "Type:")(uint64_t, Timestamp,
                                                                 "Timestamp:"));

}  // namespace qv
