// A datastore on a temporary socket and store, and a subscriber built on
// libydbc's C API that drives ydbc_run from an epoll loop on its own thread
// the way the agent does: edge-triggered, an event without EPOLLIN/EPOLLPRI
// is a lost connection, answered by ydbc_connect every so often and
// ydbc_activate again (no new subscriptions).
#pragma once

#include <gtest/gtest.h>
#include <ydbc.h>
#include <device/yangdb.hpp>

#include "pplus_test.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace ydbc_test {

inline const std::string kYangDir = std::string(PPLUS_SOURCE_DIR) + "/yang";
inline const std::string kPlus = "/quendal-pppoe-plus:pppoe-plus";
inline const std::string kPort = "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port";
inline const std::string kNs = "urn:quendal:yang:quendal-pppoe-plus";

// Instance path of a per-port item of interface name.
inline std::string PortItem(const std::string &name, const std::string &item)
{
    return "/quendal-ifm:ifm/interfaces/interface[name='" + name + "']/quendal-pppoe-plus:pppoe-plus-port/" + item;
}

// Running data with one interface carrying the given pppoe-plus-port body.
inline std::string PortXml(const std::string &name, const std::string &body)
{
    return "<ifm xmlns=\"urn:quendal:yang:quendal-ifm\"><interfaces><interface><name>" + name +
           "</name><pppoe-plus-port xmlns=\"" + kNs + "\">" + body +
           "</pppoe-plus-port></interface></interfaces></ifm>";
}

inline std::string PlusXml(const std::string &body)
{
    return "<pppoe-plus xmlns=\"" + kNs + "\">" + body + "</pppoe-plus>";
}

using pplus_test::WaitFor;

struct Delivery {
    uint32_t op = 0;
    std::string path;
    std::string oldXml;      // what ydbc_pull(old 1) gave, "-" when it failed
    std::string newXml;      // what ydbc_pull(old 0) gave, "-" when it failed
    std::string below = {};  // ydbc_pull(old 0, pullDepth) of the path plus pullBelow

    bool operator==(const Delivery &) const = default;
};

inline void PrintTo(const Delivery &d, std::ostream *os)
{
    *os << "{op " << d.op << ", " << d.path << ", old " << d.oldXml << ", new " << d.newXml << ", below " << d.below
        << "}";
}

class Subscriber {
public:
    static inline Subscriber *current = nullptr;  // the callbacks report here

    explicit Subscriber(std::string url) : url_(std::move(url))
    {
        current = this;
        client_ = ydbc_client_new("pppoe_plus", 1, nullptr);
    }
    ~Subscriber()
    {
        StopLoop();
        ydbc_client_free(client_);
        current = nullptr;
    }

    ydbc_client *client() const { return client_; }
    bool Connect()
    {
        fd_ = ydbc_connect(client_, url_.c_str());
        return fd_ >= 0;
    }
    // A subscription of the given kind answered by this subscriber's callbacks.
    uint32_t Subscribe(const std::string &path, uint32_t kind = YDBC_SUB_CONFIG,
                       uint32_t priority = YDBC_PRIORITY_DEFAULT)
    {
        ydbc_subscription row{};
        row.path = path.c_str();
        row.kind = kind;
        if (kind == YDBC_SUB_CONFIG) {
            row.u.config = {priority, YDBC_EV_DEFAULT};
            row.configCallback = reinterpret_cast<void *>(&OnChange);
        } else {
            row.u.callback = kind == YDBC_SUB_GET ? reinterpret_cast<void *>(&OnGet) : reinterpret_cast<void *>(&OnRpc);
        }
        return ydbc_subscribe(client_, &row);
    }
    uint32_t Activate() { return ydbc_activate(client_, 1, &OnRecoverEnd, this); }

    void StartLoop()
    {
        stopFd_ = eventfd(0, EFD_CLOEXEC);
        loop_ = std::thread([this] { Loop(); });
    }
    void StopLoop()
    {
        if (!loop_.joinable()) {
            return;
        }
        stop_ = true;
        uint64_t one = 1;
        (void)!write(stopFd_, &one, sizeof one);
        loop_.join();
        close(stopFd_);
    }

    // Everything the callbacks saw, guarded by mu.
    std::mutex mu;
    std::vector<Delivery> changes;
    std::vector<std::string> getPaths;
    std::vector<std::string> rpcInputs;
    std::vector<uint32_t> recoverResults;
    size_t changesAtRecoverEnd = 0;
    std::string pullBelow;
    uint32_t pullDepth = kWholeTree;
    uint32_t delayMs = 0;  // how long a configuration callback takes
    std::string getReply;
    uint32_t getResult = 0;
    uint32_t rpcResult = 0;

    std::atomic<int> hangups{0};
    std::atomic<uint32_t> hangupEvents{0};
    std::atomic<int> reconnects{0};

    // Runs f under the callbacks' lock, to change what they answer or read
    // what they saw; what f returns.
    template <typename F>
    auto Locked(F f)
    {
        std::lock_guard<std::mutex> lock(mu);
        return f(*this);
    }
    std::vector<Delivery> Changes()
    {
        return Locked([](Subscriber &s) { return s.changes; });
    }
    size_t RecoverCount()
    {
        return Locked([](Subscriber &s) { return s.recoverResults.size(); });
    }
    void Forget()
    {
        std::lock_guard<std::mutex> lock(mu);
        changes.clear();
        recoverResults.clear();
    }

private:
    static constexpr uint32_t kWholeTree = 0xFFFFFFFFU;

    static std::string Pull(void *ctx, uint32_t old, const char *path, uint32_t depth = kWholeTree)
    {
        ydbc_bytes *bytes = nullptr;
        if (ydbc_pull(ctx, old, path, depth, &bytes) != 0 || bytes == nullptr) {
            return "-";
        }
        std::string text(bytes->text, bytes->length);
        ydbc_free_bytes(bytes);
        return text;
    }
    static uint32_t OnChange(void *ctx, uint32_t op, uint32_t, uint32_t, const char *path)
    {
        const auto [below, depth, delay] =
            current->Locked([](Subscriber &s) { return std::make_tuple(s.pullBelow, s.pullDepth, s.delayMs); });
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        Delivery d{op, path, Pull(ctx, 1, path), Pull(ctx, 0, path),
                   below.empty() && depth == kWholeTree ? "" : Pull(ctx, 0, (path + below).c_str(), depth)};
        std::lock_guard<std::mutex> lock(current->mu);
        current->changes.push_back(d);
        return 0;
    }
    static uint32_t OnGet(void *, const char *path, uint32_t, ydbc_bytes **out)
    {
        std::lock_guard<std::mutex> lock(current->mu);
        current->getPaths.push_back(path);
        const std::string &reply = current->getReply;
        *out = ydbc_new_bytes(reply.c_str(), static_cast<uint32_t>(reply.size()), YDBC_BYTES_XML);
        return current->getResult;
    }
    static uint32_t OnRpc(void *, ydbc_bytes *input, uint32_t, ydbc_bytes **)
    {
        std::lock_guard<std::mutex> lock(current->mu);
        current->rpcInputs.emplace_back(input->text, input->length);
        return current->rpcResult;
    }
    static uint32_t OnRecoverEnd(void *ctx, uint32_t result)
    {
        auto *self = static_cast<Subscriber *>(ctx);
        std::lock_guard<std::mutex> lock(self->mu);
        self->recoverResults.push_back(result);
        self->changesAtRecoverEnd = self->changes.size();
        return 0;
    }

    void Loop()
    {
        int ep = epoll_create1(EPOLL_CLOEXEC);
        epoll_event stopEv{.events = EPOLLIN, .data = {.u32 = 0}};
        epoll_ctl(ep, EPOLL_CTL_ADD, stopFd_, &stopEv);
        const uint32_t mask = EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLET;
        epoll_event ev{.events = mask, .data = {.u32 = 1}};
        epoll_ctl(ep, EPOLL_CTL_ADD, fd_, &ev);
        while (!stop_) {
            struct epoll_event got {};
            if (epoll_wait(ep, &got, 1, -1) < 1 || got.data.u32 == 0) {
                continue;
            }
            if ((got.events & (EPOLLIN | EPOLLPRI)) == 0) {
                hangupEvents = got.events;
                ++hangups;
                epoll_ctl(ep, EPOLL_CTL_DEL, fd_, nullptr);
                fd_ = -1;
                while (fd_ < 0 && !stop_) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    fd_ = ydbc_connect(client_, url_.c_str());
                }
                if (stop_) {
                    break;
                }
                Activate();
                ev.events = mask;
                epoll_ctl(ep, EPOLL_CTL_ADD, fd_, &ev);
                ++reconnects;
            } else {
                ydbc_run(client_, 1000);
            }
        }
        close(ep);
    }

    std::string url_;
    ydbc_client *client_ = nullptr;
    int fd_ = -1;
    int stopFd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread loop_;
};

// A temporary folder holding the socket and the store, removed at the end.
class DatastoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ydbc_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        options_.socketPath = dir_ + "/yangdb.sock";
        options_.storePath = dir_ + "/store/running.xml";
        options_.yangDir = kYangDir;
        ydbc_initialize();
    }
    void TearDown() override
    {
        subscriber_.reset();
        admin_.reset();
        server_.reset();
        std::filesystem::remove_all(dir_);
    }

    void StartServer()
    {
        std::string error;
        server_ = device::yangdb::Server::Start(options_, &error);
        ASSERT_NE(server_, nullptr) << error;
        admin_ = device::yangdb::Admin::Connect(options_.socketPath, &error);
        ASSERT_NE(admin_, nullptr) << error;
    }
    std::string Url() const { return "unix://" + options_.socketPath; }
    // The edit applied to the running configuration; a refusal shows the
    // datastore's answer.
    testing::AssertionResult Edited(const std::string &xml,
                                    device::yangdb::EditMode mode = device::yangdb::EditMode::kMerge)
    {
        const device::yangdb::Reply reply = admin_->Edit(xml, mode);
        return reply.ok ? testing::AssertionSuccess() : testing::AssertionFailure() << reply.text;
    }
    // A subscriber of the given configuration paths, connected.
    void NewSubscriber(const std::vector<std::string> &paths = {})
    {
        subscriber_ = std::make_unique<Subscriber>(Url());
        ASSERT_TRUE(subscriber_->Connect());
        for (const std::string &path : paths) {
            ASSERT_EQ(subscriber_->Subscribe(path), 0U) << path;
        }
    }
    // The subscriber activated, its loop running and its replay over.
    void ActivateAndReplay()
    {
        ASSERT_EQ(subscriber_->Activate(), 0U);
        subscriber_->StartLoop();
        ASSERT_TRUE(WaitFor([this] { return subscriber_->RecoverCount() == 1; }));
    }
    // Both, with what the replay delivered forgotten.
    void StartSubscriber(const std::vector<std::string> &paths)
    {
        NewSubscriber(paths);
        ActivateAndReplay();
        subscriber_->Forget();
    }

    std::string dir_;
    device::yangdb::ServerOptions options_;
    std::unique_ptr<device::yangdb::Server> server_;
    std::unique_ptr<device::yangdb::Admin> admin_;
    std::unique_ptr<Subscriber> subscriber_;
};

}  // namespace ydbc_test
