// The configuration store. Device-wide settings live in one record; every
// interface with per-port settings, or that has received a discovery frame,
// owns a port control block with its trust, policy, counters and up to 32
// per-interface formats. The configuration task writes the store, the packet
// task reads it and creates blocks for new ports; the port and format lists
// and the user-defined strings are guarded by one reader-writer lock, whose
// readers (the packet task, many times a frame) share no cache line. Blocks
// are never freed, so a lock-free index beside the list finds a block by
// ifIndex, and the trusted-port match walks only the ports it last saw
// trusted, looking at the whole list again when a trust byte changed.
#include "pppoe_plus_cfg.h"

#include <cstdarg>
#include <cstring>
#include <thread>

#include "plat_safe.h"
#include "pppoe_plus_acl.h"
#include "pppoe_plus_intf.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_types.h"
#include "zavk.h"

namespace {

constexpr const char *kCfgFile = "app/src/common/src/pppoe_plus_cfg";

void DllInit(PppoePlusDllHead *head)
{
    head->first = reinterpret_cast<PppoePlusDllNode *>(head);
    head->last = reinterpret_cast<PppoePlusDllNode *>(head);
    head->count = 0;
}

bool DllEmpty(const PppoePlusDllHead *head)
{
    return head->count == 0 || head->first == nullptr;
}

void DllAppend(PppoePlusDllHead *head, PppoePlusDllNode *node)
{
    if (head->first == nullptr) {
        DllInit(head);
    }
    auto *headNode = reinterpret_cast<PppoePlusDllNode *>(head);
    node->next = headNode;
    node->prev = head->last;
    head->last->next = node;
    head->last = node;
    head->count++;
}

void DllRemove(PppoePlusDllHead *head, PppoePlusDllNode *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = nullptr;
    node->prev = nullptr;
    head->count--;
}

// Visits the members of a list in order until visit returns true; returns
// that member or null. The caller holds the lock, either way.
template <typename T, typename Visit>
T *DllFind(const PppoePlusDllHead *head, Visit visit)
{
    if (DllEmpty(head)) {
        return nullptr;
    }
    const PppoePlusDllNode *node = head->first;
    for (uint32_t i = 0; i < head->count && node != nullptr; i++, node = node->next) {
        T *member = reinterpret_cast<T *>(const_cast<PppoePlusDllNode *>(node));
        if (visit(member)) {
            return member;
        }
    }
    return nullptr;
}

// ---- Finding a control block by ifIndex ----
//
// An open-addressing table of the blocks, written under the lock and read
// without it: blocks are never freed and never leave the table (until the
// list itself is reset at start-up). Beyond kPortIndexMax blocks the table
// stops taking more and look-ups that miss walk the list.
constexpr uint32_t kPortIndexBits = 14;
constexpr uint32_t kPortIndexSlots = 1U << kPortIndexBits;
constexpr uint32_t kPortIndexMax = kPortIndexSlots / 4U * 3U;

std::atomic<PortCB *> g_portIndex[kPortIndexSlots];
uint32_t g_portIndexed = 0;                   // under the lock
std::atomic<bool> g_portIndexFull{false};
// Bumped when the port list is reset, so views of it are taken afresh.
std::atomic<uint32_t> g_portListEpoch{0};

uint32_t PortIndexHome(uint32_t ifIndex)
{
    return (ifIndex * 0x9E3779B1U) >> (32U - kPortIndexBits);
}

PortCB *PortIndexFind(uint32_t ifIndex)
{
    uint32_t i = PortIndexHome(ifIndex);
    for (uint32_t probes = 0; probes < kPortIndexSlots; probes++, i = (i + 1U) & (kPortIndexSlots - 1U)) {
        PortCB *cb = g_portIndex[i].load(std::memory_order_acquire);
        if (cb == nullptr || cb->ifIndex == ifIndex) {
            return cb;
        }
    }
    return nullptr;
}

// Caller holds the lock exclusively.
void PortIndexAdd(PortCB *cb)
{
    if (g_portIndexed >= kPortIndexMax) {
        g_portIndexFull.store(true, std::memory_order_release);
        return;
    }
    uint32_t i = PortIndexHome(cb->ifIndex);
    while (g_portIndex[i].load(std::memory_order_relaxed) != nullptr) {
        i = (i + 1U) & (kPortIndexSlots - 1U);
    }
    g_portIndex[i].store(cb, std::memory_order_release);
    g_portIndexed++;
}

// Caller holds the lock exclusively.
void PortIndexClear()
{
    for (auto &slot : g_portIndex) {
        slot.store(nullptr, std::memory_order_relaxed);
    }
    g_portIndexed = 0;
    g_portIndexFull.store(false, std::memory_order_release);
}

// Caller holds the lock, either way.
PortCB *FindPortLocked(uint32_t ifIndex)
{
    PortCB *cb = PortIndexFind(ifIndex);
    if (cb != nullptr || !g_portIndexFull.load(std::memory_order_acquire)) {
        return cb;
    }
    return DllFind<PortCB>(&g_pppoePlusGlobalInfo.portList,
                           [ifIndex](const PortCB *found) { return found->ifIndex == ifIndex; });
}

// Without the lock: it is taken only when the index is full and missed.
PortCB *FindPort(uint32_t ifIndex)
{
    PortCB *cb = PortIndexFind(ifIndex);
    if (cb != nullptr || !g_portIndexFull.load(std::memory_order_acquire)) {
        return cb;
    }
    PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
    return FindPortLocked(ifIndex);
}

// ---- The trusted ports in list order, for the trusted-port match ----
//
// Rebuilt under the lock exclusively when a trust byte changed or the list
// was reset since the last build, and read under it shared. More trusted
// ports than it holds: the match walks the whole list.
constexpr uint32_t kTrustViewMax = 64;

struct TrustView {
    bool built = false;
    uint32_t trustChanges = 0;
    uint32_t listEpoch = 0;
    bool overflow = false;
    uint32_t count = 0;
    PortCB *ports[kTrustViewMax] = {};
};

TrustView g_trustView;

// Caller holds the lock, either way.
bool TrustViewCurrent()
{
    return g_trustView.built &&
           g_trustView.trustChanges == g_pppoePlusTrustChanges.load(std::memory_order_acquire) &&
           g_trustView.listEpoch == g_portListEpoch.load(std::memory_order_acquire);
}

// Caller holds the lock exclusively.
void TrustViewBuild()
{
    TrustView &view = g_trustView;
    // Read first: a change made while the list is walked builds again.
    view.trustChanges = g_pppoePlusTrustChanges.load(std::memory_order_acquire);
    view.listEpoch = g_portListEpoch.load(std::memory_order_acquire);
    view.count = 0;
    view.overflow = false;
    (void)DllFind<PortCB>(&g_pppoePlusGlobalInfo.portList, [](PortCB *cb) {
        if (cb->trust.load(std::memory_order_relaxed) != 1) {
            return false;
        }
        if (g_trustView.count == kTrustViewMax) {
            g_trustView.overflow = true;
            return true;
        }
        g_trustView.ports[g_trustView.count++] = cb;
        return false;
    });
    view.built = true;
}

// ---- Compiled user-defined formats ----
//
// The store keeps its user-defined formats compiled, for each combination
// of the VLANs being 0 (the variants), written with the strings under the
// store's lock and read under it: the global ones per info type, and the
// port ones in slots shared by every node of the same text. A node keeps its
// slot in its reserved word; a slot is used only while it holds the node's
// text (a slot taken over by another text, or a node changed in place, is
// walked as before).
constexpr uint32_t kUdfVariants = 4U;
constexpr uint32_t kUdfTextMax = PPPOE_PLUS_UDF_STR_LEN - 1U;   // what a build reads of a string
constexpr uint32_t kPortUdfSlots = 32U;

struct PortUdfSlot {
    char text[PPPOE_PLUS_UDF_STR_LEN];
    PppoePlusUdfProg progs[kUdfVariants];
};

PppoePlusUdfProg g_globalUdfProg[2][kUdfVariants];
// The format nodes of all ports, kept by the writers beside the lists.
std::atomic<uint32_t> g_portFormatNodes{0};
PortUdfSlot g_portUdf[kPortUdfSlots];

void CompileVariants(const char *fmt, PppoePlusUdfProg *progs)
{
    UserInfo probe = {};
    for (uint32_t v = 0; v < kUdfVariants; ++v) {
        if (v != 0U && progs[0].anyVariant == 1U) {
            progs[v].dictGen = 0U;   // the first serves every variant
            continue;
        }
        probe.ulXpi = (v & 1U) != 0U ? 0U : 1U;
        probe.ulXci = (v & 2U) != 0U ? 0U : 1U;
        (void)PPPOE_PLUS_UdfCompile(fmt, &probe, &progs[v]);
    }
}

const PppoePlusUdfProg *FittingVariant(const PppoePlusUdfProg *progs, const UserInfo *info)
{
    for (uint32_t v = 0; v < kUdfVariants; ++v) {
        if (PPPOE_PLUS_UdfProgFits(&progs[v], info) == 1U) {
            return &progs[v];
        }
    }
    return nullptr;
}

void CompileGlobalUdfLocked(uint32_t which)
{
    CompileVariants(which == 0U ? g_pppoePlusGlobalInfo.cidUserDefineStr : g_pppoePlusGlobalInfo.ridUserDefineStr,
                    g_globalUdfProg[which]);
}

// Compiles a port node's text into its slot, unless the slot has it.
void CompilePortUdfLocked(InfoFormatNode *node)
{
    node->reserved = 0U;
    if (node->infoFormatType != PPPOE_PLUS_FORMAT_USER_DEFINE) {
        return;
    }
    const size_t len = strnlen(node->userDefineStr, kUdfTextMax);
    uint32_t hash = 2166136261U;   // FNV-1a
    for (size_t i = 0; i < len; ++i) {
        hash = (hash ^ static_cast<unsigned char>(node->userDefineStr[i])) * 16777619U;
    }
    const uint32_t slot = hash % kPortUdfSlots;
    PortUdfSlot &entry = g_portUdf[slot];
    if (entry.progs[0].dictGen == 0U || std::strncmp(entry.text, node->userDefineStr, kUdfTextMax) != 0) {
        std::memcpy(entry.text, node->userDefineStr, len);
        entry.text[len] = '\0';
        CompileVariants(entry.text, entry.progs);
    }
    node->reserved = slot + 1U;
}

PppoePlusDllHead *ListFor(PortCB *cb, const InfoFormatNode *key)
{
    if (key->vlanId != 0) {
        return key->ceVlanId != 0 ? &cb->qinqFormatList : &cb->vlanFormatList;
    }
    return key->ceVlanId != 0 ? &cb->ceVlanFormatList : &cb->noVlanFormatList;
}

// Caller holds the lock, either way.
InfoFormatNode *FindFormatLocked(PortCB *cb, const InfoFormatNode *key)
{
    InfoFormatNode *node = DllFind<InfoFormatNode>(ListFor(cb, key), [key](const InfoFormatNode *n) {
        return n->vlanId == key->vlanId && n->ceVlanId == key->ceVlanId && n->infoType == key->infoType;
    });
    if (node != nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Find Info Format On Interface:ifIndex=%u,vlanId=%u,ceVlanId=%u,infoType=%u,"
                             "infoFormatType=%u, userDefineStr=%s.",
                             cb->ifIndex, node->vlanId, node->ceVlanId, node->infoType, node->infoFormatType,
                             node->userDefineStr);
    }
    return node;
}

// Caller holds the lock exclusively.
uint32_t InsertFormatLocked(PortCB *cb, const InfoFormatNode *cfg)
{
    auto *node = static_cast<InfoFormatNode *>(PPPOE_PLUS_MemAlloc(sizeof(InfoFormatNode)));
    if (node == nullptr) {
        return 1;
    }
    std::memset(node, 0, sizeof(*node));
    node->vlanId = cfg->vlanId;
    node->ceVlanId = cfg->ceVlanId;
    node->infoType = cfg->infoType;
    node->infoFormatType = cfg->infoFormatType;
    (void)memcpy_s(node->userDefineStr, sizeof(node->userDefineStr), cfg->userDefineStr, sizeof(cfg->userDefineStr));
    CompilePortUdfLocked(node);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPLUS-CFG] Insert Info Format Node On Interface:vlanId=%u,ceVlanId=%u,infoType=%u,"
                         "infoFormatType=%u,userDefineStr=%s.",
                         node->vlanId, node->ceVlanId, node->infoType, node->infoFormatType, node->userDefineStr);
    DllAppend(ListFor(cb, cfg), &node->link);
    g_portFormatNodes.fetch_add(1U, std::memory_order_release);
    return 0;
}

// Finds or creates the block of ifIndex; the caller holds the lock exclusively.
uint32_t GetPortLocked(uint32_t ifIndex, PortCB **out)
{
    *out = FindPortLocked(ifIndex);
    if (*out != nullptr) {
        return 0;
    }
    auto *cb = static_cast<PortCB *>(PPPOE_PLUS_MemAlloc(sizeof(PortCB)));
    if (cb == nullptr) {
        ZAVK_Assert(kCfgFile, __LINE__);
        return 1;
    }
    std::memset(static_cast<void *>(cb), 0, sizeof(*cb));
    DllInit(&cb->qinqFormatList);
    DllInit(&cb->vlanFormatList);
    DllInit(&cb->ceVlanFormatList);
    DllInit(&cb->noVlanFormatList);
    cb->ifIndex = ifIndex;
    DllAppend(&g_pppoePlusGlobalInfo.portList, &cb->link);
    PortIndexAdd(cb);
    *out = cb;
    return 0;
}

uint32_t SaveUdf(char *field, const char *udfStr, const char *failText)
{
    PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
    const errno_t ret = strcpy_s(field, PPPOE_PLUS_UDF_STR_LEN, udfStr);
    CompileGlobalUdfLocked(field == g_pppoePlusGlobalInfo.cidUserDefineStr ? 0U : 1U);
    if (ret != 0) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, failText, static_cast<int>(ret));
        return 1;
    }
    return 0;
}

uint32_t FormatCount(const PortCB *cb)
{
    return cb->qinqFormatList.count + cb->vlanFormatList.count + cb->ceVlanFormatList.count +
           cb->noVlanFormatList.count;
}

// ---- Format display ----

constexpr uint32_t kSampleOuterVlan = 200U;
constexpr uint32_t kSampleInnerVlan = 100U;
constexpr uint32_t kDumpBytesPerLine = 16U;
constexpr uint32_t kIfNameReadLen = 256U;

// Appends formatted text at *used, cutting it to the room left; the text
// stays terminated.
__attribute__((format(printf, 4, 5))) void ShowAppend(char *buf, uint32_t size, uint32_t *used, const char *fmt, ...)
{
    if (*used + 1U >= size) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf_truncated_s(buf + *used, size - *used, fmt, ap);
    va_end(ap);
    if (n > 0) {
        *used += static_cast<uint32_t>(n);
    }
}

// The sample subscriber of the worked example: the first layer-2 port, with
// fixed VLANs and a fixed description.
uint32_t SampleUserInfo(UserInfo *info)
{
    (void)memset_s(info, sizeof(*info), 0, sizeof(*info));
    uint32_t ifIndex = PPPOE_PLUS_INVALID_IFINDEX;
    if (PPPOE_PLUS_GetFirstSwitchPort(&ifIndex) != 0U || ifIndex == PPPOE_PLUS_INVALID_IFINDEX) {
        return 1;
    }
    char name[kIfNameReadLen] = {};
    if (PPPOE_PLUS_GetIfNameRaw(ifIndex, name, sizeof(name)) != 0U) {
        return 1;
    }
    (void)strncpy_s(info->portName, sizeof(info->portName), name, strnlen(name, sizeof(info->portName) - 1U));
    (void)strcpy_s(info->ifType, sizeof(info->ifType), PPPOE_PLUS_IsTrunkIf(ifIndex) == 1U ? "trunk" : "eth");
    if (PPPOE_PLUS_GetIfSlotCardPort(ifIndex, &info->ulNas_Slot, &info->ulNas_SubSlot, &info->ulNas_Port) != 0U) {
        return 1;
    }
    info->IfIndex = ifIndex;
    info->ulXpi = kSampleOuterVlan;
    info->ulXci = kSampleInnerVlan;
    (void)strcpy_s(info->portDescr, sizeof(info->portDescr), "portdescription");
    info->portDescrValid = 1;
    return 0;
}

// Whether a built value reads as text: a common format, or a user-defined
// one that starts with a quoted stretch.
bool ExampleIsText(uint8_t formatType, const char *udfStr)
{
    if (formatType == PPPOE_PLUS_FORMAT_COMMON) {
        return true;
    }
    PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
    return formatType == PPPOE_PLUS_FORMAT_USER_DEFINE && PPPOE_PLUS_UdfIsAllAssic(udfStr) == 1U;
}

// Builds the sample sub-option of one info type and writes its value behind
// label, as text or as a hex dump whose continuation lines start with
// indent blanks.
uint32_t ShowExampleValue(uint32_t infoType, bool asText, const char *label, uint32_t indent, char *buf,
                          uint32_t size, uint32_t *used)
{
    uint8_t subOpt[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
    uint32_t subOptLen = 0;
    if (PPPOE_PLUS_GetExampleFormatStr(infoType, subOpt, &subOptLen) != 0U) {
        return 1;
    }
    const uint32_t valueLen = subOptLen > 2U ? subOptLen - 2U : 0U;
    if (asText) {
        char text[PPPOE_PLUS_SUBOPT_BUF_LEN] = {};
        if (valueLen != 0U) {
            (void)memcpy_s(text, sizeof(text) - 1U, subOpt + 2, valueLen);
        }
        ShowAppend(buf, size, used, "%s%s", label, text);
        return 0;
    }
    ShowAppend(buf, size, used, "%s", label);
    for (uint32_t i = 0; i < valueLen; ++i) {
        if (i != 0U && i % kDumpBytesPerLine == 0U) {
            ShowAppend(buf, size, used, "\r\n%*s", static_cast<int>(indent), "");
        }
        ShowAppend(buf, size, used, "%02x ", subOpt[2U + i]);
    }
    return 0;
}

}  // namespace

namespace {

// A number per thread, which picks its reader counter. Two words in the
// initial thread-local block (room glibc keeps for loaded modules), so the
// packet path reaches them without a call.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_cfgThread = UINT32_MAX;
std::atomic<uint32_t> g_cfgThreads{0};
// How deep this thread holds the shared side: a nested reader goes ahead
// even while a writer waits for the outer one.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_cfgReadDepth = 0;

uint32_t CfgThread()
{
    if (t_cfgThread == UINT32_MAX) {
        t_cfgThread = g_cfgThreads.fetch_add(1, std::memory_order_relaxed);
    }
    return t_cfgThread;
}

}  // namespace

void PppoePlusCfgMutex::lock_shared()
{
    Slot &slot = slots_[CfgThread() % kSlots];
    if (t_cfgReadDepth++ != 0) {
        slot.readers.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    for (;;) {
        // Counted before the writer is looked at, and the writer announces
        // itself before it looks at the counters: one of them sees the other.
        slot.readers.fetch_add(1, std::memory_order_seq_cst);
        if (!writer_.load(std::memory_order_seq_cst)) {
            return;
        }
        slot.readers.fetch_sub(1, std::memory_order_release);
        while (writer_.load(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
}

void PppoePlusCfgMutex::unlock_shared()
{
    slots_[CfgThread() % kSlots].readers.fetch_sub(1, std::memory_order_release);
    t_cfgReadDepth--;
}

void PppoePlusCfgMutex::lock()
{
    writers_.lock();
    writer_.store(true, std::memory_order_seq_cst);
    for (Slot &slot : slots_) {
        while (slot.readers.load(std::memory_order_seq_cst) != 0) {
            std::this_thread::yield();
        }
    }
}

void PppoePlusCfgMutex::unlock()
{
    writer_.store(false, std::memory_order_release);
    writers_.unlock();
}

PppoePlusCfgMutex &PppoePlusCfgLock()
{
    static PppoePlusCfgMutex lock;
    return lock;
}

std::atomic<uint32_t> g_pppoePlusTrustChanges{0};

PortCB *PppoePlusWalkPorts(bool (*visit)(PortCB *cb, void *ctx), void *ctx)
{
    PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
    return DllFind<PortCB>(&g_pppoePlusGlobalInfo.portList, [visit, ctx](PortCB *cb) { return visit(cb, ctx); });
}

extern "C" {

PppoePlusGlobalInfo g_pppoePlusGlobalInfo = {};

void PPPOE_PLUS_InitGlobalCfgData(void)
{
    PppoePlusGlobalInfo &g = g_pppoePlusGlobalInfo;
    g.enable = 0;
    g.infoPolicy = PPPOE_PLUS_POLICY_REPLACE;
    g.ignoreReply = 1;
    g.infoEncap = PPPOE_PLUS_ENCAP_BOTH;
    g.vendorId = PPPOE_PLUS_DEFAULT_VENDOR_ID;
    g.cidFormatType = PPPOE_PLUS_FORMAT_COMMON;
    g.ridFormatType = PPPOE_PLUS_FORMAT_COMMON;
    PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
    DllInit(&g.portList);
    PortIndexClear();
    g_portFormatNodes.store(0U, std::memory_order_release);
    g_portListEpoch.fetch_add(1, std::memory_order_release);
}

uint8_t PPPOE_PLUS_IsEnable(void)
{
    return g_pppoePlusGlobalInfo.enable;
}

uint32_t PPPOE_PLUS_SetEnable(uint8_t enable)
{
    if (g_pppoePlusGlobalInfo.enable == enable) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set same enable value.(enable: %u)", enable);
        return 0;
    }
    g_pppoePlusGlobalInfo.enable = enable;
    return PPPOE_PLUS_GlobalAclProc(enable == 1 ? 1U : 0U);
}

uint8_t PPPOE_PLUS_GetGlobalInfoPolicy(void)
{
    return g_pppoePlusGlobalInfo.infoPolicy;
}

void PPPOE_PLUS_SetGlobalInfoPolicy(uint8_t policy)
{
    g_pppoePlusGlobalInfo.infoPolicy = policy;
}

uint32_t PPPOE_PLUS_IsEncapOnlyCid(void)
{
    return g_pppoePlusGlobalInfo.infoEncap == PPPOE_PLUS_ENCAP_CID ? 1U : 0U;
}

uint32_t PPPOE_PLUS_IsEncapOnlyRid(void)
{
    return g_pppoePlusGlobalInfo.infoEncap == PPPOE_PLUS_ENCAP_RID ? 1U : 0U;
}

uint8_t PPPOE_PLUS_GetInfoEncap(void)
{
    return g_pppoePlusGlobalInfo.infoEncap;
}

void PPPOE_PLUS_SetInfoEncap(uint8_t valid, uint8_t encapType)
{
    g_pppoePlusGlobalInfo.infoEncap = valid != 0 ? encapType : static_cast<uint8_t>(PPPOE_PLUS_ENCAP_BOTH);
}

uint8_t PPPOE_PLUS_GetGlobalCidFormat(void)
{
    return g_pppoePlusGlobalInfo.cidFormatType;
}

char *PPPOE_PLUS_GetGlobalCidUdfFormat(void)
{
    return g_pppoePlusGlobalInfo.cidUserDefineStr;
}

uint32_t PPPOE_PLUS_SetGlobalCidFormat(uint8_t formatType, const char *udfStr)
{
    g_pppoePlusGlobalInfo.cidFormatType = formatType;
    if (udfStr == nullptr) {
        return 0;  // the previous string stays for a later switch back
    }
    return SaveUdf(g_pppoePlusGlobalInfo.cidUserDefineStr, udfStr, "[PPLUS-CFG] Save cid Udf format failed, ret = %d.");
}

uint8_t PPPOE_PLUS_GetGlobalRidFormat(void)
{
    return g_pppoePlusGlobalInfo.ridFormatType;
}

char *PPPOE_PLUS_GetGlobalRidUdfFormat(void)
{
    return g_pppoePlusGlobalInfo.ridUserDefineStr;
}

uint32_t PPPOE_PLUS_SetGlobalRidFormat(uint8_t formatType, const char *udfStr)
{
    g_pppoePlusGlobalInfo.ridFormatType = formatType;
    if (udfStr == nullptr) {
        return 0;
    }
    return SaveUdf(g_pppoePlusGlobalInfo.ridUserDefineStr, udfStr, "[PPLUS-CFG] Save rid Udf format failed, ret = %d.");
}

const PppoePlusUdfProg *PPPOE_PLUS_GetGlobalUdfProg(uint8_t infoType, const UserInfo *info)
{
    return FittingVariant(g_globalUdfProg[infoType == PPPOE_PLUS_INFO_CID ? 0U : 1U], info);
}

const PppoePlusUdfProg *PPPOE_PLUS_GetPortUdfProg(const InfoFormatNode *node, const UserInfo *info)
{
    if (node == nullptr || node->reserved == 0U || node->reserved > kPortUdfSlots) {
        return nullptr;
    }
    const PortUdfSlot &entry = g_portUdf[node->reserved - 1U];
    if (std::strncmp(entry.text, node->userDefineStr, kUdfTextMax) != 0) {
        return nullptr;
    }
    return FittingVariant(entry.progs, info);
}

uint32_t PPPOE_PLUS_PortFormatCount(void)
{
    return g_portFormatNodes.load(std::memory_order_acquire);
}

void PPPOE_PLUS_CompileGlobalUdf(void)
{
    PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
    CompileGlobalUdfLocked(0U);
    CompileGlobalUdfLocked(1U);
    for (PortUdfSlot &entry : g_portUdf) {
        if (entry.progs[0].dictGen != 0U) {
            CompileVariants(entry.text, entry.progs);
        }
    }
}

uint32_t PPPOE_PLUS_GetVendorId(void)
{
    return g_pppoePlusGlobalInfo.vendorId;
}

void PPPOE_PLUS_SetVendorId(uint32_t vendorId)
{
    g_pppoePlusGlobalInfo.vendorId = vendorId;
}

PppoePlusDllHead PPPOE_PLUS_GetGlobalPortList(void)
{
    PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
    return g_pppoePlusGlobalInfo.portList;
}

uint8_t PPPOE_PLUS_GetIgnoreReply(void)
{
    return g_pppoePlusGlobalInfo.ignoreReply;
}

uint32_t PPPOE_PLUS_SetIgnoreReply(uint8_t enable)
{
    if (g_pppoePlusGlobalInfo.ignoreReply == enable) {
        return 0;
    }
    g_pppoePlusGlobalInfo.ignoreReply = enable;
    return PPPOE_PLUS_IgnoreReplyAclProc(enable != 0 ? 1U : 0U);
}

uint32_t PPPOE_PLUS_GetPortCBByIndex(uint32_t ifIndex, PortCB **out)
{
    if (out == nullptr) {
        return 1;
    }
    *out = FindPort(ifIndex);
    if (*out != nullptr) {
        return 0;
    }
    PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
    return GetPortLocked(ifIndex, out);
}

PortCB *PPPOE_PLUS_FindPortCBByindex(uint32_t ifIndex)
{
    return FindPort(ifIndex);
}

uint32_t PPPOE_PLUS_SetPortTrust(uint32_t ifIndex, uint32_t enable)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPLUS-CFG] Set trust port start. (enable: %u, ifIndex: %u, ignoreReply: %u)", enable,
                         ifIndex, PPPOE_PLUS_GetIgnoreReply());
    PortCB *cb = nullptr;
    if (PPPOE_PLUS_GetPortCBByIndex(ifIndex, &cb) != 0) {
        return 1;
    }
    if (cb->trust != enable) {
        cb->trust = static_cast<uint8_t>(enable);
        return PPPOE_PLUS_TrustPortAclProc(enable, ifIndex);
    }
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Set same value. (enable: %u)", enable);
    return 0;
}

uint32_t PPPOE_PLUS_SetPortPolicy(uint32_t ifIndex, uint8_t policy, uint8_t enable)
{
    PortCB *cb = nullptr;
    if (PPPOE_PLUS_GetPortCBByIndex(ifIndex, &cb) != 0) {
        ZAVK_Assert(kCfgFile, __LINE__);
        return 1;
    }
    cb->infoPolicy = enable != 0 ? policy : static_cast<uint8_t>(PPPOE_PLUS_POLICY_UNSET);
    return 0;
}

void PPPOE_PLUS_FindInfoFormatDLLOnInterfaceByVlan(PortCB *cb, const InfoFormatNode *key, PppoePlusDllHead **out)
{
    *out = ListFor(cb, key);
}

InfoFormatNode *PPPOE_PLUS_FindInfoFormatOnInterface(PortCB *cb, const InfoFormatNode *key)
{
    return FindFormatLocked(cb, key);
}

uint32_t PPPOE_PLUS_InsertInfoFormatNodeOnInterface(PortCB *cb, const InfoFormatNode *cfg)
{
    return InsertFormatLocked(cb, cfg);
}

uint32_t PPPOE_PLUS_SetPortFormat(const InfoFormatNode *cfg, uint32_t ifIndex, uint8_t enable)
{
    PppoePlusCfgWriteGuard guard(PppoePlusCfgLock());
    PortCB *cb = nullptr;
    if (GetPortLocked(ifIndex, &cb) != 0) {
        ZAVK_Assert(kCfgFile, __LINE__);
        return 1;
    }
    InfoFormatNode *node = FindFormatLocked(cb, cfg);
    if (enable != 0) {
        if (node == nullptr) {
            return FormatCount(cb) < PPPOE_PLUS_MAX_PORT_FORMATS ? InsertFormatLocked(cb, cfg)
                                                                 : PPPOE_PLUS_FORMAT_TABLE_FULL;
        }
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Update format config on Interface: ifIndex=%u.",
                             ifIndex);
        node->vlanId = cfg->vlanId;
        node->ceVlanId = cfg->ceVlanId;
        node->infoType = cfg->infoType;
        node->infoFormatType = cfg->infoFormatType;
        (void)memcpy_s(node->userDefineStr, sizeof(node->userDefineStr), cfg->userDefineStr,
                       sizeof(cfg->userDefineStr));
        CompilePortUdfLocked(node);
        return 0;
    }
    if (node != nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                             "[PPLUS-CFG] Delete format config on Interface: ifIndex=%u,vlanId=%u,ceVlanId=%u,"
                             "infoFormatType=%u",
                             ifIndex, cfg->vlanId, cfg->ceVlanId, cfg->infoFormatType);
        DllRemove(ListFor(cb, cfg), &node->link);
        g_portFormatNodes.fetch_sub(1U, std::memory_order_release);
        PPPOE_PLUS_MemFree(node);
    }
    return 0;
}

void PPPOE_PLUS_GetAllMatchTrustPort(uint32_t *outIfIndexes, uint32_t maxCount, uint32_t *outCount, uint16_t vlan,
                                     uint32_t ingressIfIndex)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Find trusted port, input param igrIfIndex %u, VLAN %u.",
                         ingressIfIndex, vlan);
    uint32_t found = 0;
    // Visits the ports in list order; true stops the walk.
    auto visit = [&](const PortCB *cb) {
        if (cb->trust.load(std::memory_order_relaxed) != 1) {
            return false;
        }
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Trusted port %u.", cb->ifIndex);
        if (cb->ifIndex == ingressIfIndex) {
            return false;
        }
        if (PPPOE_PLUS_IsPortInVlan(cb->ifIndex, vlan) == 0) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Trusted port %u is not join vlan %u.",
                                 cb->ifIndex, vlan);
            return false;
        }
        if (found >= maxCount) {
            return true;  // the first maxCount matching ports win
        }
        outIfIndexes[found++] = cb->ifIndex;
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Find matched ifIndex %u", cb->ifIndex);
        return false;
    };
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        if (!TrustViewCurrent()) {
            guard.unlock();
            {
                PppoePlusCfgWriteGuard rebuild(PppoePlusCfgLock());
                if (!TrustViewCurrent()) {
                    TrustViewBuild();
                }
            }
            guard.lock();
        }
        // The view is only as new as its last build, as a walk of the list
        // is only as new as the moment it passes a port: a trust byte read
        // here decides, as it did there.
        if (g_trustView.overflow) {
            (void)DllFind<PortCB>(&g_pppoePlusGlobalInfo.portList, visit);
        } else {
            for (uint32_t i = 0; i < g_trustView.count && !visit(g_trustView.ports[i]); i++) {
            }
        }
    }
    *outCount = found;
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPLUS-CFG] Find matched trusted port cnt %u.", found);
}

uint32_t PPPOE_PLUS_GetExampleFormatStr(uint32_t infoType, uint8_t *out, uint32_t *outLen)
{
    if (out == nullptr || outLen == nullptr) {
        return 1;
    }
    UserInfo sample;
    if (SampleUserInfo(&sample) != 0U) {
        return 1;
    }
    // The packet path's own builders: a format configured on the sample
    // port for its VLANs shows in the example as it would on the wire.
    return infoType == PPPOE_PLUS_INFO_CID ? PPPOE_PLUS_EncodeCid(&sample, out, outLen)
                                           : PPPOE_PLUS_EncodeRid(&sample, out, outLen);
}

uint32_t PPPOE_PLUS_GetCidFormatExample(char *buf, uint32_t *outLen, uint32_t size)
{
    if (buf == nullptr || outLen == nullptr) {
        return 1;
    }
    *outLen = 0;
    UserInfo sample;
    if (SampleUserInfo(&sample) != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS_SHOW] Failed to get a layer 2 port");
        return 1;
    }
    ShowAppend(buf, size, outLen,
               "\r\n For example: \r\n  interface %s SVLAN:%d CVLAN:%d\r\n  The PPPOE Intermediate Agent "
               "information is as follows:",
               sample.portName, static_cast<int>(sample.ulXpi), static_cast<int>(sample.ulXci));
    const bool asText = ExampleIsText(g_pppoePlusGlobalInfo.cidFormatType, g_pppoePlusGlobalInfo.cidUserDefineStr);
    if (ShowExampleValue(PPPOE_PLUS_INFO_CID, asText, "\r\n  Circuit ID:", 12U, buf, size, outLen) != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS_SHOW] Failed to get circuit id data");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_GetRidFormatExample(char *buf, uint32_t *outLen, uint32_t size)
{
    if (buf == nullptr || outLen == nullptr) {
        return 1;
    }
    *outLen = 0;
    const bool asText = ExampleIsText(g_pppoePlusGlobalInfo.ridFormatType, g_pppoePlusGlobalInfo.ridUserDefineStr);
    if (ShowExampleValue(PPPOE_PLUS_INFO_RID, asText, "\r\n  Remote  ID:", 13U, buf, size, outLen) != 0U) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPLUS_SHOW] Failed to get remote id data");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_GetFormatInfo(char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0U) {
        return 1;
    }
    (void)memset_s(buf, size, 0, size);
    uint32_t used = 0;
    ShowAppend(buf, size, &used, " The current information format :");
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        const PppoePlusGlobalInfo &g = g_pppoePlusGlobalInfo;
        auto showFormat = [&](const char *label, uint32_t type, const char *udf) {
            switch (type) {
                case PPPOE_PLUS_FORMAT_COMMON:
                    ShowAppend(buf, size, &used, "\r\n   %s : COMMON", label);
                    break;
                case PPPOE_PLUS_FORMAT_EXTEND:
                    ShowAppend(buf, size, &used, "\r\n   %s : EXTEND", label);
                    break;
                default:
                    ShowAppend(buf, size, &used, "\r\n   %s : USER DEFINE.  %s", label, udf);
                    break;
            }
        };
        showFormat("Circuit ID", g.cidFormatType.load(), g.cidUserDefineStr);
        showFormat("Remote  ID", g.ridFormatType.load(), g.ridUserDefineStr);
    }
    uint32_t written = 0;
    if (PPPOE_PLUS_GetCidFormatExample(buf + used, &written, size - used) != 0U) {
        return 1;
    }
    used += written;
    written = 0;
    if (PPPOE_PLUS_GetRidFormatExample(buf + used, &written, size - used) != 0U) {
        return 1;
    }
    return 0;
}

}  // extern "C"
