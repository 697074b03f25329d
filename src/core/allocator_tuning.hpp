#pragma once
// How the agent's process keeps the memory it frees.
//
// The agent answers requests whose text runs to a hundred kilobytes, many times a second when
// assistants poll it. By default the C library gives the free space at the top of a heap back
// to the kernel once it passes 128 KiB, and maps blocks above that size afresh, so such an
// answer would have every page of it faulted in and zeroed again on every request: a third of
// the cost of answering an hour of history. Keeping up to a few megabytes free per heap, and
// mapping only blocks of a megabyte or more, ends that at the price of that much memory kept.
//
// Call once, at start, before threads are started; it changes the process's allocator.

namespace quorel {

// Whether the allocator took the settings; false where the C library has no such settings.
bool keepFreedMemoryForReuse();

}  // namespace quorel
