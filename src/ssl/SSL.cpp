#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <vesk/Container.h>
#include <vesk/Crypto.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/SSL.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "ssl/SSLTransport.hpp"
#include "util/Holder.hpp"

struct SSL_S {
        SSL* ssl;
        int socket;
        SSL_CTX* ctx;
        int isClient;
        InetAddress_T inet;
        int64_t started;  // Time_milli when the handshake began
};

namespace {

constexpr int kErrorSize = 256;
constexpr int kNameSize = 256;  // a DNS name has at most 253 characters
constexpr int kShutdownTries = 4;
constexpr char kClientCiphers[] = "ALL:!DES:!3DES:!RC4:!aNULL:!LOW:!EXP:!IDEA:!MD5:@STRENGTH";
// Jabber's ports: some of those servers choke on session tickets.
constexpr int kJabberPort = 5222;
constexpr int kJabberSecurePort = 5223;

// The option bits are named by intent; the raw numbers of older libraries mean other
// things in the present one. Protocols below TLS 1.2 are shut out by the minimum
// version, which also covers SSLv2 and SSLv3. A peer that drops the connection without
// a close_notify is read as a plain end of stream, which HTTP's own framing makes safe.
constexpr uint64_t kClientOptions =
    SSL_OP_ALL | SSL_OP_NO_SSLv3 | SSL_OP_NO_COMPRESSION | SSL_OP_IGNORE_UNEXPECTED_EOF;
constexpr uint64_t kServerOptions = kClientOptions | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                    SSL_OP_SINGLE_ECDH_USE |
                                    SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION;

std::atomic<bool> started{false};

using Context = vesk::Holder<SSL_CTX*, SSL_CTX_free>;

// The oldest error of this thread's queue as text in error, and the queue cleared.
const char* lastError(char* error) {
        unsigned long e = ERR_get_error();
        if (e)
                ERR_error_string_n(e, error, kErrorSize);
        else
                snprintf(error, kErrorSize, "%s",
                         errno ? System_getLastError() : "connection closed during handshake");
        ERR_clear_error();
        return error;
}

// The name to send in the handshake (SNI), which picks the certificate of a server
// that has several: a host name, without the root's trailing dot. An address is never
// sent, nor an empty name; false then.
bool serverNameOf(const char* host, char name[kNameSize]) {
        if (!host || *host == '[')
                return false;
        size_t n = strlen(host);
        if (n > 0 && host[n - 1] == '.')
                n--;
        if (n == 0 || n >= kNameSize)
                return false;
        memcpy(name, host, n);
        name[n] = 0;
        unsigned char address[sizeof(struct in6_addr)];
        return inet_pton(AF_INET, name, address) != 1 && inet_pton(AF_INET6, name, address) != 1;
}

void restrictProtocols(SSL_CTX* ctx, uint64_t options) {
        SSL_CTX_set_options(ctx, options);
        SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
}

SSL_T newRecord(InetAddress_T inet, SSL_CTX* ctx, int isClient) {
        SSL_T S;
        NEW0(S);
        S->inet = inet;
        S->ctx = ctx;
        S->isClient = isClient;
        S->socket = InetAddress_getSocket(inet);
        S->started = Time_milli();
        return S;
}

// Makes the connection's SSL object in the given state; the record is released and
// AssertException raised when the library cannot make one.
void attachSSL(SSL_T* S, bool client) {
        SSL_T s = *S;
        s->ssl = SSL_new(s->ctx);
        if (!s->ssl || !SSL_set_fd(s->ssl, s->socket)) {
                SSLRelease(S);
                THROW(AssertException, "S->ssl");
        }
        if (client)
                SSL_set_connect_state(s->ssl);
        else
                SSL_set_accept_state(s->ssl);
        SSL_set_mode(s->ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

// Starts the handshake without waiting for it: a handshake that merely wants more
// bytes counts as started and finishes inside later reads and writes.
bool startHandshake(SSL_T S, char* error) {
        ERR_clear_error();
        errno = 0;
        int n = S->isClient ? SSL_connect(S->ssl) : SSL_accept(S->ssl);
        switch (SSL_get_error(S->ssl, n)) {
        case SSL_ERROR_NONE:
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
                return true;
        default:
                lastError(error);
                return false;
        }
}

void report(SSL_T S, const char* format) {
        if (Container_Debug) {
                const char* host = S->isClient ? InetAddress_getRemoteHostName(S->inet)
                                               : InetAddress_getLocalHostName(S->inet);
                char error[kErrorSize];
                if (!ERR_peek_error())
                        Error_error(format, host, errno ? System_getLastError() : "end of stream");
                for (unsigned long e; (e = ERR_get_error());)
                        Error_error(format, host, ERR_error_string(e, error));
        }
        ERR_clear_error();
}

// One read or write, going on with a handshake or a renegotiation in either direction
// for as long as the socket becomes ready within timeout.
int transfer(SSL_T S, void* buffer, int size, int timeout, bool reading) {
        if (size < 1)
                return 0;
        for (;;) {
                ERR_clear_error();
                errno = 0;
                int n = reading ? SSL_read(S->ssl, buffer, size) : SSL_write(S->ssl, buffer, size);
                int error = SSL_get_error(S->ssl, n);
                switch (error) {
                case SSL_ERROR_NONE:
                        return n;
                case SSL_ERROR_WANT_READ:
                case SSL_ERROR_WANT_WRITE: {
                        // The protocol may want either direction, whichever call this is.
                        errno = EAGAIN;
                        auto ready = error == SSL_ERROR_WANT_READ ? Net_canRead : Net_canWrite;
                        if (!ready(S->socket, timeout)) {
                                errno = EAGAIN;
                                return 0;
                        }
                        break;
                }
                case SSL_ERROR_ZERO_RETURN:
                        errno = 0;
                        return n;
                default:
                        report(S,
                               reading ? "SSL read error [%s] %s\n" : "SSL write error [%s] %s\n");
                        // A failure is always -1, so that the streams close rather than
                        // take it for a quiet end or a wait.
                        if (errno == 0 || errno == EAGAIN)
                                errno = EIO;
                        return -1;
                }
        }
}

}  // namespace

void SSLStart(void) {
        if (started.exchange(true))
                return;
        OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
        Crypto_start();
}

void SSLStop(void) {
        if (!started.exchange(false))
                return;
        ERR_clear_error();
        Crypto_stop();
}

void SSLThreadCleanup(void) {
        // Frees the thread's error queue and other per-thread state, rather than clearing
        // it: a processor thread may end at any time afterwards, and whatever it leaves
        // is only reclaimed once it has fully exited.
        OPENSSL_thread_stop();
}

SSL_T SSLNew(const char* file, const char* ciphers) {
        assert(file);
        assert(ciphers);
        char error[kErrorSize];
        ERR_clear_error();
        Context ctx(SSL_CTX_new(TLS_server_method()));
        if (!ctx)
                THROW(AssertException, "S->ctx");
        // One PEM file holds the chain, which also serves as the trusted CAs, and the key.
        if (SSL_CTX_load_verify_locations(ctx.get(), file, nullptr) != 1 ||
            SSL_CTX_set_default_verify_paths(ctx.get()) != 1)
                THROW(AssertException, "Error loading CA file '%s' -- %s", file, lastError(error));
        if (SSL_CTX_use_certificate_chain_file(ctx.get(), file) != 1)
                THROW(AssertException, "Error loading certificate '%s' -- %s", file,
                      lastError(error));
        if (SSL_CTX_use_PrivateKey_file(ctx.get(), file, SSL_FILETYPE_PEM) != 1)
                THROW(AssertException, "Error loading private key from file '%s' -- %s", file,
                      lastError(error));
        restrictProtocols(ctx.get(), kServerOptions);
        if (SSL_CTX_set_cipher_list(ctx.get(), ciphers) != 1) {
                ERR_clear_error();
                THROW(IOException, "Error setting cipher list '%s' (no valid ciphers)", ciphers);
        }
        SSL_CTX_set_mode(ctx.get(), SSL_MODE_RELEASE_BUFFERS);
        // The library picks the ECDH curve by itself. Without a session cache there is
        // nothing to resume, so no tickets are sent either.
        SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
        SSL_CTX_set_num_tickets(ctx.get(), 0);
        SSL_T S;
        NEW0(S);
        S->socket = -1;
        S->ctx = ctx.release();
        return S;
}

void SSLFree(SSL_T* S) {
        assert(S && *S);
        SSL_CTX* ctx = (*S)->ctx;
        SSLRelease(S);
        SSL_CTX_free(ctx);
}

SSL_T SSLAccept(SSL_T server, InetAddress_T inet) {
        assert(server);
        assert(inet);
        SSL_T S = newRecord(inet, server->ctx, 0);
        attachSSL(&S, false);
        char error[kErrorSize];
        if (!startHandshake(S, error)) {
                SSLRelease(&S);
                THROW(IOException, "%s", error);
        }
        InetAddress_setSSL(inet, S);
        return S;
}

SSL_T SSLConnect(InetAddress_T inet, const char* serverName) {
        assert(inet);
        ERR_clear_error();
        SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
        if (!ctx)
                THROW(AssertException, "S->ctx");
        SSL_T S = newRecord(inet, ctx, 1);
        uint64_t options = kClientOptions;
        int port = InetAddress_getRemoteHostPort(inet);
        if (port == kJabberPort || port == kJabberSecurePort)
                options |= SSL_OP_NO_TICKET;
        restrictProtocols(ctx, options);
        if (SSL_CTX_set_cipher_list(ctx, kClientCiphers) != 1) {
                SSLRelease(&S);
                ERR_clear_error();
                THROW(IOException, "Error setting cipher list '%s' (no valid ciphers)",
                      kClientCiphers);
        }
        attachSSL(&S, true);
        char name[kNameSize];
        if (serverNameOf(serverName, name) &&
            SSL_set_tlsext_host_name(S->ssl, name) != 1) {
                SSLRelease(&S);
                ERR_clear_error();
                THROW(IOException, "Invalid server name '%s'", name);
        }
        char error[kErrorSize];
        if (!startHandshake(S, error)) {
                SSLRelease(&S);
                THROW(IOException, "SSL connect error [%s] %s", InetAddress_getRemoteHostName(inet),
                      error);
        }
        InetAddress_setSSL(inet, S);
        return S;
}

void SSLRelease(SSL_T* S) {
        assert(S && *S);
        SSL_T s = *S;
        if (s->ssl) {
                // Sends our close_notify without waiting for the peer's: the socket is
                // about to close anyway.
                for (int i = 0; i < kShutdownTries && SSL_shutdown(s->ssl) < 1; i++)
                        ;
                ERR_clear_error();
                SSL_free(s->ssl);
        }
        if (s->isClient)
                SSL_CTX_free(s->ctx);
        FREE(*S);
}

int SSLRead(SSL_T S, void* buffer, int size) {
        assert(S);
        if (size < 1)
                return 0;
        assert(S->ssl);
        return transfer(S, buffer, size,
                        InputStream_getTimeout(InetAddress_getInputStream(S->inet)), true);
}

int SSLWrite(SSL_T S, const void* buffer, int size) {
        assert(S);
        if (size < 1)
                return 0;
        assert(S->ssl);
        return transfer(S, const_cast<void*>(buffer), size,
                        OutputStream_getTimeout(InetAddress_getOutputStream(S->inet)), false);
}

int SSLPending(SSL_T S) {
        assert(S);
        return S->ssl ? SSL_pending(S->ssl) : 0;
}

int SSLTransport_read(SSL_T ssl, void* buffer, int size, int timeout) {
        assert(ssl && ssl->ssl);
        return transfer(ssl, buffer, size, timeout, true);
}

int SSLTransport_write(SSL_T ssl, const void* buffer, int size, int timeout) {
        assert(ssl && ssl->ssl);
        return transfer(ssl, const_cast<void*>(buffer), size, timeout, false);
}

bool SSLTransport_handshaking(SSL_T ssl) {
        assert(ssl);
        return !SSL_is_init_finished(ssl->ssl);
}

int SSLTransport_handshake(SSL_T ssl) {
        assert(ssl && ssl->ssl);
        ERR_clear_error();
        errno = 0;
        int n = SSL_do_handshake(ssl->ssl);
        switch (SSL_get_error(ssl->ssl, n)) {
        case SSL_ERROR_NONE:
                return 1;
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
                return 0;
        default:
                report(ssl, "SSL handshake error [%s] %s\n");
                return -1;
        }
}

bool SSLTransport_wantsWrite(SSL_T ssl) {
        assert(ssl && ssl->ssl);
        return SSL_want_write(ssl->ssl);
}

bool SSLTransport_buffered(SSL_T ssl) {
        assert(ssl && ssl->ssl);
        return SSL_has_pending(ssl->ssl);
}

int64_t SSLTransport_started(SSL_T ssl) {
        assert(ssl);
        return ssl->started;
}

struct ssl_st* SSLTransport_native(SSL_T ssl) {
        assert(ssl);
        return ssl->ssl;
}
