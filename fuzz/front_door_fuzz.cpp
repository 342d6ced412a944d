// libFuzzer target for what a network peer hands the front door: the route
// lookup of a method and path (media, picture and fixed-file URLs), the Host
// header check, the GENA headers (CALLBACK, TIMEOUT, the subscriber's
// address) and SOAP control of the three services, whose bodies reach the
// envelope reader, each action's argument reading and the Search criteria
// parser.  The ContentDirectory reads a small real library.
//
// Input layout: byte 0 chooses the parser (and for SOAP, byte 1 the service
// and whether a SOAPACTION header comes with it); the rest is the text.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "content/dmsClmApi.h"
#include "gena/dmsGenaHeaders.h"
#include "http/dmsHttpRoutes.h"
#include "http/dmsSoap.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/osal_trace.h"

extern "C" {
int KVSUPPORT_XR_VAL = 0;
}

namespace {

// The three services over a library of one folder and one file, made once.
struct Services {
  dmsDevEventMgr *mgr = nullptr;
  dmsContentListInfo *list = nullptr;
  dmsCdsMgrHandle *cds = nullptr;
  dmsCmsInstance *cms = nullptr;
  dmsMsMrsInstance *mrs = nullptr;
};

Services &services() {
  static Services made = [] {
    Services s;
    char pattern[] = "/tmp/front_door_fuzz_XXXXXX";
    std::string folder = ::mkdtemp(pattern);
    ::mkdir((folder + "/Music").c_str(), 0755);
    if (FILE *file = std::fopen((folder + "/Music/a.pcm").c_str(), "wb")) {
      const char samples[4096] = {0};
      std::fwrite(samples, 1, sizeof samples, file);
      std::fclose(file);
    }
    char *paths[] = {folder.data()};
    dmsClmCreateContentList(&s.list, paths, 1, 100);
    static const char udn[] = "00000000-0000-0000-0000-000000000000";
    dmsDevEventMgrInit(&s.mgr, -1, udn);
    dmsCdsMgrInit(&s.cds, s.mgr, s.list, "127.0.0.1", 49152);
    dmsCmsInit(&s.cms, s.mgr);
    dmsMsMrsInit(&s.mrs, s.mgr);
    return s;
  }();
  return made;
}

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
  if (selector >= 128) {  // the SOAPACTION header is the first line of the input
    const size_t end = body.find('\n');
    const std::string header = body.substr(0, end);
    dmsSoapControl(services().mgr, service, header.c_str(), end == std::string::npos ? "" : body.substr(end + 1), client);
    return;
  }
  const char *soapAction = (selector / 3) % 2 == 0 ? nullptr : kActions[(selector / 6) % 3];
  dmsSoapControl(services().mgr, service, soapAction, body, client);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ::setenv("DMS_TRACE_LEVEL", "0x0000", 1);
  osal_traceInitialize();
  services();
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
