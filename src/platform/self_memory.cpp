#include "platform/self_memory.h"

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <iterator>

namespace kova {
namespace {

struct PageRange {
  uintptr_t start = 0, end = 0;
};

// The segments of the program's image that are never written, as whole
// pages inside each (a page a segment shares with a writable neighbour
// keeps its contents). At most a handful: code, read-only data, headers.
struct ReadOnlySegments {
  PageRange ranges[8];
  int count = 0;
};

[[gnu::hot]] int collect_read_only_segments(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto& out = *static_cast<ReadOnlySegments*>(data);
  const uintptr_t page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  for (int i = 0; i < info->dlpi_phnum && out.count < static_cast<int>(std::size(out.ranges)); ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
    const uintptr_t start = (info->dlpi_addr + segment.p_vaddr + page - 1) & ~(page - 1);
    const uintptr_t end = (info->dlpi_addr + segment.p_vaddr + segment.p_memsz) & ~(page - 1);
    if (end > start) out.ranges[out.count++] = {start, end};
  }
  return 1;  // the program is listed first; the libraries' pages are shared with other processes
}

}  // namespace

// Placed with the accept loop's code (see request_loop), so that what it
// drops is not faulted straight back in by its own return.
[[gnu::hot]] void release_startup_memory() {
  ReadOnlySegments segments;
  (void)::dl_iterate_phdr(collect_read_only_segments, &segments);
  for (int i = 0; i < segments.count; ++i) {
    const PageRange& range = segments.ranges[i];
    (void)::madvise(reinterpret_cast<void*>(range.start), range.end - range.start, MADV_DONTNEED);
  }
  (void)::malloc_trim(0);
}

}  // namespace kova
