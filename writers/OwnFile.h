// Opening a file the service writes and reads back, at a path that anyone
// with access to the folder may have planted something at: only a regular
// file with one link is ours. Thread-safe; takes no lock.
#ifndef VYMM_WRITERS_OWN_FILE_H
#define VYMM_WRITERS_OWN_FILE_H

#include <sys/types.h>

namespace android {

struct OwnFile {
    int fd = -1;            // -1 when the path was skipped or could not be opened
    bool replaced = false;  // something else sat at the path and was removed
    bool skipped = false;   // ... and could not be removed (a folder, say)
};

// Opens path (open(2)'s flags and mode) without following a link or waiting
// on a FIFO. Whatever is not a regular file of one link is removed and the
// open tried once more. O_TRUNC empties the file only once it is known to be
// ours, so that a second name of another file cannot have it emptied.
OwnFile OpenOwnFile(const char* path, int flags, mode_t mode);

}  // namespace android

#endif
