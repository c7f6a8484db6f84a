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

#include "support/TempDir.hpp"

// Writes a P-256 key and a certificate for "localhost" valid for an hour into
// dir/name: the certificate first, then the key unless withKey is false.
inline std::string makeCertificate(const TempDir& dir, const std::string& name = "server.pem",
                                   bool withKey = true) {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* x = X509_new();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
        X509_gmtime_adj(X509_getm_notBefore(x), -60);
        X509_gmtime_adj(X509_getm_notAfter(x), 3600);
        X509_set_pubkey(x, key);
        X509_NAME* subject = X509_get_subject_name(x);
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
        X509_set_issuer_name(x, subject);
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
        }
        ~RawTlsClient() {
                SSL_free(ssl);
                SSL_CTX_free(ctx);
        }
        RawTlsClient(const RawTlsClient&) = delete;
        RawTlsClient& operator=(const RawTlsClient&) = delete;

        bool connect() { return SSL_connect(ssl) == 1; }
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
        void close() { SSL_shutdown(ssl); }
};
