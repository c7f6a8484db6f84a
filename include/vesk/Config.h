/*
 * Config: the server-wide defaults read from the default deployment descriptor,
 * conf/web.xml: the MIME map (extension to type) and the welcome files that hold for
 * every application.
 *
 * A module without an object: Config_init makes the store once, Config_destroy drops
 * it with everything in it. There are no built-in types or welcome files, so without a
 * conf/web.xml both are empty. Extensions, types and welcome files are kept in lower
 * case; a look-up does not lower the path it is given. Texts handed out stay the
 * module's. The store is written only while the configuration is read and read
 * without a lock afterwards. A bad descriptor raises AssertException
 * "<reason> in '<file>' at line <n>".
 */
#ifndef VESK_CONFIG_INCLUDED
#define VESK_CONFIG_INCLUDED

#include <vesk/Export.h>
#include <vesk/List.h>

VESK_BEGIN_DECLS

/* Creates the store, once; later calls leave it as it is. */
VESK_API void Config_init(void);
/* Releases the store and everything in it. Checks "arena" (a store must exist). */
VESK_API void Config_destroy(void);
/* Reads the MIME map and the welcome files from the descriptor file. Checks "file". */
VESK_API void Config_parseDeploy(const char* file);
/* The type for the text after the last '.' of path, or NULL. Checks "path". */
VESK_API const char* Config_getMimeType(const char* path);
/* Maps extension to mimeType, both lowered; replaces an earlier mapping. Checks
   "extension", "mimeType" and "arena". */
VESK_API void Config_addMimeType(const char* extension, const char* mimeType);
/* The default welcome files, lower case, in the order they were added. Owned by Config. */
VESK_API List_T Config_getWelcomeFiles(void);
/* Appends the base name of welcomeFile, lowered; an absent welcomeFile appends an absent
   entry. Checks "arena" (Config_init has run). */
VESK_API void Config_addWelcomeFile(const char* welcomeFile);

VESK_END_DECLS

#endif
