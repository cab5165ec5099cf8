// Fixed-length message queues.
//
// The real platform's asynchronous queues carry messages of one length set
// at creation. Ours keeps a ring of depth slots of msgLen bytes per queue;
// writes never block (full is an error), reads never block and return the
// bytes delivered (0 when empty). Ids are never reused, so a stale id fails
// cleanly with RUK_ERR_NO_QUEUE. Failure injection applies to every call.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "core/internal.hpp"
#include "platform/fail_point.hpp"
#include "ruk.h"

namespace {

// Queues bigger than this are refused as out of memory.
constexpr size_t kMaxQueueBytes = size_t{256} << 20;

struct Queue {
    std::string name;
    uint32_t depth = 0;
    uint32_t msgLen = 0;
    std::mutex mu;
    std::vector<uint8_t> slots;  // depth * msgLen bytes
    uint32_t head = 0;           // oldest message
    uint32_t count = 0;
};

struct Queues {
    std::mutex mu;
    uint32_t nextId = 1;
    std::map<uint32_t, std::shared_ptr<Queue>> byId;
};

Queues &TheQueues()
{
    return platform::internal::Leaky<Queues>();
}

std::shared_ptr<Queue> Find(uint32_t id)
{
    Queues &queues = TheQueues();
    std::lock_guard lock(queues.mu);
    const auto it = queues.byId.find(id);
    return it == queues.byId.end() ? nullptr : it->second;
}

}  // namespace

extern "C" {

uint32_t RUK_QueueCreate(const char *name, uint32_t depth, uint32_t *queueId, uint32_t mode, uint32_t msgLen)
{
    (void)mode;
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (queueId == nullptr || depth == 0 || msgLen == 0) {
        return RUK_ERR_PARAM;
    }
    const size_t bytes = size_t{depth} * msgLen;
    if (bytes > kMaxQueueBytes) {
        return RUK_ERR_NO_MEMORY;
    }
    auto queue = std::make_shared<Queue>();
    queue->name = name == nullptr ? "" : name;
    queue->depth = depth;
    queue->msgLen = msgLen;
    try {
        queue->slots.resize(bytes);
    } catch (const std::bad_alloc &) {
        return RUK_ERR_NO_MEMORY;
    }
    Queues &queues = TheQueues();
    std::lock_guard lock(queues.mu);
    const uint32_t id = queues.nextId++;
    queues.byId.emplace(id, std::move(queue));
    *queueId = id;
    return RUK_OK;
}

uint32_t RUK_QueueAsyWrite(uint32_t queueId, const void *msg, uint32_t len)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (msg == nullptr) {
        return RUK_ERR_PARAM;
    }
    const std::shared_ptr<Queue> queue = Find(queueId);
    if (!queue) {
        return RUK_ERR_NO_QUEUE;
    }
    if (len != queue->msgLen) {
        return RUK_ERR_MSG_LEN;
    }
    std::lock_guard lock(queue->mu);
    if (queue->count == queue->depth) {
        return RUK_ERR_QUEUE_FULL;
    }
    const uint32_t slot = (queue->head + queue->count) % queue->depth;
    std::memcpy(queue->slots.data() + size_t{slot} * queue->msgLen, msg, len);
    queue->count++;
    return RUK_OK;
}

uint32_t RUK_QueueAsyRead(uint32_t queueId, void *buf, uint32_t len)
{
    if (platform::FailPoint(__func__)) {
        return 0;
    }
    if (buf == nullptr || len == 0) {
        return 0;
    }
    const std::shared_ptr<Queue> queue = Find(queueId);
    if (!queue) {
        return 0;
    }
    std::lock_guard lock(queue->mu);
    if (queue->count == 0) {
        return 0;
    }
    const uint32_t delivered = len < queue->msgLen ? len : queue->msgLen;
    std::memcpy(buf, queue->slots.data() + size_t{queue->head} * queue->msgLen, delivered);
    queue->head = (queue->head + 1) % queue->depth;
    queue->count--;
    return delivered;
}

uint32_t RUK_QueueDelete(uint32_t queueId)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    Queues &queues = TheQueues();
    std::lock_guard lock(queues.mu);
    return queues.byId.erase(queueId) == 0 ? RUK_ERR_NO_QUEUE : RUK_OK;
}

}  // extern "C"
