// What the device manager reads from the world model beyond plat_world.hpp:
// the identity together with which of its parts currently answer, taken in
// one consistent snapshot.
#pragma once

#include "plat_world.hpp"

namespace plat::world {

struct DeviceView {
    SystemIdentity identity;
    bool mainBoardReadable = false;
    bool selfBoardReadable = false;
};

DeviceView device_view();

}  // namespace plat::world
