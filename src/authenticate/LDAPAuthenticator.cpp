#include "authenticate/Authenticators.hpp"

int LDAPAuthenticator_authenticate(void) {
        return false;
}
