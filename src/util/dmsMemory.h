// Gives the memory the allocator holds free back to the system, after work
// that used much of it for a while (a scan, the first write of the index):
// otherwise a device would keep the peak of that work for as long as the
// server runs, the freed memory of each thread's arena included.  Does
// nothing where the C library offers no way to.  Never fails the caller.
#ifndef DMS_UTIL_DMSMEMORY_H
#define DMS_UTIL_DMSMEMORY_H

void dmsGiveBackMemory();

#endif  // DMS_UTIL_DMSMEMORY_H
