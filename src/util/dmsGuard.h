// The one guard at every C edge: every exported function and every callback
// that a C library (the UPnP SDK, the HTTP server) calls runs its C++ body
// through dmsGuard, so no exception ever propagates into C.
#ifndef DMS_UTIL_DMS_GUARD_H
#define DMS_UTIL_DMS_GUARD_H

#include <exception>
#include <new>

#include "util/osal_trace.h"

// Traces what escaped `where` (at ERR level, with the exception's text when
// it has one).
void dmsGuardReport(const char *where, const char *what) noexcept;

// Runs `body()` and returns its result; anything thrown is traced and
// `onError` is returned instead.
template <typename Result, typename Body>
Result dmsGuard(const char *where, Result onError, Body &&body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    dmsGuardReport(where, "out of memory");
  } catch (const std::exception &error) {
    dmsGuardReport(where, error.what());
  } catch (...) {
    dmsGuardReport(where, "unknown exception");
  }
  return onError;
}

// The same, and `recover()` (which must not throw) runs after anything
// thrown, before `onError` is returned: for state the body leaves half made.
template <typename Result, typename Body, typename Recover>
Result dmsGuardRecover(const char *where, Result onError, Body &&body, Recover &&recover) noexcept {
  bool thrown = true;
  const Result result = dmsGuard(where, onError, [&] {
    Result value = body();
    thrown = false;
    return value;
  });
  if (thrown) recover();
  return result;
}

// The same for a body that returns nothing.
template <typename Body>
void dmsGuardVoid(const char *where, Body &&body) noexcept {
  dmsGuard(where, 0, [&] {
    body();
    return 0;
  });
}

#endif  // DMS_UTIL_DMS_GUARD_H
