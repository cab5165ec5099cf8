// Built with the module's include path: a device header must be out of reach.
#include "device/fplane.hpp"
