// The plane's view of the world's ports and its striped per-port counters
// (see port_view.hpp).
#include "port_view.hpp"

#include <algorithm>

namespace device::fplane {

namespace {

std::atomic<size_t> g_nextStripe{0};

template <typename Key, typename Value>
const Value *FindSorted(const std::vector<std::pair<Key, Value>> &rows, Key key)
{
    const auto it = std::lower_bound(rows.begin(), rows.end(), key,
                                     [](const std::pair<Key, Value> &row, Key k) { return row.first < k; });
    return it != rows.end() && it->first == key ? &it->second : nullptr;
}

VlanSet ToVlanSet(const platform::PortVlanRecord &record)
{
    VlanSet set;
    for (size_t vlan = 0; vlan < set.size(); vlan++) {
        set[vlan] = record.Has(static_cast<uint16_t>(vlan));
    }
    return set;
}

}  // namespace

size_t ThreadStripe()
{
    thread_local const size_t stripe = g_nextStripe.fetch_add(1, std::memory_order_relaxed) % kStripes;
    return stripe;
}

PortCounters PortBlock::Read() const
{
    PortCounters c;
    for (size_t i = 0; i < kCounterFields.size(); i++) {
        c.*kCounterFields[i] = counts_.Sum(i);
    }
    return c;
}

const PortEntry *PortView::Find(uint32_t ifIndex) const
{
    const size_t *at = FindSorted(byIfIndex_, ifIndex);
    return at == nullptr ? nullptr : &entries_[*at];
}

uint32_t PortView::Logical(uint32_t ifIndex) const
{
    const PortEntry *e = Find(ifIndex);
    if (e != nullptr) {
        return e->logical;
    }
    const uint32_t *trunk = FindSorted(memberToTrunk_, ifIndex);
    return trunk == nullptr ? ifIndex : *trunk;
}

std::shared_ptr<const PortView> PortView::Build(const platform::PortTables &tables, const BlockOf &blockOf)
{
    auto view = std::make_shared<PortView>();
    PortView &v = *view;
    v.generation_ = tables.generation;

    for (const platform::TrunkPortRecord &tp : tables.trunkPorts) {
        v.memberToTrunk_.emplace_back(tp.memberIfIndex, tp.trunkIfIndex);
    }
    std::stable_sort(v.memberToTrunk_.begin(), v.memberToTrunk_.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });

    // The first VLAN map of an interface is the one that counts. Entries
    // point into vlanSets_ and into entries_: both are sized before.
    std::vector<std::pair<uint32_t, size_t>> vlanSetOf;
    v.vlanSets_.reserve(tables.portVlans.size());
    for (const platform::PortVlanRecord &pv : tables.portVlans) {
        vlanSetOf.emplace_back(pv.ifIndex, v.vlanSets_.size());
        v.vlanSets_.push_back(ToVlanSet(pv));
    }
    std::stable_sort(vlanSetOf.begin(), vlanSetOf.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });

    v.entries_.reserve(tables.interfaces.size());
    for (size_t i = 0; i < tables.interfaces.size(); i++) {
        const platform::IfRecord &r = tables.interfaces[i];
        PortEntry e;
        e.ifIndex = r.ifIndex;
        e.block = blockOf(r.ifIndex);
        v.entries_.push_back(e);
        v.byIfIndex_.emplace_back(r.ifIndex, i);
    }
    std::stable_sort(v.byIfIndex_.begin(), v.byIfIndex_.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });

    const auto recordOf = [&](const PortEntry *e) -> const platform::IfRecord & {
        return tables.interfaces[static_cast<size_t>(e - v.entries_.data())];
    };
    for (size_t i = 0; i < tables.interfaces.size(); i++) {
        const platform::IfRecord &r = tables.interfaces[i];
        PortEntry &e = v.entries_[i];
        const bool trunkInterface = r.lagId != platform::kNoId;
        const uint32_t *trunk = FindSorted(v.memberToTrunk_, r.ifIndex);
        e.wire = r.onBoard && !trunkInterface;
        e.floods = trunk == nullptr && (r.onBoard || trunkInterface);
        e.logical = trunk == nullptr ? r.ifIndex : *trunk;
        const PortEntry *logicalEntry = v.Find(e.logical);
        if (logicalEntry != nullptr) {
            const platform::IfRecord &lr = recordOf(logicalEntry);
            e.logicalKnown = true;
            e.trunkMode = lr.trunkMode;
            e.pvid = lr.pvid;
            const size_t *set = FindSorted(vlanSetOf, lr.ifIndex);
            e.vlans = set == nullptr ? nullptr : &v.vlanSets_[*set];
        }
    }

    // Senders, once every entry knows its VLAN settings.
    for (size_t i = 0; i < tables.interfaces.size(); i++) {
        const platform::IfRecord &r = tables.interfaces[i];
        PortEntry &e = v.entries_[i];
        const PortEntry *sender = nullptr;
        if (r.lagId == platform::kNoId) {
            sender = r.onBoard ? &e : nullptr;
        } else {
            for (const auto &[member, trunk] : v.memberToTrunk_) {
                const PortEntry *m = v.Find(member);
                if (trunk == r.ifIndex && m != nullptr && recordOf(m).onBoard &&
                    (sender == nullptr || member < sender->ifIndex)) {
                    sender = m;
                }
            }
        }
        e.sender = sender != nullptr && sender->logicalKnown ? sender : nullptr;
        if (e.floods) {
            v.flood_.push_back(&e);
        }
    }
    return view;
}

}  // namespace device::fplane
