#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>

#include <atomic>

#include "io/MapGuard.hpp"

namespace {

// The copy in progress on this thread: where to go back to, and the bytes it reads. The
// handler acts only on a fault inside that range, so a real bug elsewhere is never hidden.
struct Armed {
        sigjmp_buf* point;
        const char* from;
        const char* end;
};
// Initial-exec, so that the handler never makes the thread's storage on first touch.
__attribute__((tls_model("initial-exec"))) thread_local Armed armed;

struct sigaction previous;

void onBusError(int signo, siginfo_t* info, void* context) {
        Armed& a = armed;
        const char* address = static_cast<const char*>(info->si_addr);
        if (a.point && address >= a.from && address < a.end) {
                sigjmp_buf* point = a.point;
                a.point = nullptr;
                siglongjmp(*point, 1);
        }
        if (previous.sa_flags & SA_SIGINFO) {
                previous.sa_sigaction(signo, info, context);
                return;
        }
        if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
                previous.sa_handler(signo);
                return;
        }
        // A bus error cannot be ignored: the default action ends the process with a core,
        // as if this handler had never been there.
        struct sigaction standard = {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGBUS, &standard, nullptr);
        raise(SIGBUS);
}

// Installed on first use, after a sanitizer has put its own handler in place, which then
// gets every fault that is not ours. SA_NODEFER leaves SIGBUS unblocked when the handler
// jumps out, so the jump need not restore the signal mask: no system call per copy.
bool install() {
        struct sigaction action = {};
        action.sa_sigaction = onBusError;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        return sigaction(SIGBUS, &action, &previous) == 0;
}

}  // namespace

bool MapGuard_copy(void* to, const void* from, size_t n) {
        static const bool installed = install();
        (void)installed;
        // Nothing but the copy runs between the recovery point and the jump back to it,
        // so the jump skips no destructor and leaves no lock held.
        sigjmp_buf point;
        if (sigsetjmp(point, 0)) {
                errno = EFAULT;
                return false;
        }
        const char* bytes = static_cast<const char*>(from);
        armed = {&point, bytes, bytes + n};
        std::atomic_signal_fence(std::memory_order_seq_cst);
        memcpy(to, from, n);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        armed.point = nullptr;
        return true;
}
