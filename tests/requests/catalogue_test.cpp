#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;

// The operations as the protocol document lists them, transcribed independently of the .def
// rows, so that a typo in either shows up here.
constexpr const char* kOperationTable = R"(
ACK_CONSOLE_OUTPUT 0x2afebdb8; ADD_TARGET 0x2c3903b5; ALLOCATE_DATA_PAGE 0x64c6c741;
ALLOCATE_EXECUTABLE_PAGE 0x48d27ac9; APP_KILL 0x1ca076b2; APP_LIST 0x1ca10402; APP_RESUME
0x56a8b0f7; APP_SPAWN 0x3143baaf; APP_SUSPEND 0x1e08b848; ATTACH_PROCESS 0x5f7416f9;
BLURAY_MOUNT_STATUS 0x7c26ba4b; CACHED_IS_USB_CONNECTED 0x35d83ff6; CANCEL_CACHE_UPDATE_EVENTS
0x5f2c957; CANCEL_CONSOLE_OUTPUT_EVENTS 0x4406fa44; CANCEL_CONTROLLER_EVENTS 0x1204de24;
CANCEL_COREDUMP 0x4052764a; CANCEL_CURRENT_COMMAND 0x3d6a0ead; CANCEL_DEBUG_EVENTS 0x48ce61c7;
CANCEL_DISTRIBUTED_COPY 0xb590469; CANCEL_FIND_MIRADOR_TARGETS 0x42062013; CANCEL_FIND_TARGETS
0x339eb9a6; CANCEL_GENERIC_PROTOCOL_EVENTS 0x4c065af; CANCEL_HIGH_FREQ_FILE_COPY_EVENTS
0x4c91fc09; CANCEL_LOW_FREQ_FILE_COPY_EVENTS 0x4e74f19b; CANCEL_MY_COMMANDS 0xa26aa43;
CANCEL_PROCESS_LOCK_EVENTS 0x318cb9e8; CANCEL_SERVER_EVENTS 0x345d6bf7; CANCEL_TARGET_EVENTS
0x1687cec7; CANCEL_TRICKLE_EVENTS 0x49284fcc; CANCEL_VIEWER_EVENTS 0x1c9d6b72;
CAPTURE_SCREEN_SHOT 0x6247d257; CLEAR_CONSOLE_CACHE 0x51824a93; CLEAR_HARDWARE_BREAK_POINT
0x32d74309; CLEAR_PROTOCOL_IN_USE 0x374d49e2; CLEAR_SOFTWARE_BREAK_POINT 0x17ae2c06;
CONNECTION_STATE 0x6d5c4b96; CONNECT_FOR_NOTIFICATIONS 0x43e4a950; CONTROL_ENTITLEMENT
0x4c36044f; DCI_ENABLED 0x6af06780; DEALLOCATE_DATA_PAGE 0x3a1e93ca;
DEALLOCATE_EXECUTABLE_PAGE 0x1dbdca12; DELETE_TARGET 0x580436df; DETACH_PROCESS 0x6f4ebacd;
DISCONNECT_FROM_NOTIFICATIONS 0x4d8573d; DISCOVER_TARGETS 0x6268b1fe;
DISTRIBUTED_COPY_IN_PROGRESS 0x742ba8cf; DISTRIBUTED_DIR_COPY 0x7475d7e2;
DISTRIBUTED_FILE_COPY 0x5004a5a3; DUMP_VR_INFO 0x196fb24f; ENABLE_DCI 0x7335ee3c;
ENABLE_HOST_EXEC 0x4a6d9f4f; EXTRACT_USER_FILE 0x7f9fca3f; FETCH_CONSOLE_CACHE 0x229569f6;
FILE_SYSTEM_DEVICES 0x731f1bcd; FIND_MIRADOR_TARGETS 0x46138acd; FIND_TARGETS 0xef20a60;
FORCE_DISCONNECT 0x1eab443e; FORCE_POWER_OFF 0x1501241c; FSD_FOLDER_NAME 0x3ab1f47f;
FSD_FOLDER_TO_TARGET_AND_PATH 0x4afa6f08; FSD_FOLDER_TO_TARGET_PATH 0x3d19ab75;
GENERATE_SYSTEM_COREDUMP 0x50e54fb4; GENERIC_PROTOCOL_CLOSE 0x1cfbee0a; GENERIC_PROTOCOL_OPEN
0x46b8f146; GENERIC_PROTOCOL_READ 0x46ba6710; GENERIC_PROTOCOL_STATUS 0x625556d8;
GENERIC_PROTOCOL_WRITE 0x1e6908ff; GET_APP_OBJECT_INFO 0x4728dde9; GET_BLURAY_INFO 0xa174380;
GET_CACHED_POWER_STATE 0x60e1faab; GET_CACHED_SUBNET_MASK 0x5f3eb5fa; GET_CACHED_TARGET_NAME
0x72d6a365; GET_CACHED_TOOL_TYPE 0x3937d69d; GET_CALLSTACK_SIGNATURE 0x158ab389;
GET_CASE_SENSITIVE_FILE_SERVING 0x2503e3d9; GET_CLIENT_PIDS 0x30531b14; GET_COMPRESSION_ATTRIB
0x655c163d; GET_CONFIGURATION 0x632fa77d; GET_CONNECTION_INFO 0x110a55c1;
GET_CONSOLE_CACHE_SIZE 0x29c71147; GET_CONSOLE_CACHE_U_BOUND 0x39b35f19;
GET_COREDUMP_USER_DATA 0x26086ebd; GET_COREDUMP_USER_FILE_LIST 0x6c0bacbf;
GET_COREFILE_APP_INFO 0x3255257b; GET_CORE_DUMP_TARGET_BY_HOST 0x1147e384; GET_CORE_DUMP_TYPE
0x144461e6; GET_DEBUG_AGENT_LOGGING 0x72ed00e2; GET_DEFAULT_SETTINGS 0x498869bb;
GET_DEFAULT_TARGET 0xa1addd1; GET_DISC_MAP 0x47479806; GET_DISTRIBUTED_COPY_LOGGING
0x6a2ce96a; GET_DISTRIBUTED_COPY_TARGETS_BY_ID 0x6eb78805; GET_EVENT_VIEWER_FILTER 0x513caff;
GET_EVENT_VIEWER_XML 0x441f16a; GET_FILES 0x7473d578; GET_FILE_SERVING_ROOT 0x537f31c7;
GET_FILE_SYSTEM_DRIVE 0x7a54dc4; GET_FILE_SYSTEM_DRIVER_VERSION 0x7f32d4bc;
GET_HARDWARE_BREAK_POINT_LIST 0x14d213fe; GET_HMD_VERSION_INFO 0xd16acf0; GET_HOST_NAME
0x305385c4; GET_INSTALLED_ENTITLEMENTS 0x7fb13ca1; GET_INSTALLED_PACKAGES_BY_TITLE 0xe567c81;
GET_INSTALLED_TITLE_INFO 0x4aef71f3; GET_LARGE_MEMORY 0x21215329; GET_LOGGING_LEVEL 0x3824984;
GET_MAC_ADDRESS 0x6245da5c; GET_MEMORY 0x12faf61e; GET_MEMORY_RANGES 0x288ef65e; GET_META_DATA
0x4cce2ac6; GET_MODULE_INFO_LIST 0x5fc06953; GET_MONO_VM_INFO 0x1cc3658d; GET_MONO_VM_LOG
0x753c4643; GET_NETWORK_EMULATION_SETTINGS 0x7fb9eb2e; GET_NETWORK_INTERFACE_INFO 0x5fb1d0cc;
GET_NETWORK_MANAGER_INFO 0x1430ca16; GET_NETWORK_MANAGER_LOGGING 0x3e53fbf1;
GET_NETWORK_RESOLVER_INFO 0x35e69d6d; GET_NETWORK_SYSTEM_INFO 0x4c70ee00; GET_NVL_STATE
0x4e745717; GET_OUTPUT_DISPLAY_MODE 0x59ca18b1; GET_POWER_STATE 0x34fe8893;
GET_PROCESS_INFO_SNAPSHOT 0x714a2660; GET_PROTOCOL_INFO 0x31b35e83; GET_REAL_TIME_CLOCK
0x34d00704; GET_REGISTERS 0x5a52957d; GET_SCATTERED_MEMORY 0x626ce67d; GET_SDK_VERSION
0xde3538d; GET_SERVER_VERSION 0x2b2f8b22; GET_SETTINGS 0x57c57956; GET_SETTINGS_LAYOUT
0x32b43c14; GET_SETTINGS_XML 0x402f8667; GET_SOCKET_INFO 0x7dc1c09a;
GET_SOFTWARE_BREAK_POINT_LIST 0x6cbf337b; GET_SOFTWARE_INFO 0x5eb3389c;
GET_SYNC_PRIM_INFO_LIST 0x5bd753c2; GET_SYSTEM_FREQUENCIES 0x4d196584; GET_SYSTEM_TIMESTAMPS
0x2eee7491; GET_TARGETS_BY_HOST 0x39c1cd18; GET_TARGETS_BY_NAME 0x39c4dafb;
GET_TARGET_BUSY_STATE 0x192a31d0; GET_TARGET_COMMS_STATUS 0x7f35a4cf; GET_TARGET_INFO
0x46f0a9d8; GET_TARGET_LIST 0x46f23b68; GET_TARGET_NAME 0x46f3314d; GET_TARGET_SUMMARY
0x10ac355a; GET_TARGET_SYSTEM_TIME 0x7da984c0; GET_THREAD_INFO_SNAPSHOT 0x184bebd9;
GET_TITLE_SAFE_AREA_INFO 0x1937532b; GET_TOOL_TYPE 0x3987ca85; GET_TRICKLE_FILE_ERRORS
0x5ffc240e; GET_TRICKLE_STATUS 0x10209115; GET_VMEM_INFO 0x60cf44c6; HAS_MANIFEST 0xc3fbd98;
HOST_EXEC_ENABLED 0x7ca820d3; IBS_TRACE_CREATE 0x5a25f2c6; IBS_TRACE_GET_INFO 0x357c5bde;
INITIATE_TRICKLE_DOWNLOAD 0x69610be0; INSTALL_PACKAGE 0x47db3d08; INSTALL_PACKAGE_EX
0x2b9ea865; INSTALL_TRICKLE_CHUNKS 0x79365854; IS_PROCESS_LOCKED 0x2825f532; KERNEL_FILE_COPY
0x3f709561; KILL_PROCESS 0x165d9e30; LIST_INSTALLED_PACKAGES 0x545fe8a0; LOAD_CORE_DUMP
0x3a45184; LOAD_PROCESS 0x50923824; MAKE_PACKAGE_LINK 0x48b4adbd; MISSING_MEMORY_DUMPS
0x4b10e3a1; MOUNT_APP_DATA 0x7206abf3; MOUNT_BLURAY 0xd46c987; MOVE_TITLE 0x593277de;
PACKAGE_FILE_COPY 0x79a446c; PERF_COUNTER_CLOSE 0xb20f88; PERF_COUNTER_L_2I_RESET 0x7142d4fc;
PERF_COUNTER_L_2I_SELECT_EVENTS 0x374c2fee; PERF_COUNTER_L_2I_START 0x715cdc47;
PERF_COUNTER_L_2I_STOP 0x22772f3f; PERF_COUNTER_NB_RESET 0x2acceca5;
PERF_COUNTER_NB_SELECT_EVENTS 0x732bef77; PERF_COUNTER_NB_START 0x2ae6f3f0;
PERF_COUNTER_NB_STOP 0x2fd875c8; PERF_COUNTER_OPEN 0x1751db04; PERF_COUNTER_RESET 0x1bdb7b5;
PERF_COUNTER_SELECT_EVENTS 0x1407a887; PERF_COUNTER_START 0x1d7bf00; PERF_COUNTER_STOP
0x17541ed8; PLAYBACK_DATA 0x9493e66; POWER_OFF 0x4dbf968d; POWER_ON 0x1d81ed4f; POWER_STATUS
0x463e6016; PROTOCOL_REGISTRATION_INFO 0x7736b0fe; PROTOCOL_REGISTRATION_INFO_LIST 0x252e7aba;
QUERY_PROTOCOL_IN_USE 0x5cabf6f1; READ_GPU_INFO 0xf3cce19; REBOOT 0x4e815750;
RECLAIM_PROCESS_LOCK 0x51b342ea; RELEASE_CONNECTION 0x5dc24836; RELEASE_PROCESS_LOCK
0x5ab90b8e; REQUEST_CACHE_UPDATE_EVENTS 0x24e3689a; REQUEST_CONNECTION 0x5015cbde;
REQUEST_CONSOLE_OUTPUT_EVENTS 0x619c7647; REQUEST_CONTROLLER_EVENTS 0x73ed2107;
REQUEST_DEBUG_EVENTS 0x3d58aca; REQUEST_GENERIC_PROTOCOL_EVENTS 0x5da4ee72;
REQUEST_HIGH_FREQ_FILE_COPY_EVENTS 0x42079d2c; REQUEST_LOW_FREQ_FILE_COPY_EVENTS 0x27597a5e;
REQUEST_PROCESS_LOCK 0x177d0436; REQUEST_PROCESS_LOCK_EVENTS 0x507d592b; REQUEST_SERVER_EVENTS
0x5049b55a; REQUEST_TARGET_EVENTS 0x3274182a; REQUEST_TRICKLE_EVENTS 0x6514992f;
REQUEST_VIEWER_EVENTS 0x3889b4d5; RESTORE_TRICKLE_CHUNK_STATUS 0x7b9e79f2; RESUME_PROCESS
0x5a0ecc95; RESUME_THREAD 0x74162a6e; SEND_CONSOLE_INPUT 0x235fe5d2;
SEND_CONSOLE_INPUT_WITH_ECHO 0x64a3c1ed; SET_CACHED_MAC_ADDRESS 0x58661780;
SET_CACHED_SUBNET_MASK 0x297b8106; SET_CASE_SENSITIVE_FILE_SERVING 0xeb0fae5;
SET_COMPRESSION_ATTRIB 0x773242c9; SET_CONSOLE_CACHE_SIZE 0x7403dc53;
SET_CURRENT_SLOT_ID_OF_TITLE 0x5341e07a; SET_DEBUG_AGENT_LOGGING 0x4c32d6e; SET_DEFAULT_TARGET
0x1c98a45d; SET_DISTRIBUTED_COPY_LOGGING 0x7b50cd76; SET_EVENT_VIEWER_FILTER 0x16e9f78b;
SET_FILE_SERVING_ROOT 0x7c88cb53; SET_HARDWARE_BREAK_POINT 0x79b4064e; SET_HOST_NAME
0x70ac04d0; SET_LOGGING_LEVEL 0x2adb6e90; SET_MEMORY 0x8d0422a; SET_NETWORK_EMULATION_SETTINGS
0x6967023a; SET_NETWORK_MANAGER_LOGGING 0x71458e7d; SET_PROTOCOL_IN_USE 0x7a9cae07;
SET_REGISTERS 0x25baf609; SET_SCATTERED_MEMORY 0xb768009; SET_SETTINGS 0x181df862;
SET_SOFTWARE_BREAK_POINT 0x5e8aef4b; SET_TARGET_NAME 0x7f67a359; SPM_TRACE_CREATE 0x5c2687d8;
SPM_TRACE_DELETE 0x5d945997; SPM_TRACE_ENABLE 0x608648cb; SPM_TRACE_GET_INFO 0x778f9330;
SPM_TRACE_READ 0x22e84ea0; SPM_TRACE_START 0xc7712; SPM_TRACE_STOP 0x22e91caa; STANDBY
0xe9109fa; START_FILE_SYSTEM_DRIVER 0x7e7e2e04; START_MULTI_FILE_PACKET_LOGGING 0x7a75205d;
START_NET_MNGR_PACKET_LOGGING 0x58a3d64d; START_PACKAGE_INSTALL 0x5851b496;
START_PACKET_LOGGING 0x4e6f1632; START_PASS_THRU_TRACE 0x6f07833c; START_PLAYBACK 0x2d77c55a;
START_RECORDING 0x5360ab30; STOP_FILE_SYSTEM_DRIVER 0x3718737c; STOP_NET_MNGR_PACKET_LOGGING
0x375417c5; STOP_PACKET_LOGGING 0x58da8eaa; STOP_PASS_THRU_TRACE 0x7972fbb4; STOP_PLAYBACK
0x15c012d2; STOP_RECORDING 0x44b2a7a8; SUSPEND_PROCESS 0x6e14f2a6; SUSPEND_THREAD 0xbf7525f;
TARGET_CONNECT 0x3b461416; TARGET_DISCONNECT 0x784b2ff6; THREAD_NAMES 0x152ef11; TRACE_CREATE
0x7e719848; TRACE_DELETE 0x7fdf6a07; TRACE_ENABLE 0x2d1593b; TRACE_GET_INFO 0x633cb1a0;
TRACE_GET_SIZES 0x4b857102; TRACE_RESET 0x23e53237; TRACE_START 0x23ff3982;
TRACE_START_LIVE_CAPTURE 0x91e0e06; TRACE_STOP 0x7955511a; TRANSFER_PROCESS_LOCK 0x26682f2;
TRICKLE_EXPORT_SAVE_DATA 0x3a979cdc; TRICKLE_GET_SAVE_DATA_LIST 0x3fe32616;
TRICKLE_IMPORT_SAVE_DATA 0x3e831ad5; TRIGGER_COREDUMP 0x35fa8038; UNINSTALL_PACKAGE
0x179eb30b; UNMOUNT_APP_DATA 0xb5ec536; UNMOUNT_BLURAY 0x1d8f466a; UPDATE_CP_FIRMWARE
0x26006b8; UPDATE_KERNEL 0x4c2cf929; WRITE_TRACE_PACKET 0x5e3c5717; WRITE_TRICKLE_CHUNK_STATUS
0x174f9619)";

std::map<std::string, uint32_t> ParseOperationTable() {
  std::map<std::string, uint32_t> operations;
  std::istringstream in(kOperationTable);
  std::string name, number;
  while (in >> name >> number)
    operations[name] = static_cast<uint32_t>(std::stoul(number, nullptr, 16));  // stops at ';'
  return operations;
}

TEST(CatalogueTest, FactoriesHoldExactlyTheDocumentedOperations) {
  std::map<std::string, uint32_t> requests;
  std::map<std::string, uint32_t> responses;
  for (const auto& entry : RequestFactory().Entries())
    requests[platform::Utf16ToUtf8(entry.name)] = entry.type_number;
  for (const auto& entry : ResponseFactory().Entries())
    responses[platform::Utf16ToUtf8(entry.name)] = entry.type_number;
  EXPECT_EQ(responses, requests);
  EXPECT_EQ(requests, ParseOperationTable());
}

TEST(CatalogueTest, BuildingAFactoryFindsATypeNumberUsedTwice) {
  using Entry = MessageFactoryEntry<CRequest>;
  constexpr auto unique = SortByTypeNumber(std::to_array<Entry>({{3, u"C"}, {1, u"A"}, {2, u"B"}}));
  constexpr auto twice = SortByTypeNumber(std::to_array<Entry>({{3, u"C"}, {1, u"A"}, {3, u"D"}}));
  static_assert(!HasDuplicateTypeNumbers(unique));
  static_assert(HasDuplicateTypeNumbers(twice));
  EXPECT_EQ(unique[0].name, u"A");
  EXPECT_EQ(MessageFactory<CRequest>(unique).NameOf(2), u"B");
}

TEST(CatalogueTest, HandComputedEncodings) {
  CAddTargetRequest add;
  add.TargetType = u"VE";
  add.HostName = u"kit1";
  EXPECT_EQ(Encode(add), (ByteVector{3, 0, 0, 0, 'V', 0, 'E', 0, 0,   0,  // target type
                                     5, 0, 0, 0, 'k', 0, 'i', 0, 't', 0, '1', 0, 0, 0}));
  EXPECT_EQ(add.ToString(), "{ TargetType:VE HostName:kit1 }");
  EXPECT_EQ(add.GetTypeNumber(), 0x2c3903b5u);

  CGetTargetListResponse list;
  list.Sequence = 7;
  list.Targets = {1, 2};
  EXPECT_EQ(Encode(list), (ByteVector{0, 0, 0, 0,              // Result
                                      1, 0, 0, 0, 0, 0,        // empty ResultText
                                      7, 0, 0, 0,              // Sequence
                                      2, 0, 0, 0, 1, 0, 0, 0,  // Targets
                                      2, 0, 0, 0}));

  // A failed response carries only the head, whatever its fields hold.
  list.Result = 0x8004021B;
  list.ResultText = u"x";
  EXPECT_EQ(Encode(list),
            (ByteVector{0x1B, 0x02, 0x04, 0x80, 2, 0, 0, 0, 'x', 0, 0, 0, 7, 0, 0, 0}));

  CRequestProcessLockRequest lock;
  lock.ProcessId = 12;
  lock.Requester = u"tool";
  EXPECT_EQ(lock.ToString(), "{ ProcessId:12 Requester:tool }");
  EXPECT_EQ(lock.GetName(), u"REQUEST_PROCESS_LOCK");
  EXPECT_EQ(lock.GetTypeNumber(), 394069046u);
}

// A failed response decodes from its head alone; a broken head leaves an empty one.
TEST(CatalogueTest, ResponseHeads) {
  CFetchConsoleCacheResponse failed;
  ASSERT_TRUE(DecodeAll({5, 0, 0, 0, 3, 0, 0, 0, 'n', 0, 'o', 0, 0, 0, 9, 0, 0, 0}, failed));
  EXPECT_EQ(failed.Result, 5u);
  EXPECT_EQ(failed.ResultText, u"no");
  EXPECT_EQ(failed.Sequence, 9u);
  EXPECT_TRUE(failed.Records.empty());

  const ByteVector cut_text{5, 0, 0, 0, 3, 0, 0, 0, 'n', 0};
  MessageBuffer buffer(cut_text.data(), cut_text.size());
  CGetDefaultTargetResponse broken;
  broken.Sequence = 3;
  EXPECT_FALSE(broken.Deserialize(buffer));
  EXPECT_EQ(broken.Result, 0u);
  EXPECT_EQ(broken.Sequence, 0u);
  EXPECT_TRUE(broken.ResultText.empty());
}

TEST(CatalogueTest, TruncatedResponsesNeverDecode) {
  CFetchConsoleCacheResponse full;
  full.Sequence = 4;
  full.NextIndex = 10;
  full.Records = {{0, 1, 99, 1234, 5, u"hello"}, {1, 0, 100, 1, 1, u""}};
  const ByteVector bytes = Encode(full);
  for (size_t n = 0; n < bytes.size(); ++n) {
    MessageBuffer buffer(bytes.data(), n);
    EXPECT_FALSE(CFetchConsoleCacheResponse().Deserialize(buffer)) << n;
  }
  CFetchConsoleCacheResponse response;
  ASSERT_TRUE(DecodeAll(bytes, response));
  EXPECT_EQ(response.Records, full.Records);
  EXPECT_EQ(response.NextIndex, 10u);
}

// Each message of both factories round-trips, and a response takes over only one of its own class
// (another class's answer is the link's test).
TEST(CatalogueTest, EveryMessageRoundTripsThroughItsFactory) {
  for (const auto& entry : RequestFactory().Entries()) {
    auto request = RequestFactory().Create(entry.type_number);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->GetTypeNumber(), entry.type_number);
    EXPECT_EQ(request->GetName(), entry.name);
    MessageBuffer buffer;
    ASSERT_TRUE(request->Serialize(buffer));
    auto decoded = RequestFactory().Create(entry.type_number);
    EXPECT_TRUE(decoded->Deserialize(buffer)) << platform::Utf16ToUtf8(entry.name);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(decoded->ToString(), request->ToString());
  }
  for (const auto& entry : ResponseFactory().Entries()) {
    auto response = ResponseFactory().Create(entry.type_number);
    ASSERT_NE(response, nullptr);
    uint32_t number = 0;
    response->GetTypeNumber(number);
    EXPECT_EQ(number, entry.type_number);
    response->Sequence = 77;
    MessageBuffer buffer;
    ASSERT_TRUE(response->Serialize(buffer));
    auto decoded = ResponseFactory().Create(entry.type_number);
    EXPECT_TRUE(decoded->Deserialize(buffer)) << platform::Utf16ToUtf8(entry.name);
    EXPECT_EQ(decoded->Sequence, 77u);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_TRUE(decoded->Assign(response));
  }
  EXPECT_EQ(RequestFactory().Create(0x12345678), nullptr);
  EXPECT_EQ(ResponseFactory().Create(0), nullptr);
  EXPECT_TRUE(ResponseFactory().NameOf(0).empty());
  EXPECT_EQ(ResponseFactory().NameOf(0x2afebdb8), u"ACK_CONSOLE_OUTPUT");
}

}  // namespace
}  // namespace qv
