// A datastore connection's I/O thread (see stream_io.hpp).
#include "stream_io.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace device::yangdb {

namespace wire = platform::ydbc::wire;

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kLengthWord = 4;
constexpr size_t kReadChunk = 64U << 10;
// Sent bytes are cut off the front of the output once there are this many.
constexpr size_t kCompactAt = 64U << 10;

}  // namespace

MessageReader::Next MessageReader::Take(wire::Message *message, size_t *bodyBytes)
{
    if (bad_) {
        return Next::kBad;
    }
    const size_t available = buffer_.size() - taken_;
    if (available < kLengthWord) {
        return Next::kNeedMore;
    }
    uint32_t length = 0;
    std::memcpy(&length, buffer_.data() + taken_, kLengthWord);
    if (length > wire::kMaxMessage) {
        bad_ = true;
        return Next::kBad;
    }
    if (available - kLengthWord < length) {
        return Next::kNeedMore;
    }
    const std::string_view body(buffer_.data() + taken_ + kLengthWord, length);
    if (!wire::Decode(body, message)) {
        bad_ = true;
        return Next::kBad;
    }
    taken_ += kLengthWord + length;
    if (bodyBytes != nullptr) {
        *bodyBytes = length;
    }
    // What was taken goes once it is most of the buffer.
    if (taken_ == buffer_.size() || taken_ >= kCompactAt) {
        buffer_.erase(0, taken_);
        taken_ = 0;
    }
    return Next::kMessage;
}

StreamIo::StreamIo(int fd, const StreamLimits &limits, Handlers handlers)
    : fd_(fd), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), limits_(limits), handlers_(std::move(handlers))
{
    (void)fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
    lastDrain_ = Clock::now();
    if (wakeFd_ < 0) {
        ending_ = true;
        endReason_ = "cannot create an eventfd";
    }
    thread_ = std::thread([this]() { Loop(); });
}

StreamIo::~StreamIo()
{
    Shutdown();
    thread_.join();
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
    }
}

void StreamIo::Wake() const
{
    if (wakeFd_ >= 0) {
        (void)eventfd_write(wakeFd_, 1);
    }
}

void StreamIo::End(std::string why)
{
    if (!ending_) {
        ending_ = true;
        endReason_ = std::move(why);
    }
}

bool StreamIo::Send(const wire::Message &message)
{
    const std::string bytes = wire::Encode(message);
    {
        std::lock_guard lock(mu_);
        if (ending_) {
            return false;
        }
        const size_t queued = out_.size() - outSent_;
        if (queued + bytes.size() > limits_.maxQueuedOutput) {
            End("its answers were not read: " + std::to_string(queued + bytes.size()) + " bytes queued");
            Wake();
            return false;
        }
        if (queued == 0) {
            lastDrain_ = Clock::now();  // the drain timeout runs from the first byte queued
        }
        out_ += bytes;
        peak_ = std::max(peak_, out_.size() - outSent_);
    }
    Wake();
    return true;
}

void StreamIo::RequestDone()
{
    {
        std::lock_guard lock(mu_);
        requestOut_ = false;
    }
    Wake();
}

void StreamIo::Shutdown()
{
    {
        std::lock_guard lock(mu_);
        End("");
    }
    Wake();
}

std::string StreamIo::EndReason() const
{
    std::lock_guard lock(mu_);
    return endReason_;
}

size_t StreamIo::PeakBuffered() const
{
    std::lock_guard lock(mu_);
    return peak_;
}

bool StreamIo::Flush()
{
    std::lock_guard lock(mu_);
    while (outSent_ < out_.size()) {
        const ssize_t n = ::send(fd_, out_.data() + outSent_, out_.size() - outSent_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (n <= 0) {
            End("");  // the peer is gone
            return false;
        }
        outSent_ += static_cast<size_t>(n);
        lastDrain_ = Clock::now();
    }
    if (outSent_ == out_.size()) {
        out_.clear();
        outSent_ = 0;
    } else if (outSent_ >= kCompactAt) {
        out_.erase(0, outSent_);
        outSent_ = 0;
    }
    return true;
}

bool StreamIo::Read(MessageReader &reader)
{
    char buf[kReadChunk];
    const ssize_t n = ::recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
        return true;
    }
    if (n <= 0) {
        std::lock_guard lock(mu_);
        End("");  // closed by the peer
        return false;
    }
    reader.Append(std::string_view(buf, static_cast<size_t>(n)));
    for (;;) {
        wire::Message message;
        size_t bodyBytes = 0;
        const MessageReader::Next next = reader.Take(&message, &bodyBytes);
        if (next == MessageReader::Next::kNeedMore) {
            break;
        }
        if (next == MessageReader::Next::kBad) {
            std::lock_guard lock(mu_);
            End("a malformed or oversized message");
            return false;
        }
        if (message.type == wire::Type::kResult) {
            handlers_.result(std::move(message));
            continue;
        }
        std::lock_guard lock(mu_);
        held_.emplace_back(std::move(message), bodyBytes);
        heldBytes_ += bodyBytes;
    }
    std::lock_guard lock(mu_);
    peak_ = std::max(peak_, reader.Buffered() + heldBytes_);
    return true;
}

void StreamIo::Loop()
{
    MessageReader reader;
    for (;;) {
        bool wantRead = false;
        bool wantWrite = false;
        int timeoutMs = -1;
        wire::Message release;
        bool releasing = false;
        {
            std::lock_guard lock(mu_);
            const size_t queued = out_.size() - outSent_;
            if (!ending_ && queued != 0 && Clock::now() - lastDrain_ >= limits_.drainTimeout) {
                End("its answers were not read for " + std::to_string(limits_.drainTimeout.count()) + " ms");
            }
            if (ending_) {
                break;
            }
            if (!requestOut_ && !held_.empty() && queued < limits_.pauseRequestsAt) {
                release = std::move(held_.front().first);
                heldBytes_ -= held_.front().second;
                held_.pop_front();
                requestOut_ = true;
                releasing = true;
            }
            wantRead = held_.size() < limits_.maxHeldRequests && heldBytes_ < limits_.maxHeldBytes;
            wantWrite = queued != 0;
            if (wantWrite) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(limits_.drainTimeout -
                                                                              (Clock::now() - lastDrain_));
                timeoutMs = static_cast<int>(std::max<long long>(left.count(), 0));
            }
        }
        if (releasing) {
            handlers_.request(std::move(release));
            continue;
        }
        pollfd fds[2] = {{fd_, static_cast<short>((wantRead ? POLLIN : 0) | (wantWrite ? POLLOUT : 0)), 0},
                         {wakeFd_, POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
            std::lock_guard lock(mu_);
            End("poll failed");
            break;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            eventfd_t ignored = 0;
            (void)eventfd_read(wakeFd_, &ignored);
        }
        const short revents = fds[0].revents;
        if ((revents & POLLOUT) != 0 && !Flush()) {
            break;
        }
        if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            if (wantRead) {
                if (!Read(reader)) {
                    break;
                }
            } else if ((revents & (POLLHUP | POLLERR)) != 0) {
                std::lock_guard lock(mu_);
                End("");  // gone while it was not read
                break;
            }
        }
    }
    ::shutdown(fd_, SHUT_RDWR);
    handlers_.closed();
}

}  // namespace device::yangdb
