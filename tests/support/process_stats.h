/* What a test measures of the process itself: CPU time, mappings and memory. */
#pragma once

#include <stddef.h>

#include <string>

namespace marlo_test {

/* CPU time so far of every thread of this process named \a name, in milliseconds. */
double ThreadCpuMs(const std::string& name);
/* CPU time of the whole process so far, in milliseconds. */
double ProcessCpuMs();
/* Lines of /proc/self/maps: the process's mappings. */
size_t MappingCount();
/* Mappings whose line in /proc/self/maps contains \a text (a path, "dmabuf"). */
size_t MappingsOf(const std::string& text);
/*
 * Mappings of a file (a memory file, a dma-buf, a device, a library): what
 * a leaked buffer or import leaves. The rest are the allocator's arenas and
 * thread stacks, which grow to a bound with the threads a process had at
 * once; their memory shows in ResidentKiB().
 */
size_t FileMappingCount();
/* Resident set size (VmRSS of /proc/self/status), in KiB; 0 when unreadable. */
size_t ResidentKiB();
/*
 * Bytes the C library's allocator has handed out and not had back
 * (mallinfo2's uordblks plus its large mappings): a leak shows here exactly,
 * where RSS moves by pages. Meaningless under a sanitizer's allocator.
 */
size_t HeapInUseBytes();
/* Gives free heap pages back to the system, so that RSS shows what is in use. */
void TrimHeap();
/*
 * Makes every thread allocate from the one heap TrimHeap() empties: the C
 * library otherwise gives threads heaps of their own, keeps their free pages
 * resident, and RSS then tells which threads ran rather than what is in use.
 * For tests that judge RSS; call it before the threads start.
 */
void UseOneHeap();

}  // namespace marlo_test
