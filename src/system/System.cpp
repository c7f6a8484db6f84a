#include <errno.h>
#include <signal.h>
#include <alloca.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include <vesk/Error.h>

#include <vesk/System.h>

void System_pause(void) {
        sigset_t none;
        sigemptyset(&none);
        sigsuspend(&none);
}

const char* System_getError(int error) {
        return strerror(error);
}

const char* System_getLastError(void) {
        return strerror(errno);
}

int System_changeIdentity(const char* user, const char* group) {
        if (getuid() != 0)
                return 0;
        long wanted = sysconf(_SC_GETGR_R_SIZE_MAX);
        size_t size = wanted > 256 ? static_cast<size_t>(wanted) : 256;
        char* buffer = static_cast<char*>(alloca(size));
        struct group grp, *g = nullptr;
        struct passwd pwd, *p = nullptr;
        int status = group ? getgrnam_r(group, &grp, buffer, size, &g) : 0;
        if (status == 0 && g && setgid(g->gr_gid) == 0) {
                status = user ? getpwnam_r(user, &pwd, buffer, size, &p) : 0;
                // Root's own supplementary groups must not outlive the change.
                if (status == 0 && p && initgroups(p->pw_name, g->gr_gid) == 0 &&
                    setuid(p->pw_uid) == 0)
                        return 1;
        }
        if (status > 0)
                Error_error("Error looking up user id or group id -- %s\n",
                            System_getError(status));
        return 0;
}
