// Opening a file that the service writes as its own (a record file, the
// call capture): never through a link, never waiting on a FIFO, and only a
// regular file with one name; whatever else sits at the path is removed and
// the file created afresh. Any thread; no state.
#ifndef VYMM_WRITERS_OWN_FILE_H
#define VYMM_WRITERS_OWN_FILE_H

#include <sys/types.h>

namespace android {

// What OpenOwnFile found at the path.
enum class OwnFileFound {
    OURS,             // the file, or nothing: it was opened or created
    REPLACED,         // something else (a link, a FIFO, a second name), removed
    NOT_REPLACEABLE,  // something else that could not be removed (a folder)
};

// open(2)'s flags (with O_CREAT) and mode; O_TRUNC empties the file only
// once it is known to be ours, so that a second name of another file
// cannot have it emptied. -1 when the file cannot be opened.
int OpenOwnFile(const char* path, int flags, mode_t mode, OwnFileFound* found);

}  // namespace android

#endif
