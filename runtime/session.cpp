#include "runtime/session.h"

namespace corvi {

MSIHANDLE currentSession = 0;

const MSIHANDLE launchSession = 0;
const MSIHANDLE taskRegistrationSession = 0;
const MSIHANDLE cleanupSession = 0;

}  // namespace corvi
