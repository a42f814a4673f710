#include "platform/MallocTuning.h"

#include <malloc.h>

namespace tolv::platform {

void KeepLargeBlocksInTheHeap()
{
    // 32 MiB is the largest threshold the allocator takes; larger blocks are
    // rare (reads of up to 64 MiB) and may stay mappings.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
}

} // namespace tolv::platform
