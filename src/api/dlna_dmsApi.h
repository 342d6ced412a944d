// The server instance record and the pieces of the server API that other
// units of the API share (description formatting, advertiser, device
// callback).
#ifndef DMS_API_DLNA_DMS_API_H
#define DMS_API_DLNA_DMS_API_H

#include <pthread.h>
#include <upnp.h>

#include <cstdint>
#include <ctime>
#include <string_view>

#include "dlna_dms.h"
#include "util/dmsGuard.h"
#include "content/dmsClmApi.h"

class dmsAddressWatch;
class dmsArtCache;
class dmsGena;
class dmsViews;
class dmsClients;
class dmsFacts;
class dmsIndexKeeper;
class dmsClmRecall;

struct dmsDevEventMgr;
struct dmsCdsMgrHandle;
struct dmsCmsInstance;
struct dmsMsMrsInstance;
struct dmsHttpServer;

// Server states.
inline constexpr int32_t DMS_STATE_CREATED = 0;
inline constexpr int32_t DMS_STATE_STARTED = 1;
inline constexpr int32_t DMS_STATE_STOPPED = 2;

inline constexpr int32_t DMS_ADVERTISEMENT_PERIOD = 810;  // seconds
inline constexpr int32_t DMS_ADVERTISEMENT_MAX_AGE = 1800;

// One server.  Allocated with calloc by dlna_dmsCreate and released by the
// host with free() after dlna_dmsDestroy, so it holds only plain C members;
// everything it points to is owned by it and released by destroy.
//
// Locking: `mutex` guards `state`, `lastAdvertisement` and `pendingAddress`
// (and `wake` waits on it), which the host thread (start, stop), the
// advertiser thread and the address watch share.  `sdkMutex` guards what a
// move to a new address changes (the SDK's registration, the front door and
// `config.ipAddress`) between the host thread and the advertiser, which
// moves; it is taken before `mutex`, never after.  Every other field is
// written by the host thread only; fields the front door's threads read
// (through the services) are written only while it is closed, or are atomic
// in the service that reads them.
//
// Registration: the device is registered with the SDK (for discovery only,
// by the URL of the front door's description) once at create and stays so
// until stop, then again from start to stop.  Registering only to unregister
// again would announce a departure (ssdp:byebye) at every start.
struct dmsHandle {
  UpnpDevice_Handle deviceHandle;
  int32_t registered;  // deviceHandle is registered with the SDK
  dmsContentListInfo *contentList;
  dmsDevEventMgr *eventMgr;
  dmsCdsMgrHandle *cdsContext;
  uint64_t cdsListener;  // its listener on the content list; 0 none
  dmsCmsInstance *cmsContext;
  dmsMsMrsInstance *msMrsContext;
  char uuid[48];
  dmsConfig config;
  dmsDeviceInfo deviceInfo;
  pthread_t advertiserThread;
  int32_t hasAdvertiserThread;  // advertiserThread is joinable
  int64_t lastAdvertisement;    // seconds since the epoch
  int32_t advertisementPeriod;
  pthread_mutex_t mutex;
  pthread_cond_t wake;  // signalled when state changes, so the advertiser ends at once
  int32_t mutexReady;   // mutex and wake are initialised
  int32_t state;
  char *description;     // the device description, malloc'ed
  int32_t sdkReady;      // UpnpInit succeeded and UpnpFinish is still due
  // The front door (src/http/dmsHttpServer.h) on config.port: description,
  // control, events and media.  Listening from create to stop and from start
  // to stop; closed by stop and destroy before anything it reads goes away.
  dmsHttpServer *httpServer;
  // Event subscriptions and their delivery; owned, made at create, freed by
  // destroy after the services (whose last events it may still carry).
  dmsGena *gena;
  // Thumbnails and album art made so far; owned (made at create, freed last
  // by destroy), read by the media server and the ContentDirectory.
  dmsArtCache *artCache;
  pthread_mutex_t sdkMutex;  // see Locking; initialised with `mutex`
  // Following the address (dlna_dmsFollow.cpp): the interface that carried
  // the address at create, the watch (owned, host thread only; from start
  // to stop), whether the host turned following off, and the address the
  // watch last reported that the advertiser has yet to move to ("" none).
  char followInterface[32];
  dmsAddressWatch *addressWatch;
  int32_t followDisabled;
  char pendingAddress[64];
  // The views (dlna_dmsViews.cpp): made when first switched on, owned, freed
  // by destroy after the services; `viewsOn` says whether they follow the
  // list and are shown.  Both written by the host thread under the list's
  // change mutex, read by the list's writer under it.
  dmsViews *views;
  int32_t viewsOn;
  // The persistent index of the state folder named before create
  // (dlna_dmsState.cpp): owned, NULL without one; its listener on the list.
  dmsIndexKeeper *index;
  uint64_t indexListener;
  // The client profiles with the host's rules (dlna_dmsClients.cpp): owned,
  // made at create, freed by destroy after the front door; their own locks.
  dmsClients *clients;
  // What players leave per file (resume position, plays): owned, made at
  // create after the index (whose store keeps them), freed by destroy after
  // the services and before the index; its own lock.
  dmsFacts *facts;
};

// Holds a pthread mutex of the handle for a scope.
class dmsPthreadLock {
 public:
  explicit dmsPthreadLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~dmsPthreadLock() { pthread_mutex_unlock(&mutex_); }
  dmsPthreadLock(const dmsPthreadLock &) = delete;
  dmsPthreadLock &operator=(const dmsPthreadLock &) = delete;

 private:
  pthread_mutex_t &mutex_;
};

// Runs the body of an exported function: what it returns, or
// DMS_ERR_FAILURE (traced) when it throws.
template <typename Body>
int32_t dmsApiGuard(const char *name, Body &&body) {
  return dmsGuard(name, DMS_ERR_FAILURE, body);
}

// Formats the device description from the handle's configuration, device
// information and UUID into a newly malloc'ed text (*out).  Argument values
// are XML-escaped.  0, or DMS_ERR_NO_MEMORY.
int32_t dmsFormatDeviceDescription(const dmsHandle *handle, char **out);

// Pieces of create and start that a move to a new address runs again
// (dlna_dmsApi.cpp).  Each returns 0 or the traced error.
//   dmsStartSdk: UpnpInit on config.ipAddress with a free port, fenced.
//   dmsRegisterDevice / dmsUnregisterDevice: by the front door's URL.
//   dmsOpenFrontDoor: on config.ipAddress:config.port.
int32_t dmsStartSdk(dmsHandle *handle);
int32_t dmsRegisterDevice(dmsHandle *handle);
int32_t dmsUnregisterDevice(dmsHandle *handle);
int32_t dmsOpenFrontDoor(dmsHandle *handle);

// Following the address (dlna_dmsFollow.cpp), all from the host thread but
// the last.  dmsFollowRemember, at create: notes the interface of the
// configured address.  dmsFollowStart, at start: moves at once if the
// address left the interface meanwhile, then starts the watch (unless
// turned off).  dmsFollowStop, at stop: ends the watch.
void dmsFollowRemember(dmsHandle *handle);
int32_t dmsFollowStart(dmsHandle *handle);
void dmsFollowStop(dmsHandle *handle);
// Advertiser thread: moves to the address the watch reported, if any; on
// success the next advertisement is due at once.  A move that fails is
// tried again at the next call.
void dmsFollowPending(dmsHandle *handle);

// The content list's one listener (dlna_dmsViews.cpp): the views follow the
// change when they are on, then the ContentDirectory events the changed
// containers of both.  Writer thread, change mutex held.
int32_t dmsFollowContentChange(dmsHandle *handle, const dmsClmChangeSet &change);
// Frees the views (destroy, after the services).
void dmsViewsRelease(dmsHandle *handle);

// The state folder (dlna_dmsState.cpp).  dmsStateOpen, at create before the
// scan: opens the index of the folder named by dlna_dmsSetStateDir, if any
// (a folder that cannot hold one is traced and the server runs without).
// dmsStateFollow, once the list is made: writes it and follows its changes.
// dmsStateRelease, at destroy: stops following and writes what is queued.
void dmsStateOpen(dmsHandle *handle);
dmsClmRecall *dmsStateRecall(dmsHandle *handle);  // the index as the scan's recall; NULL without one
void dmsStateFollow(dmsHandle *handle);
void dmsStateRelease(dmsHandle *handle);  // the facts, then the index

// Whether the optional feature `name` ("tags", "pictures", "index", "views")
// was built in (dlna_dmsFeatures.cpp).
bool dmsFeatureBuilt(std::string_view name);

// The client profiles (dlna_dmsClients.cpp): made at create (with no rules),
// freed at destroy once the front door is closed.
void dmsClientsOpen(dmsHandle *handle);
void dmsClientsRelease(dmsHandle *handle);

// Advertiser thread body; `arg` is the dmsHandle, which outlives the thread
// (dlna_dmsStop joins it).
void *dmsDeviceAdvertiser(void *arg);

// The device callback registered with the SDK.  The SDK serves discovery
// only: an action or query that still reaches its (fenced) port is refused,
// and a subscription is never accepted, so it can never send a NOTIFY.
int dmsDeviceEventHandlerCbf(Upnp_EventType eventType, const void *event, void *cookie);

#endif  // DMS_API_DLNA_DMS_API_H
