// One connection of the datastore, seen from the server: a thread that
// reads and writes the socket without ever blocking on the peer.
//
// Output is queued and written as the peer takes it. The peer's requests
// are held and handed to the server one at a time: the next only once the
// server has answered the one before and the answers queued for the peer
// stay below a threshold. A peer that pipelines requests and reads no
// answers therefore stops being read once a few of its requests are held,
// and its socket fills. Past a limit of queued output, or when queued
// output does not drain for a while, the connection is dropped. Results the
// peer sends for the server's own requests are always read and handed on at
// once, whatever is held, so that a subscriber answering a transaction is
// never stalled by its own backlog.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "device/yangdb.hpp"
#include "platform/ydbc_wire.hpp"

namespace device::yangdb {

// Cuts a byte stream into messages (32-bit length, then the body).
class MessageReader {
public:
    enum class Next { kMessage, kNeedMore, kBad };

    void Append(std::string_view bytes) { buffer_.append(bytes.data(), bytes.size()); }
    // The next whole message; kBad (for good) on a length over the limit or
    // a body that does not decode.
    Next Take(platform::ydbc::wire::Message *message, size_t *bodyBytes = nullptr);
    // Bytes received and not yet taken.
    size_t Buffered() const { return buffer_.size() - taken_; }

private:
    std::string buffer_;
    size_t taken_ = 0;
    bool bad_ = false;
};

using StreamLimits = ConnectionLimits;

class StreamIo {
public:
    struct Handlers {
        std::function<void(platform::ydbc::wire::Message)> request;  // one at a time, see RequestDone
        std::function<void(platform::ydbc::wire::Message)> result;   // a peer's kResult, at once
        std::function<void()> closed;                                // the last call
    };

    // Takes the connected socket (made non-blocking) and starts the thread.
    StreamIo(int fd, const StreamLimits &limits, Handlers handlers);
    ~StreamIo();  // ends the connection and waits for the thread
    StreamIo(const StreamIo &) = delete;
    StreamIo &operator=(const StreamIo &) = delete;

    // Queues a message for the peer; false once the connection is ending
    // (or when this message makes it too much: the connection is dropped).
    bool Send(const platform::ydbc::wire::Message &message);
    // The server answered the request handed on last: the next may follow.
    void RequestDone();
    // Ends the connection; the closed handler follows on the thread.
    void Shutdown();
    // Why the connection ended ("" while alive, or when the peer closed it).
    std::string EndReason() const;
    // The most bytes it ever buffered (input and output): a large one is
    // worth giving back to the system once the connection is gone.
    size_t PeakBuffered() const;

private:
    void Loop();
    void End(std::string why);  // with mu_ held
    void Wake() const;
    // Writes what the socket takes; false when the peer is gone.
    bool Flush();
    // Reads what is there; false when the connection ends.
    bool Read(MessageReader &reader);

    const int fd_;
    const int wakeFd_;
    const StreamLimits limits_;
    const Handlers handlers_;

    mutable std::mutex mu_;  // guards the members below
    std::string out_;
    size_t outSent_ = 0;
    std::deque<std::pair<platform::ydbc::wire::Message, size_t>> held_;  // with its size
    size_t heldBytes_ = 0;
    bool requestOut_ = false;
    bool ending_ = false;
    std::string endReason_;
    size_t peak_ = 0;
    std::chrono::steady_clock::time_point lastDrain_;

    std::thread thread_;
};

}  // namespace device::yangdb
