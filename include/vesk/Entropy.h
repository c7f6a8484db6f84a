/*
 * Entropy: seeding of the crypto library's random generator from the system.
 *
 * Entropy_start raises IOException when neither /dev/urandom nor /dev/random
 * exists. Crypto_start and Crypto_stop call these; other code seldom needs to.
 */
#ifndef VESK_ENTROPY_INCLUDED
#define VESK_ENTROPY_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Feeds 1024 bytes of the system's random device to the generator. */
VESK_API void Entropy_start(void);

/* Releases what seeding holds. */
VESK_API void Entropy_stop(void);

VESK_END_DECLS

#endif
