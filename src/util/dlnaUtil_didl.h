// DIDL-Lite writer: turns the objects of a ContentDirectory answer into one
// line of DIDL-Lite XML in a dlnaUtilBuffer.
//
// Calling order for one answer: dlnaUtil_DIDLAddHeader, any number of items
// and containers, dlnaUtil_DIDLAddFooter.  Every function returns 0 or a
// DLNA_UTIL_ERR_* code, and fails with DLNA_UTIL_ERR_NULL_BUFFER before
// looking at anything else when the buffer or its block is NULL.  The first
// failing append ends the operation with
// its code and leaves what was written so far in the buffer (callers discard
// the whole answer on error).
//
// Every text and string attribute value is written as XML character data by
// dlnaUtil_xmlEscapeInto (entities, valid UTF-8, no forbidden characters), so
// names taken from the file system always give a well-formed document.  A
// NULL text is written as empty.
// Text fields are borrowed from the caller for the duration of the call.
#ifndef DMS_UTIL_DLNAUTIL_DIDL_H
#define DMS_UTIL_DLNAUTIL_DIDL_H

#include <cstdint>

#include "util/dlnaUtil_buffer.h"

// The DLNA fields of the pictures made for thumbnails and album art:
// converted JPEGs, sent interactively.
inline constexpr char DLNA_UTIL_JPEG_TN_FEATURES[] =
    "DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1;DLNA.ORG_FLAGS=00d00000000000000000000000000000";
inline constexpr char DLNA_UTIL_JPEG_SM_FEATURES[] =
    "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=1;DLNA.ORG_FLAGS=00d00000000000000000000000000000";
// The same with the main resource's DLNA.ORG_CI=0, for players that drop
// a picture whose CI differs from it.
inline constexpr char DLNA_UTIL_JPEG_TN_FEATURES_CI0[] =
    "DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=00d00000000000000000000000000000";
inline constexpr char DLNA_UTIL_JPEG_SM_FEATURES_CI0[] =
    "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=00d00000000000000000000000000000";

// One media object, written as an `item` element.
struct dlnaUtilDidlItem {
  int32_t id;                // object id
  int32_t parentID;          // parent's id, -1 when there is none
  int32_t refID;             // > 0: the item this one stands for (refID); its pictures' URLs name it
  uint32_t restricted;       // 0 or 1
  const char *upnpClass;     // e.g. "object.item.audioItem.musicTrack"
  const char *title;
  const char *protocolInfo;  // NULL: the item has no `res` element
  int64_t size;              // file size in bytes; written when > 0
  const char *serverAddress; // dotted IP address of the web server
  int32_t serverPort;        // web server port
  const char *resourceName;  // last path component of the media URL
  const char *filter;        // the request's Filter; not read by the writer
  const char *album;         // NULL: absent
  char resolution[16];       // "<width>x<height>"; empty: absent
  char date[24];             // empty: absent
  int64_t duration;          // playing time in milliseconds; written when > 0
  int32_t bitrate;           // bytes per second; written when > 0
  const char *creator;       // NULL: absent
  const char *genre;         // NULL: absent
  const char *artist;        // upnp:artist; NULL: absent
  int32_t originalTrackNumber;  // upnp:originalTrackNumber; written when > 0
  char thumbnailResolution[16];  // a JPEG_TN res at /web/<id>.tn.jpg of this size; empty: none
  char smallResolution[16];      // a JPEG_SM res at /web/<id>.sm.jpg of this size; empty: none
  int32_t albumArtId;            // upnp:albumArtURI /web/<albumArtId>.art.jpg; 0: none
  uint32_t picturesCiAsMain;     // 1: the pictures' DLNA.ORG_CI is 0, as the main resource's
  const char *extraMetadata;     // elements written after the metadata, as they are; NULL: none
  const char *extraResources;    // `res` elements written after the others, as they are; NULL: none
};

// One folder, written as a `container` element.
struct dlnaUtilDidlContainer {
  int32_t id;
  int32_t parentID;     // -1 for the root
  int32_t childCount;   // negative: attribute not written
  uint32_t restricted;  // 0 or 1
  uint32_t searchable;  // 0 or 1; 2 or more (callers use -1): not written
  const char *title;
  const char *upnpClass;
  int32_t albumArtId;          // upnp:albumArtURI /web/<albumArtId>.art.jpg; 0: none
  const char *serverAddress;   // of the album art URL
  int32_t serverPort;
};

// Appends ` name="value"` with the value escaped.  NULL name:
// DLNA_UTIL_ERR_INVALID_PARAM.
int32_t dlnaUtil_DIDLAddStringAttribute(dlnaUtilBuffer *buffer, const char *name,
                                        const char *value);

// Appends ` name="value"` with the decimal value.  NULL name:
// DLNA_UTIL_ERR_INVALID_PARAM.
int32_t dlnaUtil_DIDLAddIntegerAttribute(dlnaUtilBuffer *buffer, const char *name,
                                         int32_t value);

// Appends `<name>text</name>` with the text escaped.  NULL name:
// DLNA_UTIL_ERR_INVALID_PARAM.
int32_t dlnaUtil_DIDLAddElement(dlnaUtilBuffer *buffer, const char *name, const char *text);

// Appends the opening DIDL-Lite tag with its DIDL-Lite, dc, upnp and dlna
// namespace declarations.
int32_t dlnaUtil_DIDLAddHeader(dlnaUtilBuffer *buffer);

// Appends the closing DIDL-Lite tag.
int32_t dlnaUtil_DIDLAddFooter(dlnaUtilBuffer *buffer);

// Appends one `item`: attributes id, parentID, refID (if set), restricted; elements
// upnp:album (if set), upnp:class, dc:title, upnp:genre, dc:creator,
// upnp:artist, dc:date, upnp:originalTrackNumber and upnp:albumArtURI (each
// if set); then, when protocolInfo is set, `res` with
// protocolInfo, size, duration (H:MM:SS.mmm), resolution and bitrate (each
// when present) around the URL "http://<address>:<port>/web/<resourceName>",
// followed by the JPEG_TN and JPEG_SM `res` when their resolutions are set
// (at /web/<refID or id>.tn.jpg and .sm.jpg).
// The item is refused (DLNA_UTIL_ERR_INVALID_PARAM) only when every one of
// id, parentID, restricted, upnpClass and title is bad; one good field lets it
// through.  NULL item: DLNA_UTIL_ERR_INVALID_PARAM.
int32_t dlnaUtil_DIDLAddItem(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem *item);

// Appends one `container`: attributes id, parentID, childCount (if >= 0),
// restricted, searchable (if 0 or 1); elements upnp:class, dc:title and
// upnp:albumArtURI (if albumArtId is set).
// Refused with DLNA_UTIL_ERR_INVALID_PARAM when any one of these holds: id
// negative, parentID below -1, restricted 2 or more, title or upnpClass NULL,
// or the record itself NULL.
int32_t dlnaUtil_DIDLAddContainer(dlnaUtilBuffer *buffer,
                                  const dlnaUtilDidlContainer *container);

#endif  // DMS_UTIL_DLNAUTIL_DIDL_H
