// libydbc.so: the subscriber side of the datastore.
//
// The library owns the socket on an I/O thread. Requests from the
// datastore (changes, gets, operations, the end of a replay) are queued and
// signalled through a pipe whose read end is the descriptor ydbc_connect
// returns: it is readable while requests wait, and ydbc_run dispatches them
// on the caller's thread and sends the callbacks' results back. Replies to
// the client's own requests (subscribe, activate) go straight to the
// waiting call. When the socket is lost the I/O thread drops whatever is
// still queued (the datastore rolls those changes back), empties the pipe
// and closes its write end, so the descriptor reports a hang-up without
// EPOLLIN. A plain socket would not do: a closed socket reads as EPOLLIN.
//
// Every entry point honours the platform's failure injection under its own
// name: ydbc_connect fails with -1, the allocators with null, the others
// with the injected code.
#include "platform/ydbc_wire.hpp"

#include <platform/fail_point.hpp>

#pragma GCC visibility push(default)
#include <ydbc.h>
#pragma GCC visibility pop

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace {

using platform::ydbc::wire::Message;
using platform::ydbc::wire::Type;
namespace wire = platform::ydbc::wire;

constexpr auto kCallTimeout = std::chrono::seconds(10);
constexpr uint32_t kWholeTree = 0xFFFFFFFFU;  // the depth of ydbc_pull that keeps everything

// One connection to the datastore.
struct Link {
    int sock = -1;
    int pipeRead = -1;
    int pipeWrite = -1;
    std::thread io;
    std::mutex writeMu;

    std::mutex mu;  // everything below
    std::condition_variable cv;
    std::deque<Message> queue;
    std::map<uint32_t, Message> replies;
    bool signalled = false;
    bool lost = false;
    std::set<size_t> registered;  // rows the datastore knows on this link

    ~Link()
    {
        if (sock >= 0) {
            ::shutdown(sock, SHUT_RDWR);
        }
        if (io.joinable()) {
            io.join();
        }
        for (int fd : {sock, pipeRead, pipeWrite}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    bool Send(const Message &message)
    {
        std::lock_guard<std::mutex> lock(writeMu);
        return wire::Send(sock, message);
    }

    // With mu held: empties the pipe.
    void DrainLocked()
    {
        char buffer[64];
        while (::read(pipeRead, buffer, sizeof buffer) > 0) {
        }
        signalled = false;
    }

    // With mu held: makes the descriptor readable when requests wait.
    void SignalLocked()
    {
        if (!signalled && pipeWrite >= 0 && !queue.empty()) {
            char byte = 1;
            signalled = ::write(pipeWrite, &byte, 1) == 1;
        }
    }

    void ReadLoop()
    {
        Message message;
        while (wire::Receive(sock, &message)) {
            std::lock_guard<std::mutex> lock(mu);
            if (message.type == Type::kReply) {
                replies[message.id] = std::move(message);
                cv.notify_all();
            } else {
                queue.push_back(std::move(message));
                SignalLocked();
            }
        }
        std::lock_guard<std::mutex> lock(mu);
        lost = true;
        queue.clear();
        DrainLocked();
        ::close(pipeWrite);
        pipeWrite = -1;
        cv.notify_all();
    }
};

struct Row {
    ydbc_subscription row{};
    std::string path;
};

// What a callback's ctx points to: the request being dispatched.
struct RequestContext {
    uint32_t magic = kMagic;
    std::string path;
    std::string oldXml;
    std::string newXml;
    bool hasOld = false;
    bool hasNew = false;
    static constexpr uint32_t kMagic = 0x79646263U;
};

// Walks from the XML of an instance down to the element a longer path names
// ("/a/b[k='v']/c" below the instance path): each step is an element name
// (module prefix ignored) and optional [key='value'] tests on child leaves.
// Only what the datastore prints is handled: one element per line of
// descent, simple text content, no comments or entities.
class XmlCursor {
public:
    explicit XmlCursor(const std::string &xml) : xml_(xml) {}

    // Span [begin, end) of the whole element for the relative path, or false.
    bool Find(std::string_view relative, size_t *begin, size_t *end) const
    {
        size_t from = 0;
        size_t to = xml_.size();
        // The root element is the instance itself.
        if (!Element(from, to, nullptr, &from, &to)) {
            return false;
        }
        while (!relative.empty()) {
            if (relative[0] == '/') {
                relative.remove_prefix(1);
                continue;
            }
            size_t stop = 0;
            int depth = 0;
            char quote = 0;
            for (; stop < relative.size(); ++stop) {
                char c = relative[stop];
                if (quote != 0) {
                    quote = c == quote ? 0 : quote;
                } else if (c == '\'' || c == '"') {
                    quote = c;
                } else if (c == '[') {
                    ++depth;
                } else if (c == ']') {
                    --depth;
                } else if (c == '/' && depth == 0) {
                    break;
                }
            }
            std::string_view step = relative.substr(0, stop);
            relative.remove_prefix(stop);
            if (!Child(step, &from, &to)) {
                return false;
            }
        }
        *begin = from;
        *end = to;
        return true;
    }

private:
    // The element starting at or after pos within [pos, limit): its span and
    // local name.
    bool Element(size_t pos, size_t limit, std::string *name, size_t *begin, size_t *end) const
    {
        size_t open = xml_.find('<', pos);
        while (open != std::string::npos && open < limit && (xml_[open + 1] == '?' || xml_[open + 1] == '!')) {
            open = xml_.find('<', open + 1);
        }
        if (open == std::string::npos || open >= limit || xml_[open + 1] == '/') {
            return false;
        }
        size_t nameEnd = xml_.find_first_of(" \t\r\n/>", open + 1);
        if (nameEnd == std::string::npos) {
            return false;
        }
        std::string qname = xml_.substr(open + 1, nameEnd - open - 1);
        size_t tagEnd = xml_.find('>', nameEnd);
        if (tagEnd == std::string::npos) {
            return false;
        }
        size_t close = tagEnd + 1;
        if (xml_[tagEnd - 1] != '/') {
            // Nested elements of the same name do not occur in the model's data.
            const std::string endTag = "</" + qname;
            size_t found = xml_.find(endTag, tagEnd);
            if (found == std::string::npos) {
                return false;
            }
            close = xml_.find('>', found);
            if (close == std::string::npos) {
                return false;
            }
            ++close;
        }
        if (name != nullptr) {
            size_t colon = qname.find(':');
            *name = colon == std::string::npos ? qname : qname.substr(colon + 1);
        }
        *begin = open;
        *end = close;
        return true;
    }

    std::string Text(size_t begin, size_t end) const
    {
        size_t start = xml_.find('>', begin) + 1;
        size_t stop = xml_.rfind('<', end - 1);
        return stop > start ? xml_.substr(start, stop - start) : std::string();
    }

    // Moves [*from, *to) from an element to its child matching step.
    bool Child(std::string_view step, size_t *from, size_t *to) const
    {
        std::string_view name = step.substr(0, step.find('['));
        if (size_t colon = name.find(':'); colon != std::string_view::npos) {
            name.remove_prefix(colon + 1);
        }
        size_t pos = xml_.find('>', *from) + 1;
        const size_t limit = xml_.rfind('<', *to - 1);
        std::string childName;
        size_t b = 0;
        size_t e = 0;
        while (pos < limit && Element(pos, limit, &childName, &b, &e)) {
            if (childName == name && KeysMatch(step, b, e)) {
                *from = b;
                *to = e;
                return true;
            }
            pos = e;
        }
        return false;
    }

    bool KeysMatch(std::string_view step, size_t begin, size_t end) const
    {
        size_t open = step.find('[');
        while (open != std::string_view::npos) {
            size_t eq = step.find('=', open);
            if (eq == std::string_view::npos || eq + 2 >= step.size()) {
                return false;
            }
            const char quote = step[eq + 1];
            size_t valueEnd = step.find(quote, eq + 2);
            if (valueEnd == std::string_view::npos) {
                return false;
            }
            std::string_view key = step.substr(open + 1, eq - open - 1);
            std::string_view value = step.substr(eq + 2, valueEnd - eq - 2);
            size_t b = begin;
            size_t e = end;
            if (!Child(key, &b, &e) || Text(b, e) != value) {
                return false;
            }
            open = step.find('[', valueEnd);
        }
        return true;
    }

    const std::string &xml_;
};

// The first levels of element of xml (the root being level 1), the text of
// each kept element included: a leaf's value belongs to its level. The same
// limits as XmlCursor: no ">" inside tags' attribute values, no comments.
std::string KeepLevels(std::string_view xml, uint32_t levels)
{
    std::string out;
    uint32_t level = 0;  // elements open around the current position
    size_t pos = 0;
    while (pos < xml.size()) {
        const size_t open = xml.find('<', pos);
        const size_t textEnd = open == std::string_view::npos ? xml.size() : open;
        if (level <= levels) {
            out.append(xml.substr(pos, textEnd - pos));
        }
        const size_t close = open == std::string_view::npos ? open : xml.find('>', open);
        if (close == std::string_view::npos) {
            break;
        }
        const std::string_view tag = xml.substr(open, close + 1 - open);
        if (tag[1] == '/') {
            if (level <= levels) {
                out.append(tag);
            }
            level = level > 0 ? level - 1 : 0;
        } else if (tag[1] == '?' || tag[1] == '!') {
            if (level <= levels) {
                out.append(tag);
            }
        } else {
            ++level;
            if (level <= levels) {
                out.append(tag);
            }
            if (tag[tag.size() - 2] == '/') {
                --level;
            }
        }
        pos = close + 1;
    }
    return out;
}

}  // namespace

struct ydbc_client {
    std::string name;
    std::mutex mu;  // rows, link, recovery callback
    std::deque<Row> rows;
    std::shared_ptr<Link> link;
    ydbc_recover_end_cb recoverEnd = nullptr;
    void *recoverCtx = nullptr;
    std::atomic<uint32_t> nextId{1};

    // A request the datastore answers with kReply; false when it refused,
    // did not answer or the connection is gone.
    bool Call(const std::shared_ptr<Link> &to, Type type, std::vector<std::string> fields)
    {
        Message request;
        request.type = type;
        request.id = nextId++;
        request.fields = std::move(fields);
        if (!to->Send(request)) {
            return false;
        }
        std::unique_lock<std::mutex> lock(to->mu);
        to->cv.wait_for(lock, kCallTimeout, [&] { return to->lost || to->replies.count(request.id) != 0; });
        auto it = to->replies.find(request.id);
        if (it == to->replies.end()) {
            return false;
        }
        bool ok = it->second.Field(0) == "ok";
        to->replies.erase(it);
        return ok;
    }

    // Tells the datastore about row index on link (with mu held).
    bool Register(const std::shared_ptr<Link> &to, size_t index)
    {
        const ydbc_subscription &row = rows[index].row;
        const bool config = row.kind == YDBC_SUB_CONFIG;
        const uint32_t events = config && row.u.config.events != 0 ? row.u.config.events : YDBC_EV_DEFAULT;
        const uint32_t priority = config ? row.u.config.priority : YDBC_PRIORITY_DEFAULT;
        if (!Call(to, Type::kSubscribe,
                  {std::to_string(row.kind), rows[index].path, std::to_string(priority), std::to_string(events),
                   std::to_string(index)})) {
            return false;
        }
        std::lock_guard<std::mutex> lock(to->mu);
        to->registered.insert(index);
        return true;
    }

    void Dispatch(const std::shared_ptr<Link> &to, const Message &m);
};

void ydbc_client::Dispatch(const std::shared_ptr<Link> &to, const Message &m)
{
    if (m.type == Type::kRecoverEnd) {
        ydbc_recover_end_cb cb = nullptr;
        void *ctx = nullptr;
        {
            std::lock_guard<std::mutex> lock(mu);
            cb = recoverEnd;
            ctx = recoverCtx;
        }
        if (cb != nullptr) {
            cb(ctx, m.Number(0));
        }
        return;
    }
    ydbc_subscription row{};
    {
        std::lock_guard<std::mutex> lock(mu);
        size_t index = m.Number(0, UINT32_MAX);
        if (index < rows.size()) {
            row = rows[index].row;
        }
    }
    uint32_t code = 1;
    std::string output;
    RequestContext ctx;
    ydbc_bytes *out = nullptr;
    switch (m.type) {
    case Type::kChange:
        ctx.path = m.Field(2);
        ctx.oldXml = m.Field(3);
        ctx.newXml = m.Field(4);
        ctx.hasOld = m.Field(5) == "1";
        ctx.hasNew = m.Field(6) == "1";
        if (row.kind == YDBC_SUB_CONFIG && row.configCallback != nullptr) {
            auto cb = reinterpret_cast<ydbc_config_cb>(row.configCallback);
            code = cb(&ctx, m.Number(1), 0, 0, ctx.path.c_str());
        }
        break;
    case Type::kGetRequest:
        ctx.path = m.Field(1);
        if (row.kind == YDBC_SUB_GET && row.u.callback != nullptr) {
            auto cb = reinterpret_cast<ydbc_get_cb>(row.u.callback);
            code = cb(&ctx, ctx.path.c_str(), 0, &out);
        }
        break;
    case Type::kRpcRequest:
        if (row.kind == YDBC_SUB_RPC && row.u.callback != nullptr) {
            auto cb = reinterpret_cast<ydbc_rpc_cb>(row.u.callback);
            const std::string &xml = m.Field(1);
            ydbc_bytes *input = ydbc_new_bytes(xml.c_str(), static_cast<uint32_t>(xml.size()), YDBC_BYTES_XML);
            code = cb(&ctx, input, 0, &out);
            ydbc_free_bytes(input);
        }
        break;
    default:
        return;
    }
    if (out != nullptr) {
        output.assign(out->text != nullptr ? out->text : "", out->text != nullptr ? out->length : 0);
        ydbc_free_bytes(out);
    }
    Message result;
    result.type = Type::kResult;
    result.id = m.id;
    result.fields = {std::to_string(code), output};
    to->Send(result);
}

extern "C" {

uint32_t ydbc_initialize(void)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed != 0 ? *failed : 1;
    }
    return 0;
}

ydbc_client *ydbc_client_new(const char *name, uint32_t mode, void *reserved)
{
    if (platform::FailPoint(__func__) || name == nullptr || reserved != nullptr || mode > 1) {
        return nullptr;
    }
    auto *client = new ydbc_client;
    client->name = name;
    return client;
}

int32_t ydbc_connect(ydbc_client *client, const char *url)
{
    if (platform::FailPoint(__func__) || client == nullptr || url == nullptr) {
        return -1;
    }
    constexpr std::string_view kScheme = "unix://";
    std::string_view text(url);
    if (text.substr(0, kScheme.size()) != kScheme) {
        return -1;
    }
    std::string path(text.substr(kScheme.size()));
    if (const char *env = std::getenv(YDBC_SOCKET_ENV); env != nullptr && env[0] != '\0') {
        path = env;
    }

    std::shared_ptr<Link> old;
    {
        std::lock_guard<std::mutex> lock(client->mu);
        old = std::move(client->link);
    }
    old.reset();  // closes the previous connection and its descriptor

    auto link = std::make_shared<Link>();
    link->sock = wire::ConnectUnix(path);
    int fds[2];
    if (link->sock < 0 || ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return -1;
    }
    link->pipeRead = fds[0];
    link->pipeWrite = fds[1];
    Message hello;
    hello.type = Type::kHello;
    hello.id = client->nextId++;
    hello.fields = {client->name};
    if (!link->Send(hello)) {
        return -1;
    }
    Link *raw = link.get();
    link->io = std::thread([raw] { raw->ReadLoop(); });
    std::lock_guard<std::mutex> lock(client->mu);
    client->link = link;
    return link->pipeRead;
}

uint32_t ydbc_subscribe(ydbc_client *client, const ydbc_subscription *row)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed != 0 ? *failed : 1;
    }
    if (client == nullptr || row == nullptr || row->path == nullptr || row->kind > YDBC_SUB_RPC) {
        return 1;
    }
    const bool config = row->kind == YDBC_SUB_CONFIG;
    if ((config && row->configCallback == nullptr) || (!config && row->u.callback == nullptr)) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(client->mu);
    if (client->link == nullptr) {
        return 1;
    }
    Row copy;
    copy.row = *row;
    copy.path = row->path;
    client->rows.push_back(copy);
    client->rows.back().row.path = client->rows.back().path.c_str();
    if (!client->Register(client->link, client->rows.size() - 1)) {
        client->rows.pop_back();
        return 1;
    }
    return 0;
}

uint32_t ydbc_activate(ydbc_client *client, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed != 0 ? *failed : 1;
    }
    if (client == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(client->mu);
    std::shared_ptr<Link> link = client->link;
    if (link == nullptr) {
        return 1;
    }
    client->recoverEnd = recoverEnd;
    client->recoverCtx = ctx;
    // After a reconnect the datastore has forgotten the rows: tell it again.
    for (size_t i = 0; i < client->rows.size(); ++i) {
        bool known = false;
        {
            std::lock_guard<std::mutex> linkLock(link->mu);
            known = link->registered.count(i) != 0;
        }
        if (!known && !client->Register(link, i)) {
            return 1;
        }
    }
    return client->Call(link, Type::kActivate, {std::to_string(flag)}) ? 0 : 1;
}

uint32_t ydbc_pull(void *ctx, uint32_t old, const char *path, uint32_t depth, ydbc_bytes **out)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed != 0 ? *failed : 1;
    }
    auto *request = static_cast<RequestContext *>(ctx);
    if (request == nullptr || out == nullptr || request->magic != RequestContext::kMagic || depth == 0) {
        return 1;
    }
    if ((old != 0 && !request->hasOld) || (old == 0 && !request->hasNew)) {
        return 1;
    }
    const std::string &xml = old != 0 ? request->oldXml : request->newXml;
    std::string_view asked = path != nullptr ? std::string_view(path) : std::string_view(request->path);
    std::string_view base = request->path;
    size_t begin = 0;
    size_t end = xml.size();
    if (asked != base) {
        if (asked.size() <= base.size() || asked.substr(0, base.size()) != base || asked[base.size()] != '/' ||
            !XmlCursor(xml).Find(asked.substr(base.size()), &begin, &end)) {
            return 1;
        }
    }
    std::string text = xml.substr(begin, end - begin);
    if (begin != 0) {
        // A descendant keeps the namespace its instance declared.
        const size_t nsBegin = xml.find(" xmlns=\"");
        const size_t nsEnd = nsBegin == std::string::npos ? nsBegin : xml.find('"', nsBegin + 8);
        const size_t nameEnd = text.find_first_of(" />");
        if (nsEnd != std::string::npos && nameEnd != std::string::npos &&
            text.substr(0, text.find('>')).find("xmlns=") == std::string::npos) {
            text.insert(nameEnd, xml.substr(nsBegin, nsEnd + 1 - nsBegin));
        }
    }
    if (depth != kWholeTree) {
        text = KeepLevels(text, depth);
    }
    *out = ydbc_new_bytes(text.c_str(), static_cast<uint32_t>(text.size()), YDBC_BYTES_XML);
    return *out != nullptr ? 0 : 1;
}

ydbc_bytes *ydbc_new_bytes(const char *text, uint32_t length, uint32_t kind)
{
    if (platform::FailPoint(__func__) || (text == nullptr && length != 0)) {
        return nullptr;
    }
    auto *bytes = static_cast<ydbc_bytes *>(std::calloc(1, sizeof(ydbc_bytes)));
    char *copy = static_cast<char *>(std::malloc(static_cast<size_t>(length) + 1));
    if (bytes == nullptr || copy == nullptr) {
        std::free(bytes);
        std::free(copy);
        return nullptr;
    }
    if (length != 0) {
        std::memcpy(copy, text, length);
    }
    copy[length] = '\0';
    bytes->kind = kind;
    bytes->length = length;
    bytes->capacity = static_cast<uint64_t>(length) + 1;
    bytes->text = copy;
    return bytes;
}

void ydbc_free_bytes(ydbc_bytes *bytes)
{
    if (bytes != nullptr) {
        std::free(bytes->text);
        std::free(bytes);
    }
}

uint32_t ydbc_run(ydbc_client *client, uint32_t budget)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed != 0 ? *failed : 1;
    }
    if (client == nullptr) {
        return 1;
    }
    std::shared_ptr<Link> link;
    {
        std::lock_guard<std::mutex> lock(client->mu);
        link = client->link;
    }
    if (link == nullptr) {
        return 1;
    }
    {
        std::lock_guard<std::mutex> lock(link->mu);
        if (!link->lost) {
            link->DrainLocked();
        }
    }
    for (uint32_t done = 0; done < budget; ++done) {
        Message message;
        {
            std::lock_guard<std::mutex> lock(link->mu);
            if (link->queue.empty()) {
                break;
            }
            message = std::move(link->queue.front());
            link->queue.pop_front();
        }
        client->Dispatch(link, message);
    }
    std::lock_guard<std::mutex> lock(link->mu);
    link->SignalLocked();  // left over beyond the budget: come back
    return link->lost ? 1 : 0;
}

void ydbc_client_free(ydbc_client *client)
{
    delete client;
}

}  // extern "C"
