// The owner of one C resource: a handle and the function that gives it back, known when
// the code is compiled, so that a holder costs no more than the bare handle.
//
// A holder is the only owner of its handle: it can be moved, never copied, and gives the
// handle back when it goes out of scope, however the scope is left. Giving a handle back
// leaves errno as it was, so that a failure path closing what it opened still reports
// the error that made it fail.
#pragma once

#include <errno.h>

#include <vesk/Mem.h>

namespace vesk {

template <typename T, auto Free, T Empty = T{}>
class Holder {
public:
        Holder() noexcept = default;
        explicit Holder(T handle) noexcept : handle_(handle) {}
        Holder(Holder&& other) noexcept : handle_(other.release()) {}
        Holder& operator=(Holder&& other) noexcept {
                reset(other.release());
                return *this;
        }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        ~Holder() { reset(); }

        T get() const noexcept { return handle_; }

        // The handle, which the caller now owns; the holder is left empty.
        T release() noexcept {
                T handle = handle_;
                handle_ = Empty;
                return handle;
        }

        // Gives back the handle held, if any, and holds handle instead.
        void reset(T handle = Empty) noexcept {
                T old = handle_;
                handle_ = handle;
                if (old != Empty) {
                        int saved = errno;
                        static_cast<void>(Free(old));
                        errno = saved;
                }
        }

        explicit operator bool() const noexcept { return handle_ != Empty; }

private:
        T handle_ = Empty;
};

// A file descriptor, closed by Close; -1 is no descriptor.
template <auto Close>
using Descriptor = Holder<int, Close, -1>;

template <typename P>
void freeBlock(P* block) {
        FREE(block);
}

// A block from the heap (ALLOC), freed by FREE.
template <typename P>
using Block = Holder<P*, freeBlock<P>>;

}  // namespace vesk
