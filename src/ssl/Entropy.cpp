#include <openssl/rand.h>

#include <vesk/Entropy.h>
#include <vesk/File.h>
#include <vesk/assert.h>

void Entropy_start(void) {
        const char* path = nullptr;
        if (File_existFile("/dev/urandom"))
                path = "/dev/urandom";
        else if (File_existFile("/dev/random"))
                path = "/dev/random";
        if (!path) {
                THROW(IOException,
                      "Cannot find /dev/random nor /dev/urandom on the system.\n"
                      "The Container needs either one device to create universal unique\n"
                      "Session Identifiers. Please install the device on your system");
                return;
        }
        RAND_load_file(path, 1024);
}

// The generator frees its own state at process exit; there is nothing to release early.
void Entropy_stop(void) {}
