// The datastore's socket protocol, shared by the server, its management
// sessions and the subscriber library. Every message is a 32-bit length
// followed by that many bytes: type, request id and a count of fields, then
// each field as a 32-bit length and its bytes (all little-endian, the only
// order the platform runs on). Numbers travel as decimal text fields.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform::ydbc::wire {

enum class Type : uint32_t {
    // Client to server; each gets one kReply with the same id.
    kHello = 1,      // name
    kSubscribe = 2,  // kind, path, priority, events, client's row index
    kActivate = 3,   // flag
    kEdit = 10,      // mode ("merge" or "replace"), xml
    kDelete = 11,    // path
    kGet = 12,       // path
    kExport = 13,    // none
    kRpc = 14,       // xml
    kLock = 15,      // none
    kUnlock = 16,    // none
    kEditConfig = 17,  // default operation, "test-only" or "set", xml
    kReply = 4,      // "ok" or "error", text, error tag, error path, lock holder
    // Server to subscriber; each but kRecoverEnd gets one kResult.
    kChange = 20,      // row index, op type, path, old xml, new xml, has old, has new
    kGetRequest = 21,  // row index, path
    kRpcRequest = 22,  // row index, input xml
    kRecoverEnd = 23,  // result
    kResult = 30,      // code, output text
};

struct Message {
    Type type = Type::kReply;
    uint32_t id = 0;
    std::vector<std::string> fields;

    // Field i, or an empty text when the message is shorter.
    const std::string &Field(size_t i) const;
    // Field i as an unsigned number; fallback when absent or not a number.
    uint32_t Number(size_t i, uint32_t fallback = 0) const;
};

// Largest message either side accepts; a longer length ends the connection.
constexpr uint32_t kMaxMessage = 64U << 20;

std::string Encode(const Message &message);
// Decodes one message body (without its length word). False when malformed.
bool Decode(std::string_view body, Message *message);

// Writes a whole message to a stream socket (no SIGPIPE). False on failure.
bool Send(int fd, const Message &message);
// Reads one whole message. False on end of stream, error or a bad message.
bool Receive(int fd, Message *message);

// Connects a stream socket to a unix path; -1 (errno set) on failure.
int ConnectUnix(const std::string &path);

}  // namespace platform::ydbc::wire
