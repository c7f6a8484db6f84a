#include <errno.h>
#include <signal.h>
#include <string.h>

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
