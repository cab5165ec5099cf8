// IDL messages and the PPPoE+ interface's asynchronous stubs. Messages are
// zeroed heap blocks remembered with their size and id, so a stub can
// refuse what RPC_IdlMsgCreate did not make and the outstanding ones can be
// counted. A stub copies the request it sends: the caller may destroy its
// message as soon as the stub returns.
#include <map>
#include <mutex>
#include <vector>

#include "core/internal.hpp"
#include "platform/fail_point.hpp"
#include "platform/tirn.hpp"
#include "rpc.h"
#include "tirn/tirn_internal.hpp"

namespace {

struct Message {
    uint32_t msgId = 0;
    std::vector<uint8_t> bytes;
};

struct Messages {
    std::mutex mu;
    std::map<const void *, Message> live;
};

Messages &Msgs()
{
    return platform::internal::Leaky<Messages>();
}

// The message's bytes when it was created here and holds at least need bytes.
bool Valid(const void *msg, uint32_t need)
{
    Messages &m = Msgs();
    std::lock_guard lock(m.mu);
    const auto it = m.live.find(msg);
    return it != m.live.end() && it->second.bytes.size() >= need;
}

uint32_t Send(const char *op, platform::tirn::Method method, const void *msg, uint32_t len,
              RPC_ASYNC_CALLBACK_FN callback, const RPC_INVOKE_ATTR_S *attr)
{
    if (const auto failed = platform::FailPoint(op)) {
        return *failed;
    }
    if (msg == nullptr || callback == nullptr || attr == nullptr || !Valid(msg, len)) {
        return RPC_ERR_PARAM;
    }
    return platform::tirn::Invoke(method, msg, len, callback);
}

}  // namespace

namespace platform::tirn {

uint32_t IdlMessagesOutstanding()
{
    Messages &m = Msgs();
    std::lock_guard lock(m.mu);
    return static_cast<uint32_t>(m.live.size());
}

}  // namespace platform::tirn

extern "C" {

void *RPC_IdlMsgCreate(uint32_t size, uint32_t msgId, const char *owner)
{
    if (platform::FailPoint(__func__) || size == 0 || owner == nullptr) {
        return nullptr;
    }
    Message made;
    made.msgId = msgId;
    made.bytes.assign(size, 0);
    Messages &m = Msgs();
    std::lock_guard lock(m.mu);
    void *data = made.bytes.data();
    m.live.emplace(data, std::move(made));  // the vector's buffer moves with it
    return data;
}

uint32_t RPC_IdlMsgDestroy(void *msg, uint32_t msgId, const char *owner)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (msg == nullptr || owner == nullptr) {
        return RPC_ERR_PARAM;
    }
    Messages &m = Msgs();
    std::lock_guard lock(m.mu);
    const auto it = m.live.find(msg);
    if (it == m.live.end() || it->second.msgId != msgId) {
        return RPC_ERR_PARAM;
    }
    m.live.erase(it);
    return RPC_OK;
}

uint32_t PPPOE_PLUS_GlobalCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *, const RPC_INVOKE_ATTR_S *attr)
{
    return Send("PPPOE_PLUS_GlobalCfg_async", platform::tirn::Method::GlobalCfg, msg,
                sizeof(PPPOE_PLUS_GLOBAL_CFG_REQ_S), callback, attr);
}

uint32_t PPPOE_PLUS_IgnoreReplyCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *,
                                         const RPC_INVOKE_ATTR_S *attr)
{
    return Send("PPPOE_PLUS_IgnoreReplyCfg_async", platform::tirn::Method::IgnoreReplyCfg, msg,
                sizeof(PPPOE_PLUS_IGNORE_REPLY_CFG_REQ_S), callback, attr);
}

uint32_t PPPOE_PLUS_TrustPortCfg_async(void *msg, RPC_ASYNC_CALLBACK_FN callback, void *,
                                       const RPC_INVOKE_ATTR_S *attr)
{
    return Send("PPPOE_PLUS_TrustPortCfg_async", platform::tirn::Method::TrustPortCfg, msg,
                sizeof(PPPOE_PLUS_TRUST_PORT_CFG_REQ_S), callback, attr);
}

}  // extern "C"
