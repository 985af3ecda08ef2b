#define LOG_TAG "Vymedia_monitor"

#include "writers/OwnFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log/log.h>

namespace android {

OwnFile OpenOwnFile(const char* path, int flags, mode_t mode) {
    OwnFile result;
    for (bool retried = false;; retried = true) {
        const int fd = open(path, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
        if (fd >= 0) {
            struct stat st;
            if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
                if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) {
                    ALOGW("cannot empty record file %s, err: %d", path, errno);
                }
                result.fd = fd;
                return result;
            }
            close(fd);
        } else if (errno != ELOOP && errno != ENXIO && errno != EISDIR) {
            return result;  // a missing file or folder, say: nothing was planted
        }
        if (retried || unlink(path) != 0) {
            result.skipped = true;
            return result;
        }
        result.replaced = true;
    }
}

}  // namespace android
