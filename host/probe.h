// dlna-dms probe: runs the server's media detection on files and prints what
// it found, one JSON object per file and line.
#ifndef DMS_HOST_PROBE_H
#define DMS_HOST_PROBE_H

// `argv` holds the file paths.  0 when every file was examined (recognised or
// not), 2 for a usage error, 1 when detection could not be set up.
int runProbe(int argc, char **argv);

#endif  // DMS_HOST_PROBE_H
