// The user a client program of the Binder tests calls as.
#ifndef VYMM_TESTS_CLIENT_USER_H
#define VYMM_TESTS_CLIENT_USER_H

#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

// "-" keeps the user; a number drops to that uid and gid (root only). False
// when the drop failed.
inline bool BecomeUser(const char* user) {
    if (strcmp(user, "-") == 0) {
        return true;
    }
    const uid_t uid = static_cast<uid_t>(atoi(user));
    if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
        perror("dropping to uid");
        return false;
    }
    // Changing credentials made the process undumpable, which the
    // sanitizers' leak check cannot work with.
    prctl(PR_SET_DUMPABLE, 1);
    return true;
}

#endif
