// Framing of the datastore protocol (see wire.hpp).
#include "platform/ydbc_wire.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace platform::ydbc::wire {

namespace {

void PutU32(std::string &out, uint32_t value)
{
    char bytes[4];
    std::memcpy(bytes, &value, sizeof bytes);
    out.append(bytes, sizeof bytes);
}

bool GetU32(std::string_view &in, uint32_t *value)
{
    if (in.size() < 4) {
        return false;
    }
    std::memcpy(value, in.data(), 4);
    in.remove_prefix(4);
    return true;
}

// Moves size bytes through io (one send or recv call), retrying after
// signals; false once the peer is gone or the socket fails.
template <typename Byte, typename Io>
bool Transfer(Byte *data, size_t size, Io io)
{
    while (size > 0) {
        const ssize_t n = io(data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAll(int fd, const char *data, size_t size)
{
    return Transfer(data, size, [fd](const char *at, size_t left) { return ::send(fd, at, left, MSG_NOSIGNAL); });
}

bool ReadAll(int fd, char *data, size_t size)
{
    return Transfer(data, size, [fd](char *at, size_t left) { return ::recv(fd, at, left, 0); });
}

}  // namespace

const std::string &Message::Field(size_t i) const
{
    static const std::string empty;
    return i < fields.size() ? fields[i] : empty;
}

uint32_t Message::Number(size_t i, uint32_t fallback) const
{
    const std::string &text = Field(i);
    uint32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) {
        return fallback;
    }
    return value;
}

std::string Encode(const Message &message)
{
    std::string body;
    PutU32(body, static_cast<uint32_t>(message.type));
    PutU32(body, message.id);
    PutU32(body, static_cast<uint32_t>(message.fields.size()));
    for (const std::string &field : message.fields) {
        PutU32(body, static_cast<uint32_t>(field.size()));
        body += field;
    }
    std::string out;
    out.reserve(body.size() + 4);
    PutU32(out, static_cast<uint32_t>(body.size()));
    out += body;
    return out;
}

bool Decode(std::string_view body, Message *message)
{
    uint32_t type = 0;
    uint32_t count = 0;
    if (!GetU32(body, &type) || !GetU32(body, &message->id) || !GetU32(body, &count)) {
        return false;
    }
    message->type = static_cast<Type>(type);
    message->fields.clear();
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!GetU32(body, &length) || body.size() < length) {
            return false;
        }
        message->fields.emplace_back(body.substr(0, length));
        body.remove_prefix(length);
    }
    return body.empty();
}

bool Send(int fd, const Message &message)
{
    std::string bytes = Encode(message);
    return WriteAll(fd, bytes.data(), bytes.size());
}

bool Receive(int fd, Message *message)
{
    uint32_t length = 0;
    if (!ReadAll(fd, reinterpret_cast<char *>(&length), sizeof length) || length > kMaxMessage) {
        return false;
    }
    std::string body(length, '\0');
    if (!ReadAll(fd, body.data(), body.size())) {
        return false;
    }
    return Decode(body, message);
}

int ConnectUnix(const std::string &path)
{
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (::connect(fd, reinterpret_cast<const struct sockaddr *>(&addr), sizeof addr) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace platform::ydbc::wire
