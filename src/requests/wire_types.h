#pragma once
// Short names for the field types of the catalogue, and the records shared by several operations
// of the target and root objects.

#include <cstdint>
#include <string>
#include <vector>

#include "serverlink/bulk_bytes.h"
#include "serverlink/wire_fields.h"
#include "serverlink/wire_record.h"

namespace qv {

using WString = std::u16string;  // wide string
using NString = std::string;     // narrow string
using Bytes = std::vector<uint8_t>;
using U32List = std::vector<uint32_t>;
using U64List = std::vector<uint64_t>;
using WStringList = std::vector<std::u16string>;

// One named property of a target or of the server's summary of a host; both travel as text, and
// the public side turns them into name-value pair objects.
VEKX_RECORD(NameValue, (WString, Name, "Name:")(WString, Value, "Value:"));
using NameValueList = std::vector<NameValue>;

// An address range to search for kits: three u32, 12 bytes as they lie in memory.
VEKX_PLAIN_RECORD(FindRule, 12,
                  (uint32_t, StartAddress, "StartAddress:")(uint32_t, EndAddress,
                                                            "EndAddress:")(uint32_t, SubnetMask,
                                                                           "SubnetMask:"));
using FindRuleList = std::vector<FindRule>;

// One piece of console output as the server's cache keeps it. The timestamp comes third here,
// unlike in the live notification.
VEKX_RECORD(ConsoleCacheRecord,
            (uint32_t, Port, "Port:")(uint32_t, Category, "Category:")(uint64_t, Timestamp,
                                                                       "Timestamp:")(
                uint32_t, ProcessId, "ProcessId:")(uint32_t, ThreadId, "ThreadId:")(WString, Text,
                                                                                    "Text:"));
using ConsoleCacheRecordList = std::vector<ConsoleCacheRecord>;

}  // namespace qv
