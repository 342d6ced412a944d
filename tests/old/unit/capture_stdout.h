// Captures what a piece of code writes to standard output (the trace log and
// several diagnostics go there).
#ifndef DMS_TESTS_UNIT_CAPTURE_STDOUT_H
#define DMS_TESTS_UNIT_CAPTURE_STDOUT_H

#include <unistd.h>

#include <cstdio>
#include <string>

// Runs `body` with standard output redirected to a temporary file and returns
// what was written.
template <typename Body>
std::string captureStdout(Body body) {
  std::fflush(stdout);
  FILE *sink = std::tmpfile();
  int saved = ::dup(STDOUT_FILENO);
  ::dup2(::fileno(sink), STDOUT_FILENO);
  body();
  std::fflush(stdout);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  std::rewind(sink);
  std::string text;
  for (int c; (c = std::fgetc(sink)) != EOF;) text.push_back(static_cast<char>(c));
  std::fclose(sink);
  return text;
}

#endif  // DMS_TESTS_UNIT_CAPTURE_STDOUT_H
