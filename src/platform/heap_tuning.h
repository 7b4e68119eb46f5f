#pragma once
// The server answers bulk reads with bodies of many megabytes, one after another. Left alone,
// glibc maps and unmaps each such block afresh, so every answer pays for zeroed new pages
// before its first byte is copied; kept on the heap, the next answer reuses the same pages.

namespace qv::platform {

// Keeps blocks up to 32 MiB on the process heap and its top untrimmed. For a long-running
// process with large, repeated messages; a library never calls it on its host's behalf.
void KeepLargeBlocksOnHeap() noexcept;

}  // namespace qv::platform
