/*
 * dlna_dms.h - public interface of libdlnadms, a DLNA Digital Media Server.
 *
 * Rules of this interface
 * -----------------------
 * Ownership.  The host owns the dmsConfig and dmsDeviceInfo records and every
 *   string they point to; dlna_dmsCreate copies both records whole, and reads
 *   the shared-path strings only during the call (and during
 *   dlna_dmsAddSharedPath).  dlna_dmsCreate allocates the dmsHandle with
 *   calloc(); after dlna_dmsDestroy the host releases it with free().  The
 *   content list returned by dlna_dmsGetContentList belongs to the handle and
 *   lives until dlna_dmsDestroy.
 * NULL.  No pointer argument may be NULL unless stated: a NULL handle, record
 *   or path is refused with DMS_ERR_INVALID_PARAM.  deviceInfo may be NULL
 *   (empty identity strings are published).
 * Threads.  All dlna_dms* calls are made from one host thread, in the order
 *   Init, Create, Start, (Stop, Start)*, Stop, Destroy, Deinit.  The library
 *   runs its own threads (the SDK's workers, an advertiser, a file monitor);
 *   none of them calls back into the host.  dmsClmLockContentList and
 *   dmsClmUnlockContentList may be called from any host thread.
 * Results.  Every function but dlna_dmsFeatures returns 0 (DMS_SUCCESS) or
 *   one of the negative DMS_ERR_* codes below; results come back through
 *   out-parameters.  The library writes diagnostics to standard output,
 *   filtered by the hexadecimal level mask in the environment variable
 *   DMS_TRACE_LEVEL.
 * Files.  The server reads its description documents and icons from the
 *   process's working directory at dlna_dmsCreate: enter the directory that
 *   holds them (the www/ folder of this package) before creating a server.
 */
#ifndef DLNA_DMS_H
#define DLNA_DMS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(DMS_BUILDING_LIBRARY)
#define DMS_EXPORT __attribute__((visibility("default")))
#else
#define DMS_EXPORT
#endif

/* Status codes. */
#define DMS_SUCCESS                          0
#define DMS_ERR_FAILURE                    (-40)
#define DMS_ERR_MUTEX_FAILURE              (-49)
#define DMS_ERR_THREAD_FAILURE             (-50)
#define DMS_ERR_NOT_FOUND                  (-69)
#define DMS_ERR_UPNP_FAILURE               (-70)
#define DMS_ERR_NO_SUCH_OBJECT             (-76)
#define DMS_ERR_UNSUPPORTED_CLASS          (-77)
#define DMS_ERR_UNSUPPORTED_STATE_VARIABLE (-78)
#define DMS_ERR_UNSUPPORTED_ACTION         (-79)
#define DMS_ERR_WRONG_SERVICE              (-80)
#define DMS_ERR_NOT_STARTED                (-94)
#define DMS_ERR_SYNC                       (-95)
#define DMS_ERR_NO_MEMORY                  (-97)
#define DMS_ERR_INVALID_BROWSE_FLAG        (-98)
#define DMS_ERR_INVALID_PARAM              (-100)

/* Server configuration, filled by the host and copied by dlna_dmsCreate. */
typedef struct dmsConfig {
  char friendlyName[512];  /* at most 256 characters; ": DMS" is appended */
  char ipAddress[264];     /* dotted IPv4 address to serve on */
  int32_t port;            /* in: wanted port; out: the port actually bound */
  int32_t configBaseUrl;   /* not read by the server */
  char **sharedPaths;      /* array of numSharedPaths folder paths */
  int32_t numSharedPaths;
  int32_t maxContent;      /* capacity of the content list, in entries */
} dmsConfig;

/* Device identity published in the device description. */
typedef struct dmsDeviceInfo {
  char manufacturer[256];
  char manufacturerUrl[256];
  char modelName[256];
  char modelDescription[256];
  char modelNumber[256];
  char modelUrl[256];
  char serialNumber[256];
} dmsDeviceInfo;

/* One server instance. */
typedef struct dmsHandle dmsHandle;
/* The server's content list (the shared folders and their media files). */
typedef struct dmsContentListInfo dmsContentListInfo;

/* The optional features this build of the library holds, as words separated
 * by single spaces, in this order: "tags" (tags and embedded cover pictures
 * read with TagLib), "pictures" (thumbnails and album art), "index" (the
 * persistent index of a state folder), "views" (the Music, Pictures and
 * Video views); "" when none.  A feature left out is simply absent: no tags
 * (titles from file names), no pictures offered (their URLs answer 404), a
 * state folder accepted but never written, or dlna_dmsSetViews(handle, 1)
 * refused.  A static string; any thread, at any time. */
DMS_EXPORT const char *dlna_dmsFeatures(void);

/* Library set-up: call once before anything else; reads DMS_TRACE_LEVEL. */
DMS_EXPORT int32_t dlna_dmsInit(void);
/* Library tear-down: call once after the last server was destroyed. */
DMS_EXPORT int32_t dlna_dmsDeinit(void);

/* Creates a server: scans the shared folders, prepares the services and
 * opens the server's HTTP server on config->ipAddress:port (0: any free
 * port), which answers everything from here on: description, control,
 * event subscriptions and media.  The UPnP SDK is brought up on the same
 * address for discovery only, on a port of its own.  On success *out is
 * set and config->port holds the bound port; DMS_ERR_FAILURE when the port
 * is taken.  Only one server per process. */
DMS_EXPORT int32_t dlna_dmsCreate(dmsHandle **out, dmsConfig *config,
                                  const dmsDeviceInfo *deviceInfo);
/* Registers and announces the device; starts the advertiser thread. */
DMS_EXPORT int32_t dlna_dmsStart(dmsHandle *handle);
/* Stops announcing, unregisters the device and closes the HTTP server with
 * every stream in progress, whatever the players do; returns within a second
 * or so.  Start opens it again on the same port. */
DMS_EXPORT int32_t dlna_dmsStop(dmsHandle *handle);
/* Stops (when started) and releases everything but the handle record. */
DMS_EXPORT int32_t dlna_dmsDestroy(dmsHandle *handle);

/* Whether symbolic links may lead out of the shared folders (0: no, the
 * default; 1: yes, for users who link their media there on purpose).  With
 * 0 a link whose target lies outside every shared folder is neither listed,
 * followed nor served.  A change brings the list to the disk under the new
 * rule at once (what such links lead to comes or goes; everything else keeps
 * its id).  0, or DMS_ERR_INVALID_PARAM for a NULL handle. */
DMS_EXPORT int32_t dlna_dmsSetWideLinks(dmsHandle *handle, int32_t enabled);

/* Whether the server follows the address of its interface (1, the default;
 * 0: it stays on the configured address).  While started, the interface
 * that carried config->ipAddress at create is watched; when that address
 * leaves it and another IPv4 address comes (a DHCP renewal, a Wi-Fi
 * reconnect), the server moves there within a few seconds: byebye where the
 * old address still lets it out, then its HTTP server on the same port and
 * its announcements on the new address.  Streams to the old address end.
 * dlna_dmsGetMediaPort is unchanged by a move.  Call from the thread that
 * starts and stops the server.  0, or DMS_ERR_INVALID_PARAM for a NULL or
 * not created handle. */
DMS_EXPORT int32_t dlna_dmsSetFollowAddress(dmsHandle *handle, int32_t enabled);

/* Names the state folder of the servers created from now on (NULL or "":
 * none, the default).  Call with a NULL handle before dlna_dmsCreate:
 * create scans the folders, and the folder's index is what makes that scan
 * quick.  With a state folder every folder and file keeps its object id
 * across runs for as long as it stays at the same path, new ones get ids
 * never used before, and a file whose size and time are unchanged is not
 * read again.  The index (one SQLite file, index.db) is made when missing;
 * one that cannot be used is made anew, and a folder that cannot hold one
 * makes the server run without (both traced).  Nothing is written in a
 * shared folder, and nothing at all by a library built without the index
 * (dlna_dmsFeatures), which runs as with no state folder.  0, or
 * DMS_ERR_INVALID_PARAM for a non-NULL handle. */
DMS_EXPORT int32_t dlna_dmsSetStateDir(dmsHandle *handle, const char *path);

/* Whether the ContentDirectory shows the views beside the folders (0: no,
 * the default; 1: yes).  With views the root lists "Music", "Pictures" and
 * "Video" before the shared folders: Music holds All Tracks, Artists
 * (artist, album, tracks), Albums, Genres and Playlists; Pictures holds All
 * Pictures and By Date (year, month); Video holds All Videos.  Their items
 * are references (refID) to the folders' items and play from the same URLs;
 * they follow every change of the folders.  Switching on builds them from
 * the list at once.  Any time between dlna_dmsCreate and dlna_dmsDestroy,
 * from the thread that starts and stops the server.  0,
 * DMS_ERR_INVALID_PARAM for a NULL or not created handle, or
 * DMS_ERR_UNSUPPORTED_ACTION for 1 when the library was built without the
 * views (dlna_dmsFeatures). */
DMS_EXPORT int32_t dlna_dmsSetViews(dmsHandle *handle, int32_t enabled);

/* Client profiles.  Players differ, and the server fits some answers to the
 * family of player that asks (recognised by its request headers, then
 * remembered by address for an hour).  A rule reads "MATCH : FLAG,FLAG",
 * where MATCH is "ua=TEXT" (User-Agent contains TEXT, letter case ignored),
 * "av=TEXT" (X-AV-Client-Info), "name=TEXT" (FriendlyName.DLNA.ORG) or
 * "ip=A.B.C.D[/BITS]", and the flags are named in dlna_dmsDescribeClients'
 * text (none: the client gets the answers any player gets).
 *
 * dlna_dmsSetClientRules replaces the host's rules, which go before the
 * built-in profiles; the first rule or profile that matches wins.  Any
 * time between dlna_dmsCreate and dlna_dmsDestroy.  `rules` may be NULL
 * when `count` is 0.  0, or DMS_ERR_INVALID_PARAM for a NULL handle or a
 * rule that does not read (no rule is then changed).
 *
 * dlna_dmsDescribeClients writes the profile table (`rules` first) and the
 * flags with what each is for, as text for a person, to *text, malloc'ed:
 * the caller frees it with free().  0, DMS_ERR_INVALID_PARAM for a NULL
 * `text` or a rule that does not read, DMS_ERR_NO_MEMORY. */
DMS_EXPORT int32_t dlna_dmsSetClientRules(dmsHandle *handle, const char *const *rules, int32_t count);
DMS_EXPORT int32_t dlna_dmsDescribeClients(const char *const *rules, int32_t count, char **text);

/* Kept for hosts written for a separate media port: media are served on the
 * one HTTP port, and this changes nothing (0; DMS_ERR_INVALID_PARAM for a
 * NULL handle or a port out of range). */
DMS_EXPORT int32_t dlna_dmsSetMediaPort(dmsHandle *handle, int32_t port);
/* The port media are served on (the HTTP port), or 0 while the server is
 * closed (after dlna_dmsStop) and for NULL.  Not a status code. */
DMS_EXPORT int32_t dlna_dmsGetMediaPort(const dmsHandle *handle);

/* Figures of the cache of thumbnails and album art (made on first request). */
typedef struct dmsArtCacheStats {
  uint64_t hits;      /* pictures answered from the cache */
  uint64_t made;      /* pictures made */
  uint64_t failures;  /* pictures that could not be made (no longer offered) */
  uint64_t bytes;     /* bytes kept now */
  uint64_t pictures;  /* pictures kept now */
  uint64_t budget;    /* most bytes kept */
} dmsArtCacheStats;

/* Sets the memory budget of the thumbnail and album art cache in bytes
 * (default 8 MiB; 0 keeps nothing).  Applies at once, least recently used
 * pictures out first.  Any time between dlna_dmsCreate and dlna_dmsDestroy. */
DMS_EXPORT int32_t dlna_dmsSetArtCacheSize(dmsHandle *handle, uint64_t bytes);
/* Copies the cache's figures into *out. */
DMS_EXPORT int32_t dlna_dmsGetArtCacheStats(const dmsHandle *handle, dmsArtCacheStats *out);

/* The numbers of folders (shared folders and the folders below them) and of
 * media items the server lists now. */
DMS_EXPORT int32_t dlna_dmsGetCounts(dmsHandle *handle, int32_t *folders, int32_t *items);

/* Runs the server's media detection on the file at `path`, without a
 * server (after dlna_dmsInit), and describes what it found as one line of
 * JSON ending in a newline: the detection result, format, MIME type, DLNA
 * profile and protocolInfo, rates, channels, sizes, playing time, the tags,
 * and whether the file carries a cover picture or an Exif thumbnail.  *json
 * is allocated with malloc(); the host frees it.  A file that is missing or
 * not media still gets its line (with a non-zero "result"); the call fails
 * only for NULL arguments, memory, or when detection cannot be set up
 * (DMS_ERR_FAILURE).  Any thread. */
DMS_EXPORT int32_t dlna_dmsProbeFile(const char *path, char **json);

/* Re-registers a started server (DMS_ERR_NOT_STARTED otherwise).  Like the
 * three calls below, it stops and starts the server: media streams in
 * progress end and players request them again. */
DMS_EXPORT int32_t dlna_dmsRestart(dmsHandle *handle);
/* Publishes a new friendly name (at most 256 characters) and restarts. */
DMS_EXPORT int32_t dlna_dmsUpdateFriendlyName(dmsHandle *handle,
                                              const char *friendlyName);
/* Shares one more folder and restarts. */
DMS_EXPORT int32_t dlna_dmsAddSharedPath(dmsHandle *handle, char *newSharedPath);
/* Stops sharing a folder and restarts. */
DMS_EXPORT int32_t dlna_dmsDeleteSharedPath(dmsHandle *handle,
                                            const char *sharedPath);

/* The server's content list, for the two lock calls below (NULL for NULL). */
DMS_EXPORT dmsContentListInfo *dlna_dmsGetContentList(dmsHandle *handle);
/* A mutex offered to the host for its own use around the content list; the
 * server's own readers and writers do not take it.  DMS_ERR_SYNC on failure. */
DMS_EXPORT int32_t dmsClmLockContentList(dmsContentListInfo *list);
DMS_EXPORT int32_t dmsClmUnlockContentList(dmsContentListInfo *list);

/* Defined by the host program: non-zero switches on the scan's name filter
 * (only well-known media extensions are offered to detection) and exempts
 * folders from the entry budget.  The library supplies a weak default of 0. */
extern int KVSUPPORT_XR_VAL;

#ifdef __cplusplus
}
#endif

#endif /* DLNA_DMS_H */
