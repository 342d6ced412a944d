#include "util/dmsMemory.h"

#include <cstdlib>  // defines __GLIBC__ on the GNU C library

#ifdef __GLIBC__
#include <malloc.h>
#endif

void dmsGiveBackMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}
