// Built with the module's include path: the platform's controls must be out of reach.
#include "platform/world.hpp"
