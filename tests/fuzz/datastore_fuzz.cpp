// libFuzzer target: the datastore's request reader and its YANG side.
// The first byte picks what the rest is:
//   0: bytes off a connection, cut into pieces, through the message reader;
//      every message it yields re-encodes to exactly the bytes it consumed,
//      and once it refuses the stream it refuses it for good;
//   1, 2: XML merged into (or replacing) the example configuration; an
//      accepted candidate prints, reloads as itself, and yields the
//      instances of the agent's subscription paths;
//   3: a path to delete, read and look up in the model;
//   4: XML as an operation's input.
// A finding is a sanitizer report, an exception or a broken invariant (trap).
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "platform/ydbc_wire.hpp"
#include "stream_io.hpp"
#include "yang_store.hpp"

using pplus_fuzz::Require;

namespace {

namespace wire = platform::ydbc::wire;
using device::yangdb::MessageReader;
using device::yangdb::Tree;
using device::yangdb::YangStore;

YangStore *g_store = nullptr;
std::string g_example;

// The agent's configuration subscription paths.
constexpr const char *kPaths[] = {
    "/quendal-pppoe-plus:pppoe-plus/global-enable",
    "/quendal-pppoe-plus:pppoe-plus/global-tags-format",
    "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/trusted-port",
    "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/port-tags-formats/port-tags-format",
    "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/if-description",
};

void Reader(std::string_view bytes)
{
    if (bytes.empty()) {
        return;
    }
    const size_t piece = static_cast<uint8_t>(bytes[0]) + 1U;
    bytes.remove_prefix(1);
    MessageReader reader;
    std::string reencoded;
    bool refused = false;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        reader.Append(bytes.substr(at, piece));
        wire::Message message;
        MessageReader::Next next;
        while ((next = reader.Take(&message)) == MessageReader::Next::kMessage) {
            Require(!refused);
            reencoded += wire::Encode(message);
        }
        refused = refused || next == MessageReader::Next::kBad;
        Require(!refused || reader.Take(&message) == MessageReader::Next::kBad);
    }
    Require(reencoded.size() <= bytes.size() && bytes.substr(0, reencoded.size()) == reencoded);
    Require(refused || reencoded.size() + reader.Buffered() == bytes.size());
}

void Edit(std::string_view xml, bool replace)
{
    Tree candidate;
    std::string error;
    if (!g_store->EditCandidate(xml, replace, &candidate, &error)) {
        Require(!error.empty());
        return;
    }
    const std::string printed = YangStore::PrintExplicit(candidate.get());
    for (const char *path : kPaths) {
        for (const device::yangdb::Instance &item : g_store->Instances(candidate.get(), path)) {
            Require(!item.path.empty() && !item.xml.empty());
        }
    }
    // What was accepted is valid as it prints.
    Tree again;
    Require(g_store->EditCandidate(printed, true, &again, &error));
    Require(YangStore::PrintExplicit(again.get()) == printed);
}

void Path(std::string_view path)
{
    Tree candidate;
    std::string error;
    (void)g_store->DeleteCandidate(path, &candidate, &error);
    Tree selected;
    (void)g_store->SelectConfig(path, &selected, &error);
    (void)g_store->FindSchema(path);
    (void)device::yangdb::SchemaPathOf(path);
}

void Rpc(std::string_view xml)
{
    std::string opPath;
    std::string input;
    std::string error;
    if (!g_store->ParseRpc(xml, &opPath, &input, &error)) {
        Require(!error.empty());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    pplus_fuzz::RunFromOwnFolder();
    g_store = new YangStore();  // for the life of the process
    std::string error;
    Require(g_store->Open("../share/yang", "/nonexistent/pplus-fuzz/running.xml", &error));
    std::ifstream in(PPLUS_SOURCE_DIR "/examples/pppoe-plus.xml");
    std::ostringstream text;
    text << in.rdbuf();
    g_example = text.str();
    Tree example;
    Require(g_store->EditCandidate(g_example, true, &example, &error));
    g_store->Commit(std::move(example));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string_view rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] % 5) {
        case 0: Reader(rest); break;
        case 1: Edit(rest, false); break;
        case 2: Edit(rest, true); break;
        case 3: Path(rest); break;
        default: Rpc(rest); break;
    }
    return 0;
}
