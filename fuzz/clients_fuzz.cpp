// libFuzzer target for client recognition: the input's lines are a user's
// rule, then a request's User-Agent, X-AV-Client-Info, FriendlyName and
// address.  Whatever they are, a rule either reads or is refused with a
// reason, the table describes itself with it, and the flags a request gets
// are flags of the flag table.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "clients/dmsClients.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> lines(5);
  size_t at = 0;
  for (size_t i = 0; i < size && at < lines.size(); ++i) {
    if (data[i] == '\n') {
      ++at;
    } else {
      lines[at] += static_cast<char>(data[i]);
    }
  }
  uint32_t known = 0;
  for (const dmsQuirkRow &row : dmsQuirkTable()) known |= row.bit;
  dmsClientRule rule;
  std::string error;
  std::vector<dmsClientRule> rules;
  if (dmsClientParseRule(lines[0], rule, error)) {
    if ((rule.flags & ~known) != 0) std::abort();
    rules.push_back(rule);
  } else if (error.empty()) {
    std::abort();  // a refusal says why
  }
  if (dmsClientDescribe(rules).empty()) std::abort();
  dmsClients clients;
  clients.setRules(rules);
  dmsClientInfo client{lines[4], lines[1], lines[2], lines[3], 0};
  if ((clients.recognise(client) & ~known) != 0) std::abort();
  client.userAgent.clear();  // the same address later, without its headers
  if ((clients.recognise(client) & ~known) != 0) std::abort();
  return 0;
}
