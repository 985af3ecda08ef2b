#define LOG_TAG "Vymedia_monitor"

#include "writers/OwnFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log/log.h>

namespace android {

int OpenOwnFile(const char* path, int flags, mode_t mode, OwnFileFound* found) {
    *found = OwnFileFound::OURS;
    for (bool retried = false;; retried = true) {
        // Once something was removed, only a file created now is ours.
        const int fd = open(path,
                            (flags & ~O_TRUNC) | (retried ? O_EXCL : 0) | O_NOFOLLOW | O_NONBLOCK |
                                    O_CLOEXEC,
                            mode);
        if (fd >= 0) {
            struct stat st;
            if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
                if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) {
                    ALOGW("cannot empty record file %s, err: %d", path, errno);
                }
                return fd;
            }
            close(fd);
        } else if (errno != ELOOP && errno != ENXIO && errno != EISDIR) {
            return -1;  // a missing folder, say: nothing was planted
        }
        if (retried || unlink(path) != 0) {
            *found = OwnFileFound::NOT_REPLACEABLE;
            return -1;
        }
        *found = OwnFileFound::REPLACED;
    }
}

}  // namespace android
