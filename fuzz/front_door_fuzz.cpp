// libFuzzer target for what a network peer hands the front door: the route
// lookup of a method and path (media, picture and fixed-file URLs), the Host
// header check, the GENA headers (CALLBACK, TIMEOUT, the subscriber's
// address) and SOAP control of the three services, whose bodies reach the
// envelope reader, each action's argument reading and the Search criteria
// parser.  The ContentDirectory reads a library of one LPCM file.
//
// Input layout: byte 0 chooses the parser (and for SOAP, byte 1 the service,
// whether a SOAPACTION header comes with it and whether the client gets
// every quirk flag); the rest is the text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "gena/dmsGenaHeaders.h"
#include "http/dmsHttpRoutes.h"
#include "http/dmsSoap.h"

namespace {

void fuzzGena(const std::string &text) {
  dmsGenaAddress subscriber;
  dmsGenaParseAddress(text.substr(0, text.find(' ')), subscriber);
  dmsGenaAddress local;
  dmsGenaParseAddress("127.0.0.1", local);
  dmsGenaCallbackUrl(text.c_str(), local);
  dmsGenaCallbackUrl(text.c_str(), subscriber);
  dmsGenaTimeoutSeconds(text.c_str(), dmsGenaLimits{});
}

void fuzzSoap(uint8_t selector, const std::string &body) {
  static const char *const kActions[] = {
      "\"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"",
      "\"urn:schemas-upnp-org:service:ContentDirectory:1#Search\"",
      "\"urn:schemas-upnp-org:control-1-0#QueryStateVariable\"",
  };
  const size_t service = selector % DMS_SERVICE_COUNT;
  dmsClientInfo client;
  client.address = "127.0.0.1";
  client.quirks = (selector & 0x40) != 0 ? ~0u : 0;  // every client profile's answers at once
  if (selector >= 128) {  // the SOAPACTION header is the first line of the input
    const size_t end = body.find('\n');
    const std::string header = body.substr(0, end);
    dmsSoapControl(fuzzServices(), service, header.c_str(), end == std::string::npos ? "" : body.substr(end + 1), client);
    return;
  }
  const char *soapAction = (selector / 3) % 2 == 0 ? nullptr : kActions[(selector / 6) % 3];
  dmsSoapControl(fuzzServices(), service, soapAction, body, client);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzzServices({{"Music/a.pcm", "audio/pcm/plain.pcm"}});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const std::string text(reinterpret_cast<const char *>(data) + 2, size - 2);
  switch (data[0] % 4) {
    case 0: dmsHttpHostAllowed(text.c_str(), "192.168.1.20"); break;
    case 3: {
      const size_t blank = text.find(' ');
      unsigned status = 0;
      dmsHttpFindRoute(text.substr(0, blank).c_str(), blank == std::string::npos ? "" : text.c_str() + blank + 1,
                       &status);
      break;
    }
    case 1: fuzzGena(text); break;
    default: fuzzSoap(data[1], text); break;
  }
  return 0;
}
