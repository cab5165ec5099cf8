// The SSH side of the NETCONF server: the listening address, the host key
// (generated when the switch has none) and the authorized_keys file that
// public-key logins are checked against.
#include "ssh_keys.hpp"

#include <device/netconf.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace device::netconf {

bool ParseListen(const std::string &text, std::string *address, uint16_t *port)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        return false;
    }
    std::string host = text.substr(0, colon);
    if (host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string digits = text.substr(colon + 1);
    unsigned value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec != std::errc() || end != digits.data() + digits.size() || value > 65535 || host.empty()) {
        return false;
    }
    *address = host;
    *port = static_cast<uint16_t>(value);
    return true;
}

bool PickFreePort(const std::string &address, uint16_t *port, std::string *error)
{
    struct addrinfo hints {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    struct addrinfo *found = nullptr;
    if (getaddrinfo(address.c_str(), "0", &hints, &found) != 0 || found == nullptr) {
        *error = "not a numeric address: " + address;
        return false;
    }
    const int fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_storage bound {};
    socklen_t length = sizeof bound;
    const bool ok = fd >= 0 && ::bind(fd, found->ai_addr, found->ai_addrlen) == 0 &&
                    ::getsockname(fd, reinterpret_cast<struct sockaddr *>(&bound), &length) == 0;
    const int saved = errno;
    freeaddrinfo(found);
    if (fd >= 0) {
        ::close(fd);
    }
    if (!ok) {
        *error = "cannot bind to " + address + ": " + std::strerror(saved);
        return false;
    }
    *port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<struct sockaddr_in6 *>(&bound)->sin6_port
                                              : reinterpret_cast<struct sockaddr_in *>(&bound)->sin_port);
    return true;
}

bool EnsureHostKey(const std::string &path, bool *generated, std::string *error)
{
    std::error_code ec;
    *generated = false;
    if (std::filesystem::exists(path, ec)) {
        return true;
    }
    const auto dir = std::filesystem::path(path).parent_path();
    if (!dir.empty()) {
        std::filesystem::create_directories(dir, ec);
    }
    ssh_key key = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &key) != SSH_OK) {
        *error = "cannot generate a host key";
        return false;
    }
    // Written beside its place, made private, then moved there whole.
    const std::string temp = path + ".tmp";
    ::unlink(temp.c_str());
    const int rc = ssh_pki_export_privkey_file(key, nullptr, nullptr, nullptr, temp.c_str());
    ssh_key_free(key);
    if (rc != SSH_OK || ::chmod(temp.c_str(), 0600) != 0 || ::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        *error = "cannot write the host key " + path;
        return false;
    }
    *generated = true;
    return true;
}

bool AuthorizedKeyMatches(const std::string &authorizedKeysPath, const ssh_key key)
{
    std::ifstream in(authorizedKeysPath);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string word;
        // Options may stand before the key type; the type is the first word
        // libssh knows, the base64 key the word after it.
        while (words >> word && word[0] != '#') {
            const enum ssh_keytypes_e type = ssh_key_type_from_name(word.c_str());
            if (type == SSH_KEYTYPE_UNKNOWN) {
                continue;
            }
            std::string base64;
            ssh_key candidate = nullptr;
            const bool match = static_cast<bool>(words >> base64) &&
                               ssh_pki_import_pubkey_base64(base64.c_str(), type, &candidate) == SSH_OK &&
                               ssh_key_cmp(candidate, key, SSH_KEY_CMP_PUBLIC) == 0;
            ssh_key_free(candidate);
            if (match) {
                return true;
            }
            break;
        }
    }
    return false;
}

}  // namespace device::netconf
