// The agent's YANG model as the tools see it: yanglint accepts every module
// and the bundled example (whose settings the interop replay puts to work)
// without a warning. That libyang compiles the modules and refuses bad data
// naming the node is the datastore suite's (ydbc_test.cpp); the paths,
// enumerations and defaults the agent relies on are exercised through the
// datastore and the CLI suites.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

namespace {

const std::filesystem::path kYangDir = std::filesystem::path(PPLUS_SOURCE_DIR) / "yang";
const std::filesystem::path kExample = std::filesystem::path(PPLUS_SOURCE_DIR) / "examples" / "pppoe-plus.xml";

// Runs a command through the shell; its exit status and what it printed.
std::pair<int, std::string> RunShell(const std::string &command)
{
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {-1, "popen failed"};
    }
    std::array<char, 512> chunk{};
    while (fgets(chunk.data(), static_cast<int>(chunk.size()), pipe) != nullptr) {
        output += chunk.data();
    }
    return {pclose(pipe), output};
}

TEST(YangModel, YanglintAcceptsTheModulesAndTheExample)
{
    auto [found, where] = RunShell("command -v yanglint");
    ASSERT_EQ(found, 0) << "yanglint is not installed (Debian package libyang-tools)";

    std::string modules;
    for (const auto &entry : std::filesystem::directory_iterator(kYangDir)) {
        if (entry.path().extension() == ".yang") {
            modules += " '" + entry.path().string() + "'";
        }
    }
    ASSERT_FALSE(modules.empty());
    const std::string yanglint = "yanglint -p '" + kYangDir.string() + "'";

    auto [schemaRc, schemaOut] = RunShell(yanglint + modules);
    EXPECT_EQ(schemaRc, 0) << schemaOut;
    // Warnings count as faults too: a clean model prints nothing.
    EXPECT_EQ(schemaOut, "");

    auto [dataRc, dataOut] = RunShell(yanglint + " -t config" + modules + " '" + kExample.string() + "'");
    EXPECT_EQ(dataRc, 0) << dataOut;
    EXPECT_EQ(dataOut, "");
}
}  // namespace
