#include "authenticate/Authenticators.hpp"

int SSLAuthenticator_authenticate(void) {
        return false;
}
