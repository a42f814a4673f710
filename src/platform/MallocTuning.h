#pragma once
// Large IPC messages and drive replies (1 MiB and up) are allocated and freed
// at a high rate. With the allocator's defaults each of them is a fresh
// mapping, or trimmed back to the kernel when freed, so every message pays a
// page fault per 4 KiB. Keeping such blocks in the heap roughly triples the
// throughput of a copy through the worker.
namespace tolv::platform {

// Call once, early in main, before other threads start.
void KeepLargeBlocksInTheHeap();

} // namespace tolv::platform
