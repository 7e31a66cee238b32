#include "sealkit_names.h"

#include <ws2tcpip.h>

#include <map>
#include <mutex>

namespace sealkit {

namespace {

std::mutex g_namesLock;
std::map<std::string, std::wstring> g_names;   // "address port" -> name

// "address port" of a peer, the address without port or scope; empty for
// another family.
std::string PeerKey(const sockaddr* peer, int length, std::string& addressText)
{
    char host[NI_MAXHOST] = {};
    char port[NI_MAXSERV] = {};
    if (peer == nullptr || (peer->sa_family != AF_INET && peer->sa_family != AF_INET6) ||
        getnameinfo(peer, length, host, sizeof(host), port, sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return std::string();
    addressText = host;
    size_t scope = addressText.find('%');
    if (scope != std::string::npos)
        addressText.erase(scope);
    return addressText + " " + port;
}

}  // namespace

bool ExpectServerName(const sockaddr* peer, int length, const std::wstring& name)
{
    std::string addressText;
    std::string key = PeerKey(peer, length, addressText);
    if (key.empty())
        return false;
    std::lock_guard<std::mutex> guard(g_namesLock);
    if (name.empty())
        g_names.erase(key);
    else
        g_names[key] = name;
    return true;
}

std::wstring ExpectedServerName(SOCKET socket, std::string& peerText)
{
    sockaddr_storage peer = {};
    int length = sizeof(peer);
    peerText.clear();
    if (getpeername(socket, (sockaddr*)&peer, &length) != 0)
        return std::wstring();
    std::string key = PeerKey((const sockaddr*)&peer, length, peerText);
    std::lock_guard<std::mutex> guard(g_namesLock);
    auto it = g_names.find(key);
    return it != g_names.end() ? it->second : std::wstring();
}

}  // namespace sealkit
