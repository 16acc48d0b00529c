// The process's own memory, as the listening process leaves it between
// forks: every page it has mapped is work for each fork and each exit.
#pragma once

namespace kova {

// Drops from this process's page tables the program's own read-only code
// and data (the pages stay in the page cache and come back on first use)
// and hands the C library's free heap memory back to the system. Start-up
// runs through most of the binary and allocates as it parses; the accept
// loop afterwards needs a few pages of code and none of that heap.
void release_startup_memory();

}  // namespace kova
