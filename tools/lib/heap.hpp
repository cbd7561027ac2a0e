// The heap of a tool that writes a store.
#pragma once

namespace zfxtool {

// A store written from a large configuration is tens of megabytes of small blocks: the parsed
// fabric, the plan of its records, and the pages the store's write holds until it commits. Asked
// of the kernel a page (4 KB) at a time, as the heap grows, their faults cost as much as the
// parsing does. Called once at the start of main, this grows the heap in one step and asks for
// huge pages for it: a fault then brings 2 MB. Blocks that are freed stay in the heap, and large
// ones are taken from it too, so that they land where the huge pages are. Where the system has
// no huge pages, or the allocator is not the C library's, it changes nothing that matters; under
// a limit on the address space or the data segment it changes nothing at all.
void reserve_heap_in_huge_pages();

}  // namespace zfxtool
