// InputStream_hasRequest on bytes that arrive through a socket pair in a few pieces, as
// a slow or hostile client would send them.
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/InputStream.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        if (size < 1)
                return 0;
        // The first byte says how many bytes each piece has.
        size_t piece = data[0] % 64 + 1;
        data++, size--;
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
                return 0;
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        InputStream_T S = InputStream_new(fds[0]);
        InputStream_setTimeout(S, 0);
        for (size_t done = 0; done < size;) {
                size_t n = size - done < piece ? size - done : piece;
                if (write(fds[1], data + done, n) != static_cast<ssize_t>(n))
                        break;
                done += n;
                char* head;
                int r = InputStream_hasRequest(S, &head);
                if (r > 4096 || r < -2)
                        __builtin_trap();
                if (r != 0)
                        break;
        }
        close(fds[1]);
        char* head;
        InputStream_hasRequest(S, &head);
        InputStream_free(&S);
        close(fds[0]);
        return 0;
}
