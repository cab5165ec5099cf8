/* The configuration store: the device-wide settings and the per-interface
 * port control blocks with their trust, policy, counters and formats. */
#ifndef PPPOE_PLUS_CFG_H
#define PPPOE_PLUS_CFG_H

#include <stdint.h>

#include "pppoe_plus_tlv.h"

/* Tag policy codes. */
#define PPPOE_PLUS_POLICY_UNSET 0U
#define PPPOE_PLUS_POLICY_REPLACE 1U
#define PPPOE_PLUS_POLICY_DROP 2U
#define PPPOE_PLUS_POLICY_KEEP 3U
/* Encapsulation codes. */
#define PPPOE_PLUS_ENCAP_CID 1U
#define PPPOE_PLUS_ENCAP_RID 2U
#define PPPOE_PLUS_ENCAP_BOTH 3U
/* Format types. */
#define PPPOE_PLUS_FORMAT_COMMON 0U
#define PPPOE_PLUS_FORMAT_EXTEND 1U
#define PPPOE_PLUS_FORMAT_USER_DEFINE 2U
/* Info types. */
#define PPPOE_PLUS_INFO_CID 1U
#define PPPOE_PLUS_INFO_RID 2U

#define PPPOE_PLUS_UDF_STR_LEN 128U
#define PPPOE_PLUS_MAX_PORT_FORMATS 32U
#define PPPOE_PLUS_FORMAT_TABLE_FULL 23U
#define PPPOE_PLUS_PORT_COUNTERS 15U

#ifndef PPPOE_PLUS_DEFAULT_VENDOR_ID
#define PPPOE_PLUS_DEFAULT_VENDOR_ID 3561U
#endif

#ifdef __cplusplus
#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <type_traits>

/* Counts every change of a port's trust byte (below), so the trusted-port
 * match knows when the ports it keeps in view need a fresh look. */
extern std::atomic<uint32_t> g_pppoePlusTrustChanges;

/* A port's trust byte: an atomic byte, as the packet task reads it while
 * the configuration task (or a test) writes it, whose every store is also
 * counted in g_pppoePlusTrustChanges. */
class PppoePlusTrustByte {
public:
    uint8_t load(std::memory_order order = std::memory_order_seq_cst) const { return value_.load(order); }
    void store(uint8_t value, std::memory_order order = std::memory_order_seq_cst)
    {
        value_.store(value, order);
        g_pppoePlusTrustChanges.fetch_add(1, std::memory_order_release);
    }
    operator uint8_t() const { return load(); }
    PppoePlusTrustByte &operator=(uint8_t value)
    {
        store(value);
        return *this;
    }

private:
    std::atomic<uint8_t> value_;
};
static_assert(sizeof(PppoePlusTrustByte) == 1, "the trust field is one byte");

extern "C" {

/* A member's link in a doubly linked, circular list. */
typedef struct PppoePlusDllNode {
    struct PppoePlusDllNode *next;
    struct PppoePlusDllNode *prev;
} PppoePlusDllNode;

/* A list head: first and last member (the head itself when empty), a
 * reserved word and the member count. */
typedef struct PppoePlusDllHead {
    PppoePlusDllNode *first;
    PppoePlusDllNode *last;
    uintptr_t reserved;
    uint32_t count;
} PppoePlusDllHead;

typedef struct InfoFormatNode {
    PppoePlusDllNode link;
    uintptr_t reserved;
    uint16_t vlanId;
    uint16_t ceVlanId;
    uint8_t infoType;
    uint8_t infoFormatType;
    char userDefineStr[PPPOE_PLUS_UDF_STR_LEN];
} InfoFormatNode;

/* Per-interface control block. Single-byte settings and the counters are
 * atomics of the same size: the configuration task writes them while the
 * packet task reads them. */
typedef struct PortCB {
    PppoePlusDllNode link;
    uintptr_t reserved;
    uint32_t ifIndex;
    uint8_t reserved2;
    std::atomic<uint8_t> infoPolicy;
    PppoePlusTrustByte trust;
    std::atomic<uint32_t> stats[PPPOE_PLUS_PORT_COUNTERS];
    PppoePlusDllHead qinqFormatList;
    PppoePlusDllHead vlanFormatList;
    PppoePlusDllHead ceVlanFormatList;
    PppoePlusDllHead noVlanFormatList;
} PortCB;
static_assert(sizeof(std::atomic<uint8_t>) == 1 && sizeof(std::atomic<uint32_t>) == 4, "plain layouts");

typedef struct PppoePlusGlobalInfo {
    std::atomic<uint8_t> enable;
    std::atomic<uint8_t> infoPolicy;
    std::atomic<uint8_t> ignoreReply;
    std::atomic<uint8_t> infoEncap;
    std::atomic<uint32_t> vendorId;
    std::atomic<uint8_t> cidFormatType;
    char cidUserDefineStr[PPPOE_PLUS_UDF_STR_LEN];
    std::atomic<uint8_t> ridFormatType;
    char ridUserDefineStr[PPPOE_PLUS_UDF_STR_LEN];
    PppoePlusDllHead portList;
} PppoePlusGlobalInfo;

extern PppoePlusGlobalInfo g_pppoePlusGlobalInfo;

void PPPOE_PLUS_InitGlobalCfgData(void);
uint8_t PPPOE_PLUS_IsEnable(void);
uint32_t PPPOE_PLUS_SetEnable(uint8_t enable);
uint8_t PPPOE_PLUS_GetGlobalInfoPolicy(void);
void PPPOE_PLUS_SetGlobalInfoPolicy(uint8_t policy);
uint32_t PPPOE_PLUS_IsEncapOnlyCid(void);
uint32_t PPPOE_PLUS_IsEncapOnlyRid(void);
uint8_t PPPOE_PLUS_GetInfoEncap(void);
void PPPOE_PLUS_SetInfoEncap(uint8_t valid, uint8_t encapType);
uint8_t PPPOE_PLUS_GetGlobalCidFormat(void);
/* The global user-defined strings: read them under the store's lock, held
 * shared for as long as the string is used. */
char *PPPOE_PLUS_GetGlobalCidUdfFormat(void);
/* Takes the store's lock exclusively to save udfStr. */
uint32_t PPPOE_PLUS_SetGlobalCidFormat(uint8_t formatType, const char *udfStr);
uint8_t PPPOE_PLUS_GetGlobalRidFormat(void);
char *PPPOE_PLUS_GetGlobalRidUdfFormat(void);
uint32_t PPPOE_PLUS_SetGlobalRidFormat(uint8_t formatType, const char *udfStr);
/* The global user-defined format of infoType compiled for the variant of
 * info, or null when it must be compiled again (the dictionary changed
 * since); read it under the store's lock, like the string. */
const PppoePlusUdfProg *PPPOE_PLUS_GetGlobalUdfProg(uint8_t infoType, const UserInfo *info);
/* A port node's user-defined format compiled for the variant of info, or
 * null when it is not (or no longer) kept compiled; under the store's lock. */
const PppoePlusUdfProg *PPPOE_PLUS_GetPortUdfProg(const InfoFormatNode *node, const UserInfo *info);
/* How many format nodes the ports have, read without the store's lock. */
uint32_t PPPOE_PLUS_PortFormatCount(void);
/* Compiles the store's user-defined formats again (the dictionary changed);
 * takes the store's lock exclusively. */
void PPPOE_PLUS_CompileGlobalUdf(void);
uint32_t PPPOE_PLUS_GetVendorId(void);
void PPPOE_PLUS_SetVendorId(uint32_t vendorId);
/* A copy of the port list's head, taken under the store's lock: its count.
 * The ports themselves are walked with PppoePlusForEachPort. */
PppoePlusDllHead PPPOE_PLUS_GetGlobalPortList(void);
uint8_t PPPOE_PLUS_GetIgnoreReply(void);
uint32_t PPPOE_PLUS_SetIgnoreReply(uint8_t enable);

/* Control blocks are never freed, so a block found stays valid without the
 * lock; its single-byte settings and counters are atomics.
 * Find or create (creating takes the store's lock exclusively), and find:
 * the caller holds no lock of the store. */
uint32_t PPPOE_PLUS_GetPortCBByIndex(uint32_t ifIndex, PortCB **out);
PortCB *PPPOE_PLUS_FindPortCBByindex(uint32_t ifIndex);
uint32_t PPPOE_PLUS_SetPortTrust(uint32_t ifIndex, uint32_t enable);
uint32_t PPPOE_PLUS_SetPortPolicy(uint32_t ifIndex, uint8_t policy, uint8_t enable);
/* A block's format lists. The list that would hold key needs no lock; a
 * walk of it, a node found and its string need the store's lock held
 * (shared will do) for as long as they are used; inserting needs it held
 * exclusively. */
void PPPOE_PLUS_FindInfoFormatDLLOnInterfaceByVlan(PortCB *cb, const InfoFormatNode *key, PppoePlusDllHead **out);
InfoFormatNode *PPPOE_PLUS_FindInfoFormatOnInterface(PortCB *cb, const InfoFormatNode *key);
uint32_t PPPOE_PLUS_InsertInfoFormatNodeOnInterface(PortCB *cb, const InfoFormatNode *cfg);
/* Takes the store's lock exclusively: the caller holds none. */
uint32_t PPPOE_PLUS_SetPortFormat(const InfoFormatNode *cfg, uint32_t ifIndex, uint8_t enable);
/* Takes the store's lock shared for the walk: the caller holds none. */
void PPPOE_PLUS_GetAllMatchTrustPort(uint32_t *outIfIndexes, uint32_t maxCount, uint32_t *outCount, uint16_t vlan,
                                     uint32_t ingressIfIndex);

/* Format display: the current global formats and a worked example for a
 * sample subscriber on the first layer-2 port. They take the store's lock
 * shared where they read strings: the caller holds none. */
uint32_t PPPOE_PLUS_GetFormatInfo(char *buf, uint32_t size);
uint32_t PPPOE_PLUS_GetCidFormatExample(char *buf, uint32_t *outLen, uint32_t size);
uint32_t PPPOE_PLUS_GetRidFormatExample(char *buf, uint32_t *outLen, uint32_t size);
uint32_t PPPOE_PLUS_GetExampleFormatStr(uint32_t infoType, uint8_t *out, uint32_t *outLen);
uint32_t PPPOE_PLUS_UdfIsAllAssic(const char *fmt);

}  // extern "C"

/* A reader-writer lock for data read far more often than written: a reader
 * counts itself in one of a few counters of its own cache line (picked by
 * thread), so readers on different threads never touch the same line and
 * take no lock word; a writer announces itself, then waits until every
 * counter is zero, and readers that see it announced step back until it is
 * done. A thread may take the shared side again while it holds it. */
class PppoePlusCfgMutex {
public:
    void lock_shared();
    void unlock_shared();
    void lock();
    void unlock();

private:
    static constexpr unsigned kSlots = 16;
    struct alignas(64) Slot {
        std::atomic<uint32_t> readers{0};
    };
    Slot slots_[kSlots];
    alignas(64) std::atomic<bool> writer_{false};
    std::mutex writers_;
};

/* The lock around the port list, the format lists and the user-defined
 * strings. Writers (the configuration task, and the packet task when it
 * creates a control block) hold it exclusively; readers that walk a list or
 * read a format string (a node's or the global ones returned by the getters)
 * hold it shared for as long as they use what they read. Looking a control
 * block up by ifIndex needs no lock: blocks are never freed, and an index
 * beside the list (written under the lock) finds them. */
PppoePlusCfgMutex &PppoePlusCfgLock();
using PppoePlusCfgReadGuard = std::shared_lock<PppoePlusCfgMutex>;
using PppoePlusCfgWriteGuard = std::unique_lock<PppoePlusCfgMutex>;

/* The one walk of the port list: visits every port control block in list
 * order, holding the store's lock shared for the whole walk, until visit
 * returns true; that block, or null. The caller holds no lock of the
 * store; visit must not take it exclusively nor create a block (it may
 * read and change a block's settings and counters). */
PortCB *PppoePlusWalkPorts(bool (*visit)(PortCB *cb, void *ctx), void *ctx);

/* PppoePlusWalkPorts for a callable: visit(PortCB &) returns true to stop,
 * or nothing to see every block. */
template <typename Visit>
PortCB *PppoePlusForEachPort(Visit &&visit)
{
    return PppoePlusWalkPorts(
        [](PortCB *cb, void *ctx) {
            auto &fn = *static_cast<std::remove_reference_t<Visit> *>(ctx);
            if constexpr (std::is_void_v<decltype(fn(*cb))>) {
                fn(*cb);
                return false;
            } else {
                return static_cast<bool>(fn(*cb));
            }
        },
        &visit);
}
#endif

#endif
