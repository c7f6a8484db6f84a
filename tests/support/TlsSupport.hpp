// A self-signed certificate made at test time, and a plain OpenSSL client for driving
// the server side of the TLS layer from another thread.
#pragma once

#include <stdio.h>

#include <algorithm>
#include <string>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "support/TempDir.hpp"

// Writes a P-256 key and a self-signed certificate valid for an hour into dir/name: the
// certificate first, then the key unless withKey is false. The subject's common name is
// commonName; altNames, such as "DNS:localhost,IP:127.0.0.1", are the names a client that
// verifies checks.
inline std::string makeCertificate(const TempDir& dir, const std::string& name = "server.pem",
                                   bool withKey = true, const std::string& commonName = "localhost",
                                   const std::string& altNames = "") {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* x = X509_new();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
        X509_gmtime_adj(X509_getm_notBefore(x), -60);
        X509_gmtime_adj(X509_getm_notAfter(x), 3600);
        X509_set_pubkey(x, key);
        X509_NAME* subject = X509_get_subject_name(x);
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                   -1, 0);
        X509_set_issuer_name(x, subject);
        if (!altNames.empty()) {
                X509V3_CTX ctx;
                X509V3_set_ctx_nodb(&ctx);
                X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
                if (X509_EXTENSION* e = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name,
                                                            altNames.c_str())) {
                        X509_add_ext(x, e, -1);
                        X509_EXTENSION_free(e);
                }
        }
        X509_sign(x, key, EVP_sha256());
        std::string path = dir / name;
        if (FILE* f = fopen(path.c_str(), "w")) {
                PEM_write_X509(f, x);
                if (withKey)
                        PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
                fclose(f);
        }
        X509_free(x);
        EVP_PKEY_free(key);
        return path;
}

// A blocking OpenSSL client on a connected descriptor, limited to the versions given.
class RawTlsClient {
public:
        SSL_CTX* ctx = nullptr;
        SSL* ssl = nullptr;

        RawTlsClient(int fd, int minVersion = 0, int maxVersion = 0) {
                ctx = SSL_CTX_new(TLS_client_method());
                if (minVersion && minVersion < TLS1_2_VERSION) {
                        // Let this side offer old protocols, so that a refusal is the server's.
                        SSL_CTX_set_security_level(ctx, 0);
                        SSL_CTX_set_cipher_list(ctx, "ALL:@SECLEVEL=0");
                }
                SSL_CTX_set_min_proto_version(ctx, minVersion);
                SSL_CTX_set_max_proto_version(ctx, maxVersion);
                ssl = SSL_new(ctx);
                SSL_set_fd(ssl, fd);
                fd_ = fd;
        }
        ~RawTlsClient() {
                SSL_free(ssl);
                SSL_CTX_free(ctx);
        }
        RawTlsClient(const RawTlsClient&) = delete;
        RawTlsClient& operator=(const RawTlsClient&) = delete;

        bool connect() { return SSL_connect(ssl) == 1; }
        // The client's first flight (the ClientHello), made without touching the socket, for
        // a test that sends it in its own way; connect() then goes on over the socket.
        std::string firstFlight() {
                BIO* in = BIO_new(BIO_s_mem());
                BIO* out = BIO_new(BIO_s_mem());
                SSL_set_bio(ssl, in, out);
                SSL_connect(ssl);  // stops for want of the server's answer
                std::string flight;
                char buf[4096];
                for (int n; (n = BIO_read(out, buf, sizeof buf)) > 0;)
                        flight.append(buf, static_cast<size_t>(n));
                BIO* socket = BIO_new_socket(fd_, BIO_NOCLOSE);
                SSL_set_bio(ssl, socket, socket);
                return flight;
        }
        // The common name of the certificate that the server presented, or "".
        std::string peerName() {
                X509* peer = SSL_get1_peer_certificate(ssl);
                if (!peer)
                        return "";
                char name[256] = "";
                X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name,
                                          sizeof name);
                X509_free(peer);
                return name;
        }
        bool send(const std::string& s) {
                return SSL_write(ssl, s.data(), static_cast<int>(s.size())) ==
                       static_cast<int>(s.size());
        }
        // Reads until n bytes came or the connection ended.
        std::string receive(size_t n) {
                std::string got;
                char buf[4096];
                while (got.size() < n) {
                        int r = SSL_read(ssl, buf,
                                         static_cast<int>(std::min(sizeof buf, n - got.size())));
                        if (r <= 0)
                                break;
                        got.append(buf, static_cast<size_t>(r));
                }
                return got;
        }
        // Reads one response off a kept-alive connection: the head, then a body framed by
        // Content-Length, or everything up to the close.
        std::string receiveResponse() {
                std::string got;
                while (got.find("\r\n\r\n") == std::string::npos) {
                        std::string c = receive(1);
                        if (c.empty())
                                return got;
                        got += c;
                }
                size_t at = got.find("\r\nContent-Length: ");
                if (at == std::string::npos)
                        return got + receive(std::string::npos);
                return got + receive(std::stoul(got.substr(at + 18)));
        }
        void close() { SSL_shutdown(ssl); }

private:
        int fd_;
};
