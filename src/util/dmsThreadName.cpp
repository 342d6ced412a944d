#include "util/dmsThreadName.h"

#include <pthread.h>

#include <cstring>

void dmsNameThread(const char *name) {
  if (name == nullptr) return;
  char cut[16] = {};
  std::strncpy(cut, name, sizeof cut - 1);
  // A name the system refuses leaves the inherited one: nothing depends on it.
  pthread_setname_np(pthread_self(), cut);
}
