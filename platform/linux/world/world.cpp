// The world model: the switch the module believes it runs on.
//
// On the real switch the device manager and the object database answer from
// the chassis' hardware and the framework's state. Ours answers from this
// model: an identity (name, MAC, chassis, boards, board type), whether the
// device database answers yet (main board and self board separately), and
// the framework-instance table. The host fills it from a topology file
// (topology.cpp) and tests change it at any time; every access is locked.
#include <algorithm>
#include <mutex>

#include "core/internal.hpp"
#include "plat_world.hpp"
#include "world/world_internal.hpp"

namespace {

struct World {
    std::mutex mu;
    plat::SystemIdentity identity;
    bool mainBoardReadable = false;
    bool selfBoardReadable = false;
    std::vector<plat::FrmInstRecord> frmInst;  // in insertion order
};

World &TheWorld()
{
    return plat::internal::Leaky<World>();
}

}  // namespace

namespace plat::world {

void set_identity(const SystemIdentity &identity)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity = identity;
}

SystemIdentity identity()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return w.identity;
}

void set_devm_ready(bool ready)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.mainBoardReadable = ready;
    w.selfBoardReadable = ready;
}

void set_main_board_readable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.mainBoardReadable = readable;
}

void set_self_board_readable(bool readable)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.selfBoardReadable = readable;
}

DeviceView device_view()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return DeviceView{w.identity, w.mainBoardReadable, w.selfBoardReadable};
}

void frm_inst_clear()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.frmInst.clear();
}

void frm_inst_put(const FrmInstRecord &record)
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    const auto it = std::find_if(w.frmInst.begin(), w.frmInst.end(),
                                 [&record](const FrmInstRecord &r) { return r.localSlot == record.localSlot; });
    if (it != w.frmInst.end()) {
        *it = record;
    } else {
        w.frmInst.push_back(record);
    }
}

std::vector<FrmInstRecord> frm_inst_records()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    return w.frmInst;
}

void reset()
{
    World &w = TheWorld();
    std::lock_guard lock(w.mu);
    w.identity = SystemIdentity{};
    w.mainBoardReadable = false;
    w.selfBoardReadable = false;
    w.frmInst.clear();
}

}  // namespace plat::world
