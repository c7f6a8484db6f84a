/*
 * SASL: credential texts for client authentication.
 */
#ifndef VESK_SASL_INCLUDED
#define VESK_SASL_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* The PLAIN credential (no authorization identity, user, password) in base64, written into
   result, which needs 257 bytes; returns result. User and password together may take 190
   bytes; more raises AssertException. */
VESK_API char* SASL_plain(const char* user, const char* password, char* result);

VESK_END_DECLS

#endif
