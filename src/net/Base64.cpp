#include <stdint.h>

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <array>

#include <vesk/Base64.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/StringBuffer.h>
#include <vesk/assert.h>

#include "util/Holder.hpp"

namespace {

// How long a blocked writer waits for its descriptor, in milliseconds.
constexpr int kWriteTimeout = 3000;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of each byte in the alphabet, or -1 for a byte outside it ('=' included).
constexpr std::array<int8_t, 256> kValues = [] {
        std::array<int8_t, 256> t{};
        t.fill(-1);
        for (int i = 0; i < 64; i++)
                t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
        return t;
}();

inline int value(char c) {
        return kValues[static_cast<unsigned char>(c)];
}

int validLength(const char* source) {
        int n = 0;
        while (value(source[n]) >= 0)
                n++;
        return n;
}

// A last group of 2, 3 or 4 characters gives 1, 2 or 3 bytes; a lone one gives none.
int decodedLength(int n) {
        static constexpr int kTail[] = {0, 0, 1, 2};
        return n / 4 * 3 + kTail[n % 4];
}

int decode(unsigned char* dest, const char* source) {
        int n = validLength(source);
        unsigned char* d = dest;
        int i = 0;
        for (; i + 4 <= n; i += 4) {
                uint32_t v = value(source[i]) << 18 | value(source[i + 1]) << 12 |
                             value(source[i + 2]) << 6 | value(source[i + 3]);
                *d++ = static_cast<unsigned char>(v >> 16);
                *d++ = static_cast<unsigned char>(v >> 8);
                *d++ = static_cast<unsigned char>(v);
        }
        int rest = n - i;
        if (rest >= 2) {
                uint32_t v = value(source[i]) << 18 | value(source[i + 1]) << 12;
                if (rest == 3)
                        v |= value(source[i + 2]) << 6;
                *d++ = static_cast<unsigned char>(v >> 16);
                if (rest == 3)
                        *d++ = static_cast<unsigned char>(v >> 8);
        }
        return static_cast<int>(d - dest);
}

using Block = vesk::Block<char>;
using Bio = vesk::Holder<BIO*, BIO_free_all>;

// A chain of BIOs over a descriptor that the chain does not close, with the base64 filter
// in front when filtered; empty if a BIO cannot be had.
Bio chain(int fd, bool filtered) {
        Bio bio(BIO_new_socket(fd, BIO_NOCLOSE));
        if (filtered && bio) {
                BIO* b64 = BIO_new(BIO_f_base64());
                bio.reset(b64 ? BIO_push(b64, bio.release()) : nullptr);
        }
        return bio;
}

// Writes all n bytes to out; the count written, short only when out fails.
int writeAll(BIO* out, int fd, const char* data, int n) {
        int done = 0;
        while (done < n) {
                int w = BIO_write(out, data + done, n - done);
                if (w > 0)
                        done += w;
                else if (!BIO_should_retry(out) || !Net_canWrite(fd, kWriteTimeout))
                        break;
        }
        return done;
}

// Copies from in to out until in ends or fails; the filter sits on one of the two sides.
int copy(int in, int out, bool decoding, int chunk) {
        Bio source = chain(in, decoding), sink = chain(out, !decoding);
        if (!source || !sink)
                return 0;
        char buffer[1500];
        int total = 0;
        for (;;) {
                int n = BIO_read(source.get(), buffer, chunk);
                if (n >= 1) {
                        int w = writeAll(sink.get(), out, buffer, n);
                        total += w;
                        if (w < n)
                                break;
                } else if (!(BIO_should_retry(source.get()) && Net_canRead(in, 0))) {
                        break;
                }
        }
        BIO_flush(sink.get());
        return total;
}

}  // namespace

int Base64_encode(char* dest, const void* source, int length) {
        assert(dest);
        assert(source);
        assert(length >= 0);
        const auto* s = static_cast<const unsigned char*>(source);
        char* d = dest;
        int i = 0;
        for (; i + 3 <= length; i += 3) {
                uint32_t v = s[i] << 16 | s[i + 1] << 8 | s[i + 2];
                *d++ = kAlphabet[v >> 18];
                *d++ = kAlphabet[(v >> 12) & 63];
                *d++ = kAlphabet[(v >> 6) & 63];
                *d++ = kAlphabet[v & 63];
        }
        if (int rest = length - i; rest > 0) {
                uint32_t v = s[i] << 16 | (rest == 2 ? s[i + 1] << 8 : 0);
                *d++ = kAlphabet[v >> 18];
                *d++ = kAlphabet[(v >> 12) & 63];
                *d++ = rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
                *d++ = '=';
        }
        *d = 0;
        return static_cast<int>(d - dest);
}

int Base64_decode(void* dest, const char* source) {
        assert(dest);
        assert(source);
        auto* d = static_cast<unsigned char*>(dest);
        int n = decode(d, source);
        d[n] = 0;
        return n;
}

int Base64_decode_binary(void* dest, const char* source) {
        assert(dest);
        assert(source);
        return decode(static_cast<unsigned char*>(dest), source);
}

int Base64_decode_len(const char* source) {
        assert(source);
        return decodedLength(validLength(source));
}

StringBuffer_T Base64_encodeBuffer(StringBuffer_T sb) {
        assert(sb);
        int length = StringBuffer_length(sb);
        Block text(static_cast<char*>(ALLOC((length + 2) / 3 * 4 + 1)));
        Base64_encode(text.get(), StringBuffer_toString(sb), length);
        return StringBuffer_set(sb, "%s", text.get());
}

StringBuffer_T Base64_decodeBuffer(StringBuffer_T sb) {
        assert(sb);
        Block text(static_cast<char*>(ALLOC(Base64_decode_len(StringBuffer_toString(sb)) + 1)));
        Base64_decode(text.get(), StringBuffer_toString(sb));
        return StringBuffer_set(sb, "%s", text.get());
}

int Base64_encodeStream(int in, int out) {
        assert(in >= 0);
        assert(out >= 0);
        return copy(in, out, false, 1500);
}

int Base64_decodeStream(int in, int out) {
        assert(in >= 0);
        assert(out >= 0);
        return copy(in, out, true, 512);
}
