/*
 * Crypto: message digests and random identifiers as hexadecimal text.
 *
 * Every text result is uppercase hexadecimal, high nibble first, with a
 * terminating zero, written into a buffer the caller owns. MD_SIZE bytes is
 * always enough: it holds a digest of up to 32 bytes as text; a longer digest
 * fails the check "(mdlen * 2) < MD_SIZE". Absent arguments fail their checks.
 * A failing digest or random source gives NULL; nothing is logged for it.
 * The functions keep no state and may be called from any thread.
 */
#ifndef VESK_CRYPTO_INCLUDED
#define VESK_CRYPTO_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Room for a digest of up to 32 bytes as text, with its terminator. */
#define MD_SIZE 66

/* Prepares the crypto library for use by many threads and seeds its generator. */
VESK_API void Crypto_start(void);

/* Undoes Crypto_start, in reverse order. */
VESK_API void Crypto_stop(void);

/* Writes mdlen bytes of digest as text into result and returns result. */
VESK_API char* Crypto_digest2Bytes(const unsigned char* digest, int mdlen, char* result);

/* MD5 of text as 32 characters in result; NULL on failure. */
VESK_API char* Crypto_md5(const char* text, char* result);

/* SHA-1 of text as 40 characters in result; NULL on failure. */
VESK_API char* Crypto_sha1(const char* text, char* result);

/* Digest of text by algorithm name ("md5", "sha256", ...); NULL for an unknown name. */
VESK_API char* Crypto_digest(const char* algorithm, const char* text, char* result);

/* Digest of every byte read from fd until its end; NULL on a read error. */
VESK_API char* Crypto_digestStream(const char* algorithm, int fd, char* result);

/* 16 bytes from the strong generator as 32 characters, for session ids and tokens. */
VESK_API char* Crypto_sessionId(char* result);

/* 16 random bytes as 32 characters, for uses that need no secrecy. */
VESK_API char* Crypto_random(char* result);

VESK_END_DECLS

#endif
