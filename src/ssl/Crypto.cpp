#include <errno.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <vesk/Crypto.h>
#include <vesk/Entropy.h>
#include <vesk/Error.h>
#include <vesk/Net.h>
#include <vesk/assert.h>

#include "util/Holder.hpp"

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

// The digest context is opaque to us, so it lives on the heap.
using DigestContext = vesk::Holder<EVP_MD_CTX*, EVP_MD_CTX_free>;

// A context started on the digest type, empty if it cannot be had.
DigestContext start(const EVP_MD* type) {
        DigestContext d(EVP_MD_CTX_new());
        if (d && EVP_DigestInit_ex(d.get(), type, nullptr) != 1)
                d.reset();
        return d;
}

char* finish(const DigestContext& d, char* result) {
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned int mdlen = 0;
        if (EVP_DigestFinal_ex(d.get(), md, &mdlen) != 1)
                return nullptr;
        return Crypto_digest2Bytes(md, static_cast<int>(mdlen), result);
}

char* oneShot(const EVP_MD* type, const char* text, char* result) {
        DigestContext d = start(type);
        if (!d || EVP_DigestUpdate(d.get(), text, strlen(text)) != 1)
                return nullptr;
        return finish(d, result);
}

const EVP_MD* byName(const char* algorithm) {
        const EVP_MD* type = EVP_get_digestbyname(algorithm);
        if (!type)
                Error_debug("Crypto: digest algorithm %s not supported\n", algorithm);
        return type;
}

char* randomId(char* result) {
        unsigned char bytes[16];
        if (RAND_bytes(bytes, sizeof bytes) != 1)
                return nullptr;
        return Crypto_digest2Bytes(bytes, sizeof bytes, result);
}

}  // namespace

// The library locks for itself since version 1.1, so there are no locking callbacks to
// install or remove; starting makes sure it is initialised before the first thread uses it.
void Crypto_start(void) {
        OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
        Entropy_start();
}

void Crypto_stop(void) {
        Entropy_stop();
}

char* Crypto_digest2Bytes(const unsigned char* digest, int mdlen, char* result) {
        assert(digest);
        assert(result);
        assert((mdlen * 2) < MD_SIZE);
        char* p = result;
        for (int i = 0; i < mdlen; i++) {
                *p++ = kHex[digest[i] >> 4];
                *p++ = kHex[digest[i] & 0x0f];
        }
        *p = 0;
        return result;
}

char* Crypto_md5(const char* text, char* result) {
        assert(text);
        assert(result);
        return oneShot(EVP_md5(), text, result);
}

char* Crypto_sha1(const char* text, char* result) {
        assert(text);
        assert(result);
        return oneShot(EVP_sha1(), text, result);
}

char* Crypto_digest(const char* algorithm, const char* text, char* result) {
        assert(algorithm);
        assert(text);
        assert(result);
        const EVP_MD* type = byName(algorithm);
        return type ? oneShot(type, text, result) : nullptr;
}

char* Crypto_digestStream(const char* algorithm, int fd, char* result) {
        assert(algorithm);
        assert(result);
        assert(fd >= 0);
        const EVP_MD* type = byName(algorithm);
        if (!type)
                return nullptr;
        DigestContext d = start(type);
        if (!d)
                return nullptr;
        unsigned char buffer[4096];
        for (;;) {
                ssize_t n = Net_read(fd, buffer, sizeof buffer, 0);
                if (n > 0) {
                        if (EVP_DigestUpdate(d.get(), buffer, static_cast<size_t>(n)) != 1)
                                return nullptr;
                } else if (n == 0) {
                        break;
                } else if (errno != EINTR || !Net_canRead(fd, 0)) {
                        // Only an interrupted read is worth another try: a file whose read
                        // fails always polls readable, and would be retried for ever.
                        return nullptr;
                }
        }
        return finish(d, result);
}

char* Crypto_sessionId(char* result) {
        assert(result);
        return randomId(result);
}

char* Crypto_random(char* result) {
        assert(result);
        return randomId(result);
}
