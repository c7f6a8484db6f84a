#include <string.h>

#include <vesk/Base64.h>
#include <vesk/SASL.h>
#include <vesk/assert.h>

char* SASL_plain(const char* user, const char* password, char* result) {
        assert(user);
        assert(password);
        assert(result);
        // An empty authorization identity, then the user and the password, each after a zero byte.
        char buffer[192];
        size_t u = strlen(user), p = strlen(password);
        if (u + p + 2 > sizeof buffer) {
                THROW(AssertException,
                      "SASL PLAIN authentication failed -- username and password too long");
                return nullptr;
        }
        buffer[0] = 0;
        memcpy(buffer + 1, user, u);
        buffer[u + 1] = 0;
        memcpy(buffer + u + 2, password, p);
        Base64_encode(result, buffer, static_cast<int>(u + p + 2));
        return result;
}
