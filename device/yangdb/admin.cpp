// A management session: one request at a time over the datastore socket,
// each answered by one reply carrying "ok" or "error" and a text.
#include <device/yangdb.hpp>

#include "platform/ydbc_wire.hpp"
#include "yang_store.hpp"

#include <platform/fail_point.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace device::yangdb {

namespace wire = platform::ydbc::wire;

struct Admin::Impl {
    int fd = -1;
    std::mutex mu;
    uint32_t nextId = 1;

    ~Impl()
    {
        if (fd >= 0) {
            ::close(fd);
        }
    }

    Reply Call(wire::Type type, std::vector<std::string> fields)
    {
        std::lock_guard<std::mutex> lock(mu);
        wire::Message request;
        request.type = type;
        request.id = nextId++;
        request.fields = std::move(fields);
        if (fd < 0 || !wire::Send(fd, request)) {
            return {false, "the datastore connection is lost", "operation-failed", ""};
        }
        wire::Message reply;
        while (wire::Receive(fd, &reply)) {
            if (reply.type == wire::Type::kReply && reply.id == request.id) {
                return {reply.Field(0) == "ok", reply.Field(1), reply.Field(2), reply.Field(3), reply.Field(4)};
            }
        }
        ::close(fd);
        fd = -1;
        return {false, "the datastore connection is lost", "operation-failed", ""};
    }
};

Admin::Admin(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Admin::~Admin() = default;

std::unique_ptr<Admin> Admin::Connect(const std::string &socketPath, std::string *error)
{
    if (const auto failed = platform::FailPoint(kConnectOp)) {
        if (error != nullptr) {
            *error =
                "cannot connect to the datastore at " + socketPath + ": " + std::strerror(static_cast<int>(*failed));
        }
        return nullptr;
    }
    int fd = wire::ConnectUnix(socketPath);
    if (fd < 0) {
        if (error != nullptr) {
            *error = "cannot connect to the datastore at " + socketPath + ": " + std::strerror(errno);
        }
        return nullptr;
    }
    auto impl = std::make_unique<Impl>();
    impl->fd = fd;
    return std::unique_ptr<Admin>(new Admin(std::move(impl)));
}

Reply Admin::Edit(std::string_view xml, EditMode mode)
{
    return impl_->Call(wire::Type::kEdit, {mode == EditMode::kReplace ? "replace" : "merge", std::string(xml)});
}

Reply Admin::Delete(std::string_view path)
{
    return impl_->Call(wire::Type::kDelete, {std::string(path)});
}

Reply Admin::Get(std::string_view path)
{
    return impl_->Call(wire::Type::kGet, {std::string(path)});
}

Reply Admin::Export()
{
    return impl_->Call(wire::Type::kExport, {});
}

Reply Admin::Rpc(std::string_view xml)
{
    return impl_->Call(wire::Type::kRpc, {std::string(xml)});
}


Reply Admin::Hello(std::string_view name)
{
    return impl_->Call(wire::Type::kHello, {std::string(name)});
}

Reply Admin::Lock()
{
    return impl_->Call(wire::Type::kLock, {});
}

Reply Admin::Unlock()
{
    return impl_->Call(wire::Type::kUnlock, {});
}

Reply Admin::EditConfig(std::string_view xml, const EditConfigOptions &options)
{
    return impl_->Call(wire::Type::kEditConfig,
                       {options.defaultOperation, options.testOnly ? "test-only" : "set", std::string(xml)});
}

}  // namespace device::yangdb
