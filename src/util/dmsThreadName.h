// Names the calling thread, as `top -H`, `ps -L` and a debugger show it, so
// that a device maker can tell the server's threads apart.  The name is cut
// to the 15 bytes the kernel keeps.  Never fails the caller.
#ifndef DMS_UTIL_DMSTHREADNAME_H
#define DMS_UTIL_DMSTHREADNAME_H

void dmsNameThread(const char *name);

#endif  // DMS_UTIL_DMSTHREADNAME_H
