/*
 * Base64: the standard alphabet (A-Z, a-z, 0-9, '+', '/') padded with '='.
 *
 * In-memory encoding writes no line breaks. Decoding reads up to the first
 * character outside the alphabet (usually '=' or the end) and ignores the rest;
 * a final lone character gives no byte. Destination buffers belong to the
 * caller: encoding needs (length + 2) / 3 * 4 + 1 bytes, decoding
 * Base64_decode_len(source) bytes, plus one for Base64_decode's terminator.
 * The stream functions copy between two descriptors until the input ends or
 * fails, with the crypto library's base64 filter, which breaks encoded lines
 * every 64 characters. Absent arguments fail their checks.
 */
#ifndef VESK_BASE64_INCLUDED
#define VESK_BASE64_INCLUDED

#include <vesk/Export.h>
#include <vesk/StringBuffer.h>

VESK_BEGIN_DECLS

/* Encodes length bytes of source into dest with a terminator; returns the text's length. */
VESK_API int Base64_encode(char* dest, const void* source, int length);

/* Decodes source into dest and adds a zero byte; returns the decoded length. */
VESK_API int Base64_decode(void* dest, const char* source);

/* Decodes source into dest with no terminator; returns the decoded length. */
VESK_API int Base64_decode_binary(void* dest, const char* source);

/* The number of bytes that decoding source gives. */
VESK_API int Base64_decode_len(const char* source);

/* Replaces the text of sb by its encoding; returns sb. */
VESK_API StringBuffer_T Base64_encodeBuffer(StringBuffer_T sb);

/* Replaces the text of sb by its decoding, up to the first zero byte; returns sb. */
VESK_API StringBuffer_T Base64_decodeBuffer(StringBuffer_T sb);

/* Encodes all that can be read from in and writes it to out; the bytes written. */
VESK_API int Base64_encodeStream(int in, int out);

/* Decodes all that can be read from in and writes it to out; the bytes written. */
VESK_API int Base64_decodeStream(int in, int out);

VESK_END_DECLS

#endif
