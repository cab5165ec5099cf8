// Built with the module's include path: the platform's C interfaces are in reach.
#include "db.h"
#include "plat_safe.h"
#include "ruk.h"
#include "zavk.h"
